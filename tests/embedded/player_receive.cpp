#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>
#include <tuple>

#include <arpa/inet.h>

#include "description.h"
#include "hand_off.h"
#include "media_loop.h"
#include "player_tools.h"
#include "rtcp.h"
#include "rtp.h"
#include "zr_player.h"

using namespace zr::test;
using namespace zr::media;

namespace {

Bytes handOffPacket(const std::string &text)
{
    Bytes bytes = {0x90, 0x01, 0x10, 0x27, 0x10, 0x27, 0, 0, 0x10, 0x27, 0, 0, 0, 0};
    const size_t words = (text.size() + 3) / 4;
    bytes.push_back(static_cast<uint8_t>(words >> 8));
    bytes.push_back(static_cast<uint8_t>(words));
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.resize(16 + 4 * words);
    return bytes;
}

/// Whether the system lets a group's packets in by their source.
bool filtersOf(const std::string &group, const std::string &source)
{
    char wanted[40];
    std::snprintf(wanted, sizeof wanted, "0x%08x 0x%08x", ntohl(inet_addr(group.c_str())),
                  ntohl(inet_addr(source.c_str())));
    std::ifstream filters("/proc/net/mcfilter");
    const std::string all{std::istreambuf_iterator<char>(filters), {}};
    return all.find(wanted) != std::string::npos;
}

/// 0 beyond its end.
uint32_t word(const Bytes &bytes, size_t index)
{
    return bytes.size() < 4 * index + 4 ? 0 : readU32(bytes.data() + 4 * index);
}

} // namespace

TEST(HandOffPacket, IsReadWholeOrRefused)
{
    const Bytes whole = handOffPacket("VRMP:96 H264;ARMP:0 PCMU;SPS:sprop-parameter-sets=Z0IA,aM4;");
    HandOff read;
    std::string problem;
    const auto taken = [&](const Bytes &bytes) { return readHandOff(bytes.data(), bytes.size(), read, problem); };
    ASSERT_TRUE(taken(whole)) << problem;
    EXPECT_EQ(read.videoRtpmap, "96 H264");
    EXPECT_EQ(read.audioRtpmap, "0 PCMU");
    EXPECT_EQ(read.parameterSets, "sprop-parameter-sets=Z0IA,aM4");
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(taken(Bytes(whole.data(), whole.data() + size))) << size; // its end is guarded
    std::vector<Bytes> refused(6, whole);
    refused[0][14] = 0xFF;                      // claims 64 KiB and more
    refused[1].resize(whole.size() + 4);        // claims less than is there
    refused[2][0] = 0x80;                       // no extension
    refused[3][20] = 0;                         // a zero inside
    refused[4] = handOffPacket("VRMP:96 H264"); // no end of the piece
    refused[5] = handOffPacket("VRMP:" + std::string(640, '9') + ";");
    for (const Bytes &bytes : refused)
        EXPECT_FALSE(taken(bytes));
    EXPECT_TRUE(taken(handOffPacket("")));
    EXPECT_EQ(read.videoRtpmap, "");
}

TEST(Description, GivesEachTracksFormats)
{
    const Description described =
        Description::fromSdp("v=0\r\nm=audio 0 RTP/AVP 0 96\r\na=rtpmap:96 mpeg4-generic/48000/2\r\n"
                             "a=fmtp:96 mode=AAC-hbr\r\nm=video 0 RTP/AVP 96\n"
                             "a=rtpmap:96 H264/90000\na=rtpmap:97 H265/90000\n"
                             "m=text 0 TCP 99\nm=video");
    const std::tuple<unsigned, uint8_t, const char *, uint32_t> cases[] = {{0, 96, "MPEG4-GENERIC", 48000},
                                                                           {1, 96, "H264", 90000},
                                                                           {1, 0, "PCMU", 8000},
                                                                           {5, 96, "MPEG4-GENERIC", 48000},
                                                                           {0, 26, "JPEG", 90000}};
    for (const auto &[track, payloadType, encoding, clockRate] : cases)
    {
        const Format *format = described.find(track, payloadType);
        ASSERT_NE(format, nullptr) << encoding;
        EXPECT_EQ(format->encoding, encoding);
        EXPECT_EQ(format->clockRate, clockRate);
    }
    EXPECT_EQ(described.find(0, 97), nullptr) << "its section does not name it";
    EXPECT_EQ(described.find(0, 96)->fmtp, "mode=AAC-hbr");
    EXPECT_EQ(described.find(0, 96)->parameters, "2");
    EXPECT_TRUE(Description::fromSdp("v=0\nm=video 0 RTP/AVP 96\nm=audio x RTP/AVP 999\n").empty());
}

