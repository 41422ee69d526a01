#include <array>
#include <atomic>
#include <deque>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <tuple>

#include "media_tools.h"
#include "recorder.h"
#include "sender_clocks.h"

using namespace zr::test;
using namespace zr::media;

namespace {

/// Who opens a file of this name waits, as for a network file system whose server is gone.
struct
{
    const char *name = "a-002.mkv";
    std::atomic<bool> hangs{false};
    std::atomic<bool> entered{false};
} disk;

} // namespace

// the linker's --wrap leads the platform's calls here; the names are its own
extern "C" int __real_open(const char *path, int flags, mode_t mode); // NOLINT
extern "C" int __wrap_open(const char *path, int flags, mode_t mode)  // NOLINT
{
    while (disk.hangs && std::filesystem::path(path).filename() == disk.name)
    {
        disk.entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return __real_open(path, flags, mode);
}

namespace {

/// Renumbers a stream so that it goes on behind another.
std::vector<Bytes> following(const std::vector<Bytes> &before, std::vector<Bytes> packets)
{
    const auto number = static_cast<uint16_t>(readU16(before.back().data() + 2) + 1 - readU16(packets[0].data() + 2));
    const uint32_t time = readU32(before.back().data() + 4) + 3000 - readU32(packets[0].data() + 4);
    for (Bytes &packet : packets)
    {
        const auto sequence = static_cast<uint16_t>(readU16(packet.data() + 2) + number);
        const uint32_t timestamp = readU32(packet.data() + 4) + time;
        for (size_t i = 0; i < 4; ++i)
        {
            if (i < 2)
                packet[2 + i] = static_cast<uint8_t>(sequence >> (8 - 8 * i));
            packet[4 + i] = static_cast<uint8_t>(timestamp >> (24 - 8 * i));
            packet[8 + i] = before.back()[8 + i]; // the source
        }
    }
    return packets;
}

/// Units that no file is made of; fragments, begun, that are shorter than their own head would end the process.
std::vector<Bytes> hostileBehind(const Bytes &last, const std::string &coding)
{
    std::vector<Bytes> payloads;
    if (coding.find("rtph264pay") != std::string::npos)
        payloads = {{0x7c, 0x85, 1, 2, 3}, {0x7c}, {0x7c, 5}, {0x7d, 5, 0, 0}, {0x7a, 0, 1}, {0x7b, 0, 1}};
    else if (coding.find("rtph265pay") != std::string::npos)
        payloads = {{98, 1, 0x93, 1, 2}, {98}, {98, 1}, {98, 1, 19}, {100, 1, 0, 0, 0}};
    uint16_t number = readU16(last.data() + 2);
    for (Bytes &payload : payloads)
    {
        payload.insert(payload.begin(), last.begin(), last.begin() + 12);
        payload[2] = static_cast<uint8_t>(++number >> 8U);
        payload[3] = static_cast<uint8_t>(number);
    }
    return payloads;
}

/// A sender report.
Bytes senderReport(const Bytes &packet, uint64_t unixMs)
{
    const uint64_t ntp = ((unixMs / 1000 + 2208988800U) << 32) + (unixMs % 1000 << 32) / 1000;
    Bytes bytes = {0x80, 200, 0, 6};
    bytes.insert(bytes.end(), packet.begin() + 8, packet.begin() + 12);
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(ntp >> shift));
    bytes.insert(bytes.end(), packet.begin() + 4, packet.begin() + 8);
    bytes.resize(28);
    return bytes;
}

/// Records into several files, and keeps what is told of them.
class RecordedFiles : public PlayerMedia
{
protected:
    struct Told
    {
        std::string file;
        ZR_ULONG number;
        ZR_ULONG end;
        uint64_t mediaMs;
    };

    void recordFiles(const std::string &sdp, ZrRecordingOptions options = {})
    {
        options.pvUser = this;
        options.pfnWhole = [](const ZrRecordingFile *whole, void *user) {
            const std::filesystem::path path(whole->pszFile);
            static_cast<RecordedFiles *>(user)->m_told.push_back(
                {path.filename(), whole->ulNumber, whole->ulEnd, whole->ullMediaMs});
        };
        ASSERT_EQ(ZR_MediaPortSetDescription(portId, sdp.c_str()), 0U);
        ASSERT_EQ(ZR_MediaPortRecordFiles(portId, file("a.mkv").c_str(), &options), 0U);
    }
    size_t framesIn(const char *name, const std::string &track) const { return recorded(track, name).buffers.size(); }

    std::vector<Told> m_told; ///< complete once the recording ended
};

} // namespace

