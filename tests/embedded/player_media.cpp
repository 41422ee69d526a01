#include <array>
#include <mutex>
#include <tuple>

#include "media_tools.h"
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

TEST(RtpTimelineOfAFile, FollowsTheTimestampsAndBridgesJumps)
{
    constexpr uint64_t ms = 1000000;
    const std::tuple<uint32_t, uint32_t, uint64_t, uint64_t> rows[] = {
        {1, 0xFFFFFF00, 500, 500}, // begins with its arrival
        {1, 0xFFFFFF00 + 3600, 505, 540},
        {1, 0xFFFFFF00 + 90000, 510, 1500},        // faster than it plays, and over the wrap
        {1, 0xFFFFFF00 + 81000, 520, 1400},        // decoding order
        {1, 700000000, 540, 1540},                 // a seek, behind the last frame
        {1, 700000000 + 90000 * 60, 60550, 61540}, // a pause through which the clock ran on
        {2, 5, 90000, 62540},                      // another source: at most a second between
        {2, 5 + 9000, 90001, 62640},
        {2, 5 + 9000 - 100000, 90002, 62740}, // the group of pictures before
        {2, 5 + 9000 - 190000, 90502, 63240}, // key frames alone, backwards
        {2, 5 + 9000 + 170000, 94502, 67240},
        {2, 5 + 9000 - 10000, 94503, 65240}, // decoding order at a frame in a second
    };
    RtpTimeline timeline(90000);
    for (const auto &[ssrc, timestamp, arrivalMs, expectedMs] : rows)
        EXPECT_EQ(timeline.map(ssrc, timestamp, arrivalMs * ms), expectedMs * ms) << arrivalMs;
}

TEST_F(PlayerMedia, RecordsBothTracksFromAKeyFrameOn)
{
    setUpInterleaved(0);
    setUpInterleaved(1);
    record(sdpH264 + sdpPcmu);
    EXPECT_EQ(ZR_MediaPortRecord(portId, file("other.mkv").c_str()), ZR_ULONG{ZR_MEDIA_BUSY});
    const std::vector<Bytes> video = packetsOf(h264);
    const std::vector<Bytes> audio = packetsOf("mulawenc ! rtppcmupay");
    size_t nextAudio = 0;
    for (const Bytes &packet : video)
    {
        const double seconds = secondsBetween(video[0], packet, 90000);
        if (seconds < 0.2)
            continue; // joined between two key frames; the next comes at 0.5 s
        feed(packet, 0);
        while (nextAudio < audio.size() && secondsBetween(audio[0], audio[nextAudio], 8000) < seconds)
            feed(audio[nextAudio++], 2);
    }
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    const Output found = recorded("video_0 ! h264parse");
    EXPECT_EQ(found.buffers.size(), 45U);
    ASSERT_EQ(found.tracks, 2U);
    EXPECT_NEAR(found.seconds, 2.0, 0.25);
    EXPECT_EQ(recorded("audio_0 ! mulawdec").buffers.size(), nextAudio);
}

TEST_F(PlayerMedia, ShowsPicturesUntilThatIsEnded)
{
    struct Seen
    {
        std::mutex mutex;
        std::vector<std::pair<ZR_ULONG, ZR_ULONG>> sizes;
        std::array<int, 3> corner{};
    } seen;
    const auto count = [&seen] {
        const std::lock_guard<std::mutex> lock(seen.mutex);
        return seen.sizes.size();
    };
    const ZR_PICTURE_CALLBACK take = [](void *user, const unsigned char *rgb, ZR_ULONG width, ZR_ULONG height) {
        auto &into = *static_cast<Seen *>(user);
        const std::lock_guard<std::mutex> lock(into.mutex);
        into.sizes.emplace_back(width, height);
        for (size_t i = 0; rgb != nullptr && i < 3; ++i)
            into.corner.at(i) = rgb[i];
    };
    setUpInterleaved();
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdpH264.c_str()), 0U);
    EXPECT_EQ(ZR_MediaPortShow(portId, ZR_SHOW_PICTURES, nullptr, nullptr), ZR_ULONG{ZR_MEDIA_INVALID});
    EXPECT_EQ(ZR_MediaPortShow(portId, ZR_SHOW_NOTHING, nullptr, nullptr), ZR_ULONG{ZR_MEDIA_BUSY});
    ASSERT_EQ(ZR_MediaPortShow(portId, ZR_SHOW_PICTURES, take, &seen), 0U);
    EXPECT_EQ(ZR_MediaPortShow(portId, ZR_SHOW_PICTURES, take, &seen), ZR_ULONG{ZR_MEDIA_BUSY});
    feed(packetsOf(h264));
    EXPECT_EQ(statistics().ullFrames, 60U);
    ASSERT_TRUE(eventually([&] { return count() > 2; }));
    ASSERT_EQ(ZR_MediaPortShow(portId, ZR_SHOW_NOTHING, nullptr, nullptr), 0U);
    const size_t before = count();
    feed(packetsOf(h264));
    EXPECT_EQ(count(), before) << "nothing is shown any more, nor its end";
    EXPECT_EQ(seen.sizes[0], std::make_pair(ZR_ULONG{160}, ZR_ULONG{120}));
    for (const int part : seen.corner) // the first bar is white
        EXPECT_GT(part, 160);
}