TEST_F(OpenPort, CountsLossOverWrapsJumpsAndSources)
{
    const std::tuple<const char *, std::vector<uint16_t>, std::vector<uint16_t>, uint64_t> cases[] = {
        {"in order, over the wrap", {65534, 65535, 0, 1}, {}, 0},
        {"two missing", {10, 11, 14}, {}, 2},
        {"missing over the wrap", {65533, 2}, {}, 4},
        {"out of order", {10, 12, 11, 13}, {}, 0},
        {"twice", {10, 10, 11}, {}, 0},
        {"one stray number", {10, 40000, 11}, {}, 0},
        {"a jump that goes on", {10, 12, 40000, 40001, 40003}, {}, 2},
        {"another source", {10, 12}, {500, 502, 503}, 2},
    };
    setUpInterleaved();
    uint64_t lost = 0;
    uint64_t packets = 0;
    uint32_t ssrc = 100;
    for (const auto &[what, first, ofAnotherSource, lostInRow] : cases)
    {
        for (const auto &sequences : {first, ofAnotherSource})
        {
            ++ssrc;
            for (const uint16_t sequence : sequences)
                feed(rtp(sequence, 0, ssrc));
            packets += sequences.size();
        }
        lost += lostInRow;
        EXPECT_EQ(statistics().ullLost, lost) << what;
        EXPECT_EQ(statistics().ullPackets, packets) << what;
    }
    for (const Bytes &bytes : {Bytes{}, Bytes(11, 0x80), Bytes{0x8F, 96, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1},
                               Bytes{0xA0, 96, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 200}, rtp(1, 0, 7, 72)})
        feed(bytes);
    feed(rtp(1), 9);
    EXPECT_EQ(statistics().ullPackets, packets) << "no RTP, or no track's channel";
    EXPECT_EQ(statistics().ullBytes, packets * 100);
}

TEST(ReceptionOfASource, LosesNothingWhereItsServerPlaysOn)
{
    constexpr int played = -1;
    std::vector<int> longAfter{1, played};
    for (int sequence = 2; sequence < 80; ++sequence)
        longAfter.push_back(sequence);
    longAfter.push_back(90);
    const std::tuple<const char *, std::vector<int>, uint64_t> cases[] = {
        {"behind the answer", {1, 2, played, 9, 10}, 0},
        {"the answer came later", {1, 2, 9, 10, played, 11}, 0},
        {"once only", {1, 2, played, 9, 12}, 2},
        {"not both", {1, 3, 5, played, 6, 8}, 2},
        {"long after", longAfter, 10},
    };
    for (const auto &[what, events, lost] : cases)
    {
        Reception reception;
        for (const int event : events)
        {
            if (event == played)
                reception.played();
            else
                reception.take({96, static_cast<uint16_t>(event), 0, 7}, 90000, TimePoint{});
        }
        EXPECT_EQ(reception.lost(), lost) << what;
    }
}

