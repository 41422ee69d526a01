#include "report.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <sstream>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include "masking.h"

namespace zr::host {
namespace {

constexpr size_t anyWidth = std::numeric_limits<size_t>::max();
constexpr size_t verdictWidth = 8;
constexpr size_t stepWidth = 20;

/// A text behind another one, on lines of so many columns; those from the second on begin further in.
std::string hanging(const std::string &before, const std::string &text, size_t columns, size_t indent,
                    bool whole = false)
{
    constexpr size_t least = 20;
    const auto room = [columns](size_t used) { return columns < used + least ? least : columns - used; };
    const size_t used = std::max(before.size(), indent);
    std::string out = before;
    std::string between;
    for (const std::string &line : wrapped(text, room(used), whole))
    {
        out += between + line;
        between = "\n" + std::string(indent, ' ');
    }
    return out;
}

/// Lines that a terminal would break in the midst of words are broken between them.
std::string folded(const std::string &text, size_t columns)
{
    constexpr size_t further = 4;
    std::string out;
    for (const std::string &line : linesOf(text))
    {
        const size_t indent = std::min(line.find_first_not_of(' '), line.size());
        const bool fits = cut(line, columns).size() == line.size();
        out += (out.empty() ? "" : "\n") +
               (fits ? line : hanging(line.substr(0, indent), line.substr(indent), columns, indent + further, true));
    }
    return out;
}

/// Behind the verdict.
std::string rowText(const Row &row, size_t columns)
{
    constexpr size_t indent = verdictWidth + stepWidth;
    const std::string padding(stepWidth - std::min(stepWidth - 1, row.step.size()), ' ');
    const std::string before = std::string(verdictWidth, ' ') + row.step + padding;
    std::string text = hanging(before, row.text, columns, indent).substr(verdictWidth);
    if (!row.advice.empty())
    {
        text += "\n" + hanging(std::string(indent, ' ') + "try: ", row.advice, columns, indent);
    }
    return text;
}

/// What is printed on stdout. One thread at a time.
class Output
{
public:
    void flush()
    {
        try
        {
            errno = 0;
            flushOutput();
        }
        catch (const Failure &)
        {
            m_abandoned = m_abandoned || errno == EPIPE;
            throw;
        }
    }

    void line(const std::string &text)
    {
        std::printf("%s\n", text.c_str());
        flush();
    }

    /// Tells on stderr what ends the program. Whoever read stdout and went needs no word about that.
    void complain(const Failure &what) const
    {
        if (m_abandoned && what.exit() == ExitCode::Output)
        {
            return;
        }
        tell("zr_rtsp_host: ", what.what());
        if (!what.advice().empty())
        {
            tell("  try: ", what.advice());
        }
    }

    /// On stderr.
    static void tell(const std::string &before, const std::string &text)
    {
        const size_t columns = isatty(STDERR_FILENO) == 1 ? terminalSize(STDERR_FILENO).columns - 1 : anyWidth;
        std::fprintf(stderr, "%s\n", harmless(hanging(before, text, columns, 7)).c_str());
    }

private:
    bool m_abandoned = false; ///< whoever read it is gone
};

class TextReport : public Report
{
public:
    void event(const std::string &, const std::string &text, const Fields &) override
    {
        print(m_terminal ? folded(text, terminalSize().columns) : text);
    }

    void verbatim(const std::string &, const std::string &bytes, const Fields &) override
    {
        if (m_terminal)
        {
            std::string text = bytes;
            text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
            text.erase(text.find_last_not_of('\n') + 1);
            return print(text);
        }
        const std::scoped_lock lock(m_mutex);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        m_out.flush();
    }

    void warning(const std::string &, const std::string &text, const Fields &) override
    {
        const std::scoped_lock lock(m_mutex);
        clearStatus();
        std::fflush(stdout);
        Output::tell("warning: ", text);
    }

    void aside(const std::string &text) override
    {
        const std::scoped_lock lock(m_mutex);
        clearStatus();
        std::fflush(stdout);
        std::fprintf(stderr, "%s\n", harmless(text).c_str());
    }

