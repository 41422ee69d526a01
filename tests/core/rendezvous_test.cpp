// A request and its answer: time-outs, late answers, stray wake-ups, and threads that meet in one object.
#include <future>

#include "core_fixture.h"

namespace zr::test
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RendezvousTest : public CoreTest
{
protected:
    static std::future<ZR_ULONG> inThread(std::function<ZR_ULONG()> call)
    {
        return std::async(std::launch::async, std::move(call));
    }
    /// What the call returned, which it must do well before its 25 seconds are over.
    static ZR_ULONG soon(std::future<ZR_ULONG> &result)
    {
        EXPECT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(15)));
        return result.get();
    }
    /// Returns when the object's request number count waits for its answer.
    void untilWaiting(Session &session, size_t count)
    {
        ASSERT_TRUE(platform.waitForRequests(count));
        session.probe.state(); // takes the lock, which the requester holds until it waits
    }
};

struct Waiting
{
    const char *function; ///< as log lines name it
    ZR_ULONG id, before;
    std::function<ZR_ULONG(Session &)> call;
    ZR_ULONG timeoutResult;
    const char *timeoutCode, *timeoutText; ///< level and code, and text
    ZR_ULONG refusedResult;                ///< by 454
    const char *refusedCode, *refusedText;
    ZR_ULONG stateAfter; ///< a good answer

    std::string name() const { return std::string(function) + " in " + std::to_string(before); }
    /// The state that a time-out or a refusal leaves.
    ZR_ULONG stateWithout(ZR_ULONG ofSetup) const
    {
        return id == AOI_MSG_RTSP_SETUP ? ofSetup : id == AOI_MSG_RTSP_DESCRIBE ? 16 : before;
    }
    Texts logs(const std::string &code, const std::string &text, ZR_ULONG result) const
    {
        const std::string log = std::string(":[CRtspMediaCtrl::") + function + "] ";
        Texts lines = {code + log + text};
        if (id == AOI_MSG_RTSP_DESCRIBE)
        {
            lines.push_back("4:" + std::to_string(result) + log +
                            "Failed to send AOI_MSG_RTSP_DESCRIBE response Message");
        }
        return lines;
    }
};

std::vector<Waiting> waitingRequests()
{
    const auto setup = [](Session &session) { return session.main->setup("rtsp://h/s", PROTOCOL_TCP); };
    const auto play = [](Session &session) { return session.main->play("", ""); };
    const auto drag = [](Session &session) { return session.ex->dragPlay("1", "2", 11); };
    const auto pause = [](Session &session) { return session.ex->pause(); };
    const auto describe = [](Session &session) { return session.main->describe("rtsp://h/s"); };
    std::vector<Waiting> rows = {{"setup", AOI_MSG_RTSP_SETUP, 16, setup, 13951, "4:13501",
                                  "don't receive a AOI_MSG_RTSP_SETUP OK response Message", 454, "4:13951",
                                  "receive a AOI_MSG_RTSP_SETUP ERR[RTSP_errcode: 454] response Message", 16},
                                 {"pause", AOI_MSG_RTSP_PAUSE, 17, pause, 13954, "4:13507",
                                  "don't receive a AOI_MSG_RTSP_PAUSE OK response Message", 13954, "4:13954",
                                  "receive a AOI_MSG_RTSP_PAUSE ERR[RTSP_errcode:454] response Message", 18}};
    for (const ZR_ULONG before : {16U, 17U, 18U})
    {
        rows.push_back(
            {"generalPlay", AOI_MSG_RTSP_PLAY, before, play, 13952, "3:13503",
             "don't receive a AOI_MSG_RTSP_PLAY OK response Message, the play speed is 1.000000", 13952, "4:13504",
             "receive a AOI_MSG_RTSP_PLAY ERR[RTSP_errcode:454] response Message, the play speed is 1.000000", 17});
    }
    for (const ZR_ULONG before : {0U, 18U})
    {
        rows.push_back({"dragPlay", AOI_MSG_RTSP_PLAY, before, drag, 13955, "4:13503",
                        "don't receive a AOI_MSG_RTSP_PALY OK response Message", 13955, "4:13504",
                        "receive a AOI_MSG_RTSP_PALY ERR[RTSP_errcode:454] response Message", 17});
        rows.push_back({"describe", AOI_MSG_RTSP_DESCRIBE, before, describe, 13503, "3:13503",
                        "don't receive a AOI_MSG_RTSP_DESCRIBE OK response Message", 454, "3:454",
                        "Describe receive error", 16});
    }
    return rows;
}

