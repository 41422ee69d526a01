#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/pbutils/pbutils.h>

#include "player_tools.h"
#include "rtp.h"
#include "rtp_timeline.h"

// Of the sanitizers. GLib replaces the table that it made when it was loaded and leaves the old one behind; the encoder
// that makes H.265 for the test leaks as well. The first is told by the loader's frame, which the quick unwinder
// misses.
// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizers chose the names
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions()
{
    return "leak:call_init\nleak:libx265\n";
}
// NOLINTEND(bugprone-reserved-identifier)

using namespace zr::test;
using namespace zr::media;

namespace
{

constexpr int width = 160;
constexpr int height = 120;

/// The buffers that come out of a pipeline that ends in "appsink name=out"; its last caps.
std::vector<Bytes> outputOf(const std::string &text, std::string &caps)
{
    gst_init(nullptr, nullptr);
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch((text + " ! appsink name=out sync=false").c_str(), &error);
    EXPECT_EQ(error, nullptr) << error->message;
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::vector<Bytes> buffers;
    while (GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(sink)))
    {
        GstMapInfo map;
        gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ);
        buffers.emplace_back(map.data, map.data + map.size);
        gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
        gchar *name = gst_caps_to_string(gst_sample_get_caps(sample));
        caps = name;
        g_free(name);
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return buffers;
}

/// Two seconds of RTP.
std::vector<Bytes> packetsOf(const std::string &coding)
{
    const bool video = coding.find("rtppcm") == std::string::npos && coding.find("rtpmp4g") == std::string::npos;
    std::string ignored;
    return outputOf(
        (video ? "videotestsrc num-buffers=60 ! video/x-raw,format=I420,width=160,height=120,framerate=30/1 ! "
               : "audiotestsrc num-buffers=100 samplesperbuffer=160 ! audio/x-raw,rate=8000,channels=1 ! ") +
            coding,
        ignored);
}

const std::string h264 = "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 option-string=scenecut=0 ! "
                         "video/x-h264,profile=baseline ! rtph264pay pt=96 config-interval=-1 mtu=600";

uint32_t timestampOf(const Bytes &packet)
{
    return readU32(packet.data() + 4);
}

struct Found
{
    double seconds = -1;
    std::string codecs;
};

/// What a player finds in a file.
Found discover(const std::string &file)
{
    Found found;
    GstDiscoverer *discoverer = gst_discoverer_new(20 * GST_SECOND, nullptr);
    gchar *uri = gst_filename_to_uri(file.c_str(), nullptr);
    if (GstDiscovererInfo *info = gst_discoverer_discover_uri(discoverer, uri, nullptr))
    {
        found.seconds = static_cast<double>(gst_discoverer_info_get_duration(info)) / GST_SECOND;
        GList *streams = gst_discoverer_info_get_stream_list(info);
        for (GList *at = streams; at != nullptr; at = at->next)
        {
            GstCaps *caps = gst_discoverer_stream_info_get_caps(GST_DISCOVERER_STREAM_INFO(at->data));
            const char *name = caps == nullptr ? "" : gst_structure_get_name(gst_caps_get_structure(caps, 0));
            found.codecs += std::string(name) == "video/x-matroska" ? "" : std::string(name) + " ";
            gst_clear_caps(&caps);
        }
        gst_discoverer_stream_info_list_free(streams);
        g_object_unref(info);
    }
    g_free(uri);
    g_object_unref(discoverer);
    return found;
}

class PlayerMedia : public OpenPort
{
protected:
    PlayerMedia()
        : m_folder(std::filesystem::temp_directory_path() / ("zr_player_" + std::to_string(getpid())))
    {
        std::filesystem::create_directories(m_folder);
    }
    ~PlayerMedia() override
    {
        ZR_MediaPortClose(portId);
        std::filesystem::remove_all(m_folder);
    }

    std::string file(const char *name) const { return (m_folder / name).string(); }
    size_t files() const
    {
        const std::filesystem::directory_iterator all(m_folder);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
    void setUpTwo() const
    {
        for (uint8_t number = 0; number < 2; ++number)
        {
            TrackTransport transport;
            transport.interleaved = true;
            transport.rtpChannel = static_cast<uint8_t>(2 * number);
            transport.rtcpChannel = static_cast<uint8_t>(2 * number + 1);
            m_port->setUpTrack(number, transport, {});
        }
    }

    std::filesystem::path m_folder;
};

const std::string sdpH264 = "m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=1\n";

} // namespace