TEST_F(PlayerMedia, RecordsEachEncodingAtItsOwnLength)
{
    const std::string encoded = "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 ! ";
    const std::string encoded5 = "x265enc speed-preset=ultrafast tune=zerolatency ! h265parse ! ";
    const std::tuple<std::string, std::string, size_t> rows[] = {
        {encoded + "rtph264pay config-interval=-1 aggregate-mode=none mtu=60000", "video_0 ! h264parse", 60},
        {encoded + "rtph264pay config-interval=-1 aggregate-mode=max-stap mtu=60000", "video_0 ! h264parse", 60},
        {encoded + "rtph264pay config-interval=-1 mtu=200", "video_0 ! h264parse", 60},
        // parameter sets out of band only
        {encoded + "h264parse ! video/x-h264,stream-format=avc ! rtph264pay", "video_0 ! h264parse", 60},
        // only parsed: the decoder that would be chosen writes beyond its memory
        {encoded5 + "rtph265pay config-interval=-1 mtu=200", "video_0 ! h265parse", 60},
        {encoded5 + "rtph265pay config-interval=-1 aggregate-mode=max mtu=60000", "video_0 ! h265parse", 60},
        {encoded5 + "video/x-h265,stream-format=hvc1 ! rtph265pay", "video_0 ! h265parse", 60},
        {"jpegenc ! rtpjpegpay", "video_0 ! jpegdec", 60},
        {"mulawenc ! rtppcmupay", "audio_0 ! mulawdec", 100},
        {"alawenc ! rtppcmapay", "audio_0 ! alawdec", 100},
        {"voaacenc ! rtpmp4gpay", "audio_0 ! aacparse", 15},
        {"voaacenc ! aacparse ! rtpmp4apay", "audio_0 ! aacparse", 15},
    };
    setUpInterleaved();
    for (const auto &[coding, track, buffers] : rows)
    {
        SCOPED_TRACE(coding);
        const Output stream = streamOf(coding);
        record(stream.sdp);
        feed(stream.buffers);
        feed(hostileBehind(stream.buffers.back(), coding));
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U) << stream.sdp;
        const Output found = recorded(track);
        EXPECT_NEAR(found.seconds, 2.0, 0.25); // without the last frame
        EXPECT_EQ(found.buffers.size(), buffers);
    }
}

TEST_F(PlayerMedia, RecordsG726InTheOrderOfItsName)
{
    // the first sample is in the lowest bits (RFC 3551, 4.5.4), in the container, as in AAL2, in the highest
    const std::tuple<uint8_t, const char *, size_t, Bytes, Bytes> rows[] = {
        {96, "G726-16", 2, {0xE4}, {0x1B}},      {96, "G726-24", 3, {0x01, 0x00, 0x00}, {0x20, 0x00, 0x00}},
        {96, "G726-32", 4, {0x21}, {0x12}},      {96, "G726-40", 5, {0x01, 0, 0, 0, 0}, {0x08, 0, 0, 0, 0}},
        {96, "AAL2-G726-32", 4, {0x21}, {0x21}}, {2, "", 4, {0x21}, {0x12}},
    };
    setUpInterleaved();
    for (const auto &[type, name, bits, sent, written] : rows)
    {
        SCOPED_TRACE(name);
        const std::string number = std::to_string(type);
        const std::string map = *name == '\0' ? "" : "a=rtpmap:" + number + " " + name + "/8000\n";
        record("m=audio 0 RTP/AVP " + number + "\n" + map);
        for (uint16_t i = 0; i < 50; ++i)
        {
            Bytes packet = rtp(i, 160U * i, 7, type);
            packet.resize(12);
            while (packet.size() < 12 + 20 * bits)
                packet.insert(packet.end(), sent.begin(), sent.end());
            feed(packet);
        }
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        const Output found = recorded("audio_0 ! audio/x-adpcm,layout=g726,bitrate=" + std::to_string(8000 * bits));
        ASSERT_EQ(found.buffers.size(), 50U);
        EXPECT_EQ(found.buffers[9].size(), 20 * bits);
        EXPECT_EQ(Bytes(found.buffers[9].begin(), found.buffers[9].begin() + static_cast<int>(written.size())),
                  written);
    }
}

