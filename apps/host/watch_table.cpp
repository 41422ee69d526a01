#include "watch_table.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace zr::host {
namespace {

const char *colourOf(StreamState state)
{
    switch (state)
    {
    case StreamState::Alive:
        return "\033[32m";
    case StreamState::Lost:
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
    const bool old = std::chrono::system_clock::now() - time > std::chrono::hours(20);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), utc ? "%Y-%m-%dT%H:%M:%SZ" : old ? "%d %b %H:%M" : "%H:%M:%S", &day);
    return text.data();
}

std::string rowOf(const StreamFacts &stream)
{
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%4zu  %-10s  %-12s  %7ld  %7llu  ", stream.number, word(stream.state),
                  timeText(stream.since, false).c_str(), std::lround(stream.kilobitsPerSecond),
                  static_cast<unsigned long long>(stream.lost));
    return text.data() + harmless(stream.url + (stream.reason.empty() ? "" : "  " + stream.reason));
}

} // namespace

std::vector<std::string> streamTable(const std::vector<StreamFacts> &streams, size_t from, TerminalSize room)
{
    static const bool coloured = std::getenv("NO_COLOR") == nullptr; // NOLINT(concurrency-mt-unsafe): nobody sets it
    std::vector<std::string> rows = {"\033[1m" +
                                     cut("   #  STATE       SINCE          KBIT/S     LOST  URL", room.columns)};
    for (size_t i = from; i < streams.size() && rows.size() < room.rows; ++i)
    {
        std::string row = rowOf(streams[i]);
        std::replace(row.begin(), row.end(), '\n', ' ');
        rows.push_back((coloured ? colourOf(streams[i].state) : "") + cut(row, room.columns));
    }
    return rows;
}

Fields streamFields(const StreamFacts &stream)
{
    return {{"stream", stream.number},     {"url", stream.url},
            {"state", word(stream.state)}, {"since", timeText(stream.since, true)},
            {"reason", stream.reason},     {"kbit_per_s", stream.kilobitsPerSecond},
            {"packets", stream.packets},   {"bytes", stream.bytes},
            {"lost", stream.lost},         {"jitter_ms", stream.jitterMs},
            {"sessions", stream.sessions}};
}

} // namespace zr::host
