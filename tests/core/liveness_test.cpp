// What keeps a session alive and what its observers hear: the timers' walks, OPTIONS, announcements, notices.
#include "core_fixture.h"

namespace zr::test {
namespace {

constexpr ZR_ULONG MEDIA_TIMER = 800, ONVIF_TIMER = 30000;

class LivenessTest : public CoreTest
{
protected:
    /// A session that plays.
    static Session &playing(Session &session)
    {
        session.inState(17);
        session.probe.playFlag = 1;
        return session;
    }
    static Answer announcement(const std::string &reason)
    {
        const Answer without = Answer(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST, 0).with(AOI_IE_SESSION_ID, "S1");
        return reason.empty() ? without : Answer(without).with(AOI_IE_QUIT_REASON, reason);
    }
    static Answer optionsAnswer(const char *range) { return success(AOI_MSG_RTSP_OPTIONS).with(AOI_IE_RANGE, range); }
};

TEST_F(LivenessTest, whatDoesNotPlayIsNotKeptAlive)
{
    Session kept, gone;
    playing(kept);
    gone.remove();
    platform.clearRecord();
    platform.tick(MEDIA_TIMER);
    platform.tick(ONVIF_TIMER); // for ONVIF sources alone
    EXPECT_EQ(1U, platform.requests().size());
    EXPECT_THAT(platform.logs(), IsEmpty());
    kept.probe.playFlag = 0;
    kept.ex2->setKeepLiveInterval(8000);
    for (int i = 0; i < 9 + 3; ++i) // once a period has passed, every tick tries again
        platform.tick(MEDIA_TIMER);
    EXPECT_EQ(1U, platform.requests().size());
    EXPECT_EQ(Texts(3, line("1:13403", "options", "no MediaCtrl alive, option request failed")), platform.logs());
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
        const auto periods = [&](ZR_ULONG count) {
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
        EXPECT_EQ(line("2:0", "keepLive", "[PortID: 5] Notify rtsp error: 103 to MCM"), platform.logs('2').back());
        EXPECT_EQ(line("4:1", "keepLive",
                       "[PortID: 5] Failed to keep live of Rtsp for [" + std::to_string(row.maxFail) +
                           "] times, period " + std::to_string(row.period) + " * 0.8s"),
                  platform.logs('4').front());
        periods(row.maxFail);
        EXPECT_EQ(0U, session.take(optionsAnswer("npt=1-"))); // a sign of life
        periods(row.maxFail);
        platform.fail("received", 1); // so is a packet
        periods(row.maxFail + 1);
        EXPECT_THAT(observer.codes, ElementsAre(103));
        periods(1);
        EXPECT_THAT(observer.codes, ElementsAre(103, 103));
    }
}

TEST_F(LivenessTest, optionsAnswersTellThePosition)
{
    Session session;
    const std::string rsp = "AOIProcRtspOptionsRsp", brings = "AOIProcRtspOptions brings an error";
    platform.clearRecord();
    EXPECT_EQ(13002U, session.take(success(AOI_MSG_RTSP_OPTIONS)));
    session.probe.ability.setSessionID("S1");
    EXPECT_EQ(0U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, FAILURE)));
    EXPECT_EQ(13803U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, SUCCESS)));
    EXPECT_EQ(13803U, session.take(success(AOI_MSG_RTSP_OPTIONS)));
    const Texts logs = platform.logs();
    ASSERT_EQ(7U, logs.size());
    EXPECT_EQ(line("3:13403", rsp, "no MediaCtrl alive, option response failed"), logs[0]);
    EXPECT_EQ(line("4:13002", "AOIMsgPro", brings), logs[1]);
    EXPECT_EQ(line("3:13002", rsp, "The AOI_MSG_RTSP_OPTIONS reply message not expected, [MsgType: 2]"), logs[2]);
    EXPECT_EQ(line("4:2562", rsp, "get AOI_MSG_RTSP_OPTIONS OK reponse message's IE SessionID failed"), logs[3]);
    EXPECT_EQ(line("4:2569", rsp, "get AOI_MSG_RTSP_OPTIONS OK reponse message's IE Range Time failed"), logs[5]);

    platform.expireWaits();
    session.ex->dragPlay("npt=30-", "", 11);
    for (const char *expected : {"npt=30-", "npt=31-"}) // the first answer after a seek is older than the seek
    {
        EXPECT_EQ(0U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, FAILURE)));
        EXPECT_EQ(0U, session.take(optionsAnswer("npt=31-")));
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
        Session session(row.tag, 17);
        Recorder first, second;
        session.main->attachObserver(&first);
        session.main->attachObserver(&second);
        EXPECT_EQ(0U, session.take(announcement(row.reason)));
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
        Session session(tag, 17);
        Recorder observer;
        session.main->attachObserver(&observer);
        const auto notice = [&](const char *action) {
            return session.take(Answer(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST)
                                    .with(AOI_IE_SESSION_ID, "S1")
                                    .with(AOI_IE_SESSION_ACTION, action));
        };
        EXPECT_EQ(0U, notice("1"));
        session.probe.playFlag = 1;
        EXPECT_EQ(0U, notice("2"));
        EXPECT_THAT(platform.logs(), IsEmpty());
        EXPECT_EQ(0U, notice("1"));
        EXPECT_THAT(observer.codes, ElementsAre(*tag == '\0' ? 104 : 105));
    }
    Session session("", 17);
    for (const ZR_ULONG id : {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, AOI_MSG_INTERNAL_NOTIFY_RTSP})
    {
        const std::string name =
            id == AOI_MSG_INTERNAL_NOTIFY_RTSP ? "AOI_MSG_INTERNAL_NOTIFY_RTSP" : "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE";
        platform.clearRecord();
        EXPECT_EQ(13803U, session.take(Answer(id, REQUEST)));
        EXPECT_EQ(13002U, session.take(Answer(id, REQUEST).with(AOI_IE_SESSION_ID, "S2")));
        const Texts logs = platform.logs();
        ASSERT_EQ(4U, logs.size());
        EXPECT_THAT(logs[0], EndsWith("get " + name + " requst message's IE SessionID failed"));
        EXPECT_EQ(line("4:13803", "AOIMsgPro", "AOIProcRtspAdminAnnoun brings an error"), logs[1]);
        EXPECT_THAT(logs[2], EndsWith("discard a Msg with SID: S2"));
    }
    EXPECT_EQ(13803U, session.take(Answer(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST).with(AOI_IE_SESSION_ID, "S1")));
    EXPECT_THAT(platform.logs(), ::testing::Contains(line("4:2574", "AOIProcRtspNotifyReq",
                                                          "get AOI_MSG_INTERNAL_NOTIFY_RTSP request message's IE "
                                                          "SessionAction failed")));
}

