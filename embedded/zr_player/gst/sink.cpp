#include "sink.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <utility>

#include <gst/rtp/gstrtpbuffer.h>

#include "g726.h"

using zr::media::GstPtr;

namespace {

/// A track that says nothing while others do holds up the container.
constexpr uint64_t longestSilence = 5 * GST_SECOND;
/// Packets that wait for a slow disk, some 30 MB of video.
constexpr uint64_t maxWaiting = 20000;
constexpr uint64_t waitingCheck = 512;
/// A bad line must not fill the log.
constexpr unsigned maxLines = 10;
const char *mediaOf(bool video)
{
    return video ? "video" : "audio";
}

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
    if (m_recorder != nullptr)
    {
        m_recorder->abort();
    }
    if (m_pipeline != nullptr)
    {
        gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    }
}

bool ZrMediaSink::open(const char *file, const ZrMediaParts *parts, const std::vector<ZrMediaFormat> &tracks)
{
    std::string problem;
    m_pipeline = zr::media::makePipeline(m_kind, file, tracks, problem);
    if (m_pipeline == nullptr)
    {
        write(true, "the pipeline cannot be made: " + problem);
        return false;
    }
    m_bus.reset(gst_element_get_bus(m_pipeline.get()));
    if (m_kind == ZR_MEDIA_KIND_RECORDING)
    {
        std::vector<bool> video;
        video.reserve(tracks.size());
        for (const ZrMediaFormat &track : tracks)
        {
            video.push_back(std::string(track.pszMedia) == "video");
        }
        m_clocks = std::make_unique<zr::media::SenderClocks>(video);
        m_recorder = std::make_unique<zr::media::Recorder>(*parts, video, m_log, m_user);
    }
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
    track.index = index;
    track.video = std::string(format.pszMedia) == "video";
    track.timeline = zr::media::RtpTimeline(format.ulClockRate);
    track.codeBits = zr::media::codeBitsOf(format.pszEncoding);
    track.source = element("source");
    track.order = element("order");
    gst_app_src_set_caps(GST_APP_SRC(track.source.get()), zr::media::capsOf(format).get());
    probe(track.order.get(), &ZrMediaSink::ordered);
    probe(element("parsed").get(), &ZrMediaSink::parsed);
    if (const GstPtr<GstElement> frames = element("frames"))
    {
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &ZrMediaSink::framed;
        callbacks.eos = &ZrMediaSink::framesEnded;
        gst_app_sink_set_callbacks(GST_APP_SINK(frames.get()), &callbacks, &track, nullptr);
    }
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
    GstClockTime arrival = GST_BUFFER_DTS_OR_PTS(buffer);
    arrival = GST_CLOCK_TIME_IS_VALID(arrival) ? arrival : 0;
    GstClockTime time = track.timeline.map(gst_rtp_buffer_get_ssrc(&rtp), gst_rtp_buffer_get_timestamp(&rtp), arrival);
    const int sequence = gst_rtp_buffer_get_seq(&rtp);
    gst_rtp_buffer_unmap(&rtp);
    if (track.sink->m_recorder != nullptr)
    {
        time = track.sink->synchronise(track, time, arrival);
    }
    if (track.lastSequence >= 0 && sequence != ((track.lastSequence + 1) & 0xFFFF))
    {
        track.sink->noteGap(track, static_cast<uint16_t>(sequence - track.lastSequence - 1), time);
        track.brokenFrom = track.lastTime;
        track.brokenTo = time;
    }
    track.lastSequence = sequence;
    track.lastTime = time;
    GST_BUFFER_PTS(buffer) = time;
    GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
    return GST_PAD_PROBE_OK;
}

void ZrMediaSink::noteGap(Track &track, uint16_t missing, GstClockTime time) const
{
    track.missing += missing;
    if (++track.gaps <= maxLines && m_recorder != nullptr)
    {
        write(false, std::string(mediaOf(track.video)) + ": " + std::to_string(missing) + " packets are missing at " +
                         std::to_string(time / GST_MSECOND) + " ms" +
                         (track.gaps == maxLines ? "; further gaps are only counted" : ""));
    }
}