TEST_F(PlayerMedia, NeverLosesTheVideoForTheSound)
{
    const std::string section = "m=audio 0 RTP/AVP 97\na=rtpmap:97 ";
    const std::string rows[] = {
        "mpeg4-generic/8000/1\na=fmtp:97 mode=AAC-hbr;config=zz;sizelength=13;indexlength=3\n", // no config
        "mpeg4-generic/8000/1\na=fmtp:97 mode=AAC-hbr;config=1588;sizelength=13;indexlength=3;indexdeltalength=3\n",
        "MP4A-LATM/90000\na=fmtp:97 cpresent=1\n", // configured in band
        "G722/8000\n",                             // not written
    };
    const std::vector<Bytes> video = packetsOf(h264);
    setUpInterleaved(0);
    setUpInterleaved(1);
    for (const std::string &sound : rows)
    {
        SCOPED_TRACE(sound);
        record(sdpH264 + section + sound);
        for (uint16_t i = 0; i < video.size(); ++i)
        {
            feed(video[i], 0);
            feed(rtp(i, 160U * i, 7, 97), 2); // no sound at all
        }
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        EXPECT_EQ(recorded("video_0 ! h264parse").buffers.size(), 60U);
    }
}

TEST_F(RecordedFiles, GoOnInTheNextWhereTheCodingChanges)
{
    std::ofstream(file("a-002.mkv")) << "somebody's";
    const Output small = streamOf(h264);
    const std::vector<Bytes> sound = packetsOf("mulawenc ! rtppcmupay");
    const Output other =
        streamOf("x265enc speed-preset=ultrafast tune=zerolatency ! rtph265pay pt=97 config-interval=-1");
    const std::string sdp = "m=video 0 RTP/AVP 96 97\na=rtpmap:96 H264/90000\na=rtpmap:97 H265/90000\n" + sdpPcmu;
    setUpInterleaved(0);
    setUpInterleaved(1);
    recordFiles(sdp);
    std::vector<Bytes> packets = small.buffers;
    size_t heard = 0;
    const auto feedBoth = [&](const std::vector<Bytes> &video) {
        for (const Bytes &packet : video)
        {
            feed(packet, 0);
            for (; heard < sound.size() &&
                   secondsBetween(sound[0], sound[heard], 8000) * 3 < secondsBetween(packets[0], packet, 90000);
                 ++heard)
            {
                Bytes slow = sound[heard]; // three times as long
                const uint32_t time = 480 * static_cast<uint32_t>(heard);
                for (size_t i = 0; i < 4; ++i)
                    slow[4 + i] = static_cast<uint8_t>(time >> (24 - 8 * i));
                feed(slow, 2);
            }
        }
    };
    feedBoth(packets);
    const std::vector<Bytes> large = following(packets, streamOf(h264, "width=320,height=240").buffers);
    feedBoth(large);
    feedBoth(following(large, other.buffers));
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    ASSERT_EQ(m_told.size(), 3U);
    EXPECT_EQ(m_told[0].end, ZR_ULONG{ZR_RECORDING_CHANGED});
    EXPECT_EQ(m_told[1].file, "a-003.mkv");
    EXPECT_EQ(m_told[1].end, ZR_ULONG{ZR_RECORDING_CHANGED});
    EXPECT_EQ(m_told[2].end, ZR_ULONG{ZR_RECORDING_ENDED});
    EXPECT_EQ(framesIn("a.mkv", "video_0 ! video/x-h264,width=160"), 60U);
    EXPECT_EQ(framesIn("a-003.mkv", "video_0 ! video/x-h264,width=320"), 60U);
    EXPECT_EQ(framesIn("a-004.mkv", "video_0 ! video/x-h265,width=160"), 60U);
    size_t sounds = 0;
    for (const Told &one : m_told)
        sounds += framesIn(one.file.c_str(), "audio_0 ! audio/x-mulaw");
    EXPECT_EQ(sounds, heard) << "none is lost, none is there twice";
    EXPECT_EQ(std::filesystem::file_size(file("a-002.mkv")), 10U) << "it was there";
}

