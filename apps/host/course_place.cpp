// Where a course plays, and what there is to play.

#include "course.h"

#include <cmath>

#include "speed.h"

namespace zr::host {

// Servers that are asked for what they do not have refuse with a number, play something else, or say nothing. By the
// time of the day a recorder's range may tell less than it has: it is asked then all the same.
void Course::requireWithin()
{
    const Span span = this->span();
    const auto from = parsePosition(m_playback.from);
    const bool told = span.begin && span.end && span.begin->seconds < span.end->seconds;
    if (!from || !told || from->clock != span.end->clock)
    {
        return;
    }
    const bool backwards = speedFactor(m_playback.speedCode) < 0;
    const bool within = backwards ? from->seconds > span.begin->seconds : from->seconds < span.end->seconds;
    const std::string meaning =
        backwards
            ? "nothing lies before " + positionShown(*from) + ": the recording begins at " + positionShown(*span.begin)
            : "nothing lies behind " + positionShown(*from) + ": the recording ends at " + positionShown(*span.end);
    if (!within && from->clock)
    {
        m_report.warning("outside", meaning, {{"from", from->seconds}});
    }
    else if (!within)
    {
        throw Failure(ExitCode::Refused, "playing", 0, meaning, "another --from: describe tells what there is");
    }
}

void Course::passOver()
{
    constexpr double unknownFrame = 0.1; // seconds
    if (m_options.skip <= 0)
    {
        return;
    }
    const Track *video = m_description.first("video");
    const double frame = video != nullptr && video->framesPerSecond ? 1 / *video->framesPerSecond : unknownFrame;
    const auto asked = length();
    m_whole = asked && m_options.held > *asked - 1.5 * frame; // its last frame may count, or not
    if (m_whole)
    {
        return;
    }
    const Playback &wanted = m_options.playback;
    const Span span = parseSpan(m_description.range);
    Position from = (wanted.from.empty() ? span.begin : parsePosition(wanted.from)).value_or(Position{});
    from.seconds += m_options.skip;
    m_playback.from = positionText(from);
    m_playback.to = wanted.to.empty() && span.end ? positionText(*span.end) : wanted.to;
}

std::optional<double> Course::length() const
{
    const Span span = parseSpan(m_description.range);
    const auto from = m_playback.from.empty() ? span.begin : parsePosition(m_playback.from);
    auto to = m_playback.to.empty() ? span.end : parsePosition(m_playback.to);
    if (to && !to->clock) // more than there is does not come
    {
        to = clamped(*to, span);
    }
    if (!to || (from && from->clock != to->clock) || (!from && to->clock))
    {
        return std::nullopt;
    }
    const double seconds = std::fabs(to->seconds - (from ? from->seconds : 0));
    return seconds > 0 ? std::optional<double>(seconds / std::fabs(speedFactor(m_playback.speedCode))) : std::nullopt;
}

std::optional<Position> Course::position() const
{
    if (const auto told = toldPosition())
    {
        return told;
    }
    const Span span = this->span();
    auto position = m_playback.from.empty() ? span.begin : parsePosition(m_playback.from);
    if (position)
    {
        position->seconds += secondsOfPlayback() * speedFactor(m_playback.speedCode);
        *position = clamped(*position, span);
    }
    return position;
}

Position Course::within(Position place, bool backwards) const
{
    constexpr double fromEnd = 1; // seconds: a server refuses to play from the very end
    Span span = this->span();
    if (!span.begin && !place.clock)
    {
        span.begin = Position{};
    }
    if (span.end && !backwards)
    {
        span.end->seconds -= fromEnd;
    }
    else if (span.begin && backwards)
    {
        span.begin->seconds += fromEnd;
    }
    return clamped(place, span);
}

} // namespace zr::host
