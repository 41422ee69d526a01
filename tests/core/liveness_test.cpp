// What keeps a session alive and what its observers hear: the timers' walks, OPTIONS, announcements, the relation to a
// TV wall.
#include <future>

#include "core_fixture.h"

namespace zr::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr ZR_ULONG MEDIA_TIMER = 800, ONVIF_TIMER = 30000;

struct Recorder : CIMediaCtrlObserver
{
    explicit Recorder(std::function<void()> theReaction = nullptr)
        : reaction(std::move(theReaction))
    {
    }
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t argument) override
    {
        EXPECT_EQ(0U, argument);
        codes.push_back(*code);
        if (reaction)
            reaction();
    }
    std::vector<ZR_ULONG> codes;
    std::function<void()> reaction;
};

class LivenessTest : public CoreTest
{
protected:
    /// A session that plays.
    static Session &playing(Session &session)
    {
        session.inState(17);
        session.probe.setPlayFlag(1);
        return session;
    }
    static std::string line(const std::string &code, const std::string &function, const std::string &text)
    {
        return code + ":[CRtspMediaCtrl::" + function + "] " + text;
    }
};

TEST_F(LivenessTest, timersRunFromInitToDestroy)
{
    platform.fail("stopTimer", INJECTED, 1, 2);
    destroy();
    const std::string text = "4:777:[zr_rtsp.dll::destroy] stop timer for rtsp keeping live failed. {rtsp_impl}";
    EXPECT_THAT(platform.logs(), ElementsAre(text, text));
    platform.clearRecord();
    destroy(); // the handles are gone
    EXPECT_THAT(platform.logs(), IsEmpty());
    ASSERT_EQ(0U, init(0, 0, nullptr, nullptr));
    EXPECT_THAT(platform.events(),
                ElementsAre("MSGDISP_Destroy", "MSGDISP_Init(0,0,-,-)", "startTimer(800)", "startTimer(30000)"));
    platform.tick(MEDIA_TIMER);
    platform.tick(ONVIF_TIMER);
    EXPECT_THAT(platform.logs(), IsEmpty());
}

TEST_F(LivenessTest, aDeletedObjectIsWalkedNoMore)
{
    Session kept, gone;
    playing(kept);
    gone.remove();
    platform.clearRecord();
    platform.tick(MEDIA_TIMER);
    EXPECT_EQ(1U, platform.requests().size());
    EXPECT_THAT(platform.logs(), IsEmpty());
}

TEST_F(LivenessTest, silenceIsReported)
{
    struct Row
    {
        const char *tag;
        ZR_ULONG maxFail, period;
    };
    for (const Row &row : {Row{"", 150, 1}, Row{"onvif", 3, 25}, Row{"", 150, 0}})
    {
        SCOPED_TRACE(std::string(row.tag) + std::to_string(row.period));
        Session session(row.tag);
        Recorder observer;
        session.main->attachObserver(&observer);
        platform.expireWaits();
        if (row.maxFail == 3)
            session.main->describe("u");
        if (row.period == 0)
            session.ex2->setKeepLiveInterval(0);
        playing(session);
        const auto periods = [&](ZR_ULONG count)
        {
            for (ZR_ULONG i = 0; i < count * std::max(row.period, 1U); ++i)
                platform.tick(MEDIA_TIMER);
        };
        periods(row.maxFail + 10);
        EXPECT_THAT(observer.codes, IsEmpty()) << "nothing is checked before the first OPTIONS answer";
        EXPECT_EQ(row.maxFail + 10, platform.requests().size());

        EXPECT_EQ(13002U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, SUCCESS).with(AOI_IE_SESSION_ID, "S2")));
        platform.clearRecord();
        periods(row.maxFail);
        EXPECT_THAT(observer.codes, IsEmpty());
        EXPECT_THAT(platform.logs(), IsEmpty());
        periods(1);
        EXPECT_THAT(observer.codes, ElementsAre(103));
        EXPECT_THAT(platform.logs('2').back(), line("2:0", "keepLive", "[PortID: 5] Notify rtsp error: 103 to MCM"));
        EXPECT_THAT(platform.logs('4').front(),
                    ::testing::EndsWith(line("", "keepLive", "[PortID: 5] Failed to keep live of Rtsp for [") +
                                        std::to_string(row.maxFail) + "] times, period " + std::to_string(row.period) +
                                        " * 0.8s"));
        periods(row.maxFail);
        EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_OPTIONS).with(AOI_IE_RANGE, "npt=1-"))); // a sign of life
        periods(row.maxFail);
        platform.fail("received", 1); // so is a packet
        periods(row.maxFail + 1);
        EXPECT_THAT(observer.codes, ElementsAre(103));
        periods(1);
        EXPECT_THAT(observer.codes, ElementsAre(103, 103));
    }
}

