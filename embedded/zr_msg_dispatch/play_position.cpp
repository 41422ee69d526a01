#include "play_position.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "rtsp_text.h"

namespace {

using zr::rtsp::parseDecimal;
using zr::rtsp::parseNumber;
using zr::rtsp::takePiece;
using zr::rtsp::trimmed;

/// The largest position that is believed, in seconds: the year 9999.
constexpr double largest = 253402300799.0;

/// "12.5", "1:02:03.5", "now" (RFC 2326, 3.6); none for "now" and what cannot be read.
std::optional<double> parseNpt(std::string_view text)
{
    if (text.find(':') == std::string_view::npos)
    {
        const auto seconds = parseDecimal(text, largest);
        return seconds && *seconds >= 0 ? seconds : std::nullopt;
    }
    const auto hours = parseNumber(takePiece(text, ':'), 99999999);
    const auto minutes = parseNumber(takePiece(text, ':'), 59);
    const auto seconds = parseDecimal(trimmed(text), 60);
    if (!hours || !minutes || !seconds || *seconds < 0)
        return std::nullopt;
    return *hours * 3600.0 + *minutes * 60.0 + *seconds;
}

/// "19961108T143720.25Z" (RFC 2326, 3.7), in seconds since 1970.
std::optional<double> parseClock(std::string_view text)
{
    if (text.size() < 16 || text[8] != 'T' || text.back() != 'Z')
        return std::nullopt;
    const auto year = parseNumber(text.substr(0, 4), 9999);
    const auto month = parseNumber(text.substr(4, 2), 12);
    const auto day = parseNumber(text.substr(6, 2), 31);
    const auto hour = parseNumber(text.substr(9, 2), 23);
    const auto minute = parseNumber(text.substr(11, 2), 59);
    const auto second = parseDecimal(text.substr(13, text.size() - 14), 61);
    if (!year || !month || !day || !hour || !minute || !second || *second < 0 || *year < 1970 || *month == 0 ||
        *day == 0)
        return std::nullopt;
    std::tm parts{};
    parts.tm_year = static_cast<int>(*year) - 1900;
    parts.tm_mon = static_cast<int>(*month) - 1;
    parts.tm_mday = static_cast<int>(*day);
    parts.tm_hour = static_cast<int>(*hour);
    parts.tm_min = static_cast<int>(*minute);
    return static_cast<double>(timegm(&parts)) + *second;
}

/// Some servers name speeds by codes: 101 to 108 and 301 to 308 are downloads at 1 to 8 times, 256 and 258 play once.
double speedOf(double scale)
{
    const double size = std::fabs(scale);
    double speed = size;
    if ((size >= 101 && size <= 108) || (size >= 301 && size <= 308))
        speed = std::fmod(size, 100);
    else if (size == 256 || size == 258)
        speed = 1;
    return std::copysign(speed, scale);
}

} // namespace

namespace zr::dispatch {

std::optional<PlayPosition::Range> PlayPosition::parse(std::string_view text)
{
    Range range;
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return std::nullopt;
    // what follows a semicolon says when to begin, not where
    const std::string_view value = rtsp::trimmed(text.substr(equals + 1, text.find(';', equals) - equals - 1));
    const size_t dash = std::min(value.find('-'), value.size());
    const std::string_view begin = rtsp::trimmed(value.substr(0, dash));
    const std::string_view end = rtsp::trimmed(value.substr(std::min(dash + 1, value.size())));
    const std::string_view unit = rtsp::trimmed(text.substr(0, equals));
    if (rtsp::sameText(unit, "npt") && rtsp::sameText(begin, "now"))
        return range;
    std::optional<double> from;
    if (rtsp::sameText(unit, "npt"))
    {
        range.kind = Kind::Npt;
        from = begin.empty() ? 0.0 : parseNpt(begin);
        range.end = parseNpt(end);
    }
    else if (rtsp::sameText(unit, "clock"))
    {
        range.kind = Kind::Clock;
        from = parseClock(begin);
        range.end = parseClock(end);
    }
    if (!from)
        return std::nullopt;
    range.begin = *from;
    return range;
}

void PlayPosition::play(std::string_view answered, std::string_view asked, double scale, Time now)
{
    std::optional<Range> range = parse(answered);
    if (!range)
        range = parse(asked);
    if (range)
        m_range = *range;
    else
        m_range.begin = at(now);
    if (m_first == none)
        m_first = m_range.kind == Kind::Npt ? m_range.begin : noTime;
    if (m_told)
        m_told->framesBefore = m_told->times.frames;
    m_speed = speedOf(scale);
    m_since = now;
}

void PlayPosition::pause(Time now)
{
    m_range.begin = at(now);
    m_speed = 0;
    m_since = now;
}

void PlayPosition::follow(const media::ReplayTimes &told)
{
    if (!m_told)
        m_told = std::make_unique<Told>();
    m_told->times = told;
}

/// In the range's unit, or since 1970 where it has none.
std::optional<double> PlayPosition::told() const
{
    constexpr double second = 1e6; // in microseconds
    if (!m_told || m_told->times.frames == m_told->framesBefore || (m_range.kind == Kind::Npt && m_first < 0))
        return std::nullopt;
    const media::ReplayTimes &times = m_told->times;
    const double place = m_range.kind == Kind::Npt
                             ? m_first + static_cast<double>(times.latestUs - times.firstUs) / second
                             : static_cast<double>(times.latestUs) / second;
    return std::clamp(place, 0.0, largest);
}

double PlayPosition::at(Time now) const
{
    if (const auto place = told())
        return *place;
    const double position = m_range.begin + m_speed * std::chrono::duration<double>(now - m_since).count();
    if (m_range.end && m_speed > 0 && *m_range.end > m_range.begin)
        return std::clamp(position, 0.0, *m_range.end);
    if (m_range.end && m_speed < 0 && *m_range.end < m_range.begin)
        return std::clamp(position, *m_range.end, largest);
    return std::clamp(position, 0.0, largest);
}

std::string PlayPosition::range(Time now) const
{
    if (m_range.kind == Kind::Live && !told())
        return "npt=now-";
    char text[64];
    if (m_range.kind == Kind::Npt)
    {
        const auto milliseconds = std::llround(at(now) * 1000);
        std::snprintf(text, sizeof text, "npt=%lld.%03lld-", milliseconds / 1000, milliseconds % 1000);
        return text;
    }
    const auto seconds = static_cast<std::time_t>(at(now));
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::snprintf(text, sizeof text, "clock=%04d%02d%02dT%02d%02d%02dZ-", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

} // namespace zr::dispatch
