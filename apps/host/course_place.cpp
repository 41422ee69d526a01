// Where a course plays, and what there is to play.

#include "course.h"

#include <cmath>

#include "speed.h"

namespace zr::host {

bool Course::backwardsFromBegin() const
{
    return m_playback.from.empty() && speedFactor(m_playback.speedCode) < 0;
}

// Servers that are asked for what they do not have refuse with a number, play something else, or say nothing.
void Course::requireWithin()
{
    const Span span = this->span();
    const auto from = parsePosition(m_playback.from);
    const bool told = span.begin && span.end && span.begin->seconds < span.end->seconds;
    if (told && backwardsFromBegin() && m_protocol == m_options.protocol) // not once more over the other one
    {
        m_report.warning(
            "outside",
            "backwards without --from: most servers then begin where the recording begins, and nothing lies "
            "before that",
            nullptr);
    }
    if (!from || !told || from->clock != span.end->clock)
    {
        return;
    }
    const bool backwards = speedFactor(m_playback.speedCode) < 0;
    const bool before = from->seconds < span.begin->seconds || (backwards && from->seconds == span.begin->seconds);
    const bool behind = from->seconds > span.end->seconds || (!backwards && from->seconds == span.end->seconds);
    if (!before && !behind)
    {
        return;
    }
    const std::string begin = positionShown(*span.begin);
    const std::string end = positionShown(*span.end);
    const std::string meaning =
        "nothing lies " + std::string(before ? "before " : "behind ") + positionShown(*from) + ": the recording " +
        (before ? "begins at " + begin + " and ends at " + end : "ends at " + end + " and begins at " + begin);
    if (before == backwards)
    {
        throw Failure(ExitCode::Refused, "playing", 0, meaning, "another --from: describe tells what there is");
    }
    m_report.warning("outside", meaning, {{"from", from->seconds}});
}

void Course::passOver()
{
    constexpr double unknownFrame = 0.1; // seconds
    if (m_options.skip <= 0)
    {
        return;
    }
    if (m_description.live())
    {
        throw Failure(ExitCode::Refused, "continuing", 0,
                      "the stream is live: what the file lacks has passed and cannot be fetched",
                      "play URL --record OTHER_FILE --duration SECONDS for what comes now; what is there stays");
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
    const auto &last = speedFactor(m_playback.speedCode) < 0 ? span.begin : span.end;
    auto to = m_playback.to.empty() ? last : parsePosition(m_playback.to);
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

bool Course::atBegin() const
{
    constexpr double nearly = 1; // seconds
    const Span span = this->span();
    const auto place = position();
    const auto to = parsePosition(m_playback.to);
    const auto isThere = [&](const std::optional<Position> &one) {
        return one && span.begin && one->clock == span.begin->clock && one->seconds <= span.begin->seconds + nearly;
    };
    return speedFactor(m_playback.speedCode) < 0 && isThere(place) && (!to || isThere(to));
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