TEST_F(LivenessTest, keepAliveRequestsFailInTheirOwnWords)
{
    const std::string failed = "Failed to send options by Rtsp";
    struct Row
    {
        const char *operation;
        ZR_ULONG result, logged;
        const char *text;
    };
    const Row rows[] = {{"malloc", 3, 3, "Not enough memory to malloc a aoi message"},
                        {"header", 1, INJECTED, "Failed to create RegMsgHeader of AoiMsg."},
                        {"SessionID", 13805, INJECTED, "add IE SessionID failed"},
                        {"URL", 13805, INJECTED, "add IE AOI_IE_URL failed"},
                        {"Auth", INJECTED, INJECTED, "add IE Authorization failed"},
                        {"send", 13205, 13205, "send AOI_MSG_RTSP_OPTIONS message failed"}};
    for (const ZR_ULONG timer : {MEDIA_TIMER, ONVIF_TIMER})
    {
        const std::string function = timer == MEDIA_TIMER ? "options" : "set_parameter";
        const std::string caller = timer == MEDIA_TIMER ? "keepLive" : "onvifKeepLive";
        for (const Row &row : rows)
        {
            SCOPED_TRACE(function + ", " + row.operation);
            Session session("onvif");
            playing(session);
            platform.fail(row.operation);
            platform.tick(timer);
            platform.heal(row.operation);
            const bool sent = timer == ONVIF_TIMER && (row.text == rows[3].text || row.text == rows[4].text);
            EXPECT_EQ(sent ? 1U : 0U, platform.requests().size());
            Texts expected = {line("4:" + std::to_string(row.logged), function, row.text),
                              line("1:" + std::to_string(row.result), caller, failed)};
            EXPECT_EQ(sent ? Texts{} : expected, platform.logs());
        }
    }
    Session session("onvif");
    playing(session);
    platform.tick(MEDIA_TIMER);
    platform.tick(ONVIF_TIMER);
    ASSERT_EQ(2U, platform.requests().size());
    EXPECT_EQ("SessionID=S1|URL=rtsp://h/s|Auth=|", joined(platform.requests()[0].elements));
    EXPECT_EQ(AOI_MSG_RTSP_OPTIONS, platform.requests()[0].id);
    EXPECT_EQ("SessionID=S1|", joined(platform.requests()[1].elements));
    EXPECT_EQ(AOI_MSG_RTSP_SET_PARAMERTER, platform.requests()[1].id);
    session.main->setDecoderDesc("other");
    session.probe.setPlayFlag(0);
    platform.clearRecord();
    platform.tick(ONVIF_TIMER);
    platform.tick(MEDIA_TIMER);
    EXPECT_THAT(platform.requests(), IsEmpty());
    EXPECT_THAT(platform.logs(), ElementsAre(line("1:13403", "options", "no MediaCtrl alive, option request failed")));
}

