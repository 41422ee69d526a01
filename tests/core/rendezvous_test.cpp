// A request and its answer: time-outs, late answers, stray wake-ups, and threads that meet in one object.
#include <pthread.h>

#include "core_fixture.h"

namespace zr::test {
namespace {

/// A request that waits for its answer, in a state; with what its outcomes return, log and leave behind.
struct Waiting
{
    std::string function; ///< as log lines name it
    ZR_ULONG id, before;
    std::function<ZR_ULONG(Session &)> call;
    ZR_ULONG answeredState;
    ZR_ULONG timeoutResult, timeoutState;
    std::string timeoutLog;
    ZR_ULONG refusedResult, refusedState; ///< by 454
    std::string refusedLog;
    ZR_ULONG idleState; ///< where the state was set back to idle meanwhile
    std::string idleLog;
};

class RendezvousTest : public CoreTest
{
protected:
    /// Requests a row's call without an answer that it could use, and tests the outcome.
    void timesOut(const Waiting &row, Session &session, const std::string &log, ZR_ULONG stateAfter)
    {
        EXPECT_EQ(row.timeoutResult, row.call(session));
        Texts logs = {log};
        if (row.function == "describe")
            logs.push_back(line("4:13503", "describe", "Failed to send AOI_MSG_RTSP_DESCRIBE response Message"));
        EXPECT_EQ(logs, platform.logs('3'));
        EXPECT_EQ(stateAfter, session.probe.state());
        EXPECT_EQ(0U, session.probe.playFlag);
    }
    static std::vector<Waiting> waitingRequests();
};

std::vector<Waiting> RendezvousTest::waitingRequests()
{
    const auto setup = [](Session &session) { return session.main->setup("rtsp://h/s", PROTOCOL_TCP); };
    const auto toTv = [](Session &session) { return session.setupToTv(); };
    const auto play = [](Session &session) { return session.main->play("", ""); };
    const auto drag = [](Session &session) { return session.ex->dragPlay("1", "2", 11); };
    const auto pause = [](Session &session) { return session.ex->pause(); };
    const auto describe = [](Session &session) { return session.main->describe("rtsp://h/s"); };
    const auto none = [](const std::string &code, const char *function, const std::string &method) {
        return line(code, function, "don't receive a AOI_MSG_RTSP_" + method);
    };
    const auto refused = [](const std::string &code, const char *function, const std::string &method) {
        return line(code, function, "receive a AOI_MSG_RTSP_" + method);
    };
    const auto idle = [](const std::string &code, const char *function, const std::string &tail = "") {
        return line(code, function,
                    "Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg" + tail);
    };
    const std::string ok = " OK response Message", error = " ERR[RTSP_errcode:454] response Message";
    const std::string setupError = "SETUP ERR[RTSP_errcode: 454] response Message";
    const std::string speed = ", the play speed is 1.000000";
    const auto setupNone = none("4:13501", "setup", "SETUP" + ok), tvNone = none("4:13501", "setupToTV", "SETUP" + ok);
    const auto describeNone = none("3:13503", "describe", "DESCRIBE" + ok);
    std::vector<Waiting> rows = {{"setup", AOI_MSG_RTSP_SETUP, 16, setup, 16, 13951, 1, setupNone, 454, 3,
                                  refused("4:13951", "setup", setupError), 0, setupNone},
                                 {"pause", AOI_MSG_RTSP_PAUSE, 17, pause, 18, 13954, 17,
                                  none("4:13507", "pause", "PAUSE" + ok), 13954, 17,
                                  refused("4:13954", "pause", "PAUSE" + error), 0, idle("3:13954", "pause")}};
    for (const ZR_ULONG state : {16U, 17U, 18U})
    {
        rows.push_back({"generalPlay", AOI_MSG_RTSP_PLAY, state, play, 17, 13952, state,
                        none("3:13503", "generalPlay", "PLAY" + ok + speed), 13952, state,
                        refused("4:13504", "generalPlay", "PLAY" + error + speed), 0,
                        idle("3:1", "generalPlay", speed)});
        rows.push_back({"setupToTV", AOI_MSG_RTSP_SETUP, state, toTv, state, 13951, state, tvNone, 454, state,
                        refused("4:13951", "setupToTV", setupError), state, tvNone});
    }
    for (const ZR_ULONG state : {0U, 18U})
    {
        rows.push_back({"dragPlay", AOI_MSG_RTSP_PLAY, state, drag, 17, 13955, state,
                        none("4:13503", "dragPlay", "PALY" + ok), 13955, state,
                        refused("4:13504", "dragPlay", "PALY" + error), 0, idle("3:13955", "dragPlay")});
        rows.push_back({"describe", AOI_MSG_RTSP_DESCRIBE, state, describe, 16, 13503, 16, describeNone, 454, 16,
                        line("3:454", "describe", "Describe receive error"), 16, describeNone});
    }
    return rows;
}

TEST_F(RendezvousTest, withoutAUsefulAnswerARequestTimesOut)
{
    platform.expireWaits();
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.function + " in " + std::to_string(row.before));
        Session session("", row.before);
        timesOut(row, session, row.timeoutLog, row.timeoutState);
        const bool late = row.timeoutState == 1 || row.id == AOI_MSG_RTSP_DESCRIBE; // is still taken
        EXPECT_EQ(late ? 0U : 13002U, session.take(success(row.id)));
        EXPECT_EQ(row.timeoutState == 1 ? 2 : row.timeoutState, session.probe.state());