TEST_F(RendezvousTest, aRequestWithoutAnswerTimesOut)
{
    platform.expireWaits();
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        EXPECT_EQ(row.timeoutResult, row.call(session));
        EXPECT_EQ(row.logs(row.timeoutCode, row.timeoutText, row.timeoutResult), platform.logs());
        EXPECT_EQ(row.stateWithout(1), session.probe.state());
        EXPECT_EQ(0U, session.probe.playFlag());
        const bool late = row.id == AOI_MSG_RTSP_SETUP || row.id == AOI_MSG_RTSP_DESCRIBE; // is still taken
        EXPECT_EQ(late ? 0U : 13002U, session.take(success(row.id)));
        EXPECT_EQ(row.stateWithout(2), session.probe.state());
        if (row.id == AOI_MSG_RTSP_SETUP)
        {
            EXPECT_EQ(13402U, row.call(session));
        }
    }
}

TEST_F(RendezvousTest, aRefusedRequestSaysSo)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        platform.answer(failure(row.id, 454));
        EXPECT_EQ(row.refusedResult, row.call(session));
        EXPECT_EQ(row.logs(row.refusedCode, row.refusedText, row.refusedResult), platform.logs());
        EXPECT_EQ(row.stateWithout(3), session.probe.state());
        EXPECT_EQ(454U, session.probe.rspResult());
        EXPECT_EQ(0U, session.probe.playFlag());
    }
}

TEST_F(RendezvousTest, anAnsweredRequestSucceeds)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        platform.answer(success(row.id));
        EXPECT_EQ(0U, row.call(session));
        EXPECT_EQ(row.stateAfter, session.probe.state());
        EXPECT_EQ(row.stateAfter == 17 ? 1U : 0U, session.probe.playFlag());
        EXPECT_THAT(platform.logs('4'), IsEmpty());
        if (row.id == AOI_MSG_RTSP_SETUP)
        {
            EXPECT_EQ("2:0:[CRtspMediaCtrl::setup] successful setup the MediaCtrl relation, SID is : S1",
                      platform.logs().back());
        }
    }
}

TEST_F(RendezvousTest, aRefusalWithoutStatusIsNoSuccess)
{
    Session session;
    session.inState(16);
    platform.answer(failure(AOI_MSG_RTSP_SETUP, 0));
    EXPECT_EQ(13951U, session.main->setup("u", PROTOCOL_UDP));
    EXPECT_EQ(3U, session.probe.state());
}

TEST_F(RendezvousTest, anUnreadableAnswerLetsTheRequestTimeOut)
{
    platform.expireWaits();
    const std::map<ZR_ULONG, Answer> unreadable = {
        {AOI_MSG_RTSP_SETUP, Answer(AOI_MSG_RTSP_SETUP, SUCCESS)},
        {AOI_MSG_RTSP_PLAY, Answer(AOI_MSG_RTSP_PLAY, SUCCESS).with(AOI_IE_SESSION_ID, "S2")},
        {AOI_MSG_RTSP_PAUSE, Answer(AOI_MSG_RTSP_PAUSE, SUCCESS)},
        {AOI_MSG_RTSP_DESCRIBE, Answer(AOI_MSG_RTSP_DESCRIBE, REQUEST)}};
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        platform.answer(unreadable.at(row.id));
        EXPECT_EQ(row.timeoutResult, row.call(session));
        EXPECT_EQ(row.stateWithout(1), session.probe.state());
    }
}

TEST_F(RendezvousTest, aSignalNobodyWaitsForIsLost)
{
    platform.expireWaits();
    Session session;
    session.inState(16);
    EXPECT_EQ(13951U, session.main->setup("u", PROTOCOL_UDP));
    EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_SETUP)));
    EXPECT_EQ(0U, session.take(Answer(AOI_MSG_RTSP_DESCRIBE, SUCCESS)));
    session.probe.setState(17);
    EXPECT_EQ(13954U, session.ex->pause());
    EXPECT_EQ(13503U, session.main->describe("u"));
    EXPECT_EQ(13951U, session.main->setup("u", PROTOCOL_UDP));
}