TEST_F(PlayerMedia, GoesOnBehindARecordingThatHasNothingInCommon)
{
    const auto recordInto = [this](const char *name, const std::string &sdp, const std::vector<Bytes> &packets) {
        ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdp.c_str()), 0U);
        ASSERT_EQ(ZR_MediaPortRecord(portId, file(name).c_str()), 0U);
        feed(packets);
        EXPECT_EQ(ZR_MediaPortRecording(portId), 0U);
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        EXPECT_EQ(ZR_MediaPortRecording(portId), ZR_ULONG{ZR_MEDIA_BUSY});
    };
    setUpInterleaved();
    recordInto("a.mkv", sdpPcmu, packetsOf("mulawenc ! rtppcmupay"));
    recordInto("b.mkv", sdpPcmu, packetsOf("mulawenc ! rtppcmupay"));
    recordInto("c.mkv", "m=audio 0 RTP/AVP 8\n", packetsOf("alawenc ! rtppcmapay"));
    EXPECT_EQ(ZR_RecordingContinue(file("a.mkv").c_str(), file("b.mkv").c_str()), 0U);
    EXPECT_EQ(recorded("audio_0 ! mulawdec").buffers.size(), 200U);
    ZrRecordingFacts facts{};
    ASSERT_EQ(ZR_RecordingFacts(file("a.mkv").c_str(), &facts), 0U);
    EXPECT_NEAR(static_cast<double>(facts.ullMediaMs), 4000, 100);
    for (const char *other : {"c.mkv", "none.mkv"}) // coded differently, not there
        EXPECT_EQ(ZR_RecordingContinue(file("a.mkv").c_str(), file(other).c_str()), ZR_ULONG{ZR_MEDIA_INVALID});
    EXPECT_EQ(recorded("audio_0 ! mulawdec").buffers.size(), 200U) << "it stayed";
    EXPECT_EQ(files(), 3);
    std::vector<Bytes> video = packetsOf(h264);
    recordInto("a.mkv", sdpH264, video);
    const size_t frames = recorded("video_0 ! h264parse").buffers.size();
    video.resize(video.size() / 2);
    recordInto("b.mkv", sdpH264, video);
    EXPECT_EQ(ZR_RecordingContinue(file("a.mkv").c_str(), file("b.mkv").c_str()), 0U);
    EXPECT_EQ(recorded("video_0 ! h264parse").buffers.size(), frames) << "what lies behind the other is kept";
}

TEST_F(PlayerMedia, SaysAtOnceWhatCannotBeWritten)
{
    EXPECT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), ZR_ULONG{ZR_MEDIA_NO_TRACK});
    ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdpH264.c_str()), 0U);
    setUpInterleaved();
    for (const std::string &path : {m_folder.string(), file("none/a.mkv"), std::string("/dev/null"), std::string()})
        EXPECT_EQ(ZR_MediaPortRecord(portId, path.c_str()), ZR_ULONG{ZR_MEDIA_UNWRITABLE}) << path;
    EXPECT_EQ(ZR_MediaPortSnapshot(portId, file("none/a.png").c_str(), 60000), ZR_ULONG{ZR_MEDIA_UNWRITABLE});
    EXPECT_EQ(ZR_MediaPortRecord(portId, nullptr), ZR_ULONG{ZR_MEDIA_BUSY}) << "nothing to end";
    EXPECT_EQ(ZR_MediaPortSnapshot(portId, file("a.png").c_str(), 1), ZR_ULONG{ZR_MEDIA_NO_MEDIA});

    ASSERT_EQ(ZR_MediaPortRecord(portId, file("a.mkv").c_str()), 0U);
    feed(std::vector<Bytes>{rtp(1), rtp(2)}); // no key frame, no H.264 even
    EXPECT_EQ(ZR_MediaPortRecord(portId, nullptr), ZR_ULONG{ZR_MEDIA_NO_MEDIA});
    EXPECT_EQ(files(), 0) << "something is left of what was not written";

    std::thread waiting([this] { EXPECT_NE(ZR_MediaPortSnapshot(portId, file("b.png").c_str(), 600000), 0U); });
    ASSERT_TRUE(eventually([this] { return files() == 1; }));
    EXPECT_EQ(ZR_MediaPortClose(portId), 0U) << "the picture's time-out is ten minutes";
    EXPECT_EQ(files(), 0);
    waiting.join();
}
