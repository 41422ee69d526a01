// Each request: what it sends, and what it logs, returns and leaves behind when one of its steps fails.
#include "core_fixture.h"

namespace zr::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RequestTest : public CoreTest
{
};

struct Step
{
    const char *operation; ///< which fails
    ZR_ULONG result;       ///< what the request then returns
    const char *text;      ///< what it logs at level 4
    ZR_ULONG logged = INJECTED;
};

struct Family
{
    const char *function; ///< as log lines name it
    ZR_ULONG state;       ///< in which it is called
    std::function<ZR_ULONG(Session &)> call;
    std::vector<Step> steps;
    const char *outerText = nullptr; ///< a second line that an outer operation logs
    ZR_ULONG outerLogged = 0;        ///< its code; 0: the result
};

const char *const NO_MEMORY = "Not enough memory to malloc a aoi message";
const char *const NO_HEADER = "Failed to create RegMsgHeader of AoiMsg.";
const char *const NO_SESSION_ID = "add IE SessionID failed";
const char *const NO_URL = "add IE AOI_IE_URL failed";
const char *const NO_AUTH = "add IE Authorization failed";

std::vector<Step> setupSteps()
{
    return {{"init", INJECTED, "Failed to init MediaAbility"},
            {"malloc", 3, NO_MEMORY, 3},
            {"header", INJECTED, NO_HEADER},
            {"URL", INJECTED, NO_URL},
            {"SrcUaID", INJECTED, "add IE SrcUaID failed"},
            {"DstUaID", INJECTED, "add IE DstUaID failed"},
            {"Transport", INJECTED, "add IE AOI_IE_TRANSPORT failed"},
            {"Scale", 13805, "add IE Scale failed, the play speed is 302.000000"},
            {"Auth", INJECTED, NO_AUTH},
            {"SessionID", INJECTED, NO_SESSION_ID},
            {"send", INJECTED, "send AOI_MSG_RTSP_SETUP message failed"}};
}

std::vector<Family> families()
{
    return {
        {"setup", 16,
         [](Session &session)
         {
             session.probe.setPlaySpeed(302);
             return session.main->setup("rtsp://h/s", PROTOCOL_UDP);
         },
         setupSteps()},
        {"setup", 0, [](Session &session) { return session.ex2->setup("rtsp://h/s", PROTOCOL_UDP, 1, 0); },
         setupSteps(), "rtsp setup failed.", 13205},
        {"generalPlay",
         17,
         [](Session &session) { return session.probe.generalPlay(2, "10", "20"); },
         {{"malloc", 3, NO_MEMORY, 3},
          {"header", 13952, NO_HEADER},
          {"SessionID", 13805, NO_SESSION_ID},
          {"URL", 13805, NO_URL},
          {"Range", 13955, "add IE RangeTime failed"},
          {"Scale", 13805, "add IE Scale failed, the play speed is 2.000000"},
          {"Auth", INJECTED, NO_AUTH},
          {"send", 13401, "send AOI_MSG_RTSP_PLAY message failed,the play speed is 2.000000", 13401}}},
        {"dragPlay",
         18,
         [](Session &session) { return session.ex->dragPlay("10", "20", 12); },
         {{"malloc", 3, NO_MEMORY, 3},
          {"header", 13955, NO_HEADER},
          {"SessionID", 13955, NO_SESSION_ID},
          {"URL", 13955, NO_URL},
          {"Range", 13955, "add IE RangeTime failed"},
          {"Scale", 13955, "add IE Scale failed"},
          {"Auth", INJECTED, NO_AUTH},
          {"send", 13955, "send AOI_MSG_RTSP_PLAY message failed", 13401}}},
        {"pause",
         17,
         [](Session &session) { return session.ex->pause(); },
         {{"malloc", 3, NO_MEMORY, 3},
          {"header", 13954, NO_HEADER},
          {"SessionID", 13954, NO_SESSION_ID},
          {"URL", 13954, NO_URL},
          {"send", 13954, "send AOI_MSG_RTSP_PAUSE message failed", 13205}}},
        {"describe",
         0,
         [](Session &session) { return session.main->describe("rtsp://h/s"); },
         {{"malloc", 3, NO_MEMORY, 3},
          {"header", INJECTED, NO_HEADER},
          {"URL", INJECTED, NO_URL},
          {"SrcUaID", INJECTED, "add IE SrcUaID failed"},
          {"DstUaID", INJECTED, "add IE DstUaID failed"},
          {"UserAgent", INJECTED, "add IE UserAgent failed"},
          {"Accept", INJECTED, "add IE Accept failed"},
          {"Auth", INJECTED, NO_AUTH},
          {"send", 13401, "send AOI_MSG_RTSP_DESCRIBE message failed", 13401}},
         "Failed to send AOI_MSG_RTSP_DESCRIBE response Message"},
        {"tearDown",
         1,
         [](Session &session)
         {
             session.main->tearDown();
             return session.probe.aoiPort() == AOI_PORT ? 0U : 1U;
         },
         {{"malloc", 0, NO_MEMORY, 3},
          {"header", 0, NO_HEADER},
          {"SessionID", 0, NO_SESSION_ID},
          {"URL", 0, NO_URL},
          {"Auth", 0, NO_AUTH},
          {"send", 0, "send AOI_MSG_RTSP_TEARDOWN message failed", 13205}}},
    };
}