TEST_F(RendezvousTest, strayWakeUpsEndNoWait)
{
    Session session;
    session.inState(0);
    platform.answer(success(AOI_MSG_RTSP_DESCRIBE));
    ASSERT_EQ(0U, session.main->describe("u")); // leaves a result of 0 behind
    ASSERT_TRUE(platform.waitFor([&] { return platform.deliveryResults().size() == 1; }));
    platform.clearRecord();
    auto setup = inThread([&] { return session.main->setup("u", PROTOCOL_TCP); });
    untilWaiting(session, 1);
    for (int i = 0; i < 20; ++i)
        session.probe.wakeForNothing();
    platform.deliver(Answer(AOI_MSG_RTSP_PLAY, SUCCESS).with(AOI_IE_SESSION_ID, "S1"));
    platform.deliver(failure(AOI_MSG_RTSP_PAUSE, 500));
    platform.deliver(success(AOI_MSG_RTSP_DESCRIBE)); // taken in any state, but no answer to this
    ASSERT_TRUE(platform.waitFor([&] { return platform.deliveryResults().size() == 3; }));
    EXPECT_EQ(1U, session.probe.state());
    EXPECT_EQ(std::future_status::timeout, setup.wait_for(std::chrono::seconds(0)));
    platform.deliver(failure(AOI_MSG_RTSP_SETUP, 461));
    EXPECT_EQ(461U, soon(setup));
    ASSERT_TRUE(platform.waitFor([&] { return platform.deliveryResults().size() == 4; }));
    EXPECT_THAT(platform.deliveryResults(), ElementsAre(13002, 13002, 0, 0));
}

TEST_F(RendezvousTest, aStateSetToIdleMeanwhileIsNoticed)
{
    const std::string blame = "Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg";
    const std::map<std::string, std::string> logs = {
        {"generalPlay", "3:1:[CRtspMediaCtrl::generalPlay] " + blame + ", the play speed is 1.000000"},
        {"dragPlay", "3:13955:[CRtspMediaCtrl::dragPlay] " + blame},
        {"pause", "3:13954:[CRtspMediaCtrl::pause] " + blame}};
    platform.expireWaits();
    for (const Waiting &row : waitingRequests())
    {
        if (logs.count(row.function) == 0)
            continue;
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        platform.hook("counter", [&] { session.probe.setState(0); }); // read once the waiting state stands
        EXPECT_EQ(row.timeoutResult, row.call(session));
        EXPECT_THAT(platform.logs('3'), ElementsAre(logs.at(row.function)));
        EXPECT_EQ(0U, session.probe.state());
        platform.hook("counter", nullptr);
    }
}

TEST_F(RendezvousTest, aLaterRequestOvertakes)
{
    Session session;
    session.inState(17);
    auto describe = inThread([&] { return session.main->describe("u"); });
    untilWaiting(session, 1);
    platform.answer(success(AOI_MSG_RTSP_PLAY));
    EXPECT_EQ(0U, session.ex->dragPlay("1", "2", 11));
    EXPECT_EQ(13503U, soon(describe));
    EXPECT_EQ(17U, session.probe.state());
}

TEST_F(RendezvousTest, noRequestPutsBackAWaitingState)
{
    Session session;
    session.inState(18);
    auto first = inThread([&] { return session.ex->dragPlay("1", "2", 11); });
    untilWaiting(session, 1);
    EXPECT_EQ(13402U, session.ex->pause());
    EXPECT_EQ(13402U, session.main->play("", ""));
    platform.expireWaits();
    EXPECT_EQ(13955U, session.ex->dragPlay("3", "4", 11));
    EXPECT_EQ(13955U, soon(first));
    EXPECT_EQ(18U, session.probe.state());
}

TEST_F(RendezvousTest, theFrequencyIsReadOnce)
{
    platform.expireWaits();
    Session session;
    session.main->describe("u");
    const int reads = platform.frequencyReads;
    session.main->describe("u");
    EXPECT_EQ(reads, platform.frequencyReads);
    EXPECT_EQ(1, reads);
}

TEST_F(RendezvousTest, withoutCounterTheTimeOfDayServes)
{
    platform.fail("counter", 1, 1, 1000);
    Session session;
    session.inState(16);
    platform.answer(success(AOI_MSG_RTSP_PLAY));
    EXPECT_EQ(0U, session.main->play("", "")); // waits for its answer ...
    platform.expireWaits();
    auto pause = inThread([&] { return session.ex->pause(); });
    EXPECT_EQ(13954U, soon(pause)); // ... but not for ever
}

