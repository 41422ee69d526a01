/// @file
/// A file in the making.
#pragma once

#include <atomic>
#include <deque>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include "pipeline.h"
#include "rtp_timeline.h"

/// Operations by one thread at a time; the pipeline has threads of its own, which this class meets in its pad probes.
struct ZrMediaSink
{
public:
    ZrMediaSink(ZrMediaKind kind, ZrMediaPicture picture, ZrMediaLog log, void *user);
    ~ZrMediaSink();
    ZrMediaSink(const ZrMediaSink &) = delete;
    ZrMediaSink &operator=(const ZrMediaSink &) = delete;

    /// @return false when it cannot be made; the log has said why
    bool open(const std::string &file, const std::vector<ZrMediaFormat> &tracks);
    void push(uint32_t track, const uint8_t *packet, uint32_t size, uint64_t arrival);
    ZrMediaState state();
    ZrMediaState finish(uint32_t timeoutMs);

private:
    struct Track
    {
        ZrMediaSink *sink = nullptr;
        bool video = false;
        zr::media::GstPtr<GstElement> source;
        zr::media::GstPtr<GstElement> order;
        bool ended = false;
        uint64_t offered = 0;
        uint64_t pushed = 0;
        bool full = false; ///< too much of it waits
        uint64_t busy = 0; ///< m_busy at its last packet

        // of the track's streaming thread
        zr::media::RtpTimeline timeline{1};
        bool begun = false; ///< its first key frame has passed
        int lastSequence = -1;
        GstClockTime lastTime = GST_CLOCK_TIME_NONE;
        /// The times of the frames on both sides of the latest gap: their pictures are not whole.
        GstClockTime brokenFrom = GST_CLOCK_TIME_NONE;
        GstClockTime brokenTo = GST_CLOCK_TIME_NONE;
    };

    void addTrack(Track &track, size_t index, const ZrMediaFormat &format);
    static GstPadProbeReturn ordered(GstPad *pad, GstPadProbeInfo *info, void *track);
    static GstPadProbeReturn parsed(GstPad *pad, GstPadProbeInfo *info, void *track);
    bool hasNoWindow() const;
    static GstFlowReturn shown(GstAppSink *sink, void *user);
    void endSilentTracks();
    bool overflows(Track &track);
    void judge(GstMessage *message);
    void write(bool error, const std::string &text) const;

    const ZrMediaKind m_kind;
    const ZrMediaPicture m_picture;
    const ZrMediaLog m_log;
    void *const m_user;
    zr::media::GstPtr<GstElement> m_pipeline;
    zr::media::GstPtr<GstBus> m_bus;
    std::deque<Track> m_tracks; ///< a deque: probes hold their addresses
    ZrMediaState m_state = ZR_MEDIA_STATE_RUNNING;
    uint64_t m_firstArrival = 0; ///< 0: no packet yet
    uint64_t m_lastArrival = 0;
    uint64_t m_busy = 0; ///< how long packets have been coming, pauses left out, in nanoseconds

    std::atomic<uint64_t> m_buffers{0}; ///< that went into the file
};