TEST_F(RequestTest, aFailedStepIsLoggedReturnedAndLeavesNothingBehind)
{
    for (const Family &family : families())
    {
        std::map<int, std::string> lines;
        for (const Step &step : family.steps)
        {
            SCOPED_TRACE(std::string(family.function) + ", " + step.operation);
            Session session;
            session.inState(family.state);
            platform.fail(step.operation);
            EXPECT_EQ(step.result, family.call(session));

            const std::string name = std::string(":[CRtspMediaCtrl::") + family.function + "] ";
            Texts expected = {"4:" + std::to_string(step.logged) + name + step.text};
            if (family.outerText != nullptr)
            {
                const ZR_ULONG code = family.outerLogged != 0 ? family.outerLogged : step.result;
                expected.push_back("4:" + std::to_string(code) + name + family.outerText);
            }
            EXPECT_EQ(expected, platform.logs('3'));
            EXPECT_THAT(platform.requests(), IsEmpty());
            EXPECT_EQ(0U, platform.liveMessages());
            EXPECT_EQ(family.state, session.probe.state());

            // a build failure is logged before the message is freed, a send failure after; each from its own line
            const std::string operation = step.operation;
            const size_t live = operation == "send" || operation == "malloc" || operation == "init" ? 0 : 1;
            for (const LogLine &line : platform.logLines())
            {
                if (line.text != expected.front())
                    continue;
                EXPECT_EQ(live, line.liveMessages);
                EXPECT_TRUE(lines.emplace(line.line, step.operation).second) << "also of " << lines[line.line];
            }
        }
    }
}

TEST_F(RequestTest, withoutDispatcherSendingFails)
{
    platform.dispatcherMissing = true;
    ASSERT_EQ(0U, init(0, 0, nullptr, nullptr));
    for (const Family &family : families())
    {
        SCOPED_TRACE(family.function);
        Session session;
        session.inState(family.state);
        session.probe.setPlayFlag(1);
        Step send = family.steps.back();
        if (std::string(family.function) == "tearDown") // tests for it, and then changes nothing
            send = {"", 0, "can't find a AOI msg dispatch module", 13601};
        EXPECT_EQ(send.result == INJECTED ? 13601 : send.result, family.call(session));
        ASSERT_FALSE(platform.logs('3').empty());
        EXPECT_EQ("4:" + std::to_string(send.logged == INJECTED ? 13601 : send.logged) +
                      ":[CRtspMediaCtrl::" + family.function + "] " + send.text,
                  platform.logs('3').front());
        EXPECT_EQ(family.state, session.probe.state());
        EXPECT_EQ(1U, session.probe.playFlag());
        EXPECT_EQ(0U, platform.liveMessages());
    }
    platform.dispatcherMissing = false;
    ASSERT_EQ(0U, init(0, 0, nullptr, nullptr));
}

class ElementsTest : public RequestTest
{
protected:
    void SetUp() override
    {
        RequestTest::SetUp();
        platform.expireWaits();
    }
    /// @param elements  what the call must send, in order
    void sends(const std::string &name, const std::string &tag, ZR_ULONG id, const std::function<void(Session &)> &call,
               const std::string &elements)
    {
        SCOPED_TRACE(name);
        Session session(tag);
        session.inState(id == AOI_MSG_RTSP_SETUP ? 16 : 17);
        call(session);
        const auto requests = platform.requests();
        ASSERT_EQ(1U, requests.size());
        EXPECT_EQ(elements, joined(requests[0].elements));
        const std::vector<ZR_ULONG> header = {requests[0].id, requests[0].kind, requests[0].source,
                                              requests[0].destination};
        EXPECT_THAT(header, ElementsAre(id, REQUEST, AOI_PORT, 0xFFFFFFFF));
    }
};