TEST_F(LivenessTest, observersMayCallBackIn)
{
    Session session, elsewhere;
    CIMediaCtrl *victim = session.main;
    Recorder other, attached;
    elsewhere.main->attachObserver(&attached);
    Recorder observer([&] {
        EXPECT_EQ(nullptr, createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 90));
        EXPECT_EQ(10109U, deleteMediaCtrlInter(&victim));
        EXPECT_EQ(1U, session.main->attachObserver(&other));
        session.main->detachObserver(&observer);
        EXPECT_EQ(1U, elsewhere.main->attachObserver(&other)); // another object's list could wait for this one
        elsewhere.main->detachObserver(&attached);
        session.ex->getRange();
        CMediaAbility ability;
        session.main->getMediaAbility(ability);
        session.main->tearDown();
    });
    session.main->attachObserver(&observer);
    playing(session);
    session.take(announcement("2001"));
    const std::string attach = line("4:10109", "attachObserver", "attach an observer failed.");
    const std::string detach = line("4:10109", "detachObserver", "detach an observer failed.");
    EXPECT_THAT(platform.logs('4'), ElementsAre(attach, detach, attach, detach));
    EXPECT_EQ(1U, platform.requests().size());
    // unregistering from inside did not wait for calls on their way, so the deletion does it again
    session.remove();
    EXPECT_THAT(platform.events(),
                ElementsAre("unregister(77)", "unregister(77)", "release()", "deleteUAAddr(src,dst)", "refresh(5)"));
}

TEST_F(LivenessTest, anObserverThatThrowsStopsNobodyElse)
{
    Session session;
    std::future<ZR_ULONG> visit; // by another thread meanwhile, which finds the object unlocked
    Recorder other, throwing([&] {
        visit = inThread([&] { return session.probe.state(); });
        EXPECT_EQ(std::future_status::ready, visit.wait_for(std::chrono::seconds(15)));
        throw std::runtime_error("out of order");
    });
    session.main->attachObserver(&throwing);
    session.main->attachObserver(&other);
    playing(session);
    session.take(optionsAnswer(""));
    for (int i = 0; i < 151; ++i)
        platform.tick(MEDIA_TIMER);
    EXPECT_THAT(other.codes, ElementsAre(103));
    EXPECT_EQ(151U, platform.requests().size());
    EXPECT_EQ(0U, session.take(announcement("2001")));
    EXPECT_THAT(other.codes, ElementsAre(103, 101));
    EXPECT_EQ(line("4:1", "keepLive", "[PortID: 5] Failed to keep live of Rtsp for [150] times, period 1 * 0.8s"),
              platform.logs('4').at(0));
}

TEST_F(LivenessTest, noticesFromTwoThreadsDoNotLockEachOtherOut)
{
    Session session;
    Recorder observer([&] { session.main->tearDown(); });
    session.main->attachObserver(&observer);
    playing(session);
    session.ex2->setKeepLiveInterval(0);
    session.take(optionsAnswer(""));
    auto announcements = inThread([&] {
        ZR_ULONG results = 0;
        for (int i = 0; i < 500; ++i)
            results += session.take(announcement("2001"));
        return results;
    });
    for (int i = 0; i < 500; ++i)
        platform.tick(MEDIA_TIMER);
    EXPECT_EQ(0U, soon(announcements));
    EXPECT_EQ(3, std::count(observer.codes.begin(), observer.codes.end(), 103U));
}

} // namespace
} // namespace zr::test
