#include "screen.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "masking.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

constexpr size_t keptLines = 1000;
constexpr size_t linesSaid = 3; // room for what was said last
constexpr std::chrono::milliseconds shortest{40};
constexpr std::chrono::seconds shownWhole{8};

std::string row(size_t number, const std::string &text)
{
    // cleared first: behind the last column it would take that away
    return "\033[" + std::to_string(number) + ";1H\033[K" + text + "\033[0m";
}

} // namespace

bool Screen::possible()
{
    const char *name = std::getenv("TERM"); // NOLINT(concurrency-mt-unsafe): there is one thread yet
    return name != nullptr && *name != '\0' && std::string(name) != "dumb";
}

Screen::~Screen()
{
    try
    {
        leave();
    }
    catch (const std::exception &) // nobody reads it
    {
        return;
    }
}

void Screen::leave()
{
    const std::scoped_lock lock(m_mutex);
    if (std::exchange(m_left, true))
    {
        return;
    }
    if (m_forgotten > 0)
    {
        m_report.event("told", "(left out: " + counted(m_forgotten, "earlier line", "earlier lines") + ")", nullptr);
    }
    for (const std::string &text : m_said)
    {
        m_report.event("told", text, nullptr);
    }
}

void Screen::event(const std::string &name, const std::string &text, const Fields &fields)
{
    const std::scoped_lock lock(m_mutex);
    if (m_left)
    {
        return m_report.event(name, text, fields);
    }
    m_said.push_back(harmless(shown(text)));
    m_lastSaid = Clock::now();
    if (m_said.size() > keptLines)
    {
        m_said.pop_front();
        ++m_forgotten;
    }
    if (Clock::now() >= m_lastDrawn + shortest) // else with the next status
    {
        draw();
    }
}

void Screen::status(const Status &now)
{
    const std::scoped_lock lock(m_mutex);
    m_status = (now.done ? bar(*now.done) : "") + harmless(shown(now.text));
    draw();
}

void Screen::failure(const Failure &what)
{
    event("failed", what.what(), nullptr);
}

TerminalSize Screen::bodySize()
{
    const TerminalSize size = terminalSize();
    return {size.columns, size.rows > linesSaid + 2 ? size.rows - linesSaid - 1 : 1};
}

void Screen::body(std::vector<std::string> rows)
{
    const std::scoped_lock lock(m_mutex);
    m_body = std::move(rows);
    draw();
}

/// @param free  rows above the last one that the body does without
std::string Screen::drawnMessages(const TerminalSize &size, size_t free) const
{
    const auto rowsOf = [&](const std::string &said) {
        std::vector<std::string> rows;
        for (const std::string &line : linesOf(said))
        {
            const std::vector<std::string> more = wrapped(line, size.columns);
            rows.insert(rows.end(), more.begin(), more.end());
        }
        return rows;
    };
    // what was said last is shown whole, over the body if it takes more
    const size_t last = m_said.empty() || Clock::now() > m_lastSaid + shownWhole ? 0 : rowsOf(m_said.back()).size();
    const size_t room = std::min(std::max({last, linesSaid, free}), size.rows - 1);
    std::vector<std::string> lines;
    for (auto said = m_said.rbegin(); said != m_said.rend() && lines.size() < room; ++said)
    {
        const std::vector<std::string> more = rowsOf(*said);
        lines.insert(lines.begin(), more.begin(), more.end());
    }
    const size_t from = lines.size() > room ? lines.size() - room : 0;
    std::string text;
    for (size_t i = 0; i < room; ++i)
    {
        text += row(size.rows - room + i, from + i < lines.size() ? lines[from + i] : "");
    }
    return text;
}

std::string Screen::drawn(const TerminalSize &size) const
{
    std::string text;
    const size_t bodyRows = size.rows > linesSaid + 1 ? size.rows - linesSaid - 1 : 0;
    const bool image = m_body.size() == 1;
    const size_t used = image ? bodyRows : std::min(m_body.size() + 1, bodyRows); // with an empty one below
    for (size_t i = 0; i < used && !image; ++i)
    {
        text += row(i + 1, i < m_body.size() ? m_body[i] : "");
    }
    text += image && bodyRows > 0 ? "\033[1;1H" + m_body.front() : "";
    return text + drawnMessages(size, size.rows - 1 - used) + row(size.rows, "\033[7m" + cut(m_status, size.columns));
}

void Screen::draw()
{
    if (!TerminalMode::taken())
    {
        return;
    }
    const TerminalSize size = terminalSize();
    const bool resized = size.columns != m_drawnFor.columns || size.rows != m_drawnFor.rows;
    m_drawnFor = size;
    const std::string text = (resized ? "\033[2J" : "") + drawn(size);
    std::fwrite(text.data(), 1, text.size(), stdout);
    flushOutput();
    m_lastDrawn = Clock::now();
}

} // namespace zr::host
