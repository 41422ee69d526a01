#include "watch_table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "screen.h"

namespace zr::host {
namespace {

const char *colourOf(StreamState state)
{
    switch (state)
    {
    case StreamState::Alive:
        return "\033[32m";
    case StreamState::Lost:
    case StreamState::Failed:
        return "\033[31m";
    case StreamState::Silent:
    case StreamState::Connecting:
        break;
    }
    return "\033[33m";
}

std::string timeText(std::chrono::system_clock::time_point time, bool utc)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm day{};
    utc ? gmtime_r(&seconds, &day) : localtime_r(&seconds, &day);
    const auto age = std::chrono::system_clock::now() - time;
    const char *format = utc                             ? "%Y-%m-%dT%H:%M:%SZ"
                         : age < std::chrono::hours(20)  ? "%H:%M:%S"
                         : age < std::chrono::hours(150) ? "%a %H:%M" // within a week
                                                         : "%d %b %y";
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), format, &day);
    return text.data();
}

std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return harmless(text);
}

std::string numbersOf(const StreamFacts &stream)
{
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%4zu %-10s  %-9s %7ld %6llu  ", stream.number, word(stream.state),
                  timeText(stream.since, false).c_str(), std::lround(stream.kilobitsPerSecond),
                  static_cast<unsigned long long>(stream.lost));
    return text.data();
}

std::string titleOf(const StreamFacts &stream)
{
    return oneLine(stream.name + (stream.name.empty() ? "" : "  ") + stream.url);
}

/// With the reason below the URL, as long as there is room for all.
/// @return nothing else
std::vector<std::string> roomyRows(const StreamFacts &stream, TerminalSize room)
{
    const std::string indent(5, ' ');
    std::vector<std::string> rows = {cut(numbersOf(stream) + titleOf(stream), room.columns)};
    const bool narrow = room.columns < 2 * indent.size();
    for (const std::string &line :
         wrapped(oneLine(stream.reason), narrow ? room.columns : room.columns - indent.size()))
    {
        if (!line.empty())
        {
            rows.push_back(indent + line);
        }
    }
    return rows;
}

/// A reason without room is worth more than the URL, whose stream its number tells; and it than its step.
std::string shortRow(const StreamFacts &stream, TerminalSize room)
{
    const std::string numbers = numbersOf(stream);
    const std::string title = titleOf(stream);
    std::string reason = oneLine(stream.reason);
    if (reason.empty() || numbers.size() + title.size() + 2 + reason.size() <= room.columns)
    {
        return cut(numbers + title + (reason.empty() ? "" : "  " + reason), room.columns);
    }
    constexpr const char *failed = " failed: "; // as the state tells
    const size_t step = reason.find(failed);
    reason.erase(0, step == std::string::npos ? 0 : step + std::strlen(failed));
    const std::string name = stream.name.empty() ? "" : oneLine(stream.name) + ": ";
    return cut(numbers + name + reason + "  " + oneLine(stream.url), room.columns);
}

} // namespace

std::vector<std::string> streamTable(const std::vector<StreamFacts> &streams, size_t from, TerminalSize room)
{
    static const bool coloured = std::getenv("NO_COLOR") == nullptr; // NOLINT(concurrency-mt-unsafe): nobody sets it
    const std::string head = "\033[1m" + cut("   # STATE       SINCE      KBIT/S   LOST  STREAM", room.columns);
    const auto colour = [&](const StreamFacts &stream) { return coloured ? colourOf(stream.state) : ""; };
    std::vector<std::string> rows = {head};
    for (size_t i = 0; i < streams.size() && rows.size() <= room.rows; ++i)
    {
        for (const std::string &text : roomyRows(streams[i], room))
        {
            rows.push_back(colour(streams[i]) + text);
        }
    }
    if (rows.size() <= room.rows)
    {
        return rows;
    }
    rows = {head};
    for (size_t i = from; i < streams.size() && rows.size() < room.rows; ++i)
    {
        rows.push_back(colour(streams[i]) + shortRow(streams[i], room));
    }
    return rows;
}

Fields streamFields(const StreamFacts &stream)
{
    return {{"stream", stream.number},
            {"url", stream.url},
            {"name", stream.name},
            {"state", word(stream.state)},
            {"since", timeText(stream.since, true)},
            {"reason", stream.reason},
            {"kbit_per_s", stream.kilobitsPerSecond},
            {"packets", stream.packets},
            {"bytes", stream.bytes},
            {"lost", stream.lost},
            {"jitter_ms", stream.jitterMs},
            {"sessions", stream.sessions}};
}

} // namespace zr::host