    void judged(const std::string &, const Row &row, const Fields &) override
    {
        const std::scoped_lock lock(m_mutex);
        clearStatus();
        const char *colour = !m_coloured                      ? ""
                             : row.verdict == Verdict::Ok     ? "\033[32m"
                             : row.verdict == Verdict::Failed ? "\033[31m"
                                                              : "\033[33m";
        std::printf("%s%-7s%s ", colour, word(row.verdict), m_coloured ? "\033[0m" : "");
        m_out.line(harmless(rowText(row, m_terminal ? terminalSize().columns - 1 : anyWidth)));
    }

    void status(const Status &now) override
    {
        const std::scoped_lock lock(m_mutex);
        if (m_terminal)
        {
            clearStatus();
            // a line that wraps could not be written over
            const std::string line =
                cut((now.done ? bar(*now.done) : "") + harmless(now.text), terminalSize().columns - 1);
            std::printf("%s", line.c_str());
            m_out.flush();
            m_status = line.size();
        }
        else if (now.lines && Clock::now() >= m_lastLine + betweenLines)
        {
            m_lastLine = Clock::now();
            m_out.line(harmless(now.text));
        }
    }

    void waiting(const std::string &text) override
    {
        if (m_terminal)
        {
            status({"waiting", text, nullptr});
        }
    }

    void failure(const Failure &what) override
    {
        const std::scoped_lock lock(m_mutex);
        clearStatus();
        std::fflush(stdout); // whatever becomes of it, the failure is told
        m_out.complain(what);
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds betweenLines{4500};

    void print(const std::string &text)
    {
        const std::scoped_lock lock(m_mutex);
        clearStatus();
        m_out.line(harmless(text));
    }

    void clearStatus()
    {
        if (m_status > 0)
        {
            // in a terminal that was made narrower it takes several lines by now
            const size_t above = (m_status - 1) / terminalSize().columns;
            std::printf(above > 0 ? "\r\033[%zuA\033[J" : "\r\033[K", above);
            m_status = 0;
        }
    }

    std::mutex m_mutex; ///< guards the terminal and what follows
    Output m_out;
    const bool m_terminal = isatty(STDOUT_FILENO) == 1;
    const bool m_coloured =
        m_terminal && std::getenv("NO_COLOR") == nullptr; // NOLINT(concurrency-mt-unsafe): there is one thread yet
    size_t m_status = 0;                                  ///< characters of the status line that ends at the cursor
    Clock::time_point m_lastLine = Clock::now();          ///< of a status
};

class JsonReport : public Report
{
public:
    void event(const std::string &name, const std::string &text, const Fields &fields) override
    {
        Fields line{{"event", name}, {"text", text}};
        if (fields.is_object())
        {
            line.update(fields);
        }
        const std::scoped_lock lock(m_mutex);
        m_out.line(line.dump(-1, ' ', false, Fields::error_handler_t::replace));
    }

    void aside(const std::string &text) override { std::fprintf(stderr, "%s\n", harmless(text).c_str()); }
    void status(const Status &now) override { event(now.name, now.text, now.fields); }

    void failure(const Failure &what) override
    {
        try
        {
            event("error", what.what(),
                  {{"step", what.step()},
                   {"code", what.code()},
                   {"exit_code", static_cast<int>(what.exit())},
                   {"advice", what.advice()}});
        }
        catch (const Failure &)
        {
            const std::scoped_lock lock(m_mutex);
            m_out.complain(what);
        }
    }

private:
    std::mutex m_mutex; ///< guards stdout
    Output m_out;
};

/// Whatever a server repeats, no secret goes on. Any thread.
class MaskedReport : public Report
{
public:
    explicit MaskedReport(std::unique_ptr<Report> printed)
        : m_printed(std::move(printed))
    {
    }

