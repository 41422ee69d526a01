#include "sink.h"

#include <gst/rtp/gstrtpbuffer.h>

using zr::media::GstPtr;

namespace {

/// A track that says nothing while others do holds up the container.
constexpr uint64_t longestSilence = 5 * GST_SECOND;
/// Packets that wait for a slow disk, some 30 MB of video.
constexpr uint64_t maxWaiting = 20000;
constexpr uint64_t waitingCheck = 512;

} // namespace

ZrMediaSink::ZrMediaSink(ZrMediaKind kind, ZrMediaPicture picture, ZrMediaLog log, void *user)
    : m_kind(kind)
    , m_picture(picture)
    , m_log(log)
    , m_user(user)
{
}

ZrMediaSink::~ZrMediaSink()
{
    if (m_pipeline != nullptr)
    {
        gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    }
}

bool ZrMediaSink::open(const std::string &file, const std::vector<ZrMediaFormat> &tracks)
{
    std::string problem;
    m_pipeline = zr::media::makePipeline(m_kind, file, tracks, problem);
    if (m_pipeline == nullptr)
    {
        write(true, "the pipeline cannot be made: " + problem);
        return false;
    }
    m_bus.reset(gst_element_get_bus(m_pipeline.get()));
    for (size_t i = 0; i < tracks.size(); ++i)
    {
        Track &track = m_tracks.emplace_back();
        addTrack(track, i, tracks[i]);
    }
    if (const GstPtr<GstElement> pictures{gst_bin_get_by_name(GST_BIN(m_pipeline.get()), "pictures")})
    {
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &ZrMediaSink::shown;
        gst_app_sink_set_callbacks(GST_APP_SINK(pictures.get()), &callbacks, this, nullptr);
    }
    // the packets' own times count from the first one's arrival; what waited before it began plays no part
    const GstPtr<GstClock> clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(m_pipeline.get()), clock.get());
    gst_element_set_start_time(m_pipeline.get(), GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(m_pipeline.get(), gst_clock_get_time(clock.get()));
    if (gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
    {
        state();
        write(true, "the pipeline does not start");
        return false;
    }
    if (hasNoWindow())
    {
        write(true, "no window can be opened: nothing that shows video reaches a desktop");
        return false;
    }
    return true;
}

/// Where no sink works, autovideosink takes one that throws all away, and only warns of it.
bool ZrMediaSink::hasNoWindow() const
{
    const GstPtr<GstElement> window(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), "window"));
    if (window == nullptr)
    {
        return false;
    }
    const GstPtr<GstElement> actual(gst_bin_get_by_name(GST_BIN(window.get()), "fake-video-sink"));
    return actual != nullptr;
}

void ZrMediaSink::addTrack(Track &track, size_t index, const ZrMediaFormat &format)
{
    const auto element = [this, index](const char *name) {
        return GstPtr<GstElement>(
            gst_bin_get_by_name(GST_BIN(m_pipeline.get()), (name + std::to_string(index)).c_str()));
    };
    const auto probe = [&track](GstElement *at, GstPadProbeCallback callback) {
        const zr::media::GstPtr<GstPad> pad(gst_element_get_static_pad(at, "src"));
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, callback, &track, nullptr);
    };
    track.sink = this;
    track.video = std::string(format.pszMedia) == "video";
    track.timeline = zr::media::RtpTimeline(format.ulClockRate);
    track.source = element("source");
    track.order = element("order");
    gst_app_src_set_caps(GST_APP_SRC(track.source.get()), zr::media::capsOf(format).get());
    probe(track.order.get(), &ZrMediaSink::ordered);
    probe(element("parsed").get(), &ZrMediaSink::parsed);
}

/// A packet in its order: it gets its time, and a gap before it is noted.
GstPadProbeReturn ZrMediaSink::ordered(GstPad *, GstPadProbeInfo *info, void *of)
{
    Track &track = *static_cast<Track *>(of);
    GstBuffer *buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (gst_rtp_buffer_map(buffer, GST_MAP_READ, &rtp) == FALSE)
    {
        return GST_PAD_PROBE_DROP;
    }
    const GstClockTime arrival = GST_BUFFER_DTS_OR_PTS(buffer);
    const GstClockTime time = track.timeline.map(gst_rtp_buffer_get_ssrc(&rtp), gst_rtp_buffer_get_timestamp(&rtp),
                                                 GST_CLOCK_TIME_IS_VALID(arrival) ? arrival : 0);
    const int sequence = gst_rtp_buffer_get_seq(&rtp);
    gst_rtp_buffer_unmap(&rtp);
    if (track.lastSequence >= 0 && sequence != ((track.lastSequence + 1) & 0xFFFF))
    {
        track.brokenFrom = track.lastTime;
        track.brokenTo = time;
    }
    track.lastSequence = sequence;
    track.lastTime = time;
    GST_BUFFER_PTS(buffer) = time;
    GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
    return GST_PAD_PROBE_OK;
}

/// A frame before the container or decoder: video begins with a key frame. Audio before it is kept; the tracks' threads
/// keep no step, so that "before" would be chance.
GstPadProbeReturn ZrMediaSink::parsed(GstPad *, GstPadProbeInfo *info, void *of)
{
    Track &track = *static_cast<Track *>(of);
    const GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    if (track.video && !track.begun)
    {
        const GstClockTime time = GST_BUFFER_PTS(buffer);
        const bool whole = !GST_CLOCK_TIME_IS_VALID(time) || (time != track.brokenFrom && time != track.brokenTo);
        if (!whole || GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT))
        {
            return GST_PAD_PROBE_DROP;
        }
        track.begun = true;
    }
    ++track.sink->m_buffers;
    return GST_PAD_PROBE_OK;
}

