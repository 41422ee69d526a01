// Receives media through GStreamer's udpsrc or rtspsrc, and says what a packet costs.

#include <atomic>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <thread>

#include <gst/gst.h>

#include "media_program.h"

namespace {

using media::Options;

constexpr GstClockTime longest = 20 * GST_SECOND;

/// One pipeline.
class Stream
{
public:
    /// @param text  a pipeline with "source" and "counted" in it; the packets that reach the latter are counted
    explicit Stream(const std::string &text)
        : m_pipeline(gst_parse_launch(text.c_str(), nullptr))
    {
        if (m_pipeline == nullptr)
            throw std::runtime_error("the pipeline cannot be made: " + text);
        GstElement *counted = gst_bin_get_by_name(GST_BIN(m_pipeline), "counted");
        GstPad *pad = gst_element_get_static_pad(counted, "sink");
        const auto types = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
        gst_pad_add_probe(pad, types, &Stream::count, &m_packets, nullptr);
        gst_object_unref(pad);
        gst_object_unref(counted);
    }
    ~Stream()
    {
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
        gst_object_unref(m_pipeline);
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    void play()
    {
        if (gst_element_set_state(m_pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            throw std::runtime_error("the pipeline does not play");
    }
    uint16_t udpPort() const
    {
        GstElement *source = gst_bin_get_by_name(GST_BIN(m_pipeline), "source");
        int port = 0;
        g_object_get(source, "port", &port, nullptr);
        gst_object_unref(source);
        return static_cast<uint16_t>(port);
    }
    uint64_t packets() const { return m_packets; }
    /// Waits until its file is whole.
    void end()
    {
        gst_element_send_event(m_pipeline, gst_event_new_eos());
        GstBus *bus = gst_element_get_bus(m_pipeline);
        const auto types = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
        GstMessage *message = gst_bus_timed_pop_filtered(bus, longest, types);
        const bool whole = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (message != nullptr)
            gst_message_unref(message);
        gst_object_unref(bus);
        if (!whole)
            throw std::runtime_error("a recording did not become whole");
    }

private:
    static GstPadProbeReturn count(GstPad *, GstPadProbeInfo *info, void *packets)
    {
        const bool list = (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER_LIST) != 0;
        *static_cast<std::atomic<uint64_t> *>(packets) +=
            list ? gst_buffer_list_length(GST_PAD_PROBE_INFO_BUFFER_LIST(info)) : 1;
        return GST_PAD_PROBE_OK;
    }

    std::atomic<uint64_t> m_packets{0};
    GstElement *const m_pipeline;
};

class Pipelines : public media::Receiver
{
public:
    explicit Pipelines(const Options &options)
        : m_options(options)
    {
        gst_init(nullptr, nullptr);
    }
    uint64_t packets() override
    {
        uint64_t sum = 0;
        for (const Stream &stream : m_streams)
            sum += stream.packets();
        return sum;
    }
    void endRecordings() override
    {
        for (Stream &stream : m_streams)
            stream.end();
    }

protected:
    /// What follows a source.
    std::string behind() const
    {
        const auto number = static_cast<unsigned>(m_streams.size());
        return m_options.recordings.empty()
                   ? " ! fakesink name=counted sync=false"
                   : " ! rtph264depay name=counted ! h264parse ! matroskamux offset-to-zero=true ! filesink location=" +
                         m_options.recording(number);
    }

    const Options &m_options;
    std::deque<Stream> m_streams;
};

/// The session is another's; only what a socket brings goes through the pipeline.
class UdpSources : public Pipelines
{
public:
    explicit UdpSources(const Options &options)
        : Pipelines(options)
    {
        if (!options.udp)
            throw std::runtime_error("udpsrc receives over UDP alone");
    }
    void add() override
    {
        constexpr char source[] =
            "udpsrc name=source address=127.0.0.1 port=0 buffer-size=2097152 caps=\"application/x-rtp,media=video,"
            "clock-rate=90000,encoding-name=H264,payload=96,"
            "sprop-parameter-sets=(string)\\\"Z0LAHtkDxWhAAAADAEAAAAwDxYuS,aMuMsg==\\\"\"";
        Stream &stream = m_streams.emplace_back(source + behind());
        stream.play();
        m_sessions.emplace_back(m_options).play(stream.udpPort());
    }

private:
    std::deque<media::PlainSession> m_sessions;
};

/// Session, jitter buffer without a delay, reports: everything, of the first track.
class RtspSources : public Pipelines
{
public:
    using Pipelines::Pipelines;
    void add() override
    {
        const std::string protocols = m_options.udp ? "udp" : "tcp";
        m_streams.emplace_back("rtspsrc name=source latency=0 location=" + m_options.url() + " protocols=" + protocols +
                               " ! application/x-rtp,media=video" + behind());
        m_streams.back().play();
        if (m_streams.size() == m_options.streams)
            awaitAll();
    }

private:
    /// It opens its sessions on threads of its own.
    void awaitAll() const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (const Stream &stream : m_streams)
        {
            while (stream.packets() == 0 && std::chrono::steady_clock::now() < end)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
};

} // namespace

int main(int argc, char **argv)
{
    return media::run(argc, argv,
                      {{"udpsrc", [](const Options &options) { return std::make_unique<UdpSources>(options); }},
                       {"rtspsrc", [](const Options &options) { return std::make_unique<RtspSources>(options); }}});
}
