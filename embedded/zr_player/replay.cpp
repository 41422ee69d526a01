#include "replay.h"

namespace zr::media {

namespace {

constexpr uint16_t replayId = 0xABAC;
/// What stands behind it is the JPEG extension of the same packet.
constexpr size_t replaySize = 12;

/// Seconds of NTP begin in 1900 and wrap in 2036; where their first bit is 0 they have (RFC 4330, 3).
int64_t unixMicroseconds(uint32_t ntpSeconds, uint32_t fraction)
{
    constexpr int64_t from1900To1970 = 2208988800;
    constexpr int64_t era = int64_t{1} << 32;
    const int64_t seconds = ntpSeconds + (ntpSeconds >> 31 == 0 ? era : 0) - from1900To1970;
    return seconds * 1000000 + static_cast<int64_t>(uint64_t{fraction} * 1000000 >> 32U);
}

} // namespace

std::optional<ReplayMark> readReplayMark(const RtpPacket &packet)
{
    if (packet.extension == nullptr || packet.extensionId != replayId || packet.extensionSize < replaySize)
    {
        return std::nullopt;
    }
    const uint32_t seconds = readU32(packet.extension);
    const uint32_t fraction = readU32(packet.extension + 4);
    if (seconds == 0 && fraction == 0) // unknown
    {
        return std::nullopt;
    }
    constexpr struct
    {
        uint8_t bit;
        ZR_ULONG mark;
    } bits[] = {{0x80, ZR_REPLAY_CLEAN_POINT},
                {0x40, ZR_REPLAY_END_OF_SECTION},
                {0x20, ZR_REPLAY_DISCONTINUITY},
                {0x10, ZR_REPLAY_TERMINAL}};
    ReplayMark mark;
    mark.unixUs = unixMicroseconds(seconds, fraction);
    for (const auto &one : bits)
    {
        mark.marks |= (packet.extension[8] & one.bit) != 0 ? one.mark : 0;
    }
    mark.cseq = packet.extension[9];
    return mark;
}

void ReplayTrack::take(const ReplayMark &mark, uint32_t timestamp)
{
    if (m_facts.ullFrames == 0 || timestamp != m_timestamp)
    {
        m_facts.llFirstUnixUs = m_facts.ullFrames == 0 ? mark.unixUs : m_facts.llFirstUnixUs;
        ++m_facts.ullFrames;
        m_facts.ulMarks = 0;
        m_timestamp = timestamp;
    }
    const ZR_ULONG added = mark.marks & ~m_facts.ulMarks; // a server may repeat them in each packet of the frame
    m_facts.ulMarks |= added;
    m_facts.ullCleanPoints += (added & ZR_REPLAY_CLEAN_POINT) != 0 ? 1 : 0;
    m_facts.ullSectionEnds += (added & ZR_REPLAY_END_OF_SECTION) != 0 ? 1 : 0;
    m_facts.ullDiscontinuities += (added & ZR_REPLAY_DISCONTINUITY) != 0 ? 1 : 0;
    m_facts.llUnixUs = mark.unixUs;
    m_facts.ulCSeq = mark.cseq;
}

} // namespace zr::media