TEST(RtpTimelineOfAFile, FollowsTheTimestampsAndBridgesJumps)
{
    constexpr uint64_t ms = 1000000;
    struct
    {
        uint32_t ssrc;
        uint32_t timestamp;
        uint64_t arrivalMs;
        uint64_t expectedMs;
    } const rows[] = {
        {1, 0xFFFFFF00, 500, 500},                 // begins with its arrival
        {1, 0xFFFFFF00 + 90000, 510, 1500},        // faster than it plays, and over the wrap
        {1, 0xFFFFFF00 + 81000, 520, 1400},        // decoding order
        {1, 700000000, 540, 1520},                 // a seek
        {1, 700000000 + 90000 * 60, 60550, 61520}, // a pause through which the clock ran on
        {2, 5, 90000, 62520},                      // another source: at most a second between
        {2, 5 + 9000, 90001, 62620},
    };
    RtpTimeline timeline(90000);
    for (const auto &row : rows)
    {
        EXPECT_EQ(timeline.map(row.ssrc, row.timestamp, row.arrivalMs * ms), row.expectedMs * ms) << row.arrivalMs;
    }
}

TEST_F(PlayerMedia, RecordsEachEncodingAtItsOwnLength)
{
    struct
    {
        const char *sdp;
        std::string coding;
        const char *codec;
    } const rows[] = {
        {"m=video 0 RTP/AVP 26\n", "jpegenc ! rtpjpegpay", "image/jpeg "},
        {"m=audio 0 RTP/AVP 0\n", "mulawenc ! rtppcmupay", "audio/x-mulaw "},
        {"m=audio 0 RTP/AVP 8\n", "alawenc ! rtppcmapay", "audio/x-alaw "},
        {"m=audio 0 RTP/AVP 98\na=rtpmap:98 mpeg4-generic/8000/1\na=fmtp:98 streamtype=5; profile-level-id=2; mode=AAC-hbr; config=1588; sizelength=13; indexlength=3; indexdeltalength=3\n",
         "voaacenc ! rtpmp4gpay pt=98", "audio/mpeg "},
    };
    setUpInterleaved();
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.codec);
        ASSERT_EQ(ZR_MediaPortSetDescription(portId, row.sdp), 0U);
        ASSERT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), 0U);
        for (const Bytes &packet : packetsOf(row.coding))
        {
            feed(packet);
        }
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        const Found found = discover(file("a.mkv"));
        EXPECT_NEAR(found.seconds, 2.0, 0.25); // without the last frame
        EXPECT_EQ(found.codecs, row.codec);
    }
}

TEST_F(PlayerMedia, RecordsH265)
{
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, "m=video 0 RTP/AVP 97\na=rtpmap:97 H265/90000\n"), 0U);
    setUpInterleaved();
    ASSERT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), 0U);
    for (const Bytes &packet : packetsOf("x265enc speed-preset=ultrafast tune=zerolatency ! "
                                         "rtph265pay pt=97 config-interval=-1"))
    {
        feed(packet);
    }
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    // not discovered: the decoder that would be chosen writes beyond its memory
    std::string caps;
    EXPECT_EQ(outputOf("filesrc location=" + file("a.mkv") + " ! matroskademux ! h265parse", caps).size(), 60U);
}

TEST_F(PlayerMedia, RecordsBothTracksFromAKeyFrameOn)
{
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, (sdpH264 + "m=audio 0 RTP/AVP 0\n").c_str()), 0U);
    setUpTwo();
    ASSERT_EQ(ZR_MediaPortRecord(portId, file("both.mkv").c_str()), 0U);
    EXPECT_EQ(ZR_MediaPortRecord(portId, file("other.mkv").c_str()), ZR_ULONG{ZR_MEDIA_BUSY});
    const std::vector<Bytes> video = packetsOf(h264);
    const std::vector<Bytes> audio = packetsOf("mulawenc ! rtppcmupay");
    size_t nextAudio = 0;
    for (const Bytes &packet : video)
    {
        const double seconds = (timestampOf(packet) - timestampOf(video[0])) / 90000.0;
        if (seconds < 0.2)
        {
            continue; // joined between two key frames; the next comes at 0.5 s
        }
        feed(packet, 0);
        while (nextAudio < audio.size() && (timestampOf(audio[nextAudio]) - timestampOf(audio[0])) / 8000.0 < seconds)
        {
            feed(audio[nextAudio++], 2);
        }
    }
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    const Found found = discover(file("both.mkv"));
    EXPECT_NEAR(found.seconds, 2.0, 0.25);
    EXPECT_EQ(found.codecs, "video/x-h264 audio/x-mulaw ");
    std::string caps;
    const std::string demux = "filesrc location=" + file("both.mkv") + " ! matroskademux name=demux demux.";
    EXPECT_EQ(outputOf(demux + "video_0 ! h264parse", caps).size(), 45U);
    EXPECT_EQ(outputOf(demux + "audio_0", caps).size(), nextAudio);
}

