// Entry points, construction and destruction, observers, decoder descriptions and speed codes.
#include "core_fixture.h"

namespace zr::test {
namespace {

using ObjectTest = CoreTest;

TEST_F(ObjectTest, initAndDestroyReachTheLibraries)
{
    platform.fail("stopTimer", INJECTED, 1, 2);
    destroy();
    destroy(); // the timers' handles are gone
    const std::string text = "4:777:[zr_rtsp.dll::destroy] stop timer for rtsp keeping live failed. {rtsp_impl}";
    EXPECT_THAT(platform.logs(), ElementsAre(text, text));
    platform.fail("MSGDISP_Init");
    EXPECT_EQ(INJECTED, init(7, 8, "agent", "ca"));
    EXPECT_EQ("4:777:[zr_rtsp.dll::init] Failed to init MsgDispatch Module {rtsp_impl}", platform.logs().back());
    EXPECT_EQ(0U, init(0, 0, nullptr, nullptr));
    EXPECT_THAT(platform.events(), ElementsAre("MSGDISP_Destroy()", "MSGDISP_Destroy()", "MSGDISP_Init(7,8,agent,ca)",
                                               "MSGDISP_Init(0,0,-,-)", "startTimer(800)", "startTimer(30000)"));
}

TEST_F(ObjectTest, anObjectIsConstructedAndDestroyedInOrder)
{
    for (const bool fromHost : {false, true})
    {
        platform.clearRecord();
        CIMediaCtrl *object =
            createMediaCtrlInter(9, "src", "dst", "10.1.1.1", 6000, "10.1.1.2", fromHost ? 70 : 0, 78);
        ASSERT_NE(nullptr, object);
        const std::string port = fromHost ? "70" : "554";
        EXPECT_THAT(platform.events(),
                    ElementsAre("addUAAddr(src,dst,10.1.1.2," + port + ")", "register(78)", "refresh(9)"));
        EXPECT_THAT(platform.logs(),
                    ElementsAre("2:0:[zr_rtsp.dll::createMediaCtrlInter] succeed create a MediaCtrl Object with "
                                "SrcUaID : src {rtsp_impl}"));
        CMediaAbility ability;
        EXPECT_EQ(&ability, &object->getMediaAbility(ability));
        EXPECT_EQ("10.1.1.2," + port + ",10.1.1.1,6000,src,dst",
                  listed(ability.getServerIP(), ability.getServerPort(), ability.getLocalIP(), ability.getLocalPort(),
                         ability.getLocalUaID(), ability.getRemoteUaID()));
        ability.setRemoteUaID("dst2");
        if (fromHost)
            object->setMediaAbility(ability);

        platform.clearRecord();
        EXPECT_EQ(0U, deleteMediaCtrlInter(&object));
        EXPECT_EQ(nullptr, object);
        Texts expected = {"unregister(78)", "release()", "deleteUAAddr(src,dst)", "refresh(9)"};
        if (fromHost)
            expected = {"unregister(78)", "deleteUAAddr(src,dst2)", "refresh(9)"};
        EXPECT_EQ(expected, platform.events());
        EXPECT_THAT(
            platform.logs(),
            ElementsAre(line("3:13402", "tearDown", "current RTSPMediaCtrl is idle"),
                        "2:0:[zr_rtsp.dll::deleteMediaCtrlInter] succeed delete the MediaCtrl Object {rtsp_impl}"));
    }
}

TEST_F(ObjectTest, deletionTearsTheSessionDownFirst)
{
    for (const bool sent : {true, false}) // what could not be sent stays registered; then the destructor unregisters
    {
        Session session("", 3);
        if (!sent)
            platform.fail("send");
        EXPECT_EQ(0U, session.remove());
        EXPECT_EQ(sent ? line("2:0", "tearDown", "successful stop the MediaCtrl relationship.")
                       : line("4:13205", "tearDown", "send AOI_MSG_RTSP_TEARDOWN message failed"),
                  platform.logs()[0]);
        EXPECT_EQ(sent ? 1U : 0U, platform.requests().size());
        EXPECT_THAT(platform.events(),
                    ElementsAre("unregister(77)", "release()", "deleteUAAddr(src,dst)", "refresh(5)"));
    }
}

TEST_F(ObjectTest, aThrowingPlatformDoesNotEscape)
{
    const auto throwing = [] { throw std::runtime_error("out of order"); };
    auto session = std::make_unique<Session>("", 16);
    platform.hook("malloc", throwing);
    EXPECT_EQ(1U, session->main->describe("rtsp://h"));
    EXPECT_EQ(13951U, session->main->setup("rtsp://h", PROTOCOL_UDP));
    EXPECT_EQ(13952U, session->main->play("", ""));
    EXPECT_EQ(13955U, session->ex->dragPlay("", "", 11));
    session->probe.setState(17);
    EXPECT_EQ(13954U, session->ex->pause());
    EXPECT_NO_THROW(session->main->tearDown());
    EXPECT_EQ(6U, platform.logs('3').size());
    platform.hook("getSessionID", throwing);
    session->probe.setState(4);
    EXPECT_EQ(1U, session->take(success(AOI_MSG_RTSP_PLAY)));
    EXPECT_EQ(4U, session->probe.state());

    platform.hook("malloc", nullptr);
    platform.hook("release", throwing);
    platform.clearRecord();
    session.reset();
    EXPECT_THAT(platform.logs(),
                ::testing::Contains(line("4:1", "~CRtspMediaCtrl", "Exception when resetDefault of Rtsp!")));
    platform.hook("MSGDISP_Init", throwing);
    EXPECT_EQ(1U, init(0, 0, nullptr, nullptr));
}

TEST_F(ObjectTest, deletingWhatIsNotRegistered)
{
    CIMediaCtrl *none = nullptr;
    EXPECT_EQ(2U, deleteMediaCtrlInter(&none));
    EXPECT_EQ("3:2:[zr_rtsp.dll::deleteMediaCtrlInter] parameter CIMediaCtrl * poCIMediaCtrl can't be NULL {rtsp_impl}",
              platform.logs().at(0));
    CIMediaCtrl *unknown = new CRtspMediaCtrl(9, "src", "dst", "10.1.1.1", 6000, "10.1.1.2", 70, 78);
    EXPECT_EQ(0U, deleteMediaCtrlInter(&unknown));
    EXPECT_EQ(nullptr, unknown);
    EXPECT_EQ("refresh(9)", platform.events().back());
}

TEST_F(ObjectTest, theRegistryIsNotEnteredTwiceByOneThread)
{
    Session session;
    CIMediaCtrl *inner = session.main;
    platform.hook("log", [&] { // the creation's line is written under the registry's lock
        platform.hook("log", nullptr);
        EXPECT_EQ(nullptr, createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 90));
        EXPECT_EQ(10109U, deleteMediaCtrlInter(&inner));
    });
    CIMediaCtrl *outer = createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 91);
    EXPECT_NE(nullptr, outer);
    EXPECT_NE(nullptr, inner);
    EXPECT_EQ(0U, deleteMediaCtrlInter(&outer));
}

