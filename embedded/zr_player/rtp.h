/// @file
/// RTP packets as a receiver reads them, and what it counts of a source (RFC 3550, 5.1 and appendix A).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace zr::media {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/// The header of an RTP packet.
struct RtpPacket
{
    uint8_t payloadType = 0;
    uint16_t sequence = 0;
    uint32_t timestamp = 0;
    uint32_t ssrc = 0;
    uint16_t extensionId = 0;           ///< of the header extension (RFC 3550, 5.3.1)
    const uint8_t *extension = nullptr; ///< its content, within the packet; null: there is none
    size_t extensionSize = 0;           ///< bytes of that
    size_t payload = 0;                 ///< where it begins in the packet
    size_t payloadSize = 0;
    bool marker = false;
};

/// @return none when the bytes are no whole RTP packet: version, CSRC list, extension and padding must fit, and payload
/// types 64 to 95 are RTCP's (RFC 5761, 4)
std::optional<RtpPacket> readRtp(const uint8_t *data, size_t size);

inline uint16_t readU16(const uint8_t *data)
{
    return static_cast<uint16_t>(data[0] << 8 | data[1]);
}

inline uint32_t readU32(const uint8_t *data)
{
    return static_cast<uint32_t>(readU16(data)) << 16 | readU16(data + 2);
}

/// What a receiver report says of a source (RFC 3550, 6.4.1).
struct ReportBlock
{
    uint32_t ssrc = 0;
    uint8_t fractionLost = 0;
    int32_t cumulativeLost = 0; ///< 24 bits, signed
    uint32_t highestSequence = 0;
    uint32_t jitter = 0;           ///< in units of the RTP clock
    uint32_t lastSenderReport = 0; ///< the middle 32 bits of its NTP time; 0: none yet
    uint32_t delaySinceLast = 0;   ///< in 1/65536 s
};

/// Loss and jitter of one track. A new source or a jump of its numbers starts the count afresh; what was lost before
/// stays counted. Guarded by its owner.
class Reception
{
public:
    /// @param clockRate  of the payload type in Hz; 0: unknown, no jitter
    /// @return whether a new source begins with the packet
    bool take(const RtpPacket &packet, uint32_t clockRate, TimePoint arrival);
    /// The server has answered PLAY: numbers that are missing about there were never sent. After a pause or a seek
    /// servers go on from another number (RFC 2326, 12.33), and packets may overtake the answer.
    void played();
    /// A sender report of this source arrived.
    void senderReport(uint32_t ssrc, uint32_t ntpMiddle, TimePoint arrival);

    /// The block of a report now; none before the first packet. Each call ends an interval of "fraction lost".
    std::optional<ReportBlock> report(TimePoint now);

    bool active() const { return m_active; }
    uint32_t ssrc() const { return m_ssrc; }
    uint64_t lost() const;
    /// Packets that came after a later one.
    uint64_t reordered() const { return m_reordered; }
    uint32_t jitterUs() const;
    /// Time that the packets cover by their timestamps; jumps and new sources do not count.
    uint64_t mediaMs() const { return m_clockRate == 0 ? 0 : m_covered * 1000 / m_clockRate; }

private:
    void start(const RtpPacket &packet);
    bool follow(uint16_t sequence);
    void skip(uint32_t numbers);
    void cover(uint32_t timestamp, bool begins);
    void measure(uint32_t timestamp, uint32_t clockRate, TimePoint arrival);
    int64_t missing() const;
    uint32_t expected() const;

    bool m_active = false;
    uint32_t m_ssrc = 0;
    uint16_t m_highest = 0;
    uint32_t m_cycles = 0; ///< 65536 for each wrap
    uint32_t m_base = 0;
    uint32_t m_jumpNext = 0; ///< a packet of this number after a jump means that the source went on from there
    uint32_t m_received = 0;
    uint32_t m_expectedBefore = 0;
    uint32_t m_receivedBefore = 0;
    uint64_t m_lostOfFormer = 0;
    uint64_t m_reordered = 0;
    uint32_t m_skipped = 0;             ///< numbers that the last packet that did so left out
    uint32_t m_skippedAt = 0;           ///< m_received then
    std::optional<uint32_t> m_playedAt; ///< m_received then, until numbers were left out

    uint32_t m_clockRate = 0;
    uint32_t m_latest = 0;  ///< timestamp
    uint64_t m_covered = 0; ///< in units of the RTP clock
    std::optional<uint32_t> m_transit;
    uint32_t m_jitter = 0; ///< times 16

    uint32_t m_ntpMiddle = 0;
    TimePoint m_reportArrival;
};

} // namespace zr::media