TEST_F(OpenPort, TellsTheTimesOfAReplay)
{
    const auto told = [] {
        ZrReplayFacts facts{};
        const ZR_ULONG result = ZR_MediaPortReplay(portId, &facts);
        EXPECT_EQ(result, facts.ullFrames == 0 ? ZR_ULONG{ZR_MEDIA_NO_MEDIA} : 0U);
        return facts;
    };
    uint16_t sequence = 0;
    const auto replayed = [&](uint32_t timestamp, const Bytes &extension, size_t words, uint8_t channel = 0) {
        Bytes packet = rtp(++sequence, timestamp);
        packet[0] |= 0x10;
        packet[12] = 0xAB;
        packet[13] = 0xAC;
        packet[14] = static_cast<uint8_t>(words >> 8);
        packet[15] = static_cast<uint8_t>(words);
        std::copy(extension.begin(), extension.end(), packet.begin() + 16);
        feed(packet, channel);
        return told();
    };
    setUpInterleaved(0);
    setUpInterleaved(1);
    EXPECT_EQ(ZR_MediaPortReplay(portId, nullptr), ZR_ULONG{ZR_MEDIA_INVALID});
    const Bytes first = {0xEE, 0xAA, 0x98, 0xA0, 0x80, 0, 0, 0, 0xA0, 7}; // 2026-11-20 10:00:00.5
    constexpr int64_t firstUs = 1795168800500000;
    for (const size_t words : {0U, 1U, 2U, 22U, 0xFFFFU}) // too short, or longer than its packet
        EXPECT_EQ(replayed(1, first, words).ullFrames, 0U) << words;
    EXPECT_EQ(replayed(1, Bytes(10), 3).ullFrames, 0U) << "no time";
    ZrReplayFacts facts = replayed(1, first, 3);
    EXPECT_EQ(facts.llUnixUs, firstUs);
    EXPECT_EQ(facts.ulMarks, ZR_ULONG{ZR_REPLAY_CLEAN_POINT | ZR_REPLAY_DISCONTINUITY});
    EXPECT_EQ(facts.ulCSeq, 7U);
    feed(rtp(++sequence, 1)); // one packet of a frame tells it for all, several tell it once
    facts = replayed(1, first, 3);
    EXPECT_EQ(facts.ullFrames + facts.ullCleanPoints + facts.ullDiscontinuities, 3U);
    Bytes last = {0, 0, 0, 1, 0, 0, 0, 0, 0x50, 7, 0, 0, 0xFF, 0xD8}; // of 2036, with a JPEG extension behind
    facts = replayed(2, last, 5);
    EXPECT_EQ(facts.llUnixUs, ((int64_t{1} << 32) + 1 - 2208988800) * 1000000);
    EXPECT_EQ(facts.llFirstUnixUs, firstUs);
    EXPECT_EQ(facts.ulMarks, ZR_ULONG{ZR_REPLAY_END_OF_SECTION | ZR_REPLAY_TERMINAL});
    EXPECT_EQ(facts.ullSectionEnds, 1U);
    EXPECT_EQ(replayed(9, first, 3, 2).ulMarks, ZR_ULONG{ZR_REPLAY_END_OF_SECTION}) << "the other track goes on";
    EXPECT_EQ(replayed(10, last, 3, 2).ulMarks, facts.ulMarks) << "until its own last frame";
    setUpInterleaved(0);
    setUpInterleaved(1);
    EXPECT_EQ(told().ullFrames, 0U) << "another session";
}

TEST(ReceptionOfASource, CoversTimeByItsTimestamps)
{
    Reception reception;
    // over the wrap, with pictures out of order; a seek and another source cover nothing, but go on from where they are
    const std::tuple<uint32_t, uint32_t, uint64_t> packets[] = {
        {1, 0U - 90000, 0},  {1, 0, 1000},        {1, 90000, 2000},  {1, 45000, 2000}, {1, 135000, 2500},
        {1, 90000000, 2500}, {1, 90090000, 3500}, {1, 135000, 3500}, {2, 500, 3500},   {2, 90500, 4500}};
    RtpPacket packet;
    for (const auto &[ssrc, timestamp, coveredMs] : packets)
    {
        packet.ssrc = ssrc;
        packet.timestamp = timestamp;
        ++packet.sequence;
        reception.take(packet, 90000, TimePoint(std::chrono::seconds(1000)));
        EXPECT_EQ(reception.mediaMs(), coveredMs) << timestamp;
    }
}

TEST(ReceptionOfASource, MeasuresJitterByTheAppendix)
{
    Reception reception;
    const TimePoint start{std::chrono::seconds(1000)};
    // every 20 ms at 8 kHz, the third 100 ms late: 800 units off twice, a sixteenth of each added
    const int arrivals[] = {0, 20, 140, 60};
    for (uint16_t i = 0; i < 4; ++i)
    {
        RtpPacket packet;
        packet.sequence = i;
        packet.timestamp = 0xFFFFFF00U + 160U * i; // over the wrap
        reception.take(packet, 8000, start + std::chrono::milliseconds(arrivals[i]));
    }
    const uint32_t jitter16 = 800 + (800 - (800 + 8) / 16);
    EXPECT_EQ(reception.report(start)->jitter, jitter16 / 16);
    EXPECT_EQ(reception.jitterUs(), jitter16 / 16 * 1000000 / 8000);
}

