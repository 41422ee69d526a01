#include "join.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

namespace zr::media {

namespace {

constexpr size_t tailBytes = 512;
constexpr size_t keptKeys = 256;
/// What is read ahead of the container while every track has something to write.
constexpr uint64_t readAhead = 32U << 20U;
constexpr GstClockTime endWithin = 60 * GST_SECOND;

/// A frame of a track, in the order of the file.
using Take = std::function<void(const std::string &track, GstCaps *caps, GstBuffer *frame)>;

std::string messageText(GstMessage *message)
{
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error->message;
    g_error_free(error);
    return text;
}

/// Brings a file's frames, of the first video and the first audio track.
class Reader
{
public:
    explicit Reader(Take take)
        : m_take(std::move(take))
    {
    }

    /// Returns when the file was read. A file that is cut off ends where it is cut.
    /// @throws std::runtime_error  when it cannot be read at all
    void run(const std::string &file);

private:
    struct Track
    {
        Reader *reader;
        std::string media;
    };

    static void added(GstElement *demux, GstPad *pad, void *user);
    static GstFlowReturn sample(GstAppSink *sink, void *user);

    const Take m_take;
    GstPtr<GstElement> m_pipeline;
    std::deque<Track> m_tracks; ///< of the demultiplexer's thread
    bool m_any = false;         ///< likewise
};

void Reader::added(GstElement *, GstPad *pad, void *user)
{
    auto &reader = *static_cast<Reader *>(user);
    const GstPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
    const std::string name = caps == nullptr ? "" : gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
    const std::string media = name.rfind("audio/", 0) == 0 ? "audio" : "video";
    const bool known = std::any_of(reader.m_tracks.begin(), reader.m_tracks.end(),
                                   [&](const Track &track) { return track.media == media; });
    const bool wanted = !known && (media == "audio" || name.rfind("video/", 0) == 0 || name.rfind("image/", 0) == 0);
    GstElement *sink = gst_element_factory_make(wanted ? "appsink" : "fakesink", nullptr);
    g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(GST_BIN(reader.m_pipeline.get()), sink);
    if (wanted)
    {
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &Reader::sample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, &reader.m_tracks.emplace_back(Track{&reader, media}),
                                   nullptr);
    }
    gst_element_sync_state_with_parent(sink);
    const GstPtr<GstPad> end(gst_element_get_static_pad(sink, "sink"));
    gst_pad_link(pad, end.get());
}

GstFlowReturn Reader::sample(GstAppSink *sink, void *user)
{
    const auto &track = *static_cast<Track *>(user);
    const GstPtr<GstSample> sample(gst_app_sink_pull_sample(sink));
    if (sample == nullptr)
    {
        return GST_FLOW_EOS;
    }
    GstBuffer *frame = gst_sample_get_buffer(sample.get());
    if (GST_BUFFER_PTS_IS_VALID(frame))
    {
        track.reader->m_any = true;
        track.reader->m_take(track.media, gst_sample_get_caps(sample.get()), frame);
    }
    return GST_FLOW_OK;
}

void Reader::run(const std::string &file)
{
    m_pipeline.reset(gst_parse_launch("filesrc name=file ! matroskademux name=demux", nullptr));
    if (m_pipeline == nullptr)
    {
        throw std::runtime_error("there is no reader of Matroska files");
    }
    const GstPtr<GstElement> source(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), "file"));
    const GstPtr<GstElement> demux(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), "demux"));
    g_object_set(source.get(), "location", file.c_str(), nullptr);
    g_signal_connect(demux.get(), "pad-added", G_CALLBACK(&Reader::added), this);
    const GstPtr<GstBus> bus(gst_element_get_bus(m_pipeline.get()));
    gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
    const GstPtr<GstMessage> message(gst_bus_timed_pop_filtered(
        bus.get(), GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    const bool ended = GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
    gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    if (!m_any)
    {
        throw std::runtime_error(file + ": " + (ended ? "it holds no media" : messageText(message.get())));
    }
}

std::string tailOf(GstBuffer *frame)
{
    const size_t size = gst_buffer_get_size(frame);
    std::string tail(std::min(size, tailBytes), '\0');
    gst_buffer_extract(frame, size - tail.size(), tail.data(), tail.size());
    return tail;
}

/// Two tracks can be one when they are coded alike, with the same parameter sets.
bool alike(const GstCaps *one, const GstCaps *other)
{
    const GstStructure *a = gst_caps_get_structure(one, 0);
    const GstStructure *b = gst_caps_get_structure(other, 0);
    for (const char *field : {"codec_data", "width", "height", "rate", "channels"})
    {
        const GValue *left = gst_structure_get_value(a, field);
        const GValue *right = gst_structure_get_value(b, field);
        if ((left == nullptr) != (right == nullptr) ||
            (left != nullptr && gst_value_compare(left, right) != GST_VALUE_EQUAL))
        {
            return false;
        }
    }
    return gst_structure_has_name(a, gst_structure_get_name(b)) != FALSE;
}

/// A Matroska file that takes frames.
class Writer
{
public:
    Writer(const std::string &file, const std::map<std::string, GstPtr<GstCaps>> &tracks);
    ~Writer() { gst_element_set_state(m_pipeline.get(), GST_STATE_NULL); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    /// @param move  nanoseconds to be added to its times
    void write(const std::string &track, GstBuffer *frame, int64_t move);
    /// @throws std::runtime_error  when the file did not become whole
    void finish();

private:
    void wait();

    GstPtr<GstElement> m_pipeline;
    std::map<std::string, GstPtr<GstElement>> m_sources;
};

Writer::Writer(const std::string &file, const std::map<std::string, GstPtr<GstCaps>> &tracks)
{
    std::string text = "matroskamux name=mux ! filesink name=file";
    for (const auto &[name, caps] : tracks)
    {
        text.append(" appsrc name=").append(name).append(" format=time max-bytes=0 ! mux.").append(name).append("_0");
    }
    m_pipeline.reset(gst_parse_launch(text.c_str(), nullptr));
    if (m_pipeline == nullptr)
    {
        throw std::runtime_error("there is no writer of Matroska files");
    }
    const auto element = [this](const std::string &name) {
        return GstPtr<GstElement>(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), name.c_str()));
    };
    g_object_set(element("file").get(), "location", file.c_str(), nullptr);
    for (const auto &[name, caps] : tracks)
    {
        gst_app_src_set_caps(GST_APP_SRC(m_sources.emplace(name, element(name)).first->second.get()), caps.get());
    }
    gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
}