TEST_F(PlayerMedia, RecordsUdpOutOfOrderAndASilentTrackNot)
{
    const Sender peer("127.0.0.1");
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, (sdpH264 + "m=audio 0 RTP/AVP 0\n").c_str()), 0U);
    setUpUdp(0, peer.port(), 0);
    setUpUdp(1, peer.port(), 0);
    ASSERT_EQ(ZR_MediaPortRecord(portId, file("udp.mkv").c_str()), 0U);
    std::vector<Bytes> packets = packetsOf(h264);
    for (size_t i = 4; i + 1 < packets.size(); i += 10)
    {
        std::swap(packets[i], packets[i + 1]);
    }
    for (size_t i = 0; i < packets.size(); ++i)
    {
        peer.send(m_first, packets[i]);
        ASSERT_TRUE(i % 16 != 0 || arrived(i + 1));
    }
    ASSERT_TRUE(arrived(packets.size()));
    EXPECT_EQ(statistics().ullLost, 0U);
    EXPECT_EQ(ZR_MediaPortClose(portId), 0U); // ends the recording
    std::string caps;
    EXPECT_EQ(outputOf("filesrc location=" + file("udp.mkv") + " ! matroskademux ! h264parse", caps).size(), 60U);
    EXPECT_EQ(discover(file("udp.mkv")).codecs, "video/x-h264 ");
}

TEST_F(PlayerMedia, TakesAPictureOfARunningStream)
{
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdpH264.c_str()), 0U);
    setUpInterleaved();
    std::atomic<bool> enough{false};
    std::thread stream(
        [this, &enough, packets = packetsOf(h264)]() mutable
        {
            for (uint16_t sequence = 30; !enough; ++sequence)
            {
                Bytes &packet = packets[sequence % packets.size()];
                packet[2] = static_cast<uint8_t>(sequence >> 8);
                packet[3] = static_cast<uint8_t>(sequence);
                feed(packet);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
    const ZR_ULONG code = ZR_MediaPortSnapshot(portId, file("picture.png").c_str(), 60000);
    enough = true;
    stream.join();
    ASSERT_EQ(code, 0U);
    EXPECT_EQ(files(), 1U) << "something temporary is left";
    std::string caps;
    const auto pictures =
        outputOf("filesrc location=" + file("picture.png") + " ! pngdec ! videoconvert ! video/x-raw,format=RGB", caps);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_NE(caps.find("width=(int)160, height=(int)120"), std::string::npos) << caps;
    const auto pixel = [&pictures](int x, int y) { return pictures[0].begin() + std::ptrdiff_t{3} * (y * width + x); };
    // the test picture's bars: white, then yellow, blue to the right
    EXPECT_GT(*(pixel(10, 20) + 2), 150);
    EXPECT_LT(*(pixel(34, 20) + 2), 90);
    EXPECT_LT(*pixel(width - 10, 20), 90);
    EXPECT_EQ(pictures[0].size(), size_t{3} * width * height);
}

TEST_F(PlayerMedia, SaysAtOnceWhatCannotBeWritten)
{
    EXPECT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), ZR_ULONG{ZR_MEDIA_NO_TRACK});
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdpH264.c_str()), 0U);
    setUpInterleaved();
    for (const std::string &path : {m_folder.string(), file("none/a.mkv"), std::string("/dev/null"), std::string()})
    {
        EXPECT_EQ(ZR_MediaPortRecord(portId, path.c_str()), ZR_ULONG{ZR_MEDIA_UNWRITABLE}) << path;
    }
    EXPECT_EQ(ZR_MediaPortSnapshot(portId, file("none/a.png").c_str(), 60000), ZR_ULONG{ZR_MEDIA_UNWRITABLE});
    EXPECT_EQ(ZR_MediaPortRecord(portId, nullptr), ZR_ULONG{ZR_MEDIA_BUSY}) << "nothing to end";
    EXPECT_EQ(ZR_MediaPortSnapshot(portId, file("a.png").c_str(), 1), ZR_ULONG{ZR_MEDIA_NO_MEDIA});

    ASSERT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), 0U);
    for (const Bytes &packet : {rtp(1), rtp(2)}) // no key frame, no H.264 even
    {
        feed(packet);
    }
    EXPECT_EQ(ZR_MediaPortRecord(portId, nullptr), ZR_ULONG{ZR_MEDIA_NO_MEDIA});
    EXPECT_EQ(files(), 0U) << "something is left of what was not written";

    std::thread waiting([this] { EXPECT_NE(ZR_MediaPortSnapshot(portId, file("b.png").c_str(), 600000), 0U); });
    ASSERT_TRUE(eventually([this] { return files() == 1; }));
    EXPECT_EQ(ZR_MediaPortClose(portId), 0U) << "the picture's time-out is ten minutes";
    EXPECT_EQ(files(), 0U);
    waiting.join();
}
