// The hand-off of ONVIF stream information to the local player.
#include "core_fixture.h"

namespace zr::test {
namespace {

constexpr ZR_ULONG NOT_SET_UP = 13402; ///< what play returns after its hand-off

class HandoffTest : public CoreTest
{
protected:
    Session session{"onvif"};

    ZR_ULONG hand(const std::string &video, const std::string &audio, const std::string &sets, ZR_ULONG playerInput = 0)
    {
        COnvifInfo info;
        info.m_strVideoRtpmap = video;
        info.m_strAudioRtpmap = audio;
        info.m_strVideoSps = sets;
        info.m_ulPlayerInput = playerInput;
        session.probe.ability.setOnvifInfo(info);
        platform.clearRecord();
        return session.main->play("", "");
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
    static std::string line(const std::string &code, const std::string &text)
    {
        return CoreTest::line(code, "sendOnvifRtp", text) + " {6000002}";
    }
};

TEST_F(HandoffTest, thePacketHoldsWhatIsKnown)
{
    const std::array<const char *, 4> rows[] = {{"", "", "", ""},
                                                {"96 H264", "0 PCMU", "sprop-parameter-sets=Z0IA,aM4",
                                                 "VRMP:96 H264;ARMP:0 PCMU;SPS:sprop-parameter-sets=Z0IA,aM4;"},
                                                {"96 VP8", "", "", "VRMP:96 VP8;"},
                                                {"", "a", "s", "ARMP:a;SPS:s;"}};
    for (const auto &[video, audio, sets, text] : rows)
    {
        EXPECT_EQ(NOT_SET_UP, hand(video, audio, sets));
        EXPECT_THAT(platform.packets(), ElementsAre(packet(text)));
    }
    // as long as the answer's fields may be; and longer, from a host
    hand(std::string(31, 'v'), std::string(31, 'a'), "sprop-parameter-sets=" + std::string(511, 's'));
    EXPECT_EQ(628U, platform.packets().at(0).size());
    hand("96 H264", std::string(900, 'a'), "s");
    EXPECT_EQ("VRMP:96 H264;", platform.packets().at(0).substr(16, 13));
    EXPECT_GE(640U, platform.packets()[0].size());
    EXPECT_EQ(2U, platform.logs('3').size());
}

TEST_F(HandoffTest, thePathIsChosen)
{
    const Texts player = {"player(5)"}, datagram = {"sendto(127.0.0.1,6000)"};
    const std::tuple<const char *, ZR_ULONG, ZR_ULONG, Texts> rows[] = {
        {"onvif", 0, 0, datagram}, {"onvif", 0, 1, player}, {"onvif", 1, 0, player},
        {"onvif", 2, 2, datagram}, {"", 1, 1, {}},          {"ONVIF", 0, 0, {}}};
    for (const auto &[tag, protocol, playerInput, events] : rows)
    {
        session.main->setDecoderDesc(tag);
        session.probe.protocol = static_cast<tagProtocol>(protocol);
        EXPECT_EQ(NOT_SET_UP, hand("v", "", "", playerInput));
        EXPECT_EQ(events, platform.events()) << listed(tag, protocol, playerInput);
        EXPECT_EQ(Texts(events.size(), packet("VRMP:v;")), platform.packets());
    }
}

TEST_F(HandoffTest, onlyARefusalOrALackingSocketStopsThePlay)
{
    platform.fail("player", 555);
    EXPECT_EQ(555U, hand("v", "", "", 1));
    EXPECT_THAT(platform.logs(), ElementsAre(line("4:555", "Input onvif rtp info data failed, error code is 555")));
    platform.fail("socket");
    EXPECT_EQ(4U, hand("v", "", ""));
    EXPECT_THAT(platform.logs(), ElementsAre(line("4:4", "create socket error, system error is 98")));
    platform.fail("sendto");
    EXPECT_EQ(NOT_SET_UP, hand("v", "", ""));
    EXPECT_THAT(platform.packets(), IsEmpty());
    EXPECT_EQ(line("4:4", "Send data error, system error is 99"), platform.logs().front());
}

TEST_F(HandoffTest, whatIsSentInPartsIsSentWhole)
{
    platform.fail("sendto", 10, 1, 1000);
    EXPECT_EQ(NOT_SET_UP, hand("96 H264", "", ""));
    std::string whole;
    for (const std::string &part : platform.packets())
        whole += part;
    EXPECT_EQ(packet("VRMP:96 H264;"), whole);
    platform.fail("sendto", static_cast<ZR_ULONG>(-1)); // nothing is taken: the loop ends
    EXPECT_EQ(NOT_SET_UP, hand("96 H264", "", ""));
    EXPECT_EQ(1U, platform.packets().size());
}

} // namespace
} // namespace zr::test