TEST_F(LivenessTest, optionsAnswersTellThePosition)
{
    Session session;
    const std::string rsp = "AOIProcRtspOptionsRsp", brings = "AOIProcRtspOptions brings an error";
    platform.clearRecord();
    EXPECT_EQ(13002U, session.take(success(AOI_MSG_RTSP_OPTIONS)));
    session.probe.ability().setSessionID("S1");
    EXPECT_EQ(0U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, FAILURE)));
    EXPECT_EQ(13803U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, SUCCESS)));
    EXPECT_EQ(13803U, session.take(success(AOI_MSG_RTSP_OPTIONS)));
    const Texts logs = platform.logs();
    ASSERT_EQ(7U, logs.size());
    EXPECT_EQ(line("3:13403", rsp, "no MediaCtrl alive, option response failed"), logs[0]);
    EXPECT_EQ(line("4:13002", "AOIMsgPro", brings), logs[1]);
    EXPECT_THAT(logs[2], ::testing::EndsWith("The AOI_MSG_RTSP_OPTIONS reply message not expected, [MsgType: 2]"));
    EXPECT_EQ(line("4:2562", rsp, "get AOI_MSG_RTSP_OPTIONS OK reponse message's IE SessionID failed"), logs[3]);
    EXPECT_EQ(line("4:2569", rsp, "get AOI_MSG_RTSP_OPTIONS OK reponse message's IE Range Time failed"), logs[5]);

    platform.expireWaits();
    session.ex->dragPlay("npt=30-", "", 11);
    for (const char *expected : {"npt=30-", "npt=31-"}) // the first answer after a seek is older than the seek
    {
        EXPECT_EQ(0U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, FAILURE)));
        EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_OPTIONS).with(AOI_IE_RANGE, "npt=31-")));
        EXPECT_EQ(expected, session.ex->getRange());
    }
}

TEST_F(LivenessTest, announcementsReachTheObservers)
{
    struct Row
    {
        const char *tag, *reason;
        ZR_ULONG code;
        bool warned;
    };
    const Row rows[] = {{"x", "2001", 101, false},      {"guobiao", "2001", 101, false}, {"x", "2003", 102, false},
                        {"x", "2002", 100, false},      {"guobiao", "2002", 106, false}, {"", "2002", 106, false},
                        {"guo", "2002", 106, false},    {"biao", "2002", 100, false},    {"x", "2004", 100, true},
                        {"guobiao", "2004", 106, true}, {"guobiao2", "", 100, true},     {"guobiao", "", 106, true}};
    const std::string function = "AOIProcRtspAdminAnnounReq";
    for (const Row &row : rows)
    {
        SCOPED_TRACE(std::string(row.tag) + " " + row.reason);
        Session session(row.tag);
        session.inState(17);
        Recorder first, second;
        session.main->attachObserver(&first);
        session.main->attachObserver(&second);
        Answer announcement = Answer(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST, 0).with(AOI_IE_SESSION_ID, "S1");
        if (*row.reason != '\0')
            announcement.with(AOI_IE_QUIT_REASON, row.reason);
        EXPECT_EQ(0U, session.take(announcement));
        EXPECT_THAT(first.codes, ElementsAre(row.code));
        EXPECT_EQ(first.codes, second.codes);
        Texts logs;
        if (*row.reason == '\0')
        {
            logs.push_back(line("4:2573", function,
                                "get AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE QuitReason failed, "
                                "use default"));
        }
        else if (row.warned)
        {
            logs.push_back(line("3:13002", function,
                                "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE QuitReason:(2004) illegal"));
        }
        logs.push_back(line("2:0", function, "[PortID: 5] Notify rtsp error: " + std::to_string(row.code) + " to MCM"));
        EXPECT_EQ(logs, platform.logs());
        EXPECT_EQ(17U, session.probe.state());
    }
}