GstFlowReturn ZrMediaSink::shown(GstAppSink *from, void *user)
{
    const auto &sink = *static_cast<const ZrMediaSink *>(user);
    const GstPtr<GstSample> sample(gst_app_sink_pull_sample(from));
    if (sample == nullptr)
    {
        return GST_FLOW_EOS;
    }
    const GstStructure *format = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
    int width = 0;
    int height = 0;
    GstMapInfo map;
    if (gst_structure_get_int(format, "width", &width) == FALSE ||
        gst_structure_get_int(format, "height", &height) == FALSE ||
        gst_buffer_map(gst_sample_get_buffer(sample.get()), &map, GST_MAP_READ) == FALSE)
    {
        return GST_FLOW_ERROR;
    }
    const size_t row = static_cast<size_t>(width) * 3;
    const size_t stride = (row + 3) / 4 * 4; // rows begin at multiples of four
    const auto rows = static_cast<size_t>(height);
    if (rows > 0 && map.size >= stride * (rows - 1) + row)
    {
        std::vector<uint8_t> packed(row * rows);
        for (size_t i = 0; i < rows; ++i)
        {
            std::copy_n(map.data + i * stride, row, packed.data() + i * row);
        }
        sink.m_picture(sink.m_user, packed.data(), static_cast<uint32_t>(width), static_cast<uint32_t>(height));
    }
    gst_buffer_unmap(gst_sample_get_buffer(sample.get()), &map);
    return GST_FLOW_OK;
}

void ZrMediaSink::push(uint32_t index, const uint8_t *packet, uint32_t size, uint64_t arrival)
{
    Track &track = m_tracks[index];
    if (m_firstArrival == 0)
    {
        m_firstArrival = m_lastArrival = arrival;
    }
    if (arrival > m_lastArrival)
    {
        m_busy += std::min<uint64_t>(arrival - m_lastArrival, GST_SECOND);
        m_lastArrival = arrival;
    }
    track.busy = m_busy;
    if (m_state != ZR_MEDIA_STATE_RUNNING || track.ended || overflows(track))
    {
        return;
    }
    GstBuffer *buffer = gst_buffer_new_memdup(packet, size);
    GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = arrival > m_firstArrival ? arrival - m_firstArrival : 0;
    gst_app_src_push_buffer(GST_APP_SRC(track.source.get()), buffer);
    ++track.pushed;
    endSilentTracks();
}

/// Whether too many packets wait for the container; looked at now and then only, for it costs.
bool ZrMediaSink::overflows(Track &track)
{
    if (++track.offered % waitingCheck != 0)
    {
        return track.full;
    }
    GstStructure *statistics = nullptr;
    g_object_get(track.order.get(), "stats", &statistics, nullptr);
    uint64_t gone = 0;
    for (const char *name : {"num-pushed", "num-late", "num-duplicates"})
    {
        guint64 count = 0;
        gst_structure_get_uint64(statistics, name, &count);
        gone += count;
    }
    gst_structure_free(statistics);
    const bool full = track.pushed > gone + maxWaiting;
    if (full && !track.full)
    {
        write(true, "the file is written more slowly than packets come; some are left out");
    }
    track.full = full;
    return full;
}

void ZrMediaSink::endSilentTracks()
{
    for (Track &track : m_tracks)
    {
        if (!track.ended && m_busy - track.busy > longestSilence)
        {
            track.ended = true;
            gst_app_src_end_of_stream(GST_APP_SRC(track.source.get()));
            write(true, std::string("a track fell silent; the file goes on without its ") +
                            (track.video ? "video" : "audio"));
        }
    }
}

ZrMediaState ZrMediaSink::state()
{
    constexpr auto types = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);
    while (m_bus != nullptr && m_state == ZR_MEDIA_STATE_RUNNING)
    {
        const GstPtr<GstMessage> message(gst_bus_pop_filtered(m_bus.get(), types));
        if (message == nullptr)
        {
            break;
        }
        judge(message.get());
    }
    return m_state;
}

ZrMediaState ZrMediaSink::finish(uint32_t timeoutMs)
{
    if (state() != ZR_MEDIA_STATE_RUNNING)
    {
        return m_state;
    }
    for (Track &track : m_tracks)
    {
        gst_app_src_end_of_stream(GST_APP_SRC(track.source.get()));
    }
    constexpr auto types = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);
    const GstPtr<GstMessage> message(gst_bus_timed_pop_filtered(m_bus.get(), timeoutMs * GST_MSECOND, types));
    if (message == nullptr)
    {
        write(true, "the file did not become whole in time");
        m_state = ZR_MEDIA_STATE_FAILED;
    }
    else
    {
        judge(message.get());
    }
    return m_state;
}

void ZrMediaSink::judge(GstMessage *message)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS)
    {
        m_state = m_buffers == 0 ? ZR_MEDIA_STATE_EMPTY : ZR_MEDIA_STATE_WHOLE;
        return;
    }
    GError *error = nullptr;
    gchar *detail = nullptr;
    gst_message_parse_error(message, &error, &detail);
    write(true, std::string(error->message) + " (" + (detail == nullptr ? "no detail" : detail) + ")");
    g_error_free(error);
    g_free(detail);
    m_state = ZR_MEDIA_STATE_FAILED;
}

void ZrMediaSink::write(bool error, const std::string &text) const
{
    m_log(m_user, error ? 1 : 0, text.c_str());
}