/// @param time  the packet's
/// @return its time as the sender's clock says
GstClockTime ZrMediaSink::synchronise(Track &track, GstClockTime time, GstClockTime arrival)
{
    const zr::media::SenderClocks::Outcome outcome = m_clocks->follow(track.index, track.timeline, time, arrival);
    if (outcome.undated)
    {
        const auto apart = static_cast<int64_t>(arrival) - static_cast<int64_t>(time);
        m_recorder->setClock(m_firstUnix + apart, time, false);
    }
    if (outcome.start)
    {
        m_recorder->setClock(outcome.start->unixTime, outcome.start->since, true);
    }
    if (outcome.delay != 0 && ++track.delays <= maxLines)
    {
        write(false, std::string(mediaOf(track.video)) + " comes later by " +
                         std::to_string(outcome.delay / GST_MSECOND) + " ms from " +
                         std::to_string(time / GST_MSECOND) + " ms on, as the sender's clock says");
    }
    return time + outcome.delay;
}

/// A frame before the container or decoder: video begins with a key frame. Audio before it is kept; the tracks' threads
/// keep no step, so that "before" would be chance.
GstPadProbeReturn ZrMediaSink::parsed(GstPad *, GstPadProbeInfo *info, void *of)
{
    Track &track = *static_cast<Track *>(of);
    if (track.codeBits != 0)
    {
        GST_PAD_PROBE_INFO_DATA(info) = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
        zr::media::packAnew(GST_PAD_PROBE_INFO_BUFFER(info), track.codeBits);
    }
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
    return GST_PAD_PROBE_OK;
}

GstFlowReturn ZrMediaSink::framed(GstAppSink *from, void *of)
{
    Track &track = *static_cast<Track *>(of);
    const GstPtr<GstSample> sample(gst_app_sink_pull_sample(from));
    if (sample == nullptr)
    {
        return GST_FLOW_EOS;
    }
    track.taken = true;
    track.sink->m_recorder->take(track.index, sample.get());
    track.busy = track.sink->m_busy.load();
    track.taken = false;
    return GST_FLOW_OK;
}

void ZrMediaSink::framesEnded(GstAppSink *, void *of)
{
    const Track &track = *static_cast<Track *>(of);
    track.sink->m_recorder->end(track.index);
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
        if (m_recorder != nullptr)
        {
            using namespace std::chrono;
            const auto now = duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
            const auto wall = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
            m_firstUnix = wall - now + static_cast<int64_t>(arrival);
            m_recorder->setClock(m_firstUnix, 0, false);
        }
    }
    if (arrival > m_lastArrival)
    {
        m_busy += std::min<uint64_t>(arrival - m_lastArrival, GST_SECOND);
        m_lastArrival = arrival;
    }
    if (track.video) // between key frames there may be none; of sound only frames show that it can be decoded
    {
        track.busy = m_busy.load();
    }
    if (m_state != ZR_MEDIA_STATE_RUNNING || track.ended || overflows(track))
    {
        return;
    }
    GstBuffer *buffer = gst_buffer_new_memdup(packet, size);
    renumber(track, buffer);
    GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = arrival > m_firstArrival ? arrival - m_firstArrival : 0;
    gst_app_src_push_buffer(GST_APP_SRC(track.source.get()), buffer);
    ++track.pushed;
    judgeSilence();
}

/// Another source counts from elsewhere: its packets go on behind the former one's, with a gap, for nobody knows what
/// is missing between.
void ZrMediaSink::renumber(Track &track, GstBuffer *packet)
{
    std::array<uint8_t, 12> head{};
    if (gst_buffer_extract(packet, 0, head.data(), head.size()) != head.size())
    {
        return;
    }
    const uint32_t ssrc = GST_READ_UINT32_BE(&head[8]);
    const uint16_t sequence = GST_READ_UINT16_BE(&head[2]);
    if (!track.ssrc)
    {
        track.highest = sequence;
    }
    else if (*track.ssrc != ssrc)
    {
        track.shift = static_cast<uint16_t>(track.highest + 2 - sequence);
    }
    track.ssrc = ssrc;
    const auto number = static_cast<uint16_t>(sequence + track.shift);
    if (static_cast<int16_t>(number - track.highest) > 0)
    {
        track.highest = number;
    }
    GST_WRITE_UINT16_BE(&head[2], number);
    gst_buffer_fill(packet, 2, &head[2], 2);
}

