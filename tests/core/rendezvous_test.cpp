// A request and its answer: time-outs, late answers, stray wake-ups, and threads that meet in one object.
#include <pthread.h>
#include <thread>

#include "core_fixture.h"

namespace zr::test {
namespace {

struct Outcome
{
    ZR_ULONG result, state; ///< that the call returns, and that stands after it
    std::string log;
};

/// A request that waits for its answer, in a state; with its outcomes.
struct Waiting
{
    std::string function; ///< as log lines name it
    ZR_ULONG id, before;
    std::function<ZR_ULONG(Session &)> call;
    ZR_ULONG answeredState;
    Outcome timeout, refusal; ///< refused by 454
    Outcome idle;             ///< where the state was set back to idle meanwhile
};

class RendezvousTest : public CoreTest
{
protected:
    /// Requests a row's call without an answer that it could use, and tests the outcome.
    static void timesOut(const Waiting &row, Session &session, const Outcome &outcome)
    {
        EXPECT_EQ(outcome.result, row.call(session));
        Texts logs = {outcome.log};
        if (row.function == "describe")
            logs.push_back(line("4:13503", "describe", "Failed to send AOI_MSG_RTSP_DESCRIBE response Message"));
        EXPECT_EQ(logs, platform.logs('3'));
        EXPECT_EQ(outcome.state, session.probe.state());
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
    const auto none = [](const char *code, const char *function, const std::string &method) {
        return line(code, function, "don't receive a AOI_MSG_RTSP_" + method + " OK response Message");
    };
    const auto refused = [](const char *code, const char *function, const std::string &method, const char *status) {
        return line(code, function,
                    "receive a AOI_MSG_RTSP_" + method + " ERR[RTSP_errcode:" + status + "] response Message");
    };
    const auto idled = [](const char *code, const char *function) {
        return line(code, function, "Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg");
    };
    const std::string speed = ", the play speed is 1.000000";
    std::vector<Waiting> rows;
    const auto add = [&rows](const char *function, ZR_ULONG id, ZR_ULONG before, const auto &call, ZR_ULONG answered,
                             const Outcome &timeout, const Outcome &refusal, const Outcome &idle) {
        rows.push_back({function, id, before, call, answered, timeout, refusal, idle});
    };
    const Outcome setupNone = {13951, 1, none("4:13501", "setup", "SETUP")};
    add("setup", AOI_MSG_RTSP_SETUP, 16, setup, 16, setupNone, {454, 3, refused("4:13951", "setup", "SETUP", " 454")},
        {13951, 0, setupNone.log});
    add("pause", AOI_MSG_RTSP_PAUSE, 17, pause, 18, {13954, 17, none("4:13507", "pause", "PAUSE")},
        {13954, 17, refused("4:13954", "pause", "PAUSE", "454")}, {13954, 0, idled("3:13954", "pause")});
    for (const ZR_ULONG state : {16U, 17U, 18U})
    {
        add("generalPlay", AOI_MSG_RTSP_PLAY, state, play, 17,
            {13952, state, none("3:13503", "generalPlay", "PLAY") + speed},
            {13952, state, refused("4:13504", "generalPlay", "PLAY", "454") + speed},
            {13952, 0, idled("3:1", "generalPlay") + speed});
        const Outcome tvNone = {13951, state, none("4:13501", "setupToTV", "SETUP")};
        add("setupToTV", AOI_MSG_RTSP_SETUP, state, toTv, state, tvNone,
            {454, state, refused("4:13951", "setupToTV", "SETUP", " 454")}, tvNone);
    }
    for (const ZR_ULONG state : {0U, 18U})
    {
        add("dragPlay", AOI_MSG_RTSP_PLAY, state, drag, 17, {13955, state, none("4:13503", "dragPlay", "PALY")},
            {13955, state, refused("4:13504", "dragPlay", "PALY", "454")}, {13955, 0, idled("3:13955", "dragPlay")});
        const Outcome describeNone = {13503, 16, none("3:13503", "describe", "DESCRIBE")};
        add("describe", AOI_MSG_RTSP_DESCRIBE, state, describe, 16, describeNone,
            {454, 16, line("3:454", "describe", "Describe receive error")}, describeNone);
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
        timesOut(row, session, row.timeout);
        const bool setup = row.function == "setup", describe = row.function == "describe"; // whose answers still count
        EXPECT_EQ(setup || describe ? 0U : 13002U, session.take(success(row.id)));
        EXPECT_EQ(setup ? 2 : row.timeout.state, session.probe.state());

        session.inState(row.before); // the answer that came too late is none to this request
        platform.hook("counter", [&] { session.probe.setState(0); }); // read once the waiting state stands
        timesOut(row, session, row.idle);
        platform.hook("counter", nullptr);

        session.inState(row.before); // an answer that cannot be read whole is none
        platform.answer(Answer(row.id, describe ? REQUEST : SUCCESS));
        EXPECT_EQ(row.timeout.result, row.call(session));
        platform.settle(); // it may come too late
        EXPECT_EQ(row.timeout.state, session.probe.state());
    }
}

TEST_F(RendezvousTest, aRefusedRequestSaysSo)
{
    for (const Waiting &row : waitingRequests())
    {
        SCOPED_TRACE(row.function + " in " + std::to_string(row.before));
        Session session("", row.before);
        platform.answer(failure(row.id, 454));
        EXPECT_EQ(row.refusal.result, row.call(session));
        EXPECT_EQ(row.refusal.log, platform.logs('2').at(0));
        EXPECT_EQ(row.refusal.state, session.probe.state());
        EXPECT_EQ(454U, session.probe.rspResult);
        EXPECT_EQ(0U, session.probe.playFlag);
    }
    Session session("", 16);
    platform.answer(failure(AOI_MSG_RTSP_SETUP, 0)); // no success either
    EXPECT_EQ(13951U, session.main->setup("u", PROTOCOL_UDP));
}

TEST_F(RendezvousTest, anAnsweredRequestSucceedsAtAnyDepthWhateverElseIsCalled)
{
    for (const Waiting &row : waitingRequests())
    {
        for (const bool deeper : {false, true})
        {
            SCOPED_TRACE(row.function + " in " + std::to_string(row.before) + (deeper ? ", deeper" : ""));
            Session session("", row.before);
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
            platform.answer(success(row.id));
            const auto call = [&] { return row.call(session); };
            EXPECT_EQ(0U, deeper ? session.probe.withLock(call) : call());
            done = true;
            EXPECT_LT(0U, soon(meddler));
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
        EXPECT_EQ(row.timeout.state, session.probe.state());
        session.inState(row.before);
        platform.answer(success(row.id));
        EXPECT_EQ(0U, row.call(session));
    }
}

TEST_F(RendezvousTest, aTearDownHasTheLastWord)
{
    for (const bool dragged : {false, true})
    {
        Session session("", 16);
        const auto call = [&] { return dragged ? session.ex->dragPlay("1", "2", 11) : session.main->play("", ""); };
        auto play = inThread(call);
        untilWaiting(session, 1);
        session.probe.withLock([&] { // answered, but whoever waits for it cannot go on yet
            EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_PLAY)));
            session.main->tearDown();
            return 0U;
        });
        EXPECT_EQ(0U, soon(play));
        EXPECT_EQ(0U, session.probe.playFlag);
    }
}

TEST_F(RendezvousTest, strayWakeUpsEndNoWait)
{
    Session session("", 0);
    platform.answer(success(AOI_MSG_RTSP_DESCRIBE));
    ASSERT_EQ(0U, session.main->describe("u")); // leaves a result of 0 behind
    platform.settle();
    platform.clearRecord();
    auto setup = inThread([&] { return session.main->setup("u", PROTOCOL_TCP); });
    untilWaiting(session, 1);
    for (int i = 0; i < 20; ++i)
        session.probe.wakeForNothing();
    EXPECT_EQ(13002U, session.take(success(AOI_MSG_RTSP_PLAY)));
    EXPECT_EQ(13002U, session.take(failure(AOI_MSG_RTSP_PAUSE, 500)));
    EXPECT_EQ(0U, session.take(success(AOI_MSG_RTSP_DESCRIBE))); // taken in any state, but no answer to this
    EXPECT_EQ(1U, session.probe.state());
    EXPECT_EQ(std::future_status::timeout, setup.wait_for(std::chrono::milliseconds(50)));
    EXPECT_EQ(0U, session.take(failure(AOI_MSG_RTSP_SETUP, 461)));
    EXPECT_EQ(461U, soon(setup));
}

TEST_F(RendezvousTest, aLaterRequestOvertakesAndPutsBackWhatTheFirstLeft)
{
    Session session("", 17);
    const auto drag = [&] { return session.ex->dragPlay("1", "2", 11); };
    auto describe = inThread([&] { return session.main->describe("u"); });
    untilWaiting(session, 1);
    auto first = inThread(drag);
    EXPECT_EQ(13503U, soon(describe));
    untilWaiting(session, 2);
    EXPECT_EQ(13402U, session.ex->pause());
    EXPECT_EQ(13402U, session.main->play("", ""));
    auto second = inThread(drag);
    EXPECT_EQ(13955U, soon(first));
    untilWaiting(session, 3);
    EXPECT_EQ(0U, session.take(failure(AOI_MSG_RTSP_PLAY, 454)));
    EXPECT_EQ(13955U, soon(second));
    EXPECT_EQ(16U, session.probe.state()); // what the DESCRIBE left

    Session unanswered("", 0);
    auto setup = inThread([&] { return unanswered.main->setup("u", PROTOCOL_TCP); });
    untilWaiting(unanswered, 1);
    auto third = inThread([&] { return unanswered.ex->dragPlay("1", "2", 11); });
    EXPECT_EQ(13951U, soon(setup));
    untilWaiting(unanswered, 2);
    EXPECT_EQ(0U, unanswered.take(failure(AOI_MSG_RTSP_PLAY, 454)));
    EXPECT_EQ(13955U, soon(third));
    EXPECT_EQ(1U, unanswered.probe.state()); // a set-up without an answer leaves its waiting state, whatever comes
}

TEST_F(RendezvousTest, withoutCounterTheTimeOfDayServes)
{
    int reads = 0; // once a process: where this test is the first of its own, that read fails
    platform.hook("frequency", [&] { ++reads; });
    platform.fail("frequency");
    platform.fail("counter", 1, 1, 1000);
    Session session("", 16);
    platform.answer(success(AOI_MSG_RTSP_PLAY));
    EXPECT_EQ(0U, session.main->play("", "")); // waits for its answer ...
    platform.expireWaits();
    EXPECT_EQ(13954U, session.ex->pause()); // ... but not for ever
    EXPECT_GE(1, reads);
}

TEST_F(RendezvousTest, aCounterThatCannotBeReadIsNone)
{
    platform.expireWaits();
    Session session("", 17);
    EXPECT_EQ(13954U, session.ex->pause()); // the frequency is known from now on
    platform.fail("counter", 1, 1, 1000);
    platform.expireWaits();
    EXPECT_EQ(13954U, session.ex->pause());
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
        EXPECT_EQ(row.timeout.result, soon(call));
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

} // namespace
} // namespace zr::test
