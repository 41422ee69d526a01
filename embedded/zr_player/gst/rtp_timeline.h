/// @file
/// RTP timestamps as a file's time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>

namespace zr::media {

/// A file's time follows the RTP timestamps, not the arrival: a recording that is downloaded faster than it was made
/// keeps its own length. Where the timestamps jump (a seek, another source, the next group of pictures backwards) the
/// file goes on after what it holds. One thread.
class RtpTimeline
{
public:
    /// @param clockRate  Hz, not 0
    explicit RtpTimeline(uint32_t clockRate)
        : m_clockRate(clockRate)
    {
    }

    /// @param arrival  nanoseconds; the first packet's becomes its time
    /// @return the packet's time in nanoseconds
    uint64_t map(uint32_t ssrc, uint32_t timestamp, uint64_t arrival)
    {
        const auto step = static_cast<int32_t>(timestamp - m_timestamp);
        if (!m_begun || ssrc != m_ssrc || jumps(step, arrival))
        {
            const uint64_t silence = m_begun && arrival > m_arrival ? arrival - m_arrival : 0;
            const uint64_t gap = std::max(silence, static_cast<uint64_t>(m_apart)); // what came last has its length
            m_origin = m_begun ? m_latest + std::clamp(gap, shortestGap, longestGap) : arrival;
            m_ticks = 0;
            m_apart = 0;
            ++m_run;
            m_begun = true;
            m_ssrc = ssrc;
        }
        else
        {
            m_ticks += step;
            const int64_t apart = nanoseconds(step);
            m_apart = apart > 0 && (m_apart == 0 || apart < m_apart) ? apart : m_apart;
        }
        m_timestamp = timestamp;
        m_arrival = arrival;
        const int64_t offset = nanoseconds(m_ticks);
        const bool before = offset < 0 && static_cast<uint64_t>(-offset) > m_origin;
        m_before += before && step != 0 ? 1 : 0;
        const uint64_t time = before ? 0 : m_origin + static_cast<uint64_t>(offset);
        m_latest = std::max(m_latest, time);
        return time;
    }

    /// The time of another packet of the source that was heard last; none when it is far from that.
    std::optional<uint64_t> at(uint32_t ssrc, uint32_t timestamp) const
    {
        const int64_t apart = nanoseconds(static_cast<int32_t>(timestamp - m_timestamp));
        const int64_t time = static_cast<int64_t>(m_origin) + nanoseconds(m_ticks) + apart;
        const bool near = m_begun && ssrc == m_ssrc && std::abs(apart) <= 10 * second;
        return near && time >= 0 ? std::optional<uint64_t>(static_cast<uint64_t>(time)) : std::nullopt;
    }

    /// Lets all that follows come later.
    void delay(uint64_t nanoseconds) { m_origin += nanoseconds; }

    /// Changes where timestamps jump: what was known of them before counts no more.
    unsigned run() const { return m_run; }

    /// Frames from before the time 0, which they were given.
    uint64_t before() const { return m_before; }

private:
    static constexpr int64_t second = 1000000000;
    static constexpr uint64_t shortestGap = 1000000;
    static constexpr uint64_t longestGap = second;
    /// How far decoding order steps back: 16 frames of 25 in a second, and where there are fewer, few frames.
    static constexpr int64_t furthestBack = second * 7 / 10;
    static constexpr int64_t mostFramesBack = 8;

    int64_t nanoseconds(int64_t ticks) const
    {
        // whole seconds apart, so that the product fits
        return ticks / m_clockRate * second + ticks % m_clockRate * second / m_clockRate;
    }

    /// Back by more than decoding order does, or far off, and the arrival does not say the same.
    bool jumps(int32_t step, uint64_t arrival) const
    {
        const int64_t media = nanoseconds(step);
        const auto passed = static_cast<int64_t>(arrival - m_arrival);
        const bool back = -media >= furthestBack && -media > mostFramesBack * m_apart;
        return back || (std::abs(media) > 10 * second && std::abs(media - passed) > 2 * second);
    }

    int64_t m_clockRate;
    bool m_begun = false;
    unsigned m_run = 0;
    uint32_t m_ssrc = 0;
    uint32_t m_timestamp = 0;
    uint64_t m_arrival = 0;
    uint64_t m_origin = 0;
    uint64_t m_latest = 0;
    uint64_t m_before = 0;
    int64_t m_ticks = 0;
    int64_t m_apart = 0; ///< nanoseconds between the run's frames at least; 0: not known yet
};

} // namespace zr::media
