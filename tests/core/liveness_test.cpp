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
        Answer without = Answer(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST, 0).with(AOI_IE_SESSION_ID, "S1");
        return reason.empty() ? without : without.with(AOI_IE_QUIT_REASON, reason);
    }
    static void tickTimes(ZR_ULONG count)
    {
        for (ZR_ULONG i = 0; i < count; ++i)
            platform.tick(MEDIA_TIMER);
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
    tickTimes(9 + 3); // once a period has passed, every tick tries again
    EXPECT_EQ(1U, platform.requests().size());
    EXPECT_EQ(Texts(3, line("1:13403", "options", "no MediaCtrl alive, option request failed")), platform.logs());
}

TEST_F(LivenessTest, silenceIsReported)
{
    for (const auto &[tag, maxFail, period] : {std::tuple("", 150U, 1U), {"onvif", 3U, 25U}, {"", 150U, 0U}})
    {
        SCOPED_TRACE(listed(tag, period));
        Session session(tag);
        Recorder observer;
        session.main->attachObserver(&observer);
        platform.expireWaits();
        if (maxFail == 3)
            session.main->describe("u");
        if (period == 0)
            session.ex2->setKeepLiveInterval(0);
        playing(session);
        const auto periods = [ticks = std::max(period, 1U)](ZR_ULONG count) { tickTimes(count * ticks); };
        periods(maxFail + 10);
        EXPECT_THAT(observer.codes, IsEmpty()) << "nothing is checked before the first OPTIONS answer";
        EXPECT_EQ(maxFail + 10, platform.requests().size());

        EXPECT_EQ(13002U, session.take(Answer(AOI_MSG_RTSP_OPTIONS, SUCCESS).with(AOI_IE_SESSION_ID, "S2")));
        platform.clearRecord();
        periods(maxFail);
        EXPECT_THAT(observer.codes, IsEmpty());
        EXPECT_THAT(platform.logs(), IsEmpty());
        periods(1);
        EXPECT_THAT(observer.codes, ElementsAre(103));
        EXPECT_EQ(line("2:0", "keepLive", "[PortID: 5] Notify rtsp error: 103 to MCM"), platform.logs('2').back());
        const std::string failed = "[PortID: 5] Failed to keep live of Rtsp for [" + std::to_string(maxFail);
        EXPECT_EQ(line("4:1", "keepLive", failed + "] times, period " + std::to_string(period) + " * 0.8s"),
                  platform.logs('4').front());
        periods(maxFail);
        EXPECT_EQ(0U, session.take(optionsAnswer("npt=1-"))); // a sign of life
        periods(maxFail);
        platform.fail("received", 1); // so is a packet
        periods(maxFail + 1);
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
    const std::string get = "get AOI_MSG_RTSP_OPTIONS OK reponse message's IE ";
    EXPECT_THAT(platform.logs(),
                ElementsAre(line("3:13403", rsp, "no MediaCtrl alive, option response failed"),
                            line("4:13002", "AOIMsgPro", brings),
                            line("3:13002", rsp, "The AOI_MSG_RTSP_OPTIONS reply message not expected, [MsgType: 2]"),
                            line("4:2562", rsp, get + "SessionID failed"), _,
                            line("4:2569", rsp, get + "Range Time failed"), _));

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
    // the last: whether the reason is warned of
    const std::tuple<const char *, std::string, ZR_ULONG, bool> rows[] = {
        {"x", "2001", 101, false},      {"guobiao", "2001", 101, false}, {"x", "2003", 102, false},
        {"x", "2002", 100, false},      {"guobiao", "2002", 106, false}, {"", "2002", 106, false},
        {"guo", "2002", 106, false},    {"biao", "2002", 100, false},    {"x", "2004", 100, true},
        {"guobiao", "2004", 106, true}, {"guobiao2", "", 100, true},     {"guobiao", "", 106, true}};
    const std::string function = "AOIProcRtspAdminAnnounReq";
    const std::string element = "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE QuitReason";
    const std::string unread = line("4:2573", function, "get " + element + " failed, use default");
    const std::string illegal = line("3:13002", function, element + ":(2004) illegal");
    for (const auto &[tag, reason, code, warned] : rows)
    {
        SCOPED_TRACE(tag + reason);
        Session session(tag, 17);
        Recorder first, second;
        session.main->attachObserver(&first);
        session.main->attachObserver(&second);
        EXPECT_EQ(0U, session.take(announcement(reason)));
        EXPECT_THAT(first.codes, ElementsAre(code));
        EXPECT_EQ(first.codes, second.codes);
        Texts logs = {line("2:0", function, "[PortID: 5] Notify rtsp error: " + std::to_string(code) + " to MCM")};
        if (warned)
            logs.insert(logs.begin(), reason.empty() ? unread : illegal);
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
    const std::string error = line("4:13803", "AOIMsgPro", "AOIProcRtspAdminAnnoun brings an error");
    for (const auto &[id, name] : {std::pair(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, "AOI_MSG_RTSP_ADMINSSION_ANNOUNCE"),
                                   {AOI_MSG_INTERNAL_NOTIFY_RTSP, "AOI_MSG_INTERNAL_NOTIFY_RTSP"}})
    {
        platform.clearRecord();
        EXPECT_EQ(13803U, session.take(Answer(id, REQUEST)));
        EXPECT_EQ(13002U, session.take(Answer(id, REQUEST).with(AOI_IE_SESSION_ID, "S2")));
        const auto unread = EndsWith("get " + std::string(name) + " requst message's IE SessionID failed");
        EXPECT_THAT(platform.logs(), ElementsAre(unread, error, EndsWith("discard a Msg with SID: S2"), _));
    }
    EXPECT_EQ(13803U, session.take(Answer(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST).with(AOI_IE_SESSION_ID, "S1")));
    const char *const unread = "get AOI_MSG_INTERNAL_NOTIFY_RTSP request message's IE SessionAction failed";
    EXPECT_THAT(platform.logs(), ElementsAre(_, _, _, _, line("4:2574", "AOIProcRtspNotifyReq", unread), error));
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
    tickTimes(151);
    EXPECT_THAT(other.codes, ElementsAre(103));
    EXPECT_EQ(151U, platform.requests().size());
    EXPECT_EQ(0U, session.take(announcement("2001")));
    EXPECT_THAT(other.codes, ElementsAre(103, 101));
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
    tickTimes(500);
    EXPECT_EQ(0U, soon(announcements));
    EXPECT_EQ(3, std::count(observer.codes.begin(), observer.codes.end(), 103U));
}

} // namespace
} // namespace zr::test
