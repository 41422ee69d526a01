/// @file
/// What the packets of a replayed recording say of its frames: when each was recorded, and where sections begin and end
/// (ONVIF Streaming Specification, RTP header extension).
#pragma once

#include <cstdint>
#include <optional>

#include "rtp.h"
#include "zr_platform.h"

namespace zr::media {

/// The replay extension of one packet.
struct ReplayMark
{
    int64_t unixUs = 0; ///< when its frame was recorded, in microseconds since 1970
    ZR_ULONG marks = 0; ///< tagZrReplayMark, or-ed
    uint8_t cseq = 0;   ///< the low octet of CSeq of the PLAY that asked for it
};

/// @return none where the packet has no such extension, or one that is too short or tells no time
std::optional<ReplayMark> readReplayMark(const RtpPacket &packet);

/// What a track's frames told. Guarded by its port.
class ReplayTrack
{
public:
    /// A frame's packets share a timestamp; one of them at least has a mark.
    void take(const ReplayMark &mark, uint32_t timestamp);
    const ZrReplayFacts &facts() const { return m_facts; }

private:
    ZrReplayFacts m_facts{};
    uint32_t m_timestamp = 0; ///< of the latest frame
};

} // namespace zr::media