TEST_F(ObjectTest, observersAreAttachedOnce)
{
    Session session("", 0);
    Recorder first, second;
    EXPECT_EQ(2U, session.main->attachObserver(nullptr));
    EXPECT_EQ(0U, session.main->attachObserver(&first));
    EXPECT_EQ(0U, session.main->attachObserver(&second));
    EXPECT_EQ(1U, session.main->attachObserver(&first));
    session.main->detachObserver(nullptr);
    session.main->detachObserver(&first);
    session.main->detachObserver(&first);
    EXPECT_EQ(0U, session.main->attachObserver(&first));
    EXPECT_THAT(platform.logs(), ElementsAre(line("4:2", "attachObserver", "invalid parameter."),
                                             line("4:10051", "attachObserver", "attach an observer failed."),
                                             line("4:2", "detachObserver", "invalid parameter."),
                                             line("4:10052", "detachObserver", "detach an observer failed.")));
}

TEST_F(ObjectTest, decoderDescriptions)
{
    // description=tag, packet type, transport type
    std::istringstream rows("=,3,2 abc=abc,3,2 abc@6=abc,3,2 abc@123=abc,3,2 abc@11=abc,8,3 abc@22=abc,4,1 "
                            "abc@33=abc,3,4 abc@60=abc,3,2 abc@4x=abc,3,2 abc@x1=abc,8,2 abc@1@=abc,3,3 @21=,8,1 "
                            "omz-v1=omz-v1,1,2 omz-v1@12=omz-v1,1,3 OMZ-V1@12=OMZ-V1,4,3 guobiao=guobiao,4,1 "
                            "guobiao@33=guobiao,4,1 guodian@31=guodian,9,1 guobiao2@11=guobiao2,8,3");
    Session session;
    for (std::string row; rows >> row;)
    {
        const std::string description = row.substr(0, row.find('='));
        session.main->setDecoderDesc(description);
        const CMediaAbility &ability = session.probe.ability;
        EXPECT_EQ(row, description + "=" +
                           listed(ability.getDecoderTag(), ability.getPacketType(), ability.getTransportType()));
    }
}

