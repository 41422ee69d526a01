/// @file
/// What the program says, for people or for programs.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "failure.h"

namespace zr::host {

using Fields = nlohmann::ordered_json;

/// Where things stand, said again and again.
// NOLINTNEXTLINE(bugprone-exception-escape): its move is the JSON library's, whose checks the linter takes for throws
struct Status
{
    std::string name;                          ///< for programs, such as "progress"
    std::string text;                          ///< for people
    Fields fields;                             ///< for programs
    bool lines = false;                        ///< also where there is no terminal, as a line every few seconds
    std::optional<double> done = std::nullopt; ///< from 0 to 1, for a progress bar
};

/// How something that was tried went.
enum class Verdict
{
    Ok,
    Failed,
    Skipped
};

const char *word(Verdict verdict);

/// A row of a table of what was tried.
struct Row
{
    std::string step;
    Verdict verdict;
    std::string text;   ///< what was found, or the cause
    std::string advice; ///< of a failed step
};

/// The text without what could steer a terminal, but for ends of lines.
std::string harmless(std::string text);

std::vector<std::string> linesOf(const std::string &text);

/// The text as lines of at most so many columns, broken between words where that can be; one at least.
/// @param whole  longer words, such as URLs, are not broken: their lines are longer
std::vector<std::string> wrapped(const std::string &text, size_t columns, bool whole = false);

/// So much of a text in UTF-8 as fits into so many columns of one character each.
std::string cut(const std::string &text, size_t columns);

/// Such as "1 packet" or "2 packets".
std::string counted(uint64_t number, const std::string &one, const std::string &many);

/// From 0 to 1.
std::string bar(double done);

/// Of a terminal, in characters; what is unknown is 80 and 24.
struct TerminalSize
{
    size_t columns = 80;
    size_t rows = 24;
};
TerminalSize terminalSize(int terminal = STDOUT_FILENO);

/// @throws Failure  when what was written to stdout does not arrive: nobody is left to play for then
void flushOutput();

/// What servers sent may stand in any text: it is made harmless for terminals and for JSON by reports, and only there;
/// there, too, secrets become "***" (see masking.h).
/// Any thread may call.
class Report
{
public:
    virtual ~Report() = default;

    /// What a server sent is wanted as it came: byte for byte, where no terminal would be steered by it. Nothing is
    /// masked.
    /// @param fields  for programs
    virtual void verbatim(const std::string &name, const std::string &bytes, const Fields &fields)
    {
        event(name, bytes, fields);
    }
    /// Something happened.
    /// @param name    for programs, such as "set_up"
    /// @param text    for people
    /// @param fields  for programs; an object or null
    virtual void event(const std::string &name, const std::string &text, const Fields &fields) = 0;
    /// Something was tried: an event whose text is a row of a table; on a terminal it fits into its columns, and begins
    /// with a coloured word (unless NO_COLOR is in the environment).
    virtual void judged(const std::string &name, const Row &row, const Fields &fields);
    /// Something to beware of: for people on stderr.
    virtual void warning(const std::string &name, const std::string &text, const Fields &fields)
    {
        event(name, text, fields);
    }
    /// Lines that are no part of what the command says, on stderr.
    virtual void aside(const std::string &) {}
    virtual void status(const Status &now) = 0;
    /// What is waited for, said again and again: for people at a terminal.
    virtual void waiting(const std::string &) {}
    /// Throws nothing where the others do: that stdout cannot be written is a Failure of theirs.
    virtual void failure(const Failure &what) = 0;
};

/// @param json  one JSON object a line on stdout; else lines for people, failures on stderr, and on a terminal a status
///              line that is written again and again
std::unique_ptr<Report> makeReport(bool json);

} // namespace zr::host
