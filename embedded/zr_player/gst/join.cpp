#include "join.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include <gst/app/gstappsink.h>

#include "writer.h"

namespace zr::media {

namespace {

constexpr size_t tailBytes = 512;
constexpr size_t keptKeys = 256;
/// What is read ahead of the container while every track has something to write.
constexpr uint64_t readAhead = 32U << 20U;
constexpr GstClockTime endWithin = 60 * GST_SECOND;

/// A frame of a track, in the order of the file.
using Take = std::function<void(const std::string &track, GstCaps *caps, GstBuffer *frame)>;

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
    /// What a tag says; empty: there is none.
    std::string comment() const { return m_comment; }

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
    std::string m_comment;
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
    constexpr auto types = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS | GST_MESSAGE_TAG);
    GstPtr<GstMessage> message(gst_bus_timed_pop_filtered(bus.get(), GST_CLOCK_TIME_NONE, types));
    for (; GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_TAG;
         message.reset(gst_bus_timed_pop_filtered(bus.get(), GST_CLOCK_TIME_NONE, types)))
    {
        GstTagList *tags = nullptr;
        gst_message_parse_tag(message.get(), &tags);
        gchar *text = nullptr;
        if (gst_tag_list_get_string(tags, GST_TAG_COMMENT, &text) != FALSE)
        {
            m_comment = text;
            g_free(text);
        }
        gst_tag_list_unref(tags);
    }
    const bool ended = GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
    gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    if (!m_any)
    {
        throw std::runtime_error(file + ": " + (ended ? "it holds no media" : errorOf(message.get())));
    }
}

std::string tailOf(GstBuffer *frame)
{
    const size_t size = gst_buffer_get_size(frame);
    std::string tail(std::min(size, tailBytes), '\0');
    gst_buffer_extract(frame, size - tail.size(), tail.data(), tail.size());
    return tail;
}

/// Both recordings' frames, in one file.
class Output
{
public:
    /// @param like  its tracks and its beginning are taken over
    Output(const std::string &file, const RecordingLook &like);

    /// @param move  nanoseconds to be added to its times
    void write(const std::string &track, GstBuffer *frame, int64_t move);
    /// @throws std::runtime_error  when the file did not become whole
    void finish();

private:
    static std::vector<Writer::Track> inOrder(const std::map<std::string, GstPtr<GstCaps>> &tracks);

    std::map<std::string, size_t> m_places;
    Writer m_writer;
};

std::vector<Writer::Track> Output::inOrder(const std::map<std::string, GstPtr<GstCaps>> &tracks)
{
    std::vector<Writer::Track> ordered;
    ordered.reserve(tracks.size());
    for (const auto &[name, caps] : tracks)
    {
        ordered.push_back({name, GstPtr<GstCaps>(gst_caps_ref(caps.get()))});
    }
    return ordered;
}

Output::Output(const std::string &file, const RecordingLook &like)
    : m_writer(file, inOrder(like.tracks), false)
{
    for (const auto &track : like.tracks)
    {
        m_places.emplace(track.first, m_places.size());
    }
    if (like.date != 0)
    {
        m_writer.setDate(like.date);
    }
    if (!like.comment.empty())
    {
        m_writer.setComment(like.comment);
    }
    m_writer.start();
}

void Output::write(const std::string &track, GstBuffer *frame, int64_t move)
{
    const auto place = m_places.find(track);
    if (place == m_places.end())
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
    m_writer.write(place->second, moved);
    // lets the container come after, unless it waits for a track that has nothing now; one that failed takes no more
    while (m_writer.waiting() > readAhead && !m_writer.isWhole(0))
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Output::finish()
{
    for (const auto &place : m_places)
    {
        m_writer.end(place.second);
    }
    if (!m_writer.isWhole(endWithin))
    {
        throw std::runtime_error("the file did not become whole in time");
    }
    m_writer.close();
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
    look.comment = reader.comment();
    look.date = dateOf(file);
    return look;
}

std::optional<std::string> joinRecordings(const std::string &first, const std::string &second, const std::string &out)
{
    const RecordingLook before = lookThrough(first);
    const RecordingLook after = lookThrough(second);
    for (const auto &[name, caps] : before.tracks)
    {
        const auto same = after.tracks.find(name);
        if (same != after.tracks.end() && !codedAlike(caps.get(), same->second.get()))
        {
            std::string what = "the ";
            what.append(name).append(" of ").append(second).append(" is coded differently from that of ").append(first);
            throw std::runtime_error(what);
        }
    }
    const Seam seam = seamOf(before, after);
    const uint64_t begin = seam.found ? after.firstKey.time : 0;
    const int64_t move = static_cast<int64_t>(seam.time) - static_cast<int64_t>(begin);
    if (seam.found && static_cast<int64_t>(after.end) + move < static_cast<int64_t>(before.end))
    {
        return std::nullopt;
    }
    Output writer(out, before);
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