TEST_F(RecordedFiles, AreAsLongOrLargeAsIsAskedFor)
{
    const std::vector<Bytes> video = packetsOf(h264); // a key frame each half second
    const std::vector<Bytes> sound = packetsOf("mulawenc ! rtppcmupay");
    setUpInterleaved(0);
    setUpInterleaved(1);
    ZrRecordingOptions byLength{};
    byLength.ulLengthMs = 800;
    ZrRecordingOptions bySize{};
    bySize.ullBytes = 1;
    bySize.ulOverwrite = 1;
    const std::tuple<ZrRecordingOptions, ZR_ULONG, size_t> rows[] = {{byLength, ZR_RECORDING_LENGTH, 2},
                                                                     {bySize, ZR_RECORDING_SIZE, 4}};
    for (const auto &[options, end, count] : rows)
    {
        m_told.clear();
        recordFiles(sdpH264 + sdpPcmu, options);
        size_t heard = 0;
        for (const Bytes &packet : video)
        {
            feed(packet, 0);
            while (heard < sound.size() &&
                   secondsBetween(sound[0], sound[heard], 8000) <= secondsBetween(video[0], packet, 90000))
                feed(sound[heard++], 2);
        }
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        ASSERT_EQ(m_told.size(), count);
        size_t pictures = 0;
        size_t sounds = 0;
        for (const Told &one : m_told)
        {
            EXPECT_EQ(one.end, &one == &m_told.back() ? ZR_ULONG{ZR_RECORDING_ENDED} : end);
            EXPECT_NEAR(static_cast<double>(one.mediaMs), 2000.0 / static_cast<double>(count), 60) << one.file;
            const Output found = recorded("video_0 ! h264parse", one.file.c_str());
            EXPECT_NEAR(found.seconds, 2.0 / static_cast<double>(count), 0.06);
            pictures += found.buffers.size();
            sounds += framesIn(one.file.c_str(), "audio_0 ! audio/x-mulaw");
        }
        EXPECT_EQ(pictures, 60U);
        EXPECT_EQ(sounds, heard);
    }
    EXPECT_EQ(files(), 4) << "the second recording went over the first one's files";
}

