// The hand-off of ONVIF stream information to the local player.
#include "core_fixture.h"

namespace zr::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HandoffTest : public CoreTest
{
protected:
    static constexpr ZR_ULONG NOT_SET_UP = 13402; ///< what play returns after its hand-off

    void hand(Session &session, const std::string &video, const std::string &audio, const std::string &sets,
              ZR_ULONG playerInput = 0)
    {
        COnvifInfo info;
        info.m_strVideoRtpmap = video;
        info.m_strAudioRtpmap = audio;
        info.m_strVideoSps = sets;
        info.m_ulPlayerInput = playerInput;
        session.probe.ability().setOnvifInfo(info);
        platform.clearRecord();
    }
    static std::string packet(const std::string &text)
    {
        const size_t words = (text.size() + 3) / 4;
        std::string bytes("\x90\x01\x10\x27\x10\x27\0\0\x10\x27\0\0\0\0", 14);
        bytes += {static_cast<char>(words >> 8), static_cast<char>(words & 0xFF)};
        bytes += text;
        bytes.resize(16 + 4 * words);
        return bytes;
    }
    static std::string line(const std::string &levelAndCode, const std::string &text)
    {
        return levelAndCode + ":[CRtspMediaCtrl::sendOnvifRtp] " + text + " {6000002}";
    }
};

TEST_F(HandoffTest, thePacketHoldsWhatIsKnown)
{
    struct Row
    {
        const char *video, *audio, *sets, *text;
    };
    const Row rows[] = {{"", "", "", ""},
                        {"96 H264", "0 PCMU", "sprop-parameter-sets=Z0IA,aM4",
                         "VRMP:96 H264;ARMP:0 PCMU;SPS:sprop-parameter-sets=Z0IA,aM4;"},
                        {"96 H264", "", "", "VRMP:96 H264;"},
                        {"96 VP8", "", "", "VRMP:96 VP8;"},
                        {"", "a", "s", "ARMP:a;SPS:s;"}};
    for (const Row &row : rows)
    {
        SCOPED_TRACE(row.text);
        Session session("onvif");
        hand(session, row.video, row.audio, row.sets);
        EXPECT_EQ(NOT_SET_UP, session.main->play("", ""));
        EXPECT_THAT(platform.datagrams(), ElementsAre(packet(row.text)));
        EXPECT_THAT(platform.events(), ElementsAre("sendto 127.0.0.1:6000"));
        EXPECT_EQ(0, platform.openSockets);
    }
    Session longest("onvif"); // as long as the answer's fields may be
    hand(longest, std::string(31, 'v'), std::string(31, 'a'), "sprop-parameter-sets=" + std::string(511, 's'));
    longest.main->play("", "");
    ASSERT_EQ(1U, platform.datagrams().size());
    EXPECT_EQ(628U, platform.datagrams()[0].size());
    hand(longest, "96 H264", std::string(900, 'a'), "s"); // longer, from a host
    longest.main->play("", "");
    ASSERT_EQ(1U, platform.datagrams().size());
    EXPECT_EQ("VRMP:96 H264;", platform.datagrams()[0].substr(16, 13));
    EXPECT_GE(640U, platform.datagrams()[0].size());
    EXPECT_EQ(2U, platform.logs('3').size());
}

TEST_F(HandoffTest, thePathIsChosen)
{
    struct Row
    {
        const char *tag;
        ZR_ULONG protocol, playerInput;
        Texts events;
    };
    const Texts player = {"player(5)"}, datagram = {"sendto 127.0.0.1:6000"};
    const Row rows[] = {{"onvif", 0, 0, datagram}, {"onvif", 0, 1, player}, {"onvif", 1, 0, player},
                        {"onvif", 2, 2, datagram}, {"", 1, 1, {}},          {"ONVIF", 0, 0, {}}};
    for (const Row &row : rows)
    {
        Session session(row.tag);
        hand(session, "v", "", "", row.playerInput);
        session.probe.setProtocol(static_cast<tagProtocol>(row.protocol));
        EXPECT_EQ(NOT_SET_UP, session.main->play("", ""));
        EXPECT_EQ(row.events, platform.events()) << row.tag << row.protocol << row.playerInput;
        EXPECT_EQ(row.events == player ? Texts{packet("VRMP:v;")} : Texts{}, platform.playerPackets());
    }
}

TEST_F(HandoffTest, onlyARefusalOrALackingSocketStopsThePlay)
{
    Session session("onvif");
    hand(session, "v", "", "", 1);
    platform.fail("player", 555);
    EXPECT_EQ(555U, session.main->play("", ""));
    EXPECT_THAT(platform.logs(), ElementsAre(line("4:555", "Input onvif rtp info data failed, error code is 555")));

    hand(session, "v", "", "");
    platform.fail("socket");
    EXPECT_EQ(4U, session.main->play("", ""));
    EXPECT_THAT(platform.logs(), ElementsAre(::testing::EndsWith("create socket error, system error is 99 {6000002}")));

    hand(session, "v", "", "");
    platform.fail("sendto");
    EXPECT_EQ(NOT_SET_UP, session.main->play("", ""));
    EXPECT_THAT(platform.datagrams(), IsEmpty());
    EXPECT_THAT(platform.logs().front(), ::testing::EndsWith("Send data error, system error is 99 {6000002}"));
}

TEST_F(HandoffTest, whatIsSentInPartsIsSentWhole)
{
    Session session("onvif");
    hand(session, "96 H264", "", "");
    platform.sendChunk = 10;
    EXPECT_EQ(NOT_SET_UP, session.main->play("", ""));
    std::string whole;
    for (const std::string &part : platform.datagrams())
        whole += part;
    EXPECT_EQ(packet("VRMP:96 H264;"), whole);
    hand(session, "96 H264", "", "");
    platform.hook("sendto", [this] { platform.sendChunk = -1; }); // nothing is taken: the loop ends
    EXPECT_EQ(NOT_SET_UP, session.main->play("", ""));
    EXPECT_EQ(1U, platform.datagrams().size());
}

} // namespace
} // namespace zr::test