        session.inState(row.before);
        platform.hook("counter", [&] { session.probe.setState(0); }); // read once the waiting state stands
        timesOut(row, session, row.idleLog, row.idleState);
        platform.hook("counter", nullptr);

        session.inState(row.before); // an answer that cannot be read whole is none
        const bool describe = row.id == AOI_MSG_RTSP_DESCRIBE;
        platform.answer(Answer(row.id, describe ? REQUEST : SUCCESS));
        EXPECT_EQ(row.timeoutResult, row.call(session));
        ASSERT_TRUE(platform.waitFor([&] { return !platform.deliveryResults().empty(); })); // it may come too late
        EXPECT_EQ(row.timeoutState, session.probe.state());
    }
}

TEST_F(RendezvousTest, aRefusedRequestSaysSo)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.function + " in " + std::to_string(row.before));
        Session session("", row.before);
        platform.answer(failure(row.id, 454));
        EXPECT_EQ(row.refusedResult, row.call(session));
        EXPECT_EQ(row.refusedLog, platform.logs('2').at(0));
        EXPECT_EQ(row.refusedState, session.probe.state());
        EXPECT_EQ(454U, session.probe.rspResult);
        EXPECT_EQ(0U, session.probe.playFlag);
    }
    Session session("", 16);
    platform.answer(failure(AOI_MSG_RTSP_SETUP, 0)); // no success either
    EXPECT_EQ(13951U, session.main->setup("u", PROTOCOL_UDP));
    EXPECT_EQ(3U, session.probe.state());
}

TEST_F(RendezvousTest, anAnsweredRequestSucceedsAtAnyDepth)
{
    for (const Waiting &row : waitingRequests())
    {
        for (const bool deeper : {false, true})
        {
            SCOPED_TRACE(row.function + " in " + std::to_string(row.before) + (deeper ? ", deeper" : ""));
            Session session("", row.before);
            platform.answer(success(row.id));
            const auto call = [&] { return row.call(session); };
            EXPECT_EQ(0U, deeper ? session.probe.oneLevelDeeper(call) : call());
            EXPECT_EQ(row.answeredState, session.probe.state());
            EXPECT_EQ(row.id == AOI_MSG_RTSP_PLAY ? 1U : 0U, session.probe.playFlag);
            EXPECT_THAT(platform.logs('4'), IsEmpty());
            if (row.id == AOI_MSG_RTSP_SETUP)
            {
                EXPECT_EQ(line("2:0", row.function, "successful setup the MediaCtrl relation, SID is : S1"),
                          platform.logs().back());
            }
        }
    }
}

TEST_F(RendezvousTest, aCancelledThreadLeavesTheObjectUsable)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.function + " in " + std::to_string(row.before));
        Session session("", row.before);
        std::thread thread([&] { row.call(session); });
        untilWaiting(session, 1);
        ASSERT_EQ(0, pthread_cancel(thread.native_handle()));
        thread.join();
        EXPECT_EQ(row.timeoutState, session.probe.state());
        session.inState(row.before);
        platform.answer(success(row.id));
        EXPECT_EQ(0U, row.call(session));
    }
}

TEST_F(RendezvousTest, aTearDownHasTheLastWord)
{
    const std::function<ZR_ULONG(Session &)> calls[] = {
        [](Session &session) { return session.main->play("", ""); },
        [](Session &session) { return session.ex->dragPlay("1", "2", 11); }};
    for (const auto &call : calls)
    {
        Session session("", 16);
        auto play = inThread([&] { return call(session); });
        untilWaiting(session, 1);
        session.probe.oneLevelDeeper([&] { // answered, but whoever waits for it cannot go on yet
            EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_PLAY)));
            session.main->tearDown();
            return 0U;
        });
        EXPECT_EQ(0U, soon(play));
        EXPECT_EQ(0U, session.probe.playFlag);
    }
}

