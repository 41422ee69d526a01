// What comes in: the routing of messages, and each answer's handler with good and wrong answers.
#include "core_fixture.h"

namespace zr::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AnswerTest : public CoreTest
{
protected:
    static std::string discarded(const std::string &what)
    {
        return "3:13002:[CRtspMediaCtrl::AOIMsgPro] discard a Msg which ID is " + what;
    }
};

TEST_F(AnswerTest, messagesForOthersAreDiscarded)
{
    Session session;
    const std::map<ZR_ULONG, std::string> answers = {{AOI_MSG_RTSP_SETUP, "AOI_MSG_RTSP_SETUP"},
                                                     {AOI_MSG_RTSP_PLAY, "AOI_MSG_RTSP_PLAY"},
                                                     {AOI_MSG_RTSP_PAUSE, "AOI_MSG_RTSP_PAUSE"},
                                                     {AOI_MSG_RTSP_TEARDOWN, "AOI_MSG_RTSP_TEARDOWN"},
                                                     {AOI_MSG_RTSP_OPTIONS, "AOI_MSG_RTSP_OPTIONS"},
                                                     {AOI_MSG_RTSP_DESCRIBE, "AOI_MSG_RTSP_DESCRIBE"},
                                                     {AOI_MSG_RTSP_SET_PARAMERTER, "AOI_MSG_RTSP_SET_PARAMERTER"}};
    for (const auto &[id, name] : answers)
    {
        session.inState(1);
        EXPECT_EQ(13002U, session.take(Answer(id, REQUEST)));
        EXPECT_EQ(13002U, session.take(Answer(id, SUCCESS, AOI_PORT + 1)));
        EXPECT_EQ(13002U, session.take(Answer(id, FAILURE, 0xFFFFFFFF)));
        EXPECT_EQ(Texts(3, discarded(name)), platform.logs());
    }
    const std::map<ZR_ULONG, std::string> requests = {
        {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE"},
        {AOI_MSG_INTERNAL_NOTIFY_RTSP, "AOI_MSG_INTERNAL_NOTIFY_RTSP"}};
    for (const auto &[id, name] : requests)
    {
        session.inState(17);
        EXPECT_EQ(13002U, session.take(Answer(id, SUCCESS)));
        EXPECT_EQ(13002U, session.take(Answer(id, FAILURE)));
        EXPECT_EQ(Texts(2, discarded(name)), platform.logs());
    }
    platform.clearRecord();
    EXPECT_EQ(13002U, session.take(Answer(0x060A00FF, SUCCESS)));
    EXPECT_EQ(2U, session.processor->AOIMsgPro(nullptr));
    EXPECT_THAT(platform.logs(),
                ElementsAre(discarded("unknown, [ID: 0x60a00ff]"),
                            "4:2:[CRtspMediaCtrl::AOIMsgPro] parameter char *pstAOIMsg can't be NULL"));
}

TEST_F(AnswerTest, answersNobodyNeedsAreTaken)
{
    Session session;
    session.inState(17);
    for (const ZR_ULONG id : {AOI_MSG_RTSP_TEARDOWN, AOI_MSG_RTSP_SET_PARAMERTER})
    {
        EXPECT_EQ(0U, session.take(Answer(id, SUCCESS)));
        EXPECT_EQ(0U, session.take(Answer(id, FAILURE)));
    }
    EXPECT_THAT(platform.logs(), IsEmpty());
    EXPECT_EQ(17U, session.probe.state());
}

TEST_F(AnswerTest, handlersRefuseNull)
{
    Session session;
    platform.clearRecord();
    EXPECT_THAT(session.probe.nullAnswers(), ElementsAre(2, 2, 2, 2));
    const std::string text = "] parameter char *pstAOIMsg can't be NULL";
    EXPECT_THAT(platform.logs(), ElementsAre("4:2:[CRtspMediaCtrl::AOIProcRtspSetupRsp" + text,
                                             "4:2:[CRtspMediaCtrl::AOIProcRtspPlayRsp" + text,
                                             "4:2:[CRtspMediaCtrl::AOIProcRtspPauseRsp" + text,
                                             "4:2:[CRtspMediaCtrl::AOIProcRtspDescribeRsp] Invalid param"));
}

struct Method
{
    ZR_ULONG id, waiting;
    const char *handler, *name, *ok, *discard;
};

class HandlerTest : public AnswerTest, public ::testing::WithParamInterface<Method>
{
protected:
    static std::string line(const std::string &code, const std::string &text)
    {
        return code + ":[CRtspMediaCtrl::AOIProc" + GetParam().handler + "Rsp] " + text + "|";
    }
    /// @param log  the handler's lines; AOIMsgPro's own follows when the result is not 0
    void takes(const char *name, ZR_ULONG state, const Answer &answer, ZR_ULONG result, std::string log,
               ZR_ULONG stateAfter, ZR_ULONG rspResult = 1)
    {
        SCOPED_TRACE(name);
        Session session;
        session.inState(state);
        session.probe.setRspResult(1);
        EXPECT_EQ(result, session.take(answer));
        if (result != 0)
        {
            log += "4:" + std::to_string(result) + ":[CRtspMediaCtrl::AOIMsgPro] AOIProc" + GetParam().handler +
                   " brings an error|";
        }
        EXPECT_EQ(log, joined(platform.logs()));
        EXPECT_EQ(stateAfter, session.probe.state());
        EXPECT_EQ(rspResult, session.probe.rspResult());
    }
};

TEST_P(HandlerTest, wrongAnswersChangeNothing)
{
    const Method &method = GetParam();
    const ZR_ULONG waiting = method.waiting;
    const Answer good = success(method.id), bad = failure(method.id, 454), empty(method.id, SUCCESS);
    const std::string get = std::string("get ") + method.name, discarded = line("2:13002", method.discard);
    takes("good", waiting, good, 0, "", waiting + 1, 0);
    takes("refused", waiting, bad, 0, "", waiting + 2, 454);
    takes("refused without a status", waiting, Answer(method.id, FAILURE), 0,
          line("4:2572", get + " reponse message's IE Errcode failed"), waiting + 2, 2572);
    takes("refused under another session ID", waiting, Answer(bad).with(AOI_IE_SESSION_ID, "S2"), 0, "", waiting + 2,
          454);
    takes("of an unknown kind", waiting, Answer(method.id, 3), 13002, discarded, waiting);
    takes("good, nobody waits", 17, good, 13002, discarded, 17);
    takes("refused, nobody waits", 0, bad, 13002, discarded, 0);
    takes("good and too late", waiting + 1, good, 13002, discarded, waiting + 1);
    takes("without session ID and too late", 16, empty, 13002, discarded, 16);
    takes("without session ID", waiting, empty, 13803,
          line("4:2562", get + method.ok + " reponse message's IE SessionID failed"), waiting);
    const Answer other = Answer(empty).with(AOI_IE_SESSION_ID, "S2");
    if (waiting == 1)
        takes("without transport", 1, other, 2565, line("4:2565", "CAOIIETool::getAOIIETransport failed"), 1);
    else
        takes("of another session", waiting, other, 13002, line("3:13002", "discard a Msg with SID: S2"), waiting);
}

INSTANTIATE_TEST_SUITE_P(
    All, HandlerTest,
    ::testing::Values(Method{AOI_MSG_RTSP_SETUP, 1, "RtspSetup", "AOI_MSG_RTSP_SETUP", "", "discard a Msg "},
                      Method{AOI_MSG_RTSP_PLAY, 4, "RtspPlay", "AOI_MSG_RTSP_PLAY", " OK", "discard a Msg "},
                      Method{AOI_MSG_RTSP_PAUSE, 10, "RtspPause", "AOI_MSG_RTSP_PAUSE", " OK", "discard a Msg"}));

TEST_F(AnswerTest, setupTakesTheTransport)
{
    // controls: "v" and "a" for the tracks that the description named; server: address, port and audio port
    const auto takes = [this](const char *name, ZR_ULONG protocol, const char *tag, const char *url,
                              const std::string &controls, ZR_USHORT port, ZR_USHORT audioPort,
                              tagBroadcastmethod method, const std::string &server, ZR_ULONG natMode = 0)
    {
        SCOPED_TRACE(name);
        Session session(tag);
        session.inState(1);
        session.probe.setProtocol(static_cast<tagProtocol>(protocol));
        session.probe.url() = url;
        CMediaAbility &ability = session.probe.ability();
        session.changeInfo(
            [&](COnvifInfo &info)
            {
                info.m_strVideoControl = controls.find('v') == std::string::npos ? "" : "video";
                info.m_strAudioControl = controls.find('a') == std::string::npos ? "" : "audio";
                info.m_enBroadcastMethod = method;
            });
        ability.setServerPort(port);
        ability.setServerAudioPort(audioPort);
        EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_SETUP)
                                       .with(AOI_IE_SESSION_ID, "S9")
                                       .with(AOI_IE_METHOD_TRANSPORT, "224.0.0.1:8000")));
        EXPECT_EQ(server, ability.getServerIP() + " " + std::to_string(ability.getServerPort()) + " " +
                              std::to_string(ability.getServerAudioPort()));
        EXPECT_EQ(natMode, static_cast<ZR_ULONG>(ability.getNATMode()));
        EXPECT_EQ(natMode == 0 ? "" : "S9", ability.getNATSessionStr());
        EXPECT_EQ("S9", ability.getSessionID());
        EXPECT_EQ("10.0.0.5", ability.getTcpVodToTvServerIP());
        EXPECT_EQ(7000, ability.getTcpVodToTvServerPort());
        EXPECT_EQ(7000, ability.getTcpVodToTvServerAudioPort());
        EXPECT_EQ(2U, session.probe.state());
    };
    const auto none = BROADCASTMETHOD_NONE, group = BROADCASTMETHOD_MULTICAST;
    takes("UDP keeps the server", 0, "onvif", "rtsp://h", "va", 0, 0, none, "10.0.0.9 0 0");
    takes("TCP takes it", 1, "", "rtsp://h", "", 554, 9, none, "10.0.0.5 7000 9");
    takes("TCP knows no NAT", 1, "", "NatOut", "", 554, 0, none, "10.0.0.5 7000 0");
    takes("another protocol does neither", 2, "onvif", "NatOut", "va", 0, 0, group, "10.0.0.9 0 0");
    takes("NatOut", 0, "", "x/NatIn/NatOut", "", 554, 1, none, "10.0.0.5 7000 1", 1);
    takes("NatIn", 0, "", "x/NatIn", "", 554, 1, none, "10.0.0.9 554 1", 2);
    takes("multicast video", 0, "onvif", "", "v", 0, 0, group, "224.0.0.1 8000 0");
    takes("video set up before", 0, "onvif", "", "v", 8000, 0, group, "10.0.0.9 8000 0");
    takes("audio at the video's port", 0, "onvif", "", "va", 554, 554, group, "224.0.0.1 554 8000");
    takes("video first, then audio's test", 0, "onvif", "", "va", 0, 8000, group, "224.0.0.1 8000 8000");
    takes("video makes the ports differ", 0, "onvif", "", "va", 0, 0, group, "224.0.0.1 8000 0");
    takes("audio alone", 0, "onvif", "", "a", 0, 0, group, "224.0.0.1 0 8000");
    takes("multicast needs ONVIF", 0, "", "", "va", 0, 0, group, "10.0.0.9 0 0");
    takes("multicast through NAT", 0, "onvif", "NatOut", "v", 0, 0, group, "10.0.0.5 7000 0", 1);
}

TEST_F(AnswerTest, aSetupAnswerIsReadAsFarAsItGoes)
{
    for (const int nth : {1, 2})
    {
        Session session;
        session.inState(1);
        session.probe.setProtocol(PROTOCOL_TCP);
        platform.fail("getTransport", INJECTED, nth);
        EXPECT_EQ(INJECTED, session.take(success(AOI_MSG_RTSP_SETUP).with(AOI_IE_SESSION_ID, "S3")));
        EXPECT_EQ("S3", session.probe.ability().getSessionID());
        EXPECT_EQ(nth == 1 ? "10.0.0.9" : "10.0.0.5", session.probe.ability().getServerIP());
        EXPECT_EQ("", session.probe.ability().getTcpVodToTvServerIP());
        EXPECT_EQ(1U, session.probe.state());
    }
}

} // namespace
} // namespace zr::test
