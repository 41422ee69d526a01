#include "position.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace zr::host {
namespace {

// The whole text must be understood.
bool readClock(const std::string &text, double &seconds)
{
    std::tm day{};
    double second = 0;
    int length = 0;
    if (std::sscanf(text.c_str(), "%4d%2d%2dT%2d%2d%lfZ%n", &day.tm_year, &day.tm_mon, &day.tm_mday, &day.tm_hour,
                    &day.tm_min, &second, &length) != 6 ||
        length != static_cast<int>(text.size()))
    {
        return false;
    }
    day.tm_year -= 1900;
    --day.tm_mon;
    const std::tm asked = day;
    seconds = static_cast<double>(timegm(&day)) + second; // to which February 30 is March 2
    return day.tm_mon == asked.tm_mon && day.tm_mday == asked.tm_mday && day.tm_hour == asked.tm_hour &&
           day.tm_min == asked.tm_min && second >= 0 && second < 61;
}

bool readNormal(const std::string &text, double &seconds)
{
    int hours = 0;
    int minutes = 0;
    int length = 0;
    if (std::sscanf(text.c_str(), "%9d:%9d:%lf%n", &hours, &minutes, &seconds, &length) == 3 &&
        length == static_cast<int>(text.size()))
    {
        seconds += hours * 3600.0 + minutes * 60.0;
        return true;
    }
    length = 0;
    return std::sscanf(text.c_str(), "%lf%n", &seconds, &length) == 1 && length == static_cast<int>(text.size());
}

std::tm dayOf(double seconds)
{
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm day{};
    gmtime_r(&whole, &day);
    return day;
}

} // namespace

std::optional<Position> parsePosition(const std::string &text)
{
    Position position;
    position.clock = text.find('T') != std::string::npos;
    constexpr double unusual = 1e11; // some thousand years, and what a calendar can reckon with
    const bool read = position.clock ? readClock(text, position.seconds) : readNormal(text, position.seconds);
    return read && std::fabs(position.seconds) < unusual ? std::optional<Position>(position) : std::nullopt;
}

std::optional<std::string> clockText(std::string text)
{
    if (text.size() > 4 && text[4] == '-') // the marks between its numbers go
    {
        text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '-' || c == ':'; }), text.end());
    }
    const auto position = parsePosition(text);
    const bool plain = text.find_first_not_of("0123456789TZ.") == std::string::npos;
    return plain && position && position->clock ? std::optional<std::string>(text) : std::nullopt;
}

std::string isoText(const Position &position)
{
    char text[48];
    const double milliseconds = std::round(position.seconds * 1000);
    const std::tm day = dayOf(milliseconds / 1000);
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &day);
    const double whole = std::floor(milliseconds / 1000) * 1000;
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(milliseconds - whole));
    return text;
}

std::string positionText(const Position &position)
{
    char text[48];
    if (!position.clock)
    {
        std::snprintf(text, sizeof text, "%.3f", position.seconds);
        return text;
    }
    const std::tm day = dayOf(position.seconds);
    const size_t length = std::strftime(text, sizeof text, "%Y%m%dT%H%M%S", &day);
    const double part = position.seconds - std::floor(position.seconds);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(part * 1000));
    return text;
}

std::string positionShown(const Position &position)
{
    char text[48];
    if (position.clock)
    {
        const std::tm day = dayOf(position.seconds);
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &day);
        return text;
    }
    const long whole = std::lround(std::floor(std::max(position.seconds, 0.0)));
    if (whole < 3600)
    {
        std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
    }
    else
    {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
    }
    return text;
}

Position clamped(Position position, const Span &span)
{
    if (span.end && span.end->clock == position.clock)
    {
        position.seconds = std::min(position.seconds, span.end->seconds);
    }
    if (span.begin && span.begin->clock == position.clock)
    {
        position.seconds = std::max(position.seconds, span.begin->seconds);
    }
    return position;
}

Span parseSpan(const std::string &range)
{
    const size_t equals = range.find('=');
    const size_t dash = equals == std::string::npos ? equals : range.find('-', equals);
    if (dash == std::string::npos)
    {
        return {};
    }
    return {parsePosition(range.substr(equals + 1, dash - equals - 1)), parsePosition(range.substr(dash + 1))};
}

} // namespace zr::host
