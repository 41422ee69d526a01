#include "rtp.h"

#include <algorithm>
#include <utility>

namespace zr::media {

namespace {

constexpr size_t headerSize = 12;
constexpr uint32_t sequenceModulus = 1U << 16;
constexpr uint32_t maxDropout = 3000;
constexpr uint32_t maxMisorder = 100;
constexpr uint32_t noJump = sequenceModulus + 1;
constexpr uint32_t nearPlay = 64; ///< packets: about a PLAY's answer, on either side

} // namespace

std::optional<RtpPacket> readRtp(const uint8_t *data, size_t size)
{
    if (size < headerSize || data[0] >> 6 != 2)
    {
        return std::nullopt;
    }
    RtpPacket packet;
    size_t used = headerSize + size_t{4} * (data[0] & 0x0FU);
    if ((data[0] & 0x10U) != 0)
    {
        if (size < used + 4)
        {
            return std::nullopt;
        }
        packet.extensionId = readU16(data + used);
        packet.extension = data + used + 4;
        packet.extensionSize = size_t{4} * readU16(data + used + 2);
        used += 4 + packet.extensionSize;
    }
    packet.payload = used;
    if ((data[0] & 0x20U) != 0)
    {
        const uint8_t padding = data[size - 1];
        if (padding == 0)
        {
            return std::nullopt;
        }
        used += padding;
    }
    packet.payloadType = data[1] & 0x7FU;
    if (size < used || (packet.payloadType >= 64 && packet.payloadType <= 95))
    {
        return std::nullopt;
    }
    packet.payloadSize = size - used;
    packet.marker = (data[1] & 0x80U) != 0;
    packet.sequence = readU16(data + 2);
    packet.timestamp = readU32(data + 4);
    packet.ssrc = readU32(data + 8);
    return packet;
}

bool Reception::take(const RtpPacket &packet, uint32_t clockRate, TimePoint arrival)
{
    const bool fresh = !m_active || packet.ssrc != m_ssrc;
    if (fresh)
    {
        start(packet);
        m_transit.reset();
        m_jitter = 0;
        m_ntpMiddle = 0;
    }
    else if (!follow(packet.sequence))
    {
        return false;
    }
    ++m_received;
    cover(packet.timestamp, fresh);
    measure(packet.timestamp, clockRate, arrival);
    return fresh;
}

void Reception::start(const RtpPacket &packet)
{
    m_lostOfFormer = lost();
    m_active = true;
    m_ssrc = packet.ssrc;
    m_base = m_highest = packet.sequence;
    m_jumpNext = noJump;
    m_cycles = 0;
    m_received = 0;
    m_expectedBefore = 0;
    m_receivedBefore = 0;
    m_skipped = 0;
    m_playedAt.reset();
}

void Reception::played()
{
    if (m_skipped != 0 && m_received - m_skippedAt < nearPlay)
    {
        m_base += std::exchange(m_skipped, 0);
        m_expectedBefore = std::min(m_expectedBefore, expected());
    }
    else if (m_active)
    {
        m_playedAt = m_received;
    }
}

void Reception::skip(uint32_t numbers)
{
    if (m_playedAt && m_received - *m_playedAt < nearPlay)
    {
        m_base += numbers;
    }
    else
    {
        m_skipped = numbers;
        m_skippedAt = m_received;
    }
    m_playedAt.reset();
}

/// RFC 3550, A.1, without its probation: the far side was negotiated.
/// @return false for a packet that is not counted: far off, and nothing has followed it yet
bool Reception::follow(uint16_t sequence)
{
    const uint16_t step = static_cast<uint16_t>(sequence - m_highest);
    if (step < maxDropout)
    {
        if (sequence < m_highest)
        {
            m_cycles += sequenceModulus;
        }
        if (step > 1)
        {
            skip(step - 1U);
        }
        m_highest = sequence;
        m_jumpNext = noJump;
    }
    else if (step <= sequenceModulus - maxMisorder)
    {
        if (sequence != m_jumpNext)
        {
            m_jumpNext = (sequence + 1U) & (sequenceModulus - 1);
            return false;
        }
        RtpPacket first;
        first.sequence = sequence;
        first.ssrc = m_ssrc;
        start(first);
    }
    else
    {
        ++m_reordered;
    }
    return true;
}

void Reception::cover(uint32_t timestamp, bool begins)
{
    // pictures that are sent before earlier ones go back in time; more than this is a jump (a seek)
    constexpr int32_t longestSteps = 3600000; // 40 s of video
    const auto step = static_cast<int32_t>(timestamp - m_latest);
    if (begins || step > longestSteps || step < -longestSteps)
    {
        m_latest = timestamp;
    }
    else if (step > 0)
    {
        m_covered += static_cast<uint64_t>(step);
        m_latest = timestamp;
    }
}

/// RFC 3550, A.8.
void Reception::measure(uint32_t timestamp, uint32_t clockRate, TimePoint arrival)
{
    if (clockRate == 0)
    {
        return;
    }
    if (clockRate != m_clockRate)
    {
        m_clockRate = clockRate;
        m_transit.reset();
        m_jitter = 0;
    }
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(arrival.time_since_epoch()).count();
    // whole seconds apart, so that the product fits
    const auto seconds = static_cast<uint64_t>(microseconds) / 1000000;
    const auto rest = static_cast<uint64_t>(microseconds) % 1000000;
    const auto units = static_cast<uint32_t>(seconds * clockRate + rest * clockRate / 1000000);
    const uint32_t transit = units - timestamp;
    if (m_transit)
    {
        const auto difference = static_cast<int32_t>(transit - *m_transit);
        const uint32_t distance =
            difference < 0 ? 0U - static_cast<uint32_t>(difference) : static_cast<uint32_t>(difference);
        // a jump of the timestamps (a seek) is no jitter
        if (distance < 10U * clockRate)
        {
            m_jitter += distance - ((m_jitter + 8U) >> 4U);
        }
    }
    m_transit = transit;
}

void Reception::senderReport(uint32_t ssrc, uint32_t ntpMiddle, TimePoint arrival)
{
    if (m_active && ssrc == m_ssrc)
    {
        m_ntpMiddle = ntpMiddle;
        m_reportArrival = arrival;
    }
}

uint32_t Reception::expected() const
{
    return m_cycles + m_highest - m_base + 1;
}

int64_t Reception::missing() const
{
    return m_active ? static_cast<int64_t>(expected()) - m_received : 0;
}

uint64_t Reception::lost() const
{
    return m_lostOfFormer + static_cast<uint64_t>(std::max<int64_t>(missing(), 0));
}

uint32_t Reception::jitterUs() const
{
    return m_clockRate == 0 ? 0
                            : static_cast<uint32_t>((static_cast<uint64_t>(m_jitter) >> 4U) * 1000000 / m_clockRate);
}

/// RFC 3550, A.3.
std::optional<ReportBlock> Reception::report(TimePoint now)
{
    if (!m_active)
    {
        return std::nullopt;
    }
    ReportBlock block;
    block.ssrc = m_ssrc;
    block.highestSequence = m_cycles + m_highest;
    block.cumulativeLost = static_cast<int32_t>(std::clamp<int64_t>(missing(), -0x800000, 0x7FFFFF));
    const uint32_t expectedNow = expected() - m_expectedBefore;
    const auto lostNow = static_cast<int64_t>(expectedNow) - static_cast<int64_t>(m_received - m_receivedBefore);
    if (expectedNow != 0 && lostNow > 0)
    {
        block.fractionLost = static_cast<uint8_t>(std::min<int64_t>(lostNow * 256 / expectedNow, 255));
    }
    m_expectedBefore = expected();
    m_receivedBefore = m_received;
    block.jitter = m_jitter >> 4U;
    if (m_ntpMiddle != 0)
    {
        using Units = std::chrono::duration<int64_t, std::ratio<1, 65536>>;
        block.lastSenderReport = m_ntpMiddle;
        block.delaySinceLast = static_cast<uint32_t>(std::chrono::duration_cast<Units>(now - m_reportArrival).count());
    }
    return block;
}

} // namespace zr::media