    void verbatim(const std::string &name, const std::string &bytes, const Fields &fields) override
    {
        m_printed->verbatim(name, bytes, fields);
    }
    void event(const std::string &name, const std::string &text, const Fields &fields) override
    {
        m_printed->event(name, shown(text), masked(fields));
    }
    void judged(const std::string &name, const Row &row, const Fields &fields) override
    {
        m_printed->judged(name, {shown(row.step), row.verdict, shown(row.text), shown(row.advice)}, masked(fields));
    }
    void warning(const std::string &name, const std::string &text, const Fields &fields) override
    {
        m_printed->warning(name, shown(text), masked(fields));
    }
    void aside(const std::string &text) override { m_printed->aside(shown(text)); }
    void status(const Status &now) override
    {
        m_printed->status({now.name, shown(now.text), masked(now.fields), now.lines, now.done});
    }
    void waiting(const std::string &text) override { m_printed->waiting(shown(text)); }
    void failure(const Failure &what) override
    {
        m_printed->failure(
            Failure(what.exit(), shown(what.step()), what.code(), shown(what.meaning()), shown(what.advice())));
    }

private:
    /// With masked values; names are the program's own.
    static Fields masked(Fields fields)
    {
        if (fields.is_string())
        {
            return shown(fields.get_ref<const std::string &>());
        }
        if (fields.is_structured())
        {
            for (Fields &value : fields)
            {
                value = masked(std::move(value));
            }
        }
        return fields;
    }

    const std::unique_ptr<Report> m_printed;
};

} // namespace

// Also control characters above 7f (in UTF-8 their first byte is c2) could steer a terminal.
std::string harmless(std::string text)
{
    for (size_t i = 0; i < text.size(); ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool highControl = byte == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if ((byte < 0x20 && byte != '\n') || byte == 0x7f || highControl)
        {
            text[i] = '?';
        }
    }
    return text;
}

std::vector<std::string> linesOf(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> wrapped(const std::string &text, size_t columns, bool whole)
{
    std::vector<std::string> lines;
    for (std::string rest : linesOf(text))
    {
        for (std::string fits = cut(rest, columns); fits.size() < rest.size(); fits = cut(rest, columns))
        {
            const size_t blank = rest[fits.size()] == ' ' ? fits.size() : fits.rfind(' ');
            const bool words = blank != std::string::npos && rest.find_first_not_of(' ') < blank;
            const size_t next = whole ? std::min(rest.find(' ', fits.size()), rest.size()) : fits.size();
            const size_t end = words ? blank : std::max<size_t>(next, 1);
            lines.push_back(rest.substr(0, end));
            rest.erase(0, std::min(rest.find_first_not_of(' ', end), rest.size()));
        }
        if (!rest.empty())
        {
            lines.push_back(rest);
        }
    }
    return lines.empty() ? std::vector<std::string>{""} : lines;
}

std::string cut(const std::string &text, size_t columns)
{
    size_t used = 0;
    for (size_t i = 0; i < text.size(); ++i)
    {
        const bool begins = (static_cast<unsigned char>(text[i]) & 0xc0) != 0x80; // not within a character
        if (begins && used++ == columns)
        {
            return text.substr(0, i);
        }
    }
    return text;
}

std::string counted(uint64_t number, const std::string &one, const std::string &many)
{
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

std::string bar(double done)
{
    constexpr size_t width = 24;
    const auto full = static_cast<size_t>(std::lround(std::clamp(done, 0.0, 1.0) * width));
    return "[" + std::string(full, '#') + std::string(width - full, '.') + "] ";
}

TerminalSize terminalSize(int terminal)
{
    winsize size{};
    return ioctl(terminal, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && size.ws_row > 1
               ? TerminalSize{size.ws_col, size.ws_row}
               : TerminalSize{};
}

void flushOutput()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    {
        throw Failure(ExitCode::Output, "printing", 0, "stdout cannot be written");
    }
}

const char *word(Verdict verdict)
{
    return verdict == Verdict::Ok ? "ok" : verdict == Verdict::Failed ? "failed" : "skipped";
}

void Report::judged(const std::string &name, const Row &row, const Fields &fields)
{
    event(name, word(row.verdict) + (" " + rowText(row, anyWidth)), fields);
}

std::unique_ptr<Report> makeReport(bool json)
{
    std::unique_ptr<Report> printed;
    if (json)
    {
        printed = std::make_unique<JsonReport>();
    }
    else
    {
        printed = std::make_unique<TextReport>();
    }
    return std::make_unique<MaskedReport>(std::move(printed));
}

} // namespace zr::host