TEST_F(ElementsTest, ofSetup)
{
    const auto setup = [](const std::string &url, tagBroadcastmethod method = BROADCASTMETHOD_NONE, float speed = 0)
    {
        return [=](Session &session)
        {
            session.changeInfo([=](COnvifInfo &info) { info.m_enBroadcastMethod = method; });
            session.probe.setPlaySpeed(speed);
            session.main->setup(url, PROTOCOL_TCP);
        };
    };
    const auto download = [](Session &session)
    {
        session.probe.ability().setSessionID("");
        session.ex2->setup("u", PROTOCOL_UDP, 3, -1);
    };
    const std::string uas = "|SrcUaID=src,0|DstUaID=dst,0|", transport = "Transport=127.0.0.1:6000,1,-1,0|";
    const std::string end = "Auth=setup-auth|SessionID=S1|";
    const ZR_ULONG id = AOI_MSG_RTSP_SETUP;
    sends("new", "", id, setup("rtsp://h/s?auth=1"), "URL=rtsp://h/s" + uas + transport + "Scale=0.000000|" + end);
    sends("an ONVIF session has no scale, multicast no address", "onvif", id,
          setup("auth://h", BROADCASTMETHOD_MULTICAST, 2),
          "URL=auth://h|SrcUaID=src,1|DstUaID=dst,1|Transport=:6000,1,1,0|" + end);
    sends("no scale, cut at the first auth", "", id, setup("rtsp://h/oauth&auth", BROADCASTMETHOD_UNICAST, -1.000001F),
          "URL=rtsp://h/" + uas + "Transport=127.0.0.1:6000,1,0,0|" + end);
    sends("hardly a scale", "", id, setup("u", BROADCASTMETHOD_NONE, -0.9999F),
          "URL=u" + uas + transport + "Scale=-0.999900|" + end);
    sends("without a session ID", "", id, download,
          "URL=u" + uas + "Transport=127.0.0.1:6000,0,-1,0|Scale=108.000000|Auth=setup-auth|");
}

TEST_F(ElementsTest, ofPlay)
{
    const auto play = [](const char *from, const char *auth = "A")
    {
        return [=](Session &session)
        {
            session.changeInfo([=](COnvifInfo &info) { info.m_strPlayAuth = auth; });
            session.main->play(from, "20");
        };
    };
    const auto drag = [](const char *from, ZR_ULONG speed)
    {
        return [=](Session &session)
        {
            session.changeInfo([=](COnvifInfo &info) { info.m_strPlayAuth.clear(); });
            session.ex->dragPlay(from, "", speed);
        };
    };
    const std::string begin = "SessionID=S1|URL=rtsp://h/s|", end = "|Auth=play-auth|";
    const ZR_ULONG id = AOI_MSG_RTSP_PLAY;
    sends("play", "", id, play("10"), begin + "Range=10~20|Scale=1.000000|Auth=A|");
    sends("no start", "", id, play(""), begin + "Scale=1.000000|Auth=A|");
    sends("omz-v1", "omz-v1", id, play("10"), begin + "Scale=1.000000|Auth=A|");
    sends("OMZ-V1", "OMZ-V1", id, play("10"), begin + "Range=10~20|Scale=1.000000|Auth=A|");
    sends("ONVIF with credentials", "onvif", id, play(""), begin + "Scale=1.000000|Auth=A|");
    sends("ONVIF without", "onvif", id, play("", ""), begin + "Auth=|");
    sends("no credentials", "", id, play("", ""), begin + "Scale=1.000000|Auth=|");
    sends(
        "playAtSpeed, unknown", "", id, [](Session &session) { session.ex->playAtSpeed(20); },
        begin + "Scale=1.000000" + end);
    sends(
        "changeSpeed", "OMZ-V1", id, [](Session &session) { session.ex->changeSpeed(17); },
        begin + "Scale=-258.000000" + end);
    sends(
        "full frames", "", id, [](Session &session) { session.ex->download("10", "20", 2, -7); },
        begin + "Range=10~20|Scale=104.000000" + end);
    sends(
        "sampled", "", id, [](Session &session) { session.ex->download("", "20", 3, 0); },
        begin + "Scale=308.000000" + end);
    sends("dragPlay", "omz-v1", id, drag("", 0), begin + "Range=~|Scale=-256.000000|Auth=|");
    sends("dragPlay of ONVIF", "onvif", id, drag("5", 19), begin + "Range=5~|Scale=0.125000|Auth=|");
}

