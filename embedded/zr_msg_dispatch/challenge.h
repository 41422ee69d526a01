/// @file
/// The challenges of a 401 answer (RFC 7235, 4.1; RFC 2326, 12.44). Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "rtsp_message.h"

namespace zr::rtsp {

struct Challenge
{
    std::string scheme;
    std::vector<Header> parameters; ///< quoted values without their quotes and escapes

    /// A parameter's value; empty when there is none.
    std::string value(std::string_view name) const;
};

/// All of them in the server's order, of one header or several.
std::vector<Challenge> readChallenges(const Message &response);

} // namespace zr::rtsp
