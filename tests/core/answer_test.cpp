// What comes in: the routing of messages, and each answer's handler with good and wrong answers.
#include "core_fixture.h"

namespace zr::test {
namespace {

using AnswerTest = CoreTest;

TEST_F(AnswerTest, messagesForOthersAreDiscarded)
{
    const auto discarded = [](const std::string &what) {
        return line("3:13002", "AOIMsgPro", "discard a Msg which ID is " + what);
    };
    // the last: the far side's own requests, of which any destination will do, but no answer
    const std::tuple<ZR_ULONG, const char *, bool> rows[] = {
        {AOI_MSG_RTSP_SETUP, "AOI_MSG_RTSP_SETUP", false},
        {AOI_MSG_RTSP_PLAY, "AOI_MSG_RTSP_PLAY", false},
        {AOI_MSG_RTSP_PAUSE, "AOI_MSG_RTSP_PAUSE", false},
        {AOI_MSG_RTSP_TEARDOWN, "AOI_MSG_RTSP_TEARDOWN", false},
        {AOI_MSG_RTSP_OPTIONS, "AOI_MSG_RTSP_OPTIONS", false},
        {AOI_MSG_RTSP_DESCRIBE, "AOI_MSG_RTSP_DESCRIBE", false},
        {AOI_MSG_RTSP_SET_PARAMERTER, "AOI_MSG_RTSP_SET_PARAMERTER", false},
        {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE", true},
        {AOI_MSG_INTERNAL_NOTIFY_RTSP, "AOI_MSG_INTERNAL_NOTIFY_RTSP", true}};
    Session session;
    for (const auto &[id, name, request] : rows)
    {
        session.inState(1);
        EXPECT_EQ(13002U, session.take(Answer(id, request ? SUCCESS : REQUEST)));
        EXPECT_EQ(13002U, session.take(Answer(id, SUCCESS, AOI_PORT + 1)));
        EXPECT_EQ(13002U, session.take(Answer(id, FAILURE, 0xFFFFFFFF)));
        EXPECT_EQ(Texts(3, discarded(name)), platform.logs());
    }
    platform.clearRecord();
    EXPECT_EQ(13002U, session.take(Answer(0x060A00FF, SUCCESS)));
    EXPECT_EQ(2U, session.processor->AOIMsgPro(nullptr));
    EXPECT_THAT(platform.logs(), ElementsAre(discarded("unknown, [ID: 0x60a00ff]"),
                                             line("4:2", "AOIMsgPro", "parameter char *pstAOIMsg can't be NULL")));

    session.inState(17);
    for (const ZR_ULONG id : {AOI_MSG_RTSP_TEARDOWN, AOI_MSG_RTSP_SET_PARAMERTER}) // taken, though nobody needs them
    {
        EXPECT_EQ(0U, session.take(Answer(id, SUCCESS)));
        EXPECT_EQ(0U, session.take(Answer(id, FAILURE)));
    }
    EXPECT_THAT(platform.logs(), IsEmpty());
    EXPECT_EQ(17U, session.probe.state());
}

TEST_F(AnswerTest, wrongAnswersChangeNothing)
{
    const std::tuple<ZR_ULONG, ZR_ULONG, const char *, const char *, const char *, const char *> methods[] = {
        {AOI_MSG_RTSP_SETUP, 1, "AOIProcRtspSetup", "AOI_MSG_RTSP_SETUP", "", "discard a Msg "},
        {AOI_MSG_RTSP_PLAY, 4, "AOIProcRtspPlay", "AOI_MSG_RTSP_PLAY", " OK", "discard a Msg "},
        {AOI_MSG_RTSP_PAUSE, 10, "AOIProcRtspPause", "AOI_MSG_RTSP_PAUSE", " OK", "discard a Msg"}};
    for (const auto &[id, waiting, handler, name, ok, discard] : methods)
    {
        const auto log = [handler = std::string(handler)](const char *code, const std::string &text) {
            return line(code, handler + "Rsp", text) + "|";
        };
        // logs: the handler's; AOIMsgPro's own follows when the result is not 0
        const auto takes = [&, handler = handler](const char *what, ZR_ULONG state, const Answer &answer,
                                                  ZR_ULONG result, std::string logs, ZR_ULONG stateAfter,
                                                  ZR_ULONG rspResult = 1) {
            SCOPED_TRACE(std::string(handler) + ": " + what);
            Session session("", state);
            session.probe.rspResult = 1;
            EXPECT_EQ(result, session.take(answer));
            if (result != 0)
                logs += line("4:" + std::to_string(result), "AOIMsgPro", handler) + " brings an error|";
            EXPECT_EQ(logs, joined(platform.logs()));
            EXPECT_EQ(stateAfter, session.probe.state());
            EXPECT_EQ(rspResult, session.probe.rspResult);
        };
        const Answer good = success(id), bad = failure(id, 454), empty(id, SUCCESS);
        const Answer other = Answer(empty).with(AOI_IE_SESSION_ID, "S2");
        const std::string get = std::string("get ") + name, tooLate = log("2:13002", discard);
        takes("good", waiting, good, 0, "", waiting + 1, 0);
        takes("refused", waiting, bad, 0, "", waiting + 2, 454);
        takes("refused without a status", waiting, Answer(id, FAILURE), 0,
              log("4:2572", get + " reponse message's IE Errcode failed"), waiting + 2, 2572);
        takes("refused under another session ID", waiting, Answer(bad).with(AOI_IE_SESSION_ID, "S2"), 0, "",
              waiting + 2, 454);
        takes("of an unknown kind", waiting, Answer(id, 3), 13002, tooLate, waiting);
        takes("good, nobody waits", 17, good, 13002, tooLate, 17);
        takes("refused, nobody waits", 0, bad, 13002, tooLate, 0);
        takes("good and too late", waiting + 1, good, 13002, tooLate, waiting + 1);
        takes("without session ID and too late", 16, empty, 13002, tooLate, 16);
        takes("without session ID", waiting, empty, 13803,
              log("4:2562", get + ok + " reponse message's IE SessionID failed"), waiting);
        if (waiting == 1)
            takes("without transport", 1, other, 2565, log("4:2565", "CAOIIETool::getAOIIETransport failed"), 1);
        else
            takes("of another session", waiting, other, 13002, log("3:13002", "discard a Msg with SID: S2"), waiting);
    }
}

TEST_F(AnswerTest, setupTakesTheTransport)
{
    // controls: "v" and "a" for the tracks that the description named; server: address, port and audio port
    const auto takes = [](ZR_ULONG protocol, const char *tag, const char *url, const std::string &controls,
                          ZR_USHORT port, ZR_USHORT audioPort, tagBroadcastmethod method, const std::string &server,
                          ZR_ULONG natMode = 0) {
        SCOPED_TRACE(server);
        Session session(tag, 1);
        session.probe.protocol = static_cast<tagProtocol>(protocol);
        session.probe.url = url;
        CMediaAbility &ability = session.probe.ability;
        session.changeInfo([&](COnvifInfo &info) {
            info.m_strVideoControl = controls.find('v') == std::string::npos ? "" : "video";
            info.m_strAudioControl = controls.find('a') == std::string::npos ? "" : "audio";
            info.m_enBroadcastMethod = method;
        });
        ability.setServerPort(port);
        ability.setServerAudioPort(audioPort);
        EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_SETUP)
                                       .with(AOI_IE_SESSION_ID, "S9")
                                       .with(AOI_IE_METHOD_TRANSPORT, "224.0.0.1:8000")));
        EXPECT_EQ(server, listed(ability.getServerIP(), ability.getServerPort(), ability.getServerAudioPort()));
        EXPECT_EQ(listed(natMode, natMode == 0 ? "" : "S9", "S9"),
                  listed(ability.getNATMode(), ability.getNATSessionStr(), ability.getSessionID()));
        EXPECT_EQ("10.0.0.5,7000,7000", listed(ability.getTcpVodToTvServerIP(), ability.getTcpVodToTvServerPort(),
                                               ability.getTcpVodToTvServerAudioPort()));
        EXPECT_EQ(2U, session.probe.state());
    };
    const auto none = BROADCASTMETHOD_NONE, group = BROADCASTMETHOD_MULTICAST;
    takes(0, "onvif", "rtsp://h", "va", 0, 0, none, "10.0.0.9,0,0");
    takes(1, "", "rtsp://h", "", 554, 9, none, "10.0.0.5,7000,9");
    takes(1, "", "NatOut", "", 554, 0, none, "10.0.0.5,7000,0"); // TCP knows no NAT
    takes(2, "onvif", "NatOut", "va", 0, 0, group, "10.0.0.9,0,0");
    takes(0, "", "x/NatIn/NatOut", "", 554, 1, none, "10.0.0.5,7000,1", 1);
    takes(0, "", "x/NatIn", "", 554, 1, none, "10.0.0.9,554,1", 2);
    takes(0, "onvif", "", "v", 0, 0, group, "224.0.0.1,8000,0");
    takes(0, "onvif", "", "v", 8000, 0, group, "10.0.0.9,8000,0"); // the video was set up before
    takes(0, "onvif", "", "va", 554, 554, group, "224.0.0.1,554,8000");
    takes(0, "onvif", "", "va", 0, 8000, group, "224.0.0.1,8000,8000"); // the audio's test follows the video's store
    takes(0, "onvif", "", "va", 0, 0, group, "224.0.0.1,8000,0");
    takes(0, "onvif", "", "a", 0, 0, group, "224.0.0.1,0,8000");
    takes(0, "", "", "va", 0, 0, group, "10.0.0.9,0,0"); // multicast needs ONVIF
    takes(0, "onvif", "NatOut", "v", 0, 0, group, "10.0.0.5,7000,0", 1);
}

TEST_F(AnswerTest, aSetupAnswerIsReadAsFarAsItGoes)
{
    for (const int nth : {1, 2})
    {
        Session session("", 1);
        session.probe.protocol = PROTOCOL_TCP;
        platform.fail("getTransport", INJECTED, nth);
        EXPECT_EQ(INJECTED, session.take(success(AOI_MSG_RTSP_SETUP).with(AOI_IE_SESSION_ID, "S3")));
        const CMediaAbility &ability = session.probe.ability;
        EXPECT_EQ(listed("S3", nth == 1 ? "10.0.0.9" : "10.0.0.5", ""),
                  listed(ability.getSessionID(), ability.getServerIP(), ability.getTcpVodToTvServerIP()));
        EXPECT_EQ(1U, session.probe.state());
    }
}

} // namespace
} // namespace zr::test