TEST_F(LivenessTest, noticesReachTheObserversOfWhatPlayed)
{
    for (const char *tag : {"", "onvif"})
    {
        Session session(tag);
        Recorder observer;
        session.main->attachObserver(&observer);
        session.inState(17);
        const auto notice = [&](const char *action)
        {
            return session.take(Answer(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST)
                                    .with(AOI_IE_SESSION_ID, "S1")
                                    .with(AOI_IE_SESSION_ACTION, action));
        };
        EXPECT_EQ(0U, notice("1"));
        session.probe.setPlayFlag(1);
        EXPECT_EQ(0U, notice("2"));
        EXPECT_THAT(platform.logs(), IsEmpty());
        EXPECT_EQ(0U, notice("1"));
        EXPECT_THAT(observer.codes, ElementsAre(*tag == '\0' ? 104 : 105));
    }
    Session session;
    session.inState(17);
    for (const ZR_ULONG id : {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, AOI_MSG_INTERNAL_NOTIFY_RTSP})
    {
        const std::string name =
            id == AOI_MSG_INTERNAL_NOTIFY_RTSP ? "AOI_MSG_INTERNAL_NOTIFY_RTSP" : "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE";
        platform.clearRecord();
        EXPECT_EQ(13803U, session.take(Answer(id, REQUEST)));
        EXPECT_EQ(13002U, session.take(Answer(id, REQUEST).with(AOI_IE_SESSION_ID, "S2")));
        const Texts logs = platform.logs();
        ASSERT_EQ(4U, logs.size());
        EXPECT_THAT(logs[0], ::testing::EndsWith("get " + name + " requst message's IE SessionID failed"));
        EXPECT_EQ(line("4:13803", "AOIMsgPro", "AOIProcRtspAdminAnnoun brings an error"), logs[1]);
        EXPECT_THAT(logs[2], ::testing::EndsWith("discard a Msg with SID: S2"));
    }
    EXPECT_EQ(13803U, session.take(Answer(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST).with(AOI_IE_SESSION_ID, "S1")));
    EXPECT_THAT(platform.logs(), ::testing::Contains(line("4:2574", "AOIProcRtspNotifyReq",
                                                          "get AOI_MSG_INTERNAL_NOTIFY_RTSP request message's IE "
                                                          "SessionAction failed")));
}

TEST_F(LivenessTest, observersMayCallBackIn)
{
    Session session;
    CIMediaCtrl *victim = session.main;
    Recorder other, observer(
                        [&]
                        {
                            EXPECT_EQ(nullptr, createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 90));
                            EXPECT_EQ(10109U, deleteMediaCtrlInter(&victim));
                            EXPECT_EQ(1U, session.main->attachObserver(&other));
                            session.main->detachObserver(&observer);
                            session.ex->getRange();
                            CMediaAbility ability;
                            session.main->getMediaAbility(ability);
                            session.main->tearDown();
                        });
    session.main->attachObserver(&observer);
    playing(session);
    session.take(Answer(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST)
                     .with(AOI_IE_SESSION_ID, "S1")
                     .with(AOI_IE_QUIT_REASON, "2001"));
    EXPECT_THAT(platform.logs('4'), ElementsAre(line("4:10109", "attachObserver", "attach an observer failed."),
                                                line("4:10109", "detachObserver", "detach an observer failed.")));
    EXPECT_EQ(1U, platform.requests().size());
}

TEST_F(LivenessTest, noticesFromTwoThreadsDoNotLockEachOtherOut)
{
    Session session;
    Recorder observer([&] { session.main->tearDown(); });
    session.main->attachObserver(&observer);
    playing(session);
    session.ex2->setKeepLiveInterval(0);
    session.take(success(AOI_MSG_RTSP_OPTIONS).with(AOI_IE_RANGE, ""));
    auto announcements = std::async(std::launch::async,
                                    [&]
                                    {
                                        for (int i = 0; i < 500; ++i)
                                        {
                                            session.take(Answer(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST)
                                                             .with(AOI_IE_SESSION_ID, "S1")
                                                             .with(AOI_IE_QUIT_REASON, "2001"));
                                        }
                                    });
    for (int i = 0; i < 500; ++i)
        platform.tick(MEDIA_TIMER);
    announcements.get();
    EXPECT_EQ(3, std::count(observer.codes.begin(), observer.codes.end(), 103U));
}

