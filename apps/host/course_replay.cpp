// The course of a replay: its frames tell when they were recorded, and which is the last.

#include "course.h"

#include <cmath>

namespace zr::host {
namespace {

Position placeOf(int64_t unixMicroseconds)
{
    return {static_cast<double>(unixMicroseconds) / 1e6, true};
}

} // namespace

Span Course::span() const
{
    Span span = parseSpan(m_description.range);
    for (auto *end : {&span.begin, &span.end})
    {
        if (m_options.replay && *end && !(*end)->clock) // recorders may tell a recording's length
        {
            end->reset();
        }
    }
    return span;
}

// Frames that were on their way when it was asked to play elsewhere tell another place; the first one behind them has a
// discontinuity.
std::optional<Position> Course::toldPosition() const
{
    constexpr double onTheirWay = 1; // seconds
    const auto told = m_options.replay ? m_session->replayed() : std::nullopt;
    if (!told || (told->ullDiscontinuities == m_discontinuitiesBefore && m_playbackSince > 0 &&
                  secondsOfPlayback() < onTheirWay))
    {
        return std::nullopt;
    }
    return placeOf(told->llUnixUs);
}

bool Course::toldEnd(ZR_ULONG mark) const
{
    const auto told = toldPosition() ? m_session->replayed() : std::nullopt;
    return told && (told->ulMarks & mark) != 0;
}

bool Course::mayHaveEnded() const
{
    constexpr double nearly = 1; // seconds
    const auto place = toldPosition();
    const auto to = parsePosition(m_playback.to);
    const bool isThere = place && to && to->clock && std::fabs(to->seconds - place->seconds) <= nearly;
    const auto seconds = length();
    return isThere || toldEnd(ZR_REPLAY_END_OF_SECTION) || (seconds && secondsOfPlayback() >= *seconds - nearly);
}

Fields Course::withTime(Fields fields) const
{
    if (const auto place = toldPosition())
    {
        fields["time"] = isoText(*place);
    }
    return fields;
}

void Course::tellReplay()
{
    const auto told = m_session->replayed();
    if (!told)
    {
        m_report.event("no_times", "the frames told no times (there is no ONVIF replay extension in their packets)",
                       nullptr);
        return;
    }
    const Position first = placeOf(told->llFirstUnixUs);
    const Position latest = placeOf(told->llUnixUs);
    m_report.event("replayed",
                   "replayed " + positionShown(first) + " to " + positionShown(latest) + ", " +
                       counted(told->ullFrames, "frame", "frames") + ", " +
                       counted(told->ullDiscontinuities, "discontinuity", "discontinuities") + ", " +
                       counted(told->ullSectionEnds, "end of a section", "ends of sections"),
                   {{"first", isoText(first)},
                    {"time", isoText(latest)},
                    {"frames", told->ullFrames},
                    {"clean_points", told->ullCleanPoints},
                    {"discontinuities", told->ullDiscontinuities},
                    {"section_ends", told->ullSectionEnds},
                    {"terminal", (told->ulMarks & ZR_REPLAY_TERMINAL) != 0}});
}

} // namespace zr::host