TEST_F(OpenPort, TakesOnlyTheNegotiatedPeer)
{
    const Sender peer("127.0.0.1");
    const Sender foreign("127.0.0.2");
    const Sender otherPort("127.0.0.1");
    const auto second = static_cast<uint16_t>(m_first + 2);
    setUpUdp(0, peer.port(), 0);
    setUpUdp(1, 0, 0); // the answer named no port
    CJugeMediaKeepLive::RefreshMediaKeepLive(portId);
    otherPort.send(m_first, rtp(3));
    foreign.send(second, rtp(4));
    Bytes larger = rtp(5);
    larger.resize(1000);
    peer.send(m_first, larger);
    otherPort.send(second, larger);
    ASSERT_TRUE(eventually([] { return statistics().ullBytes >= 2000; }));
    const ZrMediaStatistics counted = statistics();
    EXPECT_EQ(counted.ullPackets, 2U) << "those that came before are not taken";
    EXPECT_EQ(counted.ulTracks, 2U);
    EXPECT_LT(counted.ulLastArrivalMs, 60000U);
    EXPECT_NE(CJugeMediaKeepLive::CheckIfRecvPkt(portId), 0U);
}

TEST_F(OpenPort, TakesAGroupsSenderAndReportsToTheGroup)
{
    const std::string address = "239.253." + std::to_string(m_first >> 8) + "." + std::to_string(m_first & 0xFF);
    const Endpoint local = *Endpoint::parse("127.0.0.1", 0);
    const auto sendFrom = [](const char *from, const Endpoint &to, const Bytes &bytes) {
        const Sender sender(from);
        sender.sendByLoopback(to, bytes);
    };
    // a track from whoever is the peer, and one that the network brings from a named source alone
    for (const unsigned number : {0U, 1U})
    {
        TrackTransport transport;
        transport.multicast = true;
        transport.sourceNamed = number == 1;
        transport.peerAddress = number == 1 ? "127.0.0.2" : "127.0.0.1";
        transport.group = address;
        transport.groupPort = transport.clientRtpPort = static_cast<uint16_t>(5004 + 2 * number);
        UdpPair other; // another receiver
        const Endpoint group = *Endpoint::parse(address, transport.groupPort);
        if (joinGroup({group, std::nullopt, 0}, local, other) != 0)
            GTEST_SKIP() << "the loopback interface carries no multicast";
        m_port->setUpTrack(number, transport, {});
        sendFrom(number == 1 ? "127.0.0.1" : "127.0.0.2", group, rtp(1));
        sendFrom(transport.peerAddress.c_str(), group, rtp(2));
        ASSERT_TRUE(arrived(number + 1));
        EXPECT_EQ(statistics().ullPackets, number + 1) << "another sender's is not taken";
        EXPECT_EQ(filtersOf(address, "127.0.0.2"), number == 1) << "the network is not asked for one source";
        tickAfter(std::chrono::seconds(10 * (number + 1)));
        EXPECT_EQ(word(receiveFrom(other.rtcp.get()), 0), 0x81C90007U) << "a report with a block";
    }
    EXPECT_TRUE(Endpoint::parse("232.1.2.3", 0)->isSourceSpecific() &&
                Endpoint::parse("ff3e::1", 0)->isSourceSpecific());
    EXPECT_FALSE(Endpoint::parse("239.1.2.3", 0)->isSourceSpecific() ||
                 Endpoint::parse("ff15::1", 0)->isSourceSpecific());
}

/// Where no sender is named: the server first, then one that sends alone, until the server does.
TEST(SenderOfAGroup, IsAnotherWhereTheServerIsNotHeard)
{
    TrackTransport transport;
    transport.multicast = true;
    transport.peerAddress = "192.0.2.1";
    transport.group = "239.1.2.3";
    const Endpoint server = *Endpoint::parse("192.0.2.1", 9);
    const Endpoint gateway = *Endpoint::parse("192.0.2.2", 9);
    const Endpoint third = *Endpoint::parse("192.0.2.3", 9);
    const Bytes bytes = rtp(1);
    const TimePoint begin = Clock::now();
    for (const bool named : {false, true})
    {
        Track track;
        transport.sourceNamed = named;
        ASSERT_TRUE(track.setUp(transport, {}, {}));
        const auto heard = [&](const Endpoint &from, int seconds) {
            const TimePoint now = begin + std::chrono::seconds(seconds);
            const bool taken = track.rtpFromPeer(from) || track.hearsInstead(from, now);
            if (taken)
                track.takeRtp(*readRtp(bytes.data(), bytes.size()), bytes.size(), 0, now);
            return taken;
        };
        EXPECT_FALSE(heard(gateway, 0) || heard(third, 1));
        EXPECT_EQ(heard(gateway, 2), !named);
        EXPECT_FALSE(heard(third, 9)) << "one alone";
        EXPECT_TRUE(heard(server, 10));
        EXPECT_FALSE(heard(gateway, 20)) << "the server was heard";
    }
}