TEST_F(RecordedFiles, LetTheMediaComeWhileTheDiskHangs)
{
    const std::vector<Bytes> video = packetsOf(h264);
    setUpInterleaved();
    ZrRecordingOptions bySize{};
    bySize.ullBytes = 1;
    recordFiles(sdpH264, bySize);
    disk.hangs = true;
    const auto half = video.begin() + static_cast<std::ptrdiff_t>(video.size() / 2);
    feed(std::vector<Bytes>(video.begin(), half));
    EXPECT_TRUE(eventually([] { return disk.entered.load(); })) << "there is no second file";
    const auto rest = std::async(std::launch::async, [&] { feed(std::vector<Bytes>(half, video.end())); });
    EXPECT_EQ(rest.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    disk.hangs = false;
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    EXPECT_EQ(m_told.size(), 4U);
}

/// The first file begins without sound, the second one's picture falls silent.
TEST_F(RecordedFiles, HaveTheTracksThatAreHeardAgain)
{
    gst_init(nullptr, nullptr);
    std::deque<std::string> names;
    ZrMediaParts parts{};
    parts.next = [](void *user, ZrMediaPartEnd, uint64_t) {
        auto &made = *static_cast<std::deque<std::string> *>(user);
        const std::string folder = testing::TempDir() + "zr_player_" + std::to_string(getpid());
        return made.emplace_back(folder + "/" + std::to_string(made.size()) + ".mkv").c_str();
    };
    parts.whole = [](void *, const ZrMediaPart *) {};
    const ZrMediaLog log = [](void *, int error, const char *text) { EXPECT_EQ(error, 0) << text; };
    Recorder recorder(parts, {true, false}, log, &names);
    const auto take = [&recorder](size_t track, uint64_t from, uint64_t to) {
        const GstPtr<GstCaps> caps(gst_caps_from_string(track == 0 ? "image/jpeg,width=16,height=16,framerate=25/1"
                                                                   : "audio/x-mulaw,rate=8000,channels=1"));
        for (; from < to; ++from)
        {
            GstBuffer *frame = gst_buffer_new_allocate(nullptr, 320, nullptr);
            GST_BUFFER_PTS(frame) = from * 40 * GST_MSECOND;
            GST_BUFFER_DURATION(frame) = 40 * GST_MSECOND;
            const GstPtr<GstSample> sample(gst_sample_new(frame, caps.get(), nullptr, nullptr));
            gst_buffer_unref(frame);
            recorder.take(track, sample.get());
        }
    };
    recorder.setSilent(1, true);
    take(0, 0, 5);
    take(1, 4, 5);
    take(0, 5, 10);
    take(1, 5, 10);
    recorder.setSilent(0, true);
    take(1, 10, 20);
    take(0, 20, 25);
    take(1, 20, 25);
    ASSERT_EQ(recorder.finish(20 * GST_SECOND), ZR_MEDIA_STATE_WHOLE);
    ASSERT_EQ(names.size(), 3U);
    for (const char *name : {"0.mkv", "1.mkv", "2.mkv"})
        EXPECT_EQ(framesIn(name, "video_0 ! image/jpeg"), 5U) << name;
    EXPECT_EQ(framesIn("1.mkv", "audio_0 ! audio/x-mulaw"), 15U);
    EXPECT_EQ(framesIn("2.mkv", "audio_0 ! audio/x-mulaw"), 5U);
}

TEST_F(PlayerMedia, BringsPacketsInOrderAndSaysWhatIsMissing)
{
    std::vector<Bytes> packets = packetsOf(h264);
    setUpInterleaved();
    record(sdpH264);
    const uint64_t before = statistics().ullLost;
    for (size_t i = 0; i + 1 < packets.size(); i += 2)
        std::swap(packets[i], packets[i + 1]);
    feed(packets);
    // another source, whose numbers lie shortly behind: nothing of it is too late
    std::vector<Bytes> other = packetsOf(h264);
    const auto first = static_cast<uint16_t>(readU16(packets.back().data() + 2) - 50);
    for (size_t i = 0; i < other.size(); ++i)
    {
        const auto number = static_cast<uint16_t>(first + i);
        other[i][2] = static_cast<uint8_t>(number >> 8);
        other[i][3] = static_cast<uint8_t>(number);
        other[i][8] = static_cast<uint8_t>(packets[0][8] + 1);
    }
    other.erase(other.begin() + 5);
    feed(other);
    ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
    ZrTrackStatistics track{};
    ASSERT_EQ(ZR_MediaPortTrackStatistics(portId, 0, &track), 0U);
    EXPECT_EQ(track.ullReordered, packets.size() / 2);
    EXPECT_EQ(track.ullLost, before + 1);
    EXPECT_STREQ(track.szEncoding, "H264");
    EXPECT_EQ(ZR_MediaPortTrackStatistics(portId, 1, &track), ZR_ULONG{ZR_MEDIA_NO_TRACK});
    EXPECT_GE(recorded("video_0 ! h264parse").buffers.size(), 118U);
}

TEST_F(PlayerMedia, DatesARecordingByTheSendersClock)
{
    constexpr uint64_t begin = 1700000000123; // long ago
    const std::vector<Bytes> video = packetsOf(h264);
    setUpInterleaved();
    for (const bool told : {true, false})
    {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        record(sdpH264);
        for (size_t i = 0; i < video.size(); ++i)
        {
            feed(video[i]);
            if (told && i == 20)
                feed(senderReport(video[0], begin), 1);
        }
        ASSERT_EQ(ZR_MediaPortRecord(portId, nullptr), 0U);
        ZrRecordingBegin found{};
        ASSERT_EQ(ZR_RecordingBegin(file("a.mkv").c_str(), &found), 0U);
        EXPECT_EQ(found.ulSenderClock, told ? 1U : 0U);
        const double expected =
            told ? static_cast<double>(begin) : std::chrono::duration<double, std::milli>(now).count();
        EXPECT_NEAR(static_cast<double>(found.ullUnixUs) / 1000, expected, told ? 1 : 20000);
        if (told) // a recording that goes on keeps its date
        {
            ASSERT_EQ(ZR_RecordingContinue(file("a.mkv").c_str(), file("a.mkv").c_str()), 0U);
            ZrRecordingBegin kept{};
            ASSERT_EQ(ZR_RecordingBegin(file("a.mkv").c_str(), &kept), 0U);
            EXPECT_EQ(kept.ullUnixUs, found.ullUnixUs);
            ZR_MediaPortClose(portId); // the next port has heard of no clock
            ASSERT_EQ(ZR_MediaPortOpen(portId, aoiPortId, "127.0.0.1", &m_first), 0U);
            m_port = findByAoiPort(aoiPortId);
            setUpInterleaved();
        }
    }
}

TEST(SenderClocksOfARecording, PlaceSoundAndPictureTowardsEachOther)
{
    constexpr int64_t ms = 1000000;
    constexpr int64_t unixTime = 1700000000000 * ms;
    struct Row
    {
        const char *what;
        int64_t soundUnixMs;               ///< what the clock showed at the sound's first packet; at the picture's 1000
        uint32_t pictureLater, soundLater; ///< ms by which they come later
    };
    const Row rows[] = {{"as they came", 1000, 0, 0},
                        {"nobody notices", 1030, 0, 0},
                        {"the sound was made later than it came", 1300, 0, 300},
                        {"the picture was", 700, 300, 0},
                        {"no sender means that", 60000, 0, 0}};
    for (const Row &row : rows)
    {
        SCOPED_TRACE(row.what);
        SenderClocks clocks({true, false});
        RtpTimeline picture(90000);
        RtpTimeline sound(8000);
        clocks.report(0, 1, 500, unixTime + 1000 * ms);
        clocks.report(1, 2, 700, unixTime + row.soundUnixMs * ms);
        std::array<uint64_t, 2> delays{};
        for (uint32_t i = 0; i < 5; ++i)
        {
            const uint64_t arrival = i * 40 * ms;
            delays[0] += clocks.follow(0, picture, picture.map(1, 500 + i * 3600, arrival), arrival).delay;
            delays[1] += clocks.follow(1, sound, sound.map(2, 700 + i * 320, arrival), arrival).delay;
        }
        EXPECT_EQ(delays[0], row.pictureLater * ms);
        EXPECT_EQ(delays[1], row.soundLater * ms);
        EXPECT_EQ(picture.map(1, 500 + 5 * 3600, 200 * ms), (200U + row.pictureLater) * ms);
    }
    // what comes faster than it plays tells when it began, but places nothing
    SenderClocks clocks({true, false});
    RtpTimeline picture(90000);
    RtpTimeline sound(8000);
    picture.map(1, 0, 0);
    sound.map(2, 0, 0);
    clocks.report(0, 1, 900000, unixTime);
    clocks.report(1, 2, 0, unixTime);
    const auto first = clocks.follow(0, picture, picture.map(1, 900000, 10 * ms), 10 * ms);
    ASSERT_TRUE(first.start);
    EXPECT_EQ(first.start->unixTime, unixTime - 10000 * ms);
    EXPECT_EQ(clocks.follow(1, sound, 0, 0).delay, 0U);

    // another source dates what is its own, from its first packet on; until it does, nothing does
    SenderClocks others({true});
    RtpTimeline jumping(90000);
    const auto next = [&](uint32_t ssrc, uint32_t timestamp, uint64_t arrival) {
        return others.follow(0, jumping, jumping.map(ssrc, timestamp, arrival * ms), arrival * ms);
    };
    others.report(0, 1, 900000, unixTime);
    EXPECT_EQ(next(1, 900000, 10).start->since, 0U);
    EXPECT_FALSE(next(1, 903600, 50).undated);
    EXPECT_TRUE(next(3, 7200, 30000).undated);
    others.report(0, 3, 7200, unixTime + 60000 * ms);
    const auto other = next(3, 10800, 30040);
    ASSERT_TRUE(other.start && !other.undated);
    EXPECT_EQ(other.start->since, 1050U * ms);
    EXPECT_EQ(other.start->unixTime + 1050 * ms, unixTime + 60000 * ms);
    others.report(0, 3, 14400, unixTime + 60080 * ms); // nor does what was said before a step back
    const auto back = next(3, 10800 - 360000, 30080);
    EXPECT_TRUE(back.undated && !back.start);
}
