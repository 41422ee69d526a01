/// @file
/// The RTSP messages on the wire, for people.
#pragma once

#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
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

    struct Answer
    {
        int status = 0;    ///< 0: there is none yet
        std::string range; ///< headers (RFC 2326, 12.29, 12.34 and 12.35); empty: it has none
        std::string scale;
        std::string speed;
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
    /// How the latest request of this method was answered.
    /// @return nothing when none was kept
    std::optional<Answer> answerTo(const std::string &method) const;
    /// In front of the next request: answerTo() tells of that then, not of one before.
    void forget(const std::string &method);
    /// Messages of servers so far, also those that could not be read.
    size_t received() const;

private:
    /// The latest request of a method.
    struct Asked
    {
        ZR_ULONG session;
        unsigned long number; ///< CSeq
        Answer answer;
    };

    void begin();
    void tell(const ZrTraceEvent &event);
    void watchAnswers(const ZrTraceEvent &event, const std::string &message);

    Report &m_report;
    bool m_begun = false;

    mutable std::mutex m_mutex; ///< guards what follows; held while a line is written to the file, not to the report
    bool m_shown = false;
    bool m_keeps = false;
    std::ofstream m_file;
    std::vector<Lines> m_kept;
    size_t m_keptBytes = 0;
    size_t m_received = 0;
    std::map<std::string, Asked> m_asked; ///< by method
};

} // namespace zr::host