TEST_F(OpenPort, TakesTheHandOffBeforeTheMediaOnly)
{
    const Sender local("127.0.0.1");
    const auto jitterOf = [this, &local](uint8_t payloadType, uint16_t first) {
        const uint64_t before = statistics().ullPackets;
        for (uint16_t i = 0; i < 3; ++i) // a tenth of a second apart by their timestamps, at once on the wire
            local.send(m_first, rtp(static_cast<uint16_t>(first + i), 9000U * i, first, payloadType));
        EXPECT_TRUE(arrived(before + 3));
        return statistics().ulJitterUs;
    };
    const Bytes whole = handOffPacket("");
    const Bytes refused = {0x90, 0x01, 0};
    EXPECT_EQ(PlayerInputOnvifRtpInfo(portId, whole.data(), static_cast<ZR_ULONG>(whole.size())), 0);
    EXPECT_NE(PlayerInputOnvifRtpInfo(portId, refused.data(), 3), 0);
    EXPECT_NE(PlayerInputOnvifRtpInfo(portId, nullptr, 16), 0);
    EXPECT_EQ(PlayerInputOnvifRtpInfo(portId + 1, refused.data(), 3), 0) << "nobody opened that port";
    setUpUdp(0, local.port(), 0);
    local.send(m_first, handOffPacket("VRMP:98 H264;"));
    EXPECT_GT(jitterOf(98, 100), 0U) << "its clock rate was not learnt";
    local.send(m_first, handOffPacket("ARMP:99 PCMA;"));
    EXPECT_EQ(jitterOf(99, 200), 0U) << "taken after the media began";
}

TEST_F(OpenPort, ReportsToThePeer)
{
    const Sender peer("127.0.0.1");
    const Sender control("127.0.0.1");
    setUpUdp(0, peer.port(), control.port());
    for (const Sender *far : {&peer, &control})
        EXPECT_EQ(word(far->receive(), 0), 0x80C90001U) << "an empty receiver report";
    for (const uint16_t sequence : std::vector<uint16_t>{65534, 65535, 1})
        peer.send(m_first, rtp(sequence));
    ASSERT_TRUE(arrived(3));
    // a sender report of source 7, then a BYE of another
    control.send(static_cast<uint16_t>(m_first + 1), {0x80, 200, 0, 6, 0, 0, 0, 7, 1, 2, 3,    4,   5, 6, 7, 8, 0, 0,
                                                      0,    0,   0, 0, 0, 0, 0, 0, 0, 0, 0x81, 203, 0, 1, 0, 0, 0, 9});
    Bytes report;
    std::chrono::seconds passed{0};
    ASSERT_TRUE(eventually([&] {
        if (word(report, 6) == 0)
        {
            tickAfter(passed += std::chrono::seconds(10));
            report = control.receive();
        }
        return word(report, 6) != 0;
    }));
    EXPECT_EQ(word(report, 0), 0x81C90007U);
    EXPECT_EQ(word(report, 2), 7U);
    EXPECT_EQ(word(report, 3) & 0xFFFFFFU, 1U) << "one is lost";
    EXPECT_EQ(word(report, 4), 0x10001U) << "extended by the wrap";
    EXPECT_EQ(word(report, 6), 0x03040506U) << "the middle of the NTP time";
    EXPECT_GE(word(report, 7), 65536U * 9) << "ten seconds since, in 1/65536 s";
    EXPECT_EQ(word(report, 8) >> 16, 0x81CAU) << "the CNAME follows";
    EXPECT_EQ(word(report, 9), word(report, 1));
    EXPECT_EQ(report[40], 1U);
    EXPECT_GT(report.size(), 42U + report[41]) << "a zero ends the list";
    EXPECT_EQ(report.size(), 32 + 4 * (1 + readU16(report.data() + 34)));
}

