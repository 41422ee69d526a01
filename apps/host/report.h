/// @file
/// What the program says, for people or for programs.
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "failure.h"

namespace zr::host {

using Fields = nlohmann::ordered_json;

/// Where a session stands, said again and again.
struct Progress
{
    std::string state;
    double seconds = 0; ///< of media
    double kilobitsPerSecond = 0;
    uint64_t packets = 0;
    uint64_t lost = 0;
};

/// What servers sent may stand in any text: it is made harmless for terminals and for JSON here, and only here.
class Report
{
public:
    virtual ~Report() = default;

    /// Something happened.
    /// @param name    for programs, such as "set_up"
    /// @param text    for people
    /// @param fields  for programs; an object or null
    virtual void event(const std::string &name, const std::string &text, const Fields &fields) = 0;
    virtual void progress(const Progress &now) = 0;
    virtual void failure(const Failure &what) = 0;
};

/// @param json  one JSON object a line on stdout; else lines for people, failures on stderr, and on a terminal a status
///              line that is written again and again
std::unique_ptr<Report> makeReport(bool json);

} // namespace zr::host
