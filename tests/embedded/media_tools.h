/// @file
/// What the tests of recordings and pictures share: streams as devices send them, and what became of them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "player_tools.h"
#include "rtp.h"

namespace zr::test {

using media::readU32;

inline const std::string sdpH264 = "m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=1\n";
inline const std::string sdpPcmu = "m=audio 0 RTP/AVP 0\n";
inline const std::string h264 =
    "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 option-string=scenecut=0 ! "
    "video/x-h264,profile=baseline ! rtph264pay pt=96 config-interval=-1 mtu=600";

struct Output
{
    std::vector<Bytes> buffers;
    double seconds = -1;
    unsigned tracks = 0; ///< of the element "demux"
    std::string sdp;     ///< of an RTP payloader
};

/// A media section that says what an RTP payloader's caps do.
inline std::string sdpOf(const GstStructure *caps)
{
    const auto text = [caps](const char *name) {
        const char *value = gst_structure_get_string(caps, name);
        return std::string(value == nullptr ? "" : value);
    };
    int payload = 0;
    int rate = 0;
    gst_structure_get_int(caps, "payload", &payload);
    gst_structure_get_int(caps, "clock-rate", &rate);
    const std::string type = std::to_string(payload);
    std::string fmtp;
    for (int i = 0; i < gst_structure_n_fields(caps); ++i)
    {
        const std::string name = gst_structure_nth_field_name(caps, static_cast<guint>(i));
        if (name != "media" && name != "encoding-name" && name != "encoding-params" && !text(name.c_str()).empty())
            fmtp += (fmtp.empty() ? "" : ";") + name + "=" + text(name.c_str());
    }
    const std::string channels = text("encoding-params");
    return "m=" + text("media") + " 0 RTP/AVP " + type + "\na=rtpmap:" + type + " " + text("encoding-name") + "/" +
           std::to_string(rate) + (channels.empty() ? "" : "/" + channels) + "\na=fmtp:" + type + " " + fmtp + "\n";
}

/// What comes out of a pipeline.
inline Output outputOf(const std::string &text)
{
    gst_init(nullptr, nullptr);
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch((text + " ! appsink name=out sync=false").c_str(), &error);
    EXPECT_EQ(error, nullptr) << error->message;
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    Output output;
    GstBus *bus = gst_element_get_bus(pipeline);
    while (gst_app_sink_is_eos(GST_APP_SINK(sink)) == FALSE)
    {
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 20 * GST_MSECOND);
        if (sample == nullptr)
        {
            GstMessage *failed = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR); // such as that there is no such track
            if (failed == nullptr)
                continue;
            gst_message_unref(failed);
            break;
        }
        GstMapInfo map;
        gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ);
        output.buffers.emplace_back(map.data, map.data + map.size);
        gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
        const GstStructure *caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
        if (output.sdp.empty() && gst_structure_has_name(caps, "application/x-rtp"))
            output.sdp = sdpOf(caps);
        gst_sample_unref(sample);
    }
    gint64 duration = 0;
    if (gst_element_query_duration(pipeline, GST_FORMAT_TIME, &duration))
        output.seconds = static_cast<double>(duration) / GST_SECOND;
    if (GstElement *demux = gst_bin_get_by_name(GST_BIN(pipeline), "demux"))
    {
        output.tracks = demux->numsrcpads;
        gst_object_unref(demux);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return output;
}

/// Two seconds of RTP.
/// @param size  of the pictures
inline Output streamOf(const std::string &coding, const std::string &size = "width=160,height=120")
{
    const bool video = coding.find("rtppcm") == std::string::npos && coding.find("rtpmp4") == std::string::npos;
    return outputOf((video
                         ? "videotestsrc num-buffers=60 ! video/x-raw,format=I420," + size + ",framerate=30/1 ! "
                         : "audiotestsrc num-buffers=100 samplesperbuffer=160 ! audio/x-raw,rate=8000,channels=1 ! ") +
                    coding);
}

inline std::vector<Bytes> packetsOf(const std::string &coding)
{
    return streamOf(coding).buffers;
}

inline double secondsBetween(const Bytes &first, const Bytes &packet, double clockRate)
{
    return (readU32(packet.data() + 4) - readU32(first.data() + 4)) / clockRate;
}

class PlayerMedia : public OpenPort
{
protected:
    PlayerMedia() { std::filesystem::create_directories(m_folder); }
    ~PlayerMedia() override
    {
        ZR_MediaPortClose(portId);
        std::filesystem::remove_all(m_folder);
    }

    std::string file(const char *name) const { return (m_folder / name).string(); }
    auto files() const { return std::distance(std::filesystem::directory_iterator(m_folder), {}); }
    void record(const std::string &sdp) const
    {
        ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdp.c_str()), 0U);
        ASSERT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), 0U);
    }
    Output recorded(const std::string &track, const char *name = "a.mkv") const
    {
        return outputOf("filesrc location=" + file(name) + " ! matroskademux name=demux demux." + track);
    }

    std::filesystem::path m_folder{testing::TempDir() + "zr_player_" + std::to_string(getpid())};
};

} // namespace zr::test