void ZrMediaSink::clock(uint32_t track, uint32_t ssrc, uint32_t timestamp, int64_t unixTime)
{
    if (m_clocks != nullptr)
    {
        m_clocks->report(track, ssrc, timestamp, unixTime);
    }
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

void ZrMediaSink::judgeSilence()
{
    for (Track &track : m_tracks)
    {
        const uint64_t busy = track.busy;
        const bool silent = !track.taken && m_busy > busy + longestSilence;
        if (m_recorder == nullptr || track.ended || silent == track.silent)
        {
            continue;
        }
        track.silent = silent;
        m_recorder->setSilent(track.index, silent);
        write(silent, std::string(silent ? "a track fell silent; the file goes on without its "
                                         : "a track is heard again; the next file will have its ") +
                          mediaOf(track.video));
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
    if (m_recorder != nullptr && m_state == ZR_MEDIA_STATE_RUNNING)
    {
        m_state = m_recorder->state();
    }
    return m_state;
}

ZrMediaState ZrMediaSink::finish(uint32_t timeoutMs)
{
    if (state() != ZR_MEDIA_STATE_RUNNING)
    {
        return m_state;
    }
    m_ending = true;
    for (Track &track : m_tracks)
    {
        gst_app_src_end_of_stream(GST_APP_SRC(track.source.get()));
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool ended = false;
    while (!ended && state() == ZR_MEDIA_STATE_RUNNING && std::chrono::steady_clock::now() < end)
    {
        ended = m_recorder->allEnded(20 * GST_MSECOND);
        for (Track &track : m_tracks)
        {
            const bool late = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs / 2) > end;
            if (!ended && late && !track.video && !std::exchange(track.ended, true))
            {
                m_recorder->end(track.index); // the video is not to suffer from it
            }
        }
    }
    if (m_state == ZR_MEDIA_STATE_RUNNING && !ended)
    {
        write(true, "the file did not become whole in time");
        m_state = ZR_MEDIA_STATE_FAILED;
    }
    if (m_state == ZR_MEDIA_STATE_RUNNING)
    {
        m_state = m_recorder->finish(timeoutMs * GST_MSECOND);
    }
    for (const Track &track : m_tracks)
    {
        if (ended && track.timeline.before() != 0)
        {
            write(true, std::string(mediaOf(track.video)) + ": " + std::to_string(track.timeline.before()) +
                            " frames are of a time before the first one's, and lost");
        }
        if (ended && track.gaps != 0)
        {
            write(false, std::string(mediaOf(track.video)) + ": " + std::to_string(track.missing) +
                             " packets were missing at " + std::to_string(track.gaps) + " places");
        }
    }
    return m_state;
}

/// The track that a message is about: its element stands behind the track's source. Null: none.
ZrMediaSink::Track *ZrMediaSink::trackOf(GstMessage *message)
{
    GstPtr<GstElement> at(
        GST_IS_ELEMENT(GST_MESSAGE_SRC(message)) ? GST_ELEMENT(gst_object_ref(GST_MESSAGE_SRC(message))) : nullptr);
    while (at != nullptr)
    {
        const auto found =
            std::find_if(m_tracks.begin(), m_tracks.end(), [&at](const Track &track) { return track.source == at; });
        if (found != m_tracks.end())
        {
            return &*found;
        }
        const GstPtr<GstPad> input(gst_element_get_static_pad(at.get(), "sink"));
        const GstPtr<GstPad> before(input == nullptr ? nullptr : gst_pad_get_peer(input.get()));
        at.reset(before == nullptr ? nullptr : gst_pad_get_parent_element(before.get()));
    }
    return nullptr;
}

void ZrMediaSink::judge(GstMessage *message)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS)
    {
        m_state = m_recorder == nullptr ? ZR_MEDIA_STATE_WHOLE : m_state;
        return;
    }
    Track *const track = m_recorder == nullptr ? nullptr : trackOf(message);
    if (track != nullptr && track->ended)
    {
        return; // the source says so as well
    }
    write(true, zr::media::errorOf(message));
    if (track == nullptr || (track->video && !m_ending))
    {
        m_state = ZR_MEDIA_STATE_FAILED;
        return;
    }
    track->ended = true;
    m_recorder->end(track->index);
    write(true, std::string("the recording goes on without its ") + mediaOf(track->video));
}

void ZrMediaSink::write(bool error, const std::string &text) const
{
    m_log(m_user, error ? 1 : 0, text.c_str());
}
