/// @file
/// A file in the making.
#pragma once

#include <atomic>
#include <deque>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include "recorder.h"
#include "sender_clocks.h"

/// Operations by one thread at a time; the pipeline has threads of its own, which this class meets in its pad probes
/// and callbacks.
struct ZrMediaSink
{
public:
    ZrMediaSink(ZrMediaKind kind, ZrMediaPicture picture, ZrMediaLog log, void *user);
    ~ZrMediaSink();
    ZrMediaSink(const ZrMediaSink &) = delete;
    ZrMediaSink &operator=(const ZrMediaSink &) = delete;

    /// @return false when it cannot be made; the log has said why
    bool open(const char *file, const ZrMediaParts *parts, const std::vector<ZrMediaFormat> &tracks);
    void push(uint32_t track, const uint8_t *packet, uint32_t size, uint64_t arrival);
    void clock(uint32_t track, uint32_t ssrc, uint32_t timestamp, int64_t unixTime);
    ZrMediaState state();
    ZrMediaState finish(uint32_t timeoutMs);

private:
    struct Track
    {
        ZrMediaSink *sink = nullptr;
        size_t index = 0;
        bool video = false;
        zr::media::GstPtr<GstElement> source;
        zr::media::GstPtr<GstElement> order;
        bool ended = false;
        bool silent = false;
        uint64_t offered = 0;
        uint64_t pushed = 0;
        bool full = false;              ///< too much of it waits
        std::atomic<uint64_t> busy{0};  ///< m_busy when it was active last: a packet of video, a frame of sound
        std::atomic<bool> taken{false}; ///< a frame of it is being taken, which may wait for other tracks
        std::optional<uint32_t> ssrc;
        uint16_t highest = 0; ///< of the numbers that were pushed
        uint16_t shift = 0;   ///< between those and the source's own

        // of the track's streaming thread
        zr::media::RtpTimeline timeline{1};
        bool begun = false; ///< its first key frame has passed
        int lastSequence = -1;
        GstClockTime lastTime = GST_CLOCK_TIME_NONE;
        /// The times of the frames on both sides of the latest gap: their pictures are not whole.
        GstClockTime brokenFrom = GST_CLOCK_TIME_NONE;
        GstClockTime brokenTo = GST_CLOCK_TIME_NONE;
        unsigned gaps = 0;
        uint64_t missing = 0;
        unsigned delays = 0;
        unsigned codeBits = 0; ///< of G.726 that has to be packed anew; 0: nothing has to
    };

    void addTrack(Track &track, size_t index, const ZrMediaFormat &format);
    static GstPadProbeReturn ordered(GstPad *pad, GstPadProbeInfo *info, void *track);
    static GstPadProbeReturn parsed(GstPad *pad, GstPadProbeInfo *info, void *track);
    static GstFlowReturn shown(GstAppSink *sink, void *user);
    static GstFlowReturn framed(GstAppSink *sink, void *track);
    static void framesEnded(GstAppSink *sink, void *track);
    bool hasNoWindow() const;
    void noteGap(Track &track, uint16_t missing, GstClockTime time) const;
    GstClockTime synchronise(Track &track, GstClockTime time, GstClockTime arrival);
    static void renumber(Track &track, GstBuffer *packet);
    void judgeSilence();
    bool overflows(Track &track);
    Track *trackOf(GstMessage *message);
    void judge(GstMessage *message);
    void write(bool error, const std::string &text) const;

    const ZrMediaKind m_kind;
    const ZrMediaPicture m_picture;
    const ZrMediaLog m_log;
    void *const m_user;
    std::unique_ptr<zr::media::Recorder> m_recorder;   ///< of a recording
    std::unique_ptr<zr::media::SenderClocks> m_clocks; ///< likewise
    zr::media::GstPtr<GstElement> m_pipeline;
    zr::media::GstPtr<GstBus> m_bus;
    std::deque<Track> m_tracks; ///< a deque: probes hold their addresses
    ZrMediaState m_state = ZR_MEDIA_STATE_RUNNING;
    bool m_ending = false;
    uint64_t m_firstArrival = 0;         ///< 0: no packet yet
    std::atomic<int64_t> m_firstUnix{0}; ///< when that was by the receiver's clock, nanoseconds since 1970
    uint64_t m_lastArrival = 0;
    std::atomic<uint64_t> m_busy{0}; ///< how long packets have been coming, pauses left out, in nanoseconds
};