TEST_F(ElementsTest, ofTheOthers)
{
    const auto tearDown = [](Session &session)
    {
        session.probe.ability().setSessionID("");
        session.main->tearDown();
    };
    sends(
        "pause", "", AOI_MSG_RTSP_PAUSE, [](Session &session) { session.ex->pause(); }, "SessionID=S1|URL=rtsp://h/s|");
    sends("tearDown", "", AOI_MSG_RTSP_TEARDOWN, tearDown, "SessionID=|URL=rtsp://h/s|Auth=teardown-auth|");
    sends(
        "describe", "onvif", AOI_MSG_RTSP_DESCRIBE, [](Session &session) { session.main->describe("rtsp://h/d"); },
        "URL=rtsp://h/d|SrcUaID=src,1|DstUaID=dst,1|UserAgent|Accept|Auth=|");
}

TEST_F(RequestTest, suffixesOfTheGuobiaoVariant)
{
    platform.expireWaits();
    for (const char *tag : {"guobiao", "Guobiao", "other@12"}) // the last has packet type 4
    {
        SCOPED_TRACE(tag);
        const bool suffixed = std::string(tag) != "Guobiao";
        Session session(tag);
        session.inState(16);
        session.ex2->setPlayNormalFlag(1);
        session.ex2->setPlaybackNowFlag(1);
        platform.fail("SessionID"); // an earlier failure does not use the flag up
        EXPECT_EQ(13955U, session.ex->dragPlay("1", "2", 11));
        EXPECT_EQ(1U, session.probe.playbackNowFlag());
        session.ex->playAtSpeed(11);
        session.ex->playAtSpeed(11);
        session.ex->dragPlay("1", "2", 11);
        EXPECT_EQ(suffixed ? 0U : 1U, session.probe.playbackNowFlag());
        session.ex->dragPlay("1", "2", 11);
        Texts urls;
        for (const Request &request : platform.requests())
            urls.push_back(request.elements.at(1));
        const std::string plain = "URL=rtsp://h/s";
        const std::string normal = plain + (suffixed ? "/play_normal" : "");
        EXPECT_THAT(urls, ElementsAre(normal, normal, plain + (suffixed ? "/playback_now" : ""), plain));
    }
}

TEST_F(RequestTest, wrongStatesAreRefusedBeforeAnythingIsSent)
{
    const std::string play = "4:13402:[CRtspMediaCtrl::generalPlay] current RTSPMediaCtrl is idle or not in "
                             "MEDIACTRL_STATE_SUCCESS!";
    for (const ZR_ULONG state : {0U, 1U, 2U, 3U, 4U, 6U, 10U, 15U, 16U, 17U, 18U})
    {
        SCOPED_TRACE(state);
        Session session;
        session.inState(state);
        platform.fail("malloc", 1, 1, 100);
        EXPECT_EQ(state < 16 ? 13402U : 3U, session.main->play("", ""));
        EXPECT_EQ(state < 16 ? play : "4:3:[CRtspMediaCtrl::generalPlay] " + std::string(NO_MEMORY),
                  platform.logs().back());
        EXPECT_EQ(state < 16 ? 13402U : 3U, session.ex->changeSpeed(11));
        EXPECT_EQ(3U, session.ex->dragPlay("", "", 11));

        const bool mayPause = state == 17;
        EXPECT_EQ(mayPause ? 3U : 13402U, session.ex->pause());
        if (!mayPause)
        {
            EXPECT_EQ("4:13402:[CRtspMediaCtrl::pause] current RTSPMediaCtrl is idle or not in MEDIACTRL_STATE_PLAY!",
                      platform.logs().back());
        }
        const bool maySetup = state == 0 || state == 16;
        EXPECT_EQ(maySetup ? 3U : 13402U, session.main->setup("u", PROTOCOL_TCP));
        if (!maySetup)
        {
            EXPECT_EQ("4:13402:[CRtspMediaCtrl::setup] current RTSPMediaCtrl is not correct\xA3\xACstate is " +
                          std::to_string(state),
                      platform.logs().back());
        }
        EXPECT_EQ(state, session.probe.state());
        EXPECT_THAT(platform.requests(), IsEmpty());
        platform.heal("malloc");
    }
}

