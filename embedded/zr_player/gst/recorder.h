/// @file
/// The files that a recording's frames go into, one after another.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "writer.h"

namespace zr::media {

/// A file ends, and the next begins, at a key frame: when it is long or large enough, or when the coding has changed,
/// which no container carries on. Other tracks go over at the same time: what of them is earlier still goes into the
/// file before.
class Recorder
{
public:
    /// @param video  of each track, whether it is one
    Recorder(const ZrMediaParts &parts, const std::vector<bool> &video, ZrMediaLog log, void *user);

    // of the tracks' threads

    /// Waits until every track has told how it is coded, and while the disk is behind.
    void take(size_t track, GstSample *sample);
    /// Nothing more comes of a track. Any thread, once or more.
    void end(size_t track);
    /// What a wall clock shows at the recording's time 0, in nanoseconds since 1970: first the receiver's, and again
    /// where the sender's holds no more.
    /// @param since  what begins before is not dated by it
    void setClock(int64_t unixTime, uint64_t since, bool sender);

    // of one thread

    /// A track says nothing while others do, which holds up the container: the file goes on without it.
    void setSilent(size_t track, bool silent);
    /// Closes the files that are whole.
    ZrMediaState state();
    /// Waits until all tracks ended.
    bool allEnded(GstClockTime within);
    ZrMediaState finish(GstClockTime within);
    /// Leaves the files as they are; who waits in take() goes on.
    void abort();

private:
    static constexpr size_t none = ~size_t{0};

    struct Track
    {
        bool video = false;
        bool ended = false;
        bool silent = false;
        GstPtr<GstCaps> caps; ///< of its latest frame; null: none yet
        GstClockTime first = GST_CLOCK_TIME_NONE;
        uint64_t last = 0;
        uint64_t leftOut = 0; ///< frames from before the files' begin
    };

    /// A file.
    struct Part
    {
        std::string file;
        std::unique_ptr<Writer> writer;
        std::vector<size_t> places; ///< of the tracks in it, or none; by track
        std::vector<bool> open;     ///< by track
        std::vector<GstPtr<GstCaps>> caps;
        uint64_t begin = 0;
        uint64_t end = 0; ///< of its last frame
        uint64_t bytes = 0;
        bool led = false;                                ///< it has a frame of the track that files begin with
        std::chrono::steady_clock::time_point holdUntil; ///< that tracks wait for its end; the epoch: none did
        ZrMediaPartEnd why = ZR_MEDIA_PART_END;
        int64_t date = 0;
        bool sender = false; ///< whose clock the date is of
    };
    using PartPtr = std::shared_ptr<Part>;
    using Lock = std::unique_lock<std::mutex>;

    struct WallClock
    {
        int64_t unixTime = 0;
        uint64_t since = 0;
        bool sender = false;
    };

    // under m_mutex
    bool known() const;
    size_t reference() const;
    PartPtr partOf(size_t track, GstBuffer *frame, Lock &lock);
    bool isFull(const Part &part, uint64_t time) const;
    void hold(size_t track, uint64_t time, Lock &lock);
    std::optional<ZrMediaPartEnd> due(const Part &part, size_t track, uint64_t time) const;
    bool begin(ZrMediaPartEnd why, uint64_t time);
    void date(Part &part) const;
    void endIn(Part &part, size_t track);
    bool formersEnded() const;
    void fail(const std::string &problem);

    void conclude(Part &part);

    const ZrMediaParts m_files;
    const ZrMediaLog m_log;
    void *const m_user;

    /// Guards what follows; frames are written without it.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Track> m_tracks;
    std::deque<PartPtr> m_parts; ///< the last is written, those before become whole
    WallClock m_clock;
    bool m_wanted = false; ///< a track cannot go on in the file
    bool m_begun = false;  ///< there was a file
    ZrMediaState m_state = ZR_MEDIA_STATE_RUNNING;

    bool m_any = false; ///< a file became whole; of the thread that asks for the state
};

} // namespace zr::media