/// Lets the container come after, unless it waits for a track that has nothing now.
void Writer::wait()
{
    const GstPtr<GstBus> bus(gst_element_get_bus(m_pipeline.get()));
    for (bool full = true; full;)
    {
        uint64_t waiting = 0;
        bool all = true;
        for (const auto &source : m_sources)
        {
            const uint64_t level = gst_app_src_get_current_level_bytes(GST_APP_SRC(source.second.get()));
            waiting += level;
            all = all && level > 0;
        }
        const GstPtr<GstMessage> failed(gst_bus_peek(bus.get()));
        full = all && waiting > readAhead && (failed == nullptr || GST_MESSAGE_TYPE(failed.get()) != GST_MESSAGE_ERROR);
        if (full)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
}

void Writer::write(const std::string &track, GstBuffer *frame, int64_t move)
{
    const auto source = m_sources.find(track);
    if (source == m_sources.end())
    {
        return;
    }
    GstBuffer *moved = gst_buffer_copy(frame); // its bytes are shared
    for (GstClockTime *time : {&GST_BUFFER_PTS(moved), &GST_BUFFER_DTS(moved)})
    {
        if (GST_CLOCK_TIME_IS_VALID(*time))
        {
            *time = static_cast<GstClockTime>(std::max<int64_t>(static_cast<int64_t>(*time) + move, 0));
        }
    }
    gst_app_src_push_buffer(GST_APP_SRC(source->second.get()), moved);
    wait();
}

void Writer::finish()
{
    for (const auto &source : m_sources)
    {
        gst_app_src_end_of_stream(GST_APP_SRC(source.second.get()));
    }
    const GstPtr<GstBus> bus(gst_element_get_bus(m_pipeline.get()));
    const GstPtr<GstMessage> message(gst_bus_timed_pop_filtered(
        bus.get(), endWithin, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    if (message == nullptr || GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR)
    {
        throw std::runtime_error(message == nullptr ? "the file did not become whole in time"
                                                    : messageText(message.get()));
    }
}

/// Where the second goes on in the first.
struct Seam
{
    uint64_t time; ///< in the first
    bool found;    ///< the same key frame is there
};

Seam seamOf(const RecordingLook &first, const RecordingLook &second)
{
    const auto same = std::find_if(first.keys.rbegin(), first.keys.rend(), [&](const KeyFrame &key) {
        return second.hasVideo() && key.tail == second.firstKey.tail;
    });
    return same == first.keys.rend() ? Seam{first.end, false} : Seam{same->time, true};
}

} // namespace

RecordingLook lookThrough(const std::string &file)
{
    RecordingLook look;
    Reader reader([&look](const std::string &track, GstCaps *caps, GstBuffer *frame) {
        if (look.tracks.count(track) == 0)
        {
            look.tracks[track].reset(gst_caps_copy(caps));
        }
        const GstClockTime length = GST_BUFFER_DURATION_IS_VALID(frame) ? GST_BUFFER_DURATION(frame) : 0;
        look.end = std::max(look.end, GST_BUFFER_PTS(frame) + length);
        if (track != "video" || GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT))
        {
            return;
        }
        look.keys.push_back({GST_BUFFER_PTS(frame), tailOf(frame)});
        if (look.firstKey.tail.empty())
        {
            look.firstKey = look.keys.back();
        }
        if (look.keys.size() > keptKeys)
        {
            look.keys.pop_front();
        }
    });
    reader.run(file);
    return look;
}

std::string joinRecordings(const std::string &first, const std::string &second, const std::string &out)
{
    const RecordingLook before = lookThrough(first);
    const RecordingLook after = lookThrough(second);
    for (const auto &[name, caps] : before.tracks)
    {
        const auto same = after.tracks.find(name);
        if (same != after.tracks.end() && !alike(caps.get(), same->second.get()))
        {
            std::string what = "the ";
            what.append(name).append(" of ").append(second).append(" is coded differently from that of ").append(first);
            throw std::runtime_error(what);
        }
    }
    const Seam seam = seamOf(before, after);
    const uint64_t begin = seam.found ? after.firstKey.time : 0;
    const int64_t move = static_cast<int64_t>(seam.time) - static_cast<int64_t>(begin);
    Writer writer(out, before.tracks);
    Reader([&](const std::string &track, GstCaps *, GstBuffer *frame) {
        if (GST_BUFFER_PTS(frame) < seam.time)
        {
            writer.write(track, frame, 0);
        }
    }).run(first);
    Reader([&](const std::string &track, GstCaps *, GstBuffer *frame) {
        if (GST_BUFFER_PTS(frame) >= begin)
        {
            writer.write(track, frame, move);
        }
    }).run(second);
    writer.finish();
    return first + " goes on with " + second + " at " + std::to_string(seam.time / GST_MSECOND) + " ms, " +
           (seam.found ? "at a key frame that both have" : "behind its end, for they have no key frame in common");
}

} // namespace zr::media