class RelationTest : public LivenessTest
{
protected:
    static ZR_ULONG relate(Session &session) { return session.main->setupToTV(1, {9000, "10.7.7.7"}); }
    static std::string text(const std::string &code, const std::string &what) { return line(code, "setupToTV", what); }
    Session &related(Session &session, ZR_ULONG state)
    {
        session.inState(state);
        session.probe.vodToTvUrl() = "rtsp://h/tv";
        return session;
    }
};

TEST_F(RelationTest, leavesTheSessionsStateAlone)
{
    for (const ZR_ULONG state : {16U, 17U, 18U})
    {
        SCOPED_TRACE(state);
        Session session;
        related(session, state);
        platform.answer(success(AOI_MSG_RTSP_SETUP));
        EXPECT_EQ(0U, relate(session));
        EXPECT_EQ("SessionID=S1|URL=rtsp://h/tv|SrcUaID=src,0|DstUaID=dst,0|TvTransport=10.7.7.7:9000,1,0|"
                  "Auth=setup-auth|",
                  joined(platform.requests().at(0).elements));
        EXPECT_EQ(text("2:0", "successful setup the MediaCtrl relation, SID is : S1"), platform.logs().back());
        EXPECT_EQ("10.0.0.5", session.probe.ability().getTcpVodToTvServerIP());
        EXPECT_EQ(state, session.probe.state());
        platform.answer(failure(AOI_MSG_RTSP_SETUP, 461));
        EXPECT_EQ(461U, relate(session));
        EXPECT_EQ(text("4:13951", "receive a AOI_MSG_RTSP_SETUP ERR[RTSP_errcode: 461] response Message"),
                  platform.logs().back());
        EXPECT_EQ(state, session.probe.state());
        platform.expireWaits();
        EXPECT_EQ(13951U, relate(session));
        EXPECT_EQ(text("4:13501", "don't receive a AOI_MSG_RTSP_SETUP OK response Message"), platform.logs().back());
        EXPECT_EQ(state, session.probe.state());
        EXPECT_EQ(13002U, session.take(success(AOI_MSG_RTSP_SETUP)));
        session.main->teardownToTV();
        EXPECT_EQ("SessionID=S1|URL=rtsp://h/tv|", joined(platform.requests().back().elements));
        EXPECT_EQ(state, session.probe.state());
        EXPECT_EQ(AOI_PORT, session.probe.aoiPort());
        platform.clockOffset = 0;
    }
}

TEST_F(RelationTest, isRefusedWithItsReasons)
{
    Session session;
    session.inState(17);
    EXPECT_EQ(13951U, relate(session));
    related(session, 0);
    EXPECT_EQ(13402U, relate(session));
    session.main->teardownToTV();
    related(session, 1);
    EXPECT_EQ(13402U, relate(session));
    EXPECT_EQ(text("4:13402", "can not setup vod to tv, media ctrl state is 1."), platform.logs().back());
    related(session, 17);
    const std::pair<const char *, const char *> steps[] = {{"header", "Failed to create RegMsgHeader of AoiMsg."},
                                                           {"SessionID", "add IE AOI_IE_SESSION_ID failed"},
                                                           {"URL", "add IE AOI_IE_URL failed"},
                                                           {"SrcUaID", "add IE SrcUaID failed"},
                                                           {"DstUaID", "add IE DstUaID failed"},
                                                           {"TvTransport", "add IE AOI_IE_TRANSPORT failed"},
                                                           {"Auth", "add IE Authorization failed"},
                                                           {"send", "send AOI_MSG_RTSP_SETUP message failed"}};
    for (const auto &[operation, failure] : steps)
    {
        platform.fail(operation);
        EXPECT_EQ(INJECTED, relate(session));
        EXPECT_EQ(text("4:777", failure), platform.logs().back());
    }
    platform.fail("send");
    session.main->teardownToTV();
    EXPECT_EQ(line("4:13205", "teardownToTV", "send AOI_MSG_RTSP_TEARDOWN message failed"), platform.logs().back());
    EXPECT_EQ(17U, session.probe.state());
    EXPECT_THAT(platform.requests(), IsEmpty());
}

} // namespace
} // namespace zr::test
