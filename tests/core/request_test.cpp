// Each request: what it sends, and what it logs, returns and leaves behind when one of its steps fails.
#include "core_fixture.h"
#include "rtsp_impl.h"

namespace zr::test {
namespace {

/// One step of a request, and what its failure gives.
struct Step
{
    std::string operation;
    ZR_ULONG result, logged;
};

struct Family
{
    std::string function; ///< as log lines name it
    const char *method;
    ZR_ULONG state; ///< in which it is called
    std::function<ZR_ULONG(Session &)> call;
    /// "operation=result/logged" in their order; what is left out is the injected code, 3 for "malloc", and 13601 for
    /// "dispatcher", of which there is none then.
    const char *stepList;
    const char *outerText = nullptr; ///< a second line that an outer operation logs
    ZR_ULONG outerLogged = 0;        ///< its code; 0: the result

    std::vector<Step> steps() const
    {
        std::vector<Step> result;
        std::istringstream list(stepList);
        for (std::string word; list >> word;)
        {
            const std::string name = word.substr(0, word.find('='));
            const ZR_ULONG code = name == "malloc" ? 3 : name == "dispatcher" ? 13601 : INJECTED;
            Step step = {name, code, code};
            if (const size_t at = word.find('='); at != std::string::npos)
                step.result = static_cast<ZR_ULONG>(std::stoul(word.substr(at + 1)));
            if (const size_t at = word.find('/'); at != std::string::npos)
                step.logged = static_cast<ZR_ULONG>(std::stoul(word.substr(at + 1)));
            result.push_back(step);
        }
        return result;
    }
    std::string text(const std::string &operation) const
    {
        static const std::map<std::string, const char *> texts = {
            {"init", "Failed to init MediaAbility"},
            {"malloc", "Not enough memory to malloc a aoi message"},
            {"header", "Failed to create RegMsgHeader of AoiMsg."},
            {"URL", "add IE AOI_IE_URL failed"},
            {"Transport", "add IE AOI_IE_TRANSPORT failed"},
            {"Rangetime", "add IE RangeTime failed"},
            {"Auth", "add IE Authorization failed"},
            {"setup Scale", "add IE Scale failed, the play speed is 302.000000"},
            {"generalPlay Scale", "add IE Scale failed, the play speed is 2.000000"},
            {"setupToTV SessionID", "add IE AOI_IE_SESSION_ID failed"},
            {"tearDown dispatcher", "can't find a AOI msg dispatch module"},
            {"setupToTV dispatcher", "can't find an AOI msg dispatch module"},
            {"teardownToTV dispatcher", "can't find an AOI msg dispatch module"}};
        for (const std::string &key : {function + " " + operation, operation})
        {
            if (const auto found = texts.find(key); found != texts.end())
                return found->second;
        }
        if (operation == "send" || operation == "dispatcher")
            return std::string("send AOI_MSG_RTSP_") + method + " message failed" +
                   (function == "generalPlay" ? ",the play speed is 2.000000" : "");
        return "add IE " + operation + " failed";
    }
};

/// What a keep-alive step reports at the lowest level.
ZR_ULONG keepAlive(ZR_ULONG timer, const std::string &function)
{
    platform.tick(timer);
    const std::string report = platform.logs().back();
    EXPECT_THAT(report, EndsWith(":[CRtspMediaCtrl::" + function + "] Failed to send options by Rtsp"));
    EXPECT_EQ('1', report[0]);
    return static_cast<ZR_ULONG>(std::stoul(report.substr(2)));
}

std::vector<Family> families()
{
    const auto setup = [](Session &session) {
        session.probe.playSpeed = 302;
        return session.main->setup("rtsp://h/s", PROTOCOL_UDP);
    };
    const auto download = [](Session &session) { return session.ex2->setup("rtsp://h/s", PROTOCOL_UDP, 1, 0); };
    const auto play = [](Session &session) { return session.probe.generalPlay(2); };
    const auto drag = [](Session &session) { return session.ex->dragPlay("10", "20", 12); };
    const auto pause = [](Session &session) { return session.ex->pause(); };
    const auto describe = [](Session &session) { return session.main->describe("rtsp://h/s"); };
    const auto tearDown = [](Session &session) {
        session.main->tearDown();
        return session.probe.aoiPort == AOI_PORT ? 0U : 1U;
    };
    const auto options = [](Session &session) {
        session.probe.playFlag = 1;
        return keepAlive(800, "keepLive");
    };
    const auto setParameter = [](Session &session) {
        session.main->setDecoderDesc("onvif");
        return keepAlive(30000, "onvifKeepLive");
    };
    const auto setupToTv = [](Session &session) { return session.setupToTv(); };
    const auto teardownToTv = [](Session &session) {
        session.main->teardownToTV();
        return 0U;
    };
    const char *const setupSteps =
        "init malloc header URL SrcUaID DstUaID Transport Scale=13805 Auth SessionID send dispatcher";
    return {{"setup", "SETUP", 16, setup, setupSteps},
            {"setup", "SETUP", 0, download, setupSteps, "rtsp setup failed.", 13205},
            {"generalPlay", "PLAY", 17, play,
             "malloc header=13952 SessionID=13805 URL=13805 Rangetime=13955 Scale=13805 Auth "
             "send=13401/13401 dispatcher=13401/13401"},
            {"dragPlay", "PLAY", 18, drag,
             "malloc header=13955 SessionID=13955 URL=13955 Rangetime=13955 Scale=13955 Auth "
             "send=13955/13401 dispatcher=13955/13401"},
            {"pause", "PAUSE", 17, pause,
             "malloc header=13954 SessionID=13954 URL=13954 send=13954/13205 dispatcher=13954/13205"},
            {"describe", "DESCRIBE", 0, describe,
             "malloc header URL SrcUaID DstUaID UserAgent Accept Auth send=13401/13401 dispatcher=13401/13401",
             "Failed to send AOI_MSG_RTSP_DESCRIBE response Message"},
            {"tearDown", "TEARDOWN", 1, tearDown,
             "malloc=0 header=0 SessionID=0 URL=0 Auth=0 send=0/13205 dispatcher=0/13601"},
            {"options", "OPTIONS", 17, options,
             "malloc header=1 SessionID=13805 URL=13805 Auth send=13205/13205 dispatcher=13205/13205"},
            {"set_parameter", "OPTIONS", 17, setParameter,
             "malloc header=1 SessionID=13805 send=13205/13205 dispatcher=13205/13205"},
            {"setupToTV", "SETUP", 18, setupToTv,
             "malloc header SessionID URL SrcUaID DstUaID Transport Auth send dispatcher=13951/13601"},
            {"teardownToTV", "TEARDOWN", 18, teardownToTv,
             "malloc=0 header=0 SessionID=0 URL=0 send=0/13205 dispatcher=0/13601"}};
}

using RequestTest = CoreTest;

TEST_F(RequestTest, aFailedStepIsLoggedReturnedAndLeavesNothingBehind)
{
    for (const Family &family : families())
    {
        for (const Step &step : family.steps())
        {
            SCOPED_TRACE(family.function + ", " + step.operation);
            Session session("", family.state);
            platform.fail(step.operation);
            std::map<std::string, size_t> liveAt; // messages allocated and not yet freed when a line was written
            platform.hook("log", [&] { liveAt[platform.logs().back()] = platform.liveMessages; });
            if (step.operation == "dispatcher")
                g_pAOIMsgDispInter = nullptr;
            EXPECT_EQ(step.result, family.call(session));
            g_pAOIMsgDispInter = &platform;
            platform.hook("log", nullptr);

            Texts expected = {line("4:" + std::to_string(step.logged), family.function, family.text(step.operation))};
            if (family.outerText != nullptr)
            {
                const ZR_ULONG code = family.outerLogged != 0 ? family.outerLogged : step.result;
                expected.push_back(line("4:" + std::to_string(code), family.function, family.outerText));
            }
            EXPECT_EQ(expected, platform.logs('3'));
            EXPECT_THAT(platform.requests(), IsEmpty());
            EXPECT_EQ(0U, platform.liveMessages);
            EXPECT_EQ(family.state, session.probe.state());

            // a build failure is logged before the message is freed, a send failure after
            const bool none = step.operation == "init" || step.operation == "malloc" || step.operation == "send" ||
                              step.operation == "dispatcher";
            EXPECT_EQ(none ? 0U : 1U, liveAt[expected.front()]);
        }
    }
}

class ElementsTest : public CoreTest
{
protected:
    ElementsTest() { platform.expireWaits(); }
    /// @param elements  what the call must send, in order
    void sends(const std::string &tag, ZR_ULONG id, const std::function<void(Session &)> &call,
               const std::string &elements)
    {
        SCOPED_TRACE(elements);
        Session session(tag, id == AOI_MSG_RTSP_SETUP ? 16 : 17);
        call(session);
        const auto requests = platform.requests();
        ASSERT_EQ(1U, requests.size());
        EXPECT_EQ(elements, joined(requests[0].elements));
        const tagMDPMsgHeader &header = requests[0].stHeader;
        EXPECT_EQ(listed(id, REQUEST, AOI_PORT, 0xFFFFFFFF),
                  listed(header.ulMsgID, header.ulMsgKind, header.ulSrcID, header.ulDstID));
    }
};

TEST_F(ElementsTest, ofSetup)
{
    const auto setup = [](const std::string &url, tagBroadcastmethod method = BROADCASTMETHOD_NONE, float speed = 0) {
        return [=](Session &session) {
            session.changeInfo([=](COnvifInfo &info) { info.m_enBroadcastMethod = method; });
            session.probe.playSpeed = speed;
            session.main->setup(url, PROTOCOL_TCP);
        };
    };
    const auto download = [](Session &session) {
        session.probe.ability.setSessionID("");
        session.ex2->setup("u", PROTOCOL_UDP, 3, -1);
    };
    const std::string uas = "|SrcUaID=src,0|DstUaID=dst,0|", transport = "Transport=127.0.0.1,6000,1,-1,0|";
    const std::string end = "Auth=setup-auth|SessionID=S1|";
    const ZR_ULONG id = AOI_MSG_RTSP_SETUP;
    sends("", id, setup("rtsp://h/s?auth=1"), "URL=rtsp://h/s" + uas + transport + "Scale=0.000000|" + end);
    sends("onvif", id, setup("auth://h", BROADCASTMETHOD_MULTICAST, 2),
          "URL=auth://h|SrcUaID=src,1|DstUaID=dst,1|Transport=,6000,1,1,0|" + end);
    sends("", id, setup("rtsp://h/oauth&auth", BROADCASTMETHOD_UNICAST, -1.000001F),
          "URL=rtsp://h/" + uas + "Transport=127.0.0.1,6000,1,0,0|" + end);
    sends("", id, setup("u", BROADCASTMETHOD_NONE, -0.9999F), "URL=u" + uas + transport + "Scale=-0.999900|" + end);
    sends("", id, download, "URL=u" + uas + "Transport=127.0.0.1,6000,0,-1,0|Scale=108.000000|Auth=setup-auth|");
}

TEST_F(ElementsTest, ofPlay)
{
    const auto play = [](const char *from, const char *auth = "A") {
        return [=](Session &session) {
            session.changeInfo([=](COnvifInfo &info) { info.m_strPlayAuth = auth; });
            session.main->play(from, "20");
        };
    };
    const auto drag = [](const char *from, ZR_ULONG speed) {
        return [=](Session &session) {
            session.changeInfo([=](COnvifInfo &info) { info.m_strPlayAuth.clear(); });
            session.ex->dragPlay(from, "", speed);
        };
    };
    const std::string begin = "SessionID=S1|URL=rtsp://h/s|", end = "|Auth=play-auth|";
    const ZR_ULONG id = AOI_MSG_RTSP_PLAY;
    sends("", id, play("10"), begin + "Rangetime=10,20|Scale=1.000000|Auth=A|");
    sends("", id, play(""), begin + "Scale=1.000000|Auth=A|");
    sends("omz-v1", id, play("10"), begin + "Scale=1.000000|Auth=A|");
    sends("OMZ-V1", id, play("10"), begin + "Rangetime=10,20|Scale=1.000000|Auth=A|");
    sends("onvif", id, play(""), begin + "Scale=1.000000|Auth=A|");
    sends("onvif", id, play("", ""), begin + "Auth=|");
    sends("", id, play("", ""), begin + "Scale=1.000000|Auth=|");
    const auto atSpeed = [](Session &session) { session.ex->playAtSpeed(20); };
    const auto change = [](Session &session) { session.ex->changeSpeed(17); };
    const auto full = [](Session &session) { session.ex->download("10", "20", 2, -7); };
    const auto sampled = [](Session &session) { session.ex->download("", "20", 3, 0); };
    sends("", id, atSpeed, begin + "Scale=1.000000" + end);
    sends("OMZ-V1", id, change, begin + "Scale=-258.000000" + end);
    sends("", id, full, begin + "Rangetime=10,20|Scale=104.000000" + end);
    sends("", id, sampled, begin + "Scale=308.000000" + end);
    sends("omz-v1", id, drag("", 0), begin + "Rangetime=,|Scale=-256.000000|Auth=|");
    sends("onvif", id, drag("5", 19), begin + "Rangetime=5,|Scale=0.125000|Auth=|");
}

TEST_F(ElementsTest, ofTheOthers)
{
    const std::string session = "SessionID=S1|", url = "URL=rtsp://h/s|", tvUrl = "URL=rtsp://h/tv|";
    const auto pause = [](Session &object) { object.ex->pause(); };
    const auto tearDown = [](Session &object) { object.main->tearDown(); };
    const auto describe = [](Session &object) { object.main->describe("rtsp://h/d"); };
    const auto toTv = [](Session &object) { object.setupToTv(); };
    const auto options = [](Session &object) {
        object.probe.playFlag = 1;
        platform.tick(800);
    };
    const auto teardownToTv = [](Session &object) {
        object.probe.vodToTvUrl = "rtsp://h/tv";
        object.main->teardownToTV();
        EXPECT_EQ(AOI_PORT, object.probe.aoiPort);
    };
    sends("", AOI_MSG_RTSP_PAUSE, pause, session + url);
    sends("", AOI_MSG_RTSP_TEARDOWN, tearDown, session + url + "Auth=teardown-auth|");
    sends("onvif", AOI_MSG_RTSP_DESCRIBE, describe,
          "URL=rtsp://h/d|SrcUaID=src,1|DstUaID=dst,1|UserAgent=|Accept=|Auth=|");
    sends("onvif", AOI_MSG_RTSP_OPTIONS, options, session + url + "Auth=options-auth|");
    sends(
        "onvif", AOI_MSG_RTSP_SET_PARAMERTER, [](Session &) { platform.tick(30000); }, session);
    sends("", AOI_MSG_RTSP_SETUP, toTv,
          session + tvUrl + "SrcUaID=src,0|DstUaID=dst,0|Transport=10.7.7.7,9000,1,0|Auth=setup-auth|");
    sends("", AOI_MSG_RTSP_TEARDOWN, teardownToTv, session + tvUrl);
}

TEST_F(RequestTest, suffixesOfTheGuobiaoVariant)
{
    platform.expireWaits();
    for (const char *tag : {"guobiao", "Guobiao", "other@12"}) // the last has packet type 4
    {
        SCOPED_TRACE(tag);
        const bool suffixed = std::string(tag) != "Guobiao";
        Session session(tag, 16);
        session.ex2->setPlayNormalFlag(1);
        session.ex2->setPlaybackNowFlag(1);
        platform.fail("SessionID"); // an earlier failure does not use the flag up
        EXPECT_EQ(13955U, session.ex->dragPlay("1", "2", 11));
        EXPECT_EQ(1U, session.probe.playbackNowFlag);
        session.ex->playAtSpeed(11);
        session.ex->playAtSpeed(11);
        session.ex->dragPlay("1", "2", 11);
        EXPECT_EQ(suffixed ? 0U : 1U, session.probe.playbackNowFlag);
        session.ex->dragPlay("1", "2", 11);
        Texts urls;
        for (const Message &request : platform.requests())
            urls.push_back(request.elements.at(1));
        const std::string plain = "URL=rtsp://h/s", normal = plain + (suffixed ? "/play_normal" : "");
        EXPECT_THAT(urls, ElementsAre(normal, normal, plain + (suffixed ? "/playback_now" : ""), plain));
    }
}

TEST_F(RequestTest, wrongStatesAreRefusedBeforeAnythingIsSent)
{
    for (const ZR_ULONG state : {0U, 1U, 2U, 3U, 4U, 6U, 10U, 15U, 16U, 17U, 18U})
    {
        SCOPED_TRACE(state);
        Session session("", state);
        platform.fail("malloc", 1, 1, 100);
        const auto expects = [&](bool allowed, ZR_ULONG result, const char *function, const std::string &text) {
            EXPECT_EQ(allowed ? 3U : 13402U, result);
            EXPECT_EQ(allowed ? line("4:3", function, "Not enough memory to malloc a aoi message")
                              : line("4:13402", function, text),
                      platform.logs().back());
        };
        expects(state >= 16, session.main->play("", ""), "generalPlay",
                "current RTSPMediaCtrl is idle or not in MEDIACTRL_STATE_SUCCESS!");
        expects(true, session.ex->dragPlay("", "", 11), "dragPlay", "");
        expects(state == 17, session.ex->pause(), "pause",
                "current RTSPMediaCtrl is idle or not in MEDIACTRL_STATE_PLAY!");
        expects(state == 0 || state == 16, session.main->setup("u", PROTOCOL_TCP), "setup",
                "current RTSPMediaCtrl is not correct\xA3\xACstate is " + std::to_string(state));
        EXPECT_EQ(13951U, session.main->setupToTV(1, {})); // the server named no URL for it
        EXPECT_EQ(line("4:13951", "setupToTV", "not support vod to tv."), platform.logs().back());
        expects(state >= 16, session.setupToTv(), "setupToTV",
                "can not setup vod to tv, media ctrl state is " + std::to_string(state) + ".");
        session.main->teardownToTV();
        EXPECT_EQ(state == 0 ? line("3:13402", "teardownToTV", "current RTSPMediaCtrl is idle")
                             : line("4:3", "teardownToTV", "Not enough memory to malloc a aoi message"),
                  platform.logs().back());
        EXPECT_EQ(state, session.probe.state());
        EXPECT_THAT(platform.requests(), IsEmpty());
        session.main->setMediaAbility(session.probe.ability);
        session.main->setup("u", PROTOCOL_TCP); // has initialised the record, but not the host's
        EXPECT_THAT(platform.events(), ElementsAre("init()"));
        EXPECT_EQ("rtsp://h/s", session.probe.url);
        platform.fail("malloc", 0);
    }
}

TEST_F(RequestTest, playOperationsMapStatuses)
{
    const std::pair<ZR_ULONG, std::function<ZR_ULONG(Session &)>> operations[] = {
        {13952, [](Session &session) { return session.main->play("", ""); }},
        {13956, [](Session &session) { return session.ex->playAtSpeed(11); }},
        {13957, [](Session &session) { return session.ex->changeSpeed(11); }},
        {13957, [](Session &session) { return session.ex->download("", "", 0, 0); }}};
    for (const auto &[failed, operation] : operations)
    {
        SCOPED_TRACE(failed);
        Session session("", 16);
        for (const char *step : {"header", "SessionID", "Auth", "send"})
        {
            platform.fail(step);
            EXPECT_EQ(failed, operation(session)) << step;
        }
        platform.fail("malloc");
        EXPECT_EQ(3U, operation(session));
        platform.answer(failure(AOI_MSG_RTSP_PLAY, 454));
        EXPECT_EQ(failed, operation(session));
        platform.answer(success(AOI_MSG_RTSP_PLAY));
        EXPECT_EQ(0U, operation(session));
        session.probe.setState(3);
        EXPECT_EQ(13402U, operation(session));
    }
}

TEST_F(RequestTest, dragPlayMovesThePositionEvenWhenItFails)
{
    Session session("", 0);
    platform.fail("malloc");
    EXPECT_EQ(3U, session.ex->dragPlay("npt=30-", "", 99));
    EXPECT_EQ("npt=30-", session.ex->getRange());
    EXPECT_EQ(1U, session.probe.rangeSkipCount);
    EXPECT_EQ(1U, platform.logs('3').size()) << "the unknown speed is told only where it would be sent";
    platform.fail("Scale");
    session.ex->dragPlay("npt=30-", "", 99);
    EXPECT_EQ(3U, platform.logs('3').size());

    session.inState(17);
    platform.fail("Rangetime");
    session.main->play("from", "to");
    EXPECT_EQ(line("2:0", "generalPlay", "start range time is from, stop rang time is to."), platform.logs().front());
}

TEST_F(RequestTest, tearDownEndsTheRegistrationOnceAndKeepsTheState)
{
    Session session("", 0);
    session.probe.playFlag = 1;
    g_pAOIMsgDispInter = nullptr; // changes nothing then
    session.main->tearDown();
    EXPECT_EQ(1U, session.probe.playFlag);
    g_pAOIMsgDispInter = &platform;
    platform.clearRecord();
    session.main->tearDown();
    EXPECT_EQ(0U, session.probe.playFlag);
    EXPECT_THAT(platform.logs(), ElementsAre(line("3:13402", "tearDown", "current RTSPMediaCtrl is idle")));
    EXPECT_THAT(platform.requests(), IsEmpty());

    session.inState(17);
    session.probe.playFlag = 1;
    session.main->tearDown();
    EXPECT_EQ(0U, session.probe.playFlag);
    EXPECT_EQ(0U, session.probe.aoiPort);
    EXPECT_EQ(17U, session.probe.state());
    EXPECT_THAT(platform.logs(), ElementsAre(line("2:0", "tearDown", "successful stop the MediaCtrl relationship.")));
    session.main->tearDown();
    EXPECT_EQ(2U, platform.requests().size());
    EXPECT_EQ(0U, platform.requests().back().stHeader.ulSrcID);
    EXPECT_THAT(platform.events(), ElementsAre("unregister(77)"));
}

} // namespace
} // namespace zr::test