TEST_F(ObjectTest, keepLiveIntervals)
{
    Session session;
    EXPECT_THAT(session.probe.keepLive(), ElementsAre(150, 1, 1));
    session.ex2->setKeepLiveInterval(30000);
    EXPECT_THAT(session.probe.keepLive(), ElementsAre(150, 37, 1));
    session.ex2->setKeepLiveInterval(799);
    session.main->setDecoderDesc("onvif");
    session.ex2->setKeepLiveInterval(30000);
    EXPECT_THAT(session.probe.keepLive(), ElementsAre(150, 0, 1));
}

TEST_F(ObjectTest, speedCodes)
{
    const float scales[] = {256,  -256, -16, -8, -4, -2, -1,  -0.5F, -0.25F, 0.25F,
                            0.5F, 1,    2,   4,  8,  16, 108, 258,   -258,   0.125F};
    const float full[] = {101, 102, 104, 108}, sampled[] = {301, 302, 304, 308};
    Session session;
    for (const char *tag : {"", "omz-v1", "OMZ-V1", "omz-v12"})
    {
        session.main->setDecoderDesc(tag);
        const float sign = std::string(tag).size() == 6 ? -1.0F : 1.0F;
        for (ZR_ULONG code = 0; code < 20; ++code)
        {
            const float expected = code == 0 || code == 17 ? sign * scales[code] : scales[code];
            EXPECT_EQ(expected, session.probe.playScale(code)) << tag << " " << code;
        }
    }
    for (ZR_ULONG code = 0; code < 4; ++code)
    {
        EXPECT_EQ(full[code], session.probe.fullFrameScale(code));
        EXPECT_EQ(sampled[code], session.probe.sampleFrameScale(code));
    }
    platform.clearRecord();
    EXPECT_EQ(1.0F, session.probe.playScale(20));
    EXPECT_EQ(1.0F, session.probe.playScale(0xFFFFFFFF));
    EXPECT_EQ(101.0F, session.probe.fullFrameScale(4));
    EXPECT_EQ(301.0F, session.probe.sampleFrameScale(0x80000000));
    const std::string vod = "unknown vod media speed[", download = "unknown download media speed[";
    const std::string end = "], use default instead. {6000001}";
    EXPECT_THAT(platform.logs(),
                ElementsAre(line("3:1", "convetPlaySpeedParam", vod + "20" + end),
                            line("3:1", "convetPlaySpeedParam", vod + "-1" + end),
                            line("3:1", "convetFullFrameDownloadSpeedParam", download + "4" + end),
                            line("3:1", "convertSampleFrameDownloadSpeedParam", download + "-2147483648" + end)));
}

} // namespace
} // namespace zr::test