TEST_F(RendezvousTest, aSignalNobodyWaitsForIsLost)
{
    platform.expireWaits();
    Session session("", 16);
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
    Session session("", 0);
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

TEST_F(RendezvousTest, aLaterRequestOvertakes)
{
    Session session("", 17);
    auto describe = inThread([&] { return session.main->describe("u"); });
    untilWaiting(session, 1);
    platform.answer(success(AOI_MSG_RTSP_PLAY));
    EXPECT_EQ(0U, session.ex->dragPlay("1", "2", 11));
    EXPECT_EQ(13503U, soon(describe));
    EXPECT_EQ(17U, session.probe.state());
}

TEST_F(RendezvousTest, noRequestPutsBackAWaitingState)
{
    Session session("", 18);
    auto first = inThread([&] { return session.ex->dragPlay("1", "2", 11); });
    untilWaiting(session, 1);
    EXPECT_EQ(13402U, session.ex->pause());
    EXPECT_EQ(13402U, session.main->play("", ""));
    platform.expireWaits();
    EXPECT_EQ(13955U, session.ex->dragPlay("3", "4", 11));
    EXPECT_EQ(13955U, soon(first));
    EXPECT_EQ(18U, session.probe.state());
}

TEST_F(RendezvousTest, withoutCounterTheTimeOfDayServes)
{
    // the frequency is read once a process: where this test is the first of its own, that read fails
    const bool first = platform.frequencyReads == 0;
    platform.fail(first ? "frequency" : "counter", 1, 1, 1000);
    Session session("", 16);
    platform.answer(success(AOI_MSG_RTSP_PLAY));
    EXPECT_EQ(0U, session.main->play("", "")); // waits for its answer ...
    platform.expireWaits();
    auto pause = inThread([&] { return session.ex->pause(); });
    EXPECT_EQ(13954U, soon(pause)); // ... but not for ever
    EXPECT_EQ(1, platform.frequencyReads);
}

TEST_F(RendezvousTest, aCounterThatCannotBeReadIsNone)
{
    platform.expireWaits();
    Session session("", 17);
    EXPECT_EQ(13954U, session.ex->pause()); // the frequency is known from now on
    platform.fail("counter", 1, 1, 1000);
    platform.expireWaits();
    auto pause = inThread([&] { return session.ex->pause(); });
    EXPECT_EQ(13954U, soon(pause));
}

TEST_F(RendezvousTest, threeTearDownsUnregisterOnce)
{
    Session session("", 17);
    platform.hook("unregister", [&] {
        platform.hook("unregister", nullptr);
        session.main->tearDown(); // from an observer, say
    });
    auto other = inThread([&] {
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
        SCOPED_TRACE(row.function);
        Session session("", row.before);
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
        Session session("", tornDown ? 16 : 0);
        std::promise<void> inside;
        platform.hook("log", [&] {
            platform.hook("log", nullptr);
            inside.set_value();
            // neither unregistering nor anything else of the deletion waits for this call but the object's own count
            EXPECT_TRUE(platform.waitFor([&] { return !platform.events().empty(); }));
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
        EXPECT_THAT(platform.events(), ElementsAre("unregister(77)", "left()", "release()", "deleteUAAddr(src,dst)",
                                                   "refresh(5)", "deleted()"));
    }
}

TEST_F(RendezvousTest, operationsWithoutLockMeetAnswers)
{
    Session session("", 16);
    std::atomic<bool> done{false};
    auto meddler = inThread([&] {
        ZR_ULONG calls = 0;
        do
        {
            CMediaAbility ability;
            session.main->getMediaAbility(ability);
            session.ex->getRange();
            session.ex2->setPlayNormalFlag(calls & 1);
            session.ex2->setPlaybackNowFlag(1);
            session.ex2->setKeepLiveInterval(++calls);
            session.take(Answer(AOI_MSG_RTSP_TEARDOWN, SUCCESS));
        }
        while (!done);
        return calls;
    });
    for (int i = 0; i < 25; ++i)
    {
        for (const ZR_ULONG id :
             {AOI_MSG_RTSP_DESCRIBE, AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE, AOI_MSG_RTSP_PLAY})
            platform.answer(success(id));
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
