/// @file
/// What sender reports say of a recording's tracks.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "rtp_timeline.h"

namespace zr::media {

/// Tells when a recording began by the sender's clock, and places sound and picture as it says (RFC 3550, 6.4.1): the
/// track that is too early comes later from then on. Any thread, each track's packets one after another. Times are
/// nanoseconds.
class SenderClocks
{
public:
    /// @param video  of each track, whether it is one
    explicit SenderClocks(const std::vector<bool> &video);

    /// A sender report arrived.
    /// @param unixTime  since 1970, when the track's clock showed the timestamp
    void report(size_t track, uint32_t ssrc, uint32_t timestamp, int64_t unixTime);

    /// The sender's wall clock at the recording's time 0.
    struct Start
    {
        int64_t unixTime;
        uint64_t since; ///< in the recording: of what came before, it says nothing
    };
    struct Outcome
    {
        uint64_t delay = 0; ///< by which this packet and all that follow come later; the timeline has it
        std::optional<Start> start;
        bool undated = false; ///< the timestamps jumped: what a start said does not hold from this packet on
    };
    /// A packet got its time of the track's timeline.
    /// @param arrival  its own, as the timeline has it
    Outcome follow(size_t track, RtpTimeline &timeline, uint64_t time, uint64_t arrival);

private:
    struct Report
    {
        uint32_t ssrc;
        uint32_t timestamp;
        int64_t unixTime;
    };
    struct Track
    {
        bool video = false;
        int64_t delayed = 0; ///< in all
        unsigned run = 0;    ///< of the timeline, that what follows is of
        uint64_t since = 0;  ///< in the recording: the run's begin
        std::optional<Report> news;
        std::optional<int64_t> start; ///< the wall clock at the recording's time 0; none where that does not hold
        /// Of the newest report, in the recording and by the wall clock.
        std::optional<std::pair<int64_t, int64_t>> reported;
    };

    std::optional<Start> lookAt(Track &track, const Report &report, const RtpTimeline &timeline, uint64_t time,
                                uint64_t arrival) const;

    std::mutex m_mutex; ///< guards what follows
    std::vector<Track> m_tracks;
    std::optional<size_t> m_dates; ///< the track that told the start; none: it does not hold, or there was none
};

} // namespace zr::media
