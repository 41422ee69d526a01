/// @file
/// The RTSP messages on the wire, for people.
#pragma once

#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "report.h"
#include "zr_platform.h"

namespace zr::host {

/// At most one is shown or kept at a time. While it lives the report and it stay where they are.
class Trace
{
public:
    /// One event, as lines with the time, the session's number, and the direction: > sent, < received, * what happened.
    struct Lines
    {
        ZR_ULONG kind; ///< a tagZrTraceKind
        std::string text;
    };

    explicit Trace(Report &report)
        : m_report(report)
    {
    }
    /// Ends it, when all that went over the wire is shown.
    ~Trace();
    Trace(const Trace &) = delete;
    Trace &operator=(const Trace &) = delete;

    /// Shows all from now on.
    /// @param file  it is appended to; empty: on stderr
    /// @throws Failure  Output
    void show(const std::string &file);
    /// Keeps all from now on as well.
    /// @throws Failure  Internal
    void keep();
    /// What was kept so far; when there is too much, its beginning.
    std::vector<Lines> kept() const;
    /// The status that the latest TEARDOWN was answered with; 0: not yet; none: none was kept.
    std::optional<int> tornDown() const;
    /// In front of the next session's end: tornDown() tells of that then, not of a session before.
    void forgetTeardown();
    /// Messages of servers so far, also those that could not be read.
    size_t received() const;

private:
    void begin();
    void tell(const ZrTraceEvent &event);
    void watchTeardown(const ZrTraceEvent &event, const std::string &message);

    Report &m_report;
    bool m_begun = false;

    mutable std::mutex m_mutex; ///< guards what follows; held while a line is written to the file, not to the report
    bool m_shown = false;
    bool m_keeps = false;
    std::ofstream m_file;
    std::vector<Lines> m_kept;
    size_t m_keptBytes = 0;
    size_t m_received = 0;
    std::pair<ZR_ULONG, std::string> m_teardown; ///< session and CSeq
    std::optional<int> m_tornDown;
};

} // namespace zr::host