/// At each PLAY, and with each report while no media comes: routers forget.
TEST_F(OpenPort, OpensTheWayAgain)
{
    constexpr uint32_t empty = 0x80C90001;
    constexpr uint32_t withBlock = 0x81C90007;
    const Sender peer("127.0.0.1");
    const Sender control("127.0.0.1");
    setUpUdp(0, peer.port(), control.port());
    m_port->playing();
    for (const Sender *far : {&peer, &control, &peer, &control})
        EXPECT_EQ(word(far->receive(), 0), empty) << "SETUP and PLAY";
    peer.send(m_first, rtp(1));
    ASSERT_TRUE(arrived(1));
    tickAfter(std::chrono::seconds(10));
    EXPECT_EQ(word(control.receive(), 0), withBlock);
    m_port->playing();
    EXPECT_EQ(word(peer.receive(), 0), empty) << "media came: nothing in front of PLAY's";
    tickAfter(std::chrono::seconds(20));
    EXPECT_EQ(word(peer.receive(), 0), withBlock) << "none came since";
}

/// No packet wakes the media thread of a port that is received by its connection.
TEST(MediaThread, ComesWhenAClientIsDueThoughNothingArrives)
{
    struct Client : LoopClient
    {
        void readable(int, PacketBatch &) override {}
        TimePoint tick(TimePoint) override
        {
            came.set_value();
            return TimePoint::max();
        }
        std::promise<void> came;
    } client;
    ASSERT_TRUE(MediaLoop::instance().add(client));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it has begun to wait, for ever
    MediaLoop::instance().schedule(client, Clock::now() + std::chrono::milliseconds(1));
    EXPECT_EQ(client.came.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    MediaLoop::instance().remove(client);
}

TEST_F(OpenPort, LetsGoOfAConnection)
{
    const auto token = std::make_shared<int>();
    std::vector<Bytes> written;
    setUpInterleaved(0, [token, &written](uint8_t channel, const void *data, size_t size) {
        EXPECT_EQ(channel, 1U);
        written.emplace_back(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + size);
        return true;
    });
    feed(rtp(1));
    tickAfter(std::chrono::seconds(10));
    ASSERT_EQ(written.size(), 1U);
    EXPECT_EQ(word(written[0], 2), 7U);
    m_port->connectionClosed();
    EXPECT_EQ(token.use_count(), 1) << "the writer is held beyond the connection";
    feed(rtp(2));
    EXPECT_EQ(statistics().ullPackets, 1U);
}

TEST_F(OpenPort, OpensOncePerIdentifierAndEndsWhole)
{
    EXPECT_EQ(m_first % 2, 0);
    ZR_USHORT other = 0;
    EXPECT_EQ(ZR_MediaPortOpen(portId, 1, "127.0.0.1", &other), ZR_ULONG{ZR_MEDIA_PORT_IN_USE});
    EXPECT_EQ(ZR_MediaPortOpen(1, aoiPortId, "127.0.0.1", &other), ZR_ULONG{ZR_MEDIA_PORT_IN_USE});
    EXPECT_EQ(ZR_MediaPortOpen(1, 1, "192.0.2.1", &other), ZR_ULONG{ZR_MEDIA_ADDRESS});
    EXPECT_EQ(ZR_MediaPortOpen(1, 1, "localhost", &other), ZR_ULONG{ZR_MEDIA_INVALID});
    ASSERT_EQ(ZR_MediaPortOpen(1, 1, "127.0.0.1", &other), 0U);
    EXPECT_GE(std::abs(other - m_first), 4);
    EXPECT_EQ(ZR_MediaPortClose(1), 0U);
    EXPECT_EQ(findByAoiPort(1), nullptr);

    std::thread frames([this] {
        setUpInterleaved();
        for (uint16_t i = 0; i < 5000; ++i)
            feed(rtp(i));
    });
    ASSERT_TRUE(arrived(1));
    EXPECT_EQ(ZR_MediaPortClose(portId), 0U);
    frames.join();
    EXPECT_EQ(ZR_MediaPortClose(portId), ZR_ULONG{ZR_MEDIA_UNKNOWN_PORT});
    EXPECT_EQ(findByAoiPort(aoiPortId), nullptr);
}
