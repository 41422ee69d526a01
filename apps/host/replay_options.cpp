#include "replay_options.h"

#include <utility>

#include "failure.h"
#include "option_values.h"
#include "position.h"
#include "speed.h"

namespace zr::host {
namespace {

// RFC 2326, 12.34
void orderRange(Playback &playback)
{
    const auto from = parsePosition(playback.from);
    const auto to = parsePosition(playback.to);
    const bool backwards = speedFactor(playback.speedCode) < 0;
    const bool rises = to && from->seconds < to->seconds;
    if (rises && backwards)
    {
        std::swap(playback.from, playback.to);
    }
}

} // namespace

void ReplayOptions::add(CLI::App &app, Playback &playback)
{
    app.add_option("--from", playback.from, "Begin (required), such as 2026-11-20T10:00:00Z (UTC)")
        ->required()
        ->transform(clockTime())
        ->option_text("TIME");
    app.add_option("--to", playback.to, "End, likewise; without it that of the recording")
        ->transform(clockTime())
        ->option_text("TIME");
    auto *which =
        app.add_option("--frames", m_replay.ulFrames, "Which: all (default), intra or predicted")
            ->transform(oneOf({{"all", ZR_FRAMES_ALL}, {"intra", ZR_FRAMES_INTRA}, {"predicted", ZR_FRAMES_PREDICTED}}))
            ->option_text("WHICH");
    app.add_option("--interval", m_replay.ulIntervalMs, "Milliseconds between two of them, at least")
        ->needs(which)
        ->check(wholeNumberFrom(1, 1e9, "milliseconds"))
        ->option_text("MS");
    app.add_option("--rate-control", m_replay.ulRateControl, "yes: sent as fast as they play; no: as fast as TCP can")
        ->transform(oneOf({{"yes", ZR_RATE_CONTROL_YES}, {"no", ZR_RATE_CONTROL_NO}}))
        ->option_text("WORD");
    app.add_flag_callback(
        "--immediate", [this] { m_replay.ulImmediate = 1; }, "Seek at once, without playing out what was sent for");
}

void ReplayOptions::apply(CourseOptions &course) const
{
    if (m_replay.ulFrames == ZR_FRAMES_ALL && m_replay.ulIntervalMs != 0)
    {
        throw wrongUsage("--interval is between intra or predicted frames: --frames intra");
    }
    course.replay = m_replay;
    if (m_replay.ulRateControl == ZR_RATE_CONTROL_NO && course.fallBack && !course.multicast)
    {
        course.protocol = PROTOCOL_TCP; // which holds a sender back that nothing else does
    }
    orderRange(course.playback);
}

} // namespace zr::host