TEST_F(RendezvousTest, withoutFrequencyTheTimeOfDayServes)
{
    if (platform.frequencyReads != 0)
        GTEST_SKIP() << "the process has its frequency";
    platform.fail("frequency", 1, 1, 1000);
    Session session;
    session.inState(17);
    platform.expireWaits();
    auto pause = inThread([&] { return session.ex->pause(); });
    EXPECT_EQ(13954U, soon(pause));
}

TEST_F(RendezvousTest, threeTearDownsUnregisterOnce)
{
    Session session;
    session.inState(17);
    platform.hook("unregister",
                  [&]
                  {
                      platform.hook("unregister", nullptr);
                      session.main->tearDown(); // from an observer, say
                  });
    auto other = inThread(
        [&]
        {
            session.main->tearDown();
            return 0U;
        });
    session.main->tearDown();
    EXPECT_EQ(0U, soon(other));
    EXPECT_THAT(platform.events(), ElementsAre("unregister(77)"));
    EXPECT_EQ(3U, platform.requests().size());
}

TEST_F(RendezvousTest, deletionWakesWhoWaits)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.name());
        Session session;
        session.inState(row.before);
        auto call = inThread([&] { return row.call(session); });
        untilWaiting(session, 1);
        EXPECT_EQ(0U, session.remove());
        EXPECT_EQ(row.timeoutResult, soon(call));
    }
}

TEST_F(RendezvousTest, deletionWaitsForACallInside)
{
    for (const bool tornDown : {false, true})
    {
        Session session;
        session.inState(tornDown ? 16 : 0);
        std::promise<void> inside;
        platform.hook("log",
                      [&]
                      {
                          platform.hook("log", nullptr);
                          inside.set_value();
                          // neither unregistering nor anything else of the deletion waits for this call but the
                          // object's own count
                          EXPECT_TRUE(platform.waitFor(
                              [&]
                              {
                                  const Texts events = platform.events();
                                  return std::find(events.begin(), events.end(), "unregister(77)") != events.end();
                              }));
                          std::this_thread::sleep_for(std::chrono::milliseconds(20));
                          platform.record("left");
                      });
        auto call = inThread([&] { return session.take(Answer(1, SUCCESS)); });
        inside.get_future().wait();
        if (tornDown)
            session.main->tearDown();
        session.remove();
        platform.record("deleted");
        EXPECT_EQ(13002U, soon(call));
        const Texts events = platform.events();
        EXPECT_LT(std::find(events.begin(), events.end(), "left"), std::find(events.begin(), events.end(), "deleted"));
    }
}

TEST_F(RendezvousTest, operationsWithoutLockMeetAnswers)
{
    Session session;
    session.inState(16);
    std::atomic<bool> done{false};
    auto meddler = inThread(
        [&]
        {
            ZR_ULONG calls = 0;
            for (; calls == 0 || !done; ++calls)
            {
                CMediaAbility ability;
                session.main->getMediaAbility(ability);
                session.ex->getRange();
                session.ex2->setPlayNormalFlag(calls & 1);
                session.ex2->setPlaybackNowFlag(1);
                session.ex2->setKeepLiveInterval(calls);
                session.take(Answer(AOI_MSG_RTSP_TEARDOWN, SUCCESS));
            }
            return calls;
        });
    for (int i = 0; i < 25; ++i)
    {
        platform.answer(success(AOI_MSG_RTSP_DESCRIBE));
        platform.answer(success(AOI_MSG_RTSP_SETUP));
        platform.answer(success(AOI_MSG_RTSP_PLAY));
        platform.answer(success(AOI_MSG_RTSP_PAUSE));
        platform.answer(success(AOI_MSG_RTSP_PLAY));
        ASSERT_EQ(0U, session.main->describe("u"));
        ASSERT_EQ(0U, session.main->setup("u", PROTOCOL_TCP));
        ASSERT_EQ(0U, session.main->play("1", "2"));
        ASSERT_EQ(0U, session.ex->pause());
        ASSERT_EQ(0U, session.ex->dragPlay("1", "2", 11));
    }
    done = true;
    EXPECT_LT(0U, soon(meddler));
}

} // namespace
} // namespace zr::test