TEST_F(RequestTest, aSetupRefusedByItsStateHasInitialisedTheRecord)
{
    Session session;
    session.inState(18);
    EXPECT_EQ(13402U, session.main->setup("u", PROTOCOL_TCP));
    EXPECT_THAT(platform.events(), ElementsAre("init"));
    session.main->setMediaAbility(session.probe.ability());
    platform.clearRecord();
    EXPECT_EQ(13402U, session.main->setup("u", PROTOCOL_TCP));
    EXPECT_THAT(platform.events(), IsEmpty()); // the record is the host's now
    EXPECT_EQ("rtsp://h/s", session.probe.url());
}

TEST_F(RequestTest, playOperationsMapStatuses)
{
    const std::map<std::string, std::pair<ZR_ULONG, std::function<ZR_ULONG(Session &)>>> operations = {
        {"play", {13952, [](Session &session) { return session.main->play("", ""); }}},
        {"playAtSpeed", {13956, [](Session &session) { return session.ex->playAtSpeed(11); }}},
        {"changeSpeed", {13957, [](Session &session) { return session.ex->changeSpeed(11); }}},
        {"download", {13957, [](Session &session) { return session.ex->download("", "", 0, 0); }}}};
    for (const auto &[name, operation] : operations)
    {
        SCOPED_TRACE(name);
        Session session;
        session.inState(16);
        for (const char *step : {"header", "SessionID", "Auth", "send"})
        {
            platform.fail(step);
            EXPECT_EQ(operation.first, operation.second(session)) << step;
        }
        platform.fail("malloc");
        EXPECT_EQ(3U, operation.second(session));
        platform.answer(failure(AOI_MSG_RTSP_PLAY, 454));
        EXPECT_EQ(operation.first, operation.second(session));
        platform.answer(success(AOI_MSG_RTSP_PLAY));
        EXPECT_EQ(0U, operation.second(session));
        session.probe.setState(3);
        EXPECT_EQ(13402U, operation.second(session));
    }
}

TEST_F(RequestTest, dragPlayMovesThePositionEvenWhenItFails)
{
    Session session;
    session.inState(0);
    platform.fail("malloc");
    EXPECT_EQ(3U, session.ex->dragPlay("npt=30-", "", 99));
    EXPECT_EQ("npt=30-", session.ex->getRange());
    EXPECT_EQ(1U, session.probe.rangeSkipCount());
    EXPECT_THAT(platform.logs('3'), ElementsAre("4:3:[CRtspMediaCtrl::dragPlay] " + std::string(NO_MEMORY)))
        << "the unknown speed is told only where it would be sent";
    platform.fail("Scale");
    session.ex->dragPlay("npt=30-", "", 99);
    EXPECT_EQ("3:1:[CRtspMediaCtrl::convetPlaySpeedParam] unknown vod media speed[99], use default instead. {6000001}",
              platform.logs('3').at(1));
}

TEST_F(RequestTest, playTellsItsRange)
{
    Session session;
    session.inState(17);
    platform.fail("Range");
    session.main->play("from", "to");
    EXPECT_EQ("2:0:[CRtspMediaCtrl::generalPlay] start range time is from, stop rang time is to.",
              platform.logs().front());
}

TEST_F(RequestTest, tearDownEndsTheRegistrationOnceAndKeepsTheState)
{
    Session session;
    session.probe.setPlayFlag(1);
    session.main->tearDown();
    EXPECT_EQ(0U, session.probe.playFlag());
    EXPECT_EQ("3:13402:[CRtspMediaCtrl::tearDown] current RTSPMediaCtrl is idle", platform.logs().back());
    EXPECT_THAT(platform.requests(), IsEmpty());

    session.inState(17);
    session.probe.setPlayFlag(1);
    session.main->tearDown();
    EXPECT_EQ(0U, session.probe.playFlag());
    EXPECT_EQ(0U, session.probe.aoiPort());
    EXPECT_EQ(17U, session.probe.state());
    EXPECT_THAT(platform.logs(),
                ElementsAre("2:0:[CRtspMediaCtrl::tearDown] successful stop the MediaCtrl relationship."));
    session.main->tearDown();
    EXPECT_EQ(2U, platform.requests().size());
    EXPECT_EQ(0U, platform.requests().back().source);
    EXPECT_THAT(platform.events(), ElementsAre("unregister(77)"));
}

} // namespace
} // namespace zr::test
