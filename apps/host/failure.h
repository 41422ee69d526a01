/// @file
/// What went wrong, as data; its words are made in one place.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "zr_types.h"

namespace zr::host {

/// The program's exit codes. They are told in options_help.cpp: keep both together.
enum class ExitCode
{
    Ok = 0,            ///< what was asked for was done
    Internal = 1,      ///< none of the others
    Usage = 2,         ///< wrong options
    Unreachable = 3,   ///< no connection, no trust in who answers, or no answer
    Credentials = 4,   ///< the server wants credentials, or other ones
    Refused = 5,       ///< the server refused a request, or its description cannot be used
    NoMedia = 6,       ///< nothing arrived, or it stopped
    Output = 7,        ///< a picture or a recording could not be written
    Lost = 8,          ///< the server ended the session or died; not every stream was alive at the end (watch)
    Interrupted = 130, ///< by Ctrl-C (128 and SIGINT)
    Terminated = 143   ///< by SIGTERM, likewise
};

/// The program cannot go on.
class Failure : public std::runtime_error
{
public:
    /// @param step    what was being done, such as "describe"
    /// @param code    the plug-in's or platform's code, or the server's status; 0: none
    /// @param advice  what to try next; may be empty
    Failure(ExitCode exit, const std::string &step, ZR_ULONG code, const std::string &meaning,
            const std::string &advice = {});

    ExitCode exit() const { return m_exit; }
    const std::string &step() const { return m_step; }
    ZR_ULONG code() const { return m_code; }
    const std::string &meaning() const { return m_meaning; }
    const std::string &advice() const { return m_advice; }

private:
    ExitCode m_exit;
    std::string m_step;
    ZR_ULONG m_code;
    std::string m_meaning;
    std::string m_advice;
};

/// @param code  what an operation of the plug-in or the platform returned, or the server's status
/// @param text  what the server or the platform says of it; may be empty
Failure requestFailed(const std::string &step, ZR_ULONG code, const std::string &text = {});

/// A recording or a picture that could not be written.
/// @param code  what the platform's operation returned
Failure notWritten(const std::string &what, const std::string &file, ZR_ULONG code);

/// A request that nothing came back to, although there is a connection.
/// @param code    what the plug-in's operation returned
/// @param waited  how long
/// @param everAnswered  the server answered an earlier one
/// @param tunnelled     it went by a tunnel in HTTP
Failure notAnswered(const std::string &step, ZR_ULONG code, std::chrono::seconds waited, bool everAnswered,
                    bool tunnelled);

/// A request that failed with its connection.
/// @param problem  a tagZrConnectionProblem
/// @param text     what happened, in the platform's words
/// @param played   it was that of a session that played
Failure connectionFailed(const std::string &step, ZR_ULONG code, ZR_ULONG problem, const std::string &text,
                         bool played);

/// A command line that cannot be followed. The program advises to read the help of its command.
Failure wrongUsage(const std::string &meaning);

} // namespace zr::host
