/// What a media port tells of a replayed recording.

#include "port.h"

namespace zr::media {

ZR_ULONG MediaPort::replay(ZrReplayFacts &out)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Track *teller = nullptr;
    bool terminal = true;
    for (const Track &track : m_tracks)
    {
        const ZrReplayFacts &facts = track.replay().facts();
        if (facts.ullFrames != 0)
        {
            teller = teller == nullptr ? &track : teller;
            terminal = terminal && (facts.ulMarks & ZR_REPLAY_TERMINAL) != 0;
        }
    }
    if (teller == nullptr)
    {
        return ZR_MEDIA_NO_MEDIA;
    }
    out = teller->replay().facts();
    out.ulMarks &= terminal ? ~ZR_ULONG{0} : ~ZR_ULONG{ZR_REPLAY_TERMINAL};
    return 0;
}

std::optional<ReplayTimes> MediaPort::replayTimes()
{
    ZrReplayFacts facts{};
    return replay(facts) == 0 ? std::optional<ReplayTimes>({facts.llFirstUnixUs, facts.llUnixUs, facts.ullFrames})
                              : std::nullopt;
}

} // namespace zr::media
