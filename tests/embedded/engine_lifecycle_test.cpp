#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>

#include "callback_thread.h"
#include "dispatcher.h"
#include "engine_fixture.h"
#include "io_loop.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::SizeIs;
using testing::StartsWith;

using EngineLifecycle = EngineTest;

TEST_F(EngineLifecycle, RegistersEachIdentifierOnce)
{
    Recorder recorder;
    EXPECT_NE(engine().registerAOIMsgProc(0, &recorder), 0U);
    EXPECT_NE(engine().registerAOIMsgProc(0xFFFFFFFF, &recorder), 0U);
    EXPECT_NE(engine().registerAOIMsgProc(1, nullptr), 0U);
    for (int round = 0; round < 2; ++round)
    {
        EXPECT_EQ(engine().registerAOIMsgProc(1, &recorder), 0U);
        EXPECT_NE(engine().registerAOIMsgProc(1, &recorder), 0U);
        EXPECT_EQ(engine().unregisterAOIMsgProc(1), 0U);
        EXPECT_NE(engine().unregisterAOIMsgProc(1), 0U);
    }
}

/// From outside, unregistering returns after the running call, also one that blocks, and also when it was unregistered
/// before on a callback thread, which does not wait. Others go on meanwhile.
TEST_F(EngineLifecycle, UnregisteringWaitsForTheRunningCall)
{
    for (const bool again : {false, true})
    {
        ScriptedServer server({{{"DESCRIBE", {describeAnswer}}}});
        ScriptedServer second({{{"DESCRIBE", {describeAnswer}}}});
        std::promise<void> entered;
        std::promise<void> leave;
        Client client(engine(), 3, server);
        client.recorder.inside = [&] {
            entered.set_value();
            leave.get_future().wait();
        };
        ASSERT_EQ(client.send(AOI_MSG_RTSP_DESCRIBE), 0U);
        ASSERT_EQ(entered.get_future().wait_for(patience), std::future_status::ready);
        const auto unregister = [&](bool onCallbackThread) {
            const auto mark = onCallbackThread ? std::make_unique<common::CallbackThreadMark>() : nullptr;
            return client.unregister();
        };
        if (again)
        {
            EXPECT_EQ(std::async(std::launch::async, unregister, true).get(), 0U);
        }
        auto returned = std::async(std::launch::async, unregister, false);
        Client neighbour(engine(), 4, second);
        EXPECT_EQ(neighbour.ask(AOI_MSG_RTSP_DESCRIBE).kind, 1U);
        EXPECT_EQ(returned.wait_for(30ms), std::future_status::timeout);
        leave.set_value();
        EXPECT_EQ(returned.get() != 0, again);
        EXPECT_THAT(client.recorder.messages(1), SizeIs(1));
    }
}

/// From inside it does not wait, and nothing begins after it.
TEST_F(EngineLifecycle, UnregisteringFromInsideReturns)
{
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}, {"SETUP", {setupAnswer}}}});
    Client client(engine(), 3, server);
    std::promise<void> bothSent;
    client.recorder.inside = [&] {
        bothSent.get_future().wait();
        EXPECT_TRUE(common::onCallbackThread());
        EXPECT_EQ(client.unregister(), 0U);
    };
    ASSERT_EQ(client.send(AOI_MSG_RTSP_DESCRIBE), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_SETUP), 0U);
    bothSent.set_value();
    ASSERT_TRUE(server.ended(1));
    EXPECT_THAT(client.recorder.messages(1), SizeIs(1));
    EXPECT_THAT(client.recorder.messages(2, 30ms), SizeIs(1));
}

/// More observers block than there are threads at first: those behind them are served all the same.
TEST_F(EngineLifecycle, BlockedObserversStopOnlyThemselves)
{
    constexpr ZR_ULONG blocked = 24;
    Notes<ZR_ULONG> entered;
    std::promise<void> leave;
    const std::shared_future<void> left = leave.get_future();
    std::vector<std::unique_ptr<ScriptedServer>> servers;
    std::vector<std::unique_ptr<Client>> clients;
    for (ZR_ULONG number = 0; number <= blocked; ++number)
    {
        servers.push_back(std::make_unique<ScriptedServer>(std::vector<Script>{{{"DESCRIBE", {describeAnswer}}}}));
        clients.push_back(std::make_unique<Client>(engine(), 100 + number, *servers.back()));
        if (number < blocked)
            clients.back()->recorder.inside = [&entered, left, number] {
                entered.add(number);
                left.wait();
            };
        ASSERT_EQ(clients.back()->send(AOI_MSG_RTSP_DESCRIBE), 0U);
    }
    EXPECT_THAT(entered(blocked), SizeIs(blocked)); // all of them at once
    EXPECT_THAT(clients.back()->recorder.messages(1), SizeIs(1));
    leave.set_value();
    for (const auto &client : clients)
        EXPECT_THAT(client->recorder.messages(1), SizeIs(1));
}

/// Whatever is outstanding, a TEARDOWN that was accepted reaches the server.
TEST_F(EngineLifecycle, TeardownOvertakesWhatIsOutstanding)
{
    ScriptedServer silent({Script{{"DESCRIBE", {}}}});
    Client waiting(engine(), 4, silent);
    ASSERT_EQ(waiting.send(AOI_MSG_RTSP_DESCRIBE), 0U);
    for (const bool shutDown : {false, true})
    {
        ScriptedServer server({{{"SETUP", {setupAnswer}}, {"PLAY", {}}, {"TEARDOWN", {ok()}}}});
        Client client(engine(), 3, server);
        client.ask(AOI_MSG_RTSP_SETUP);
        for (const ZR_ULONG request : {AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE, AOI_MSG_RTSP_TEARDOWN})
            ASSERT_EQ(client.send(request), 0U);
        if (shutDown)
            engine().shutDown();
        EXPECT_EQ(client.unregister() != 0, shutDown);
        EXPECT_TRUE(server.ended(1));
        const auto seen = server.requests(3);
        ASSERT_THAT(seen, SizeIs(3));
        EXPECT_THAT(seen[2], StartsWith("TEARDOWN "));
        EXPECT_THAT(client.recorder.messages(2, 0ms), SizeIs(1));
    }
    EXPECT_NE(waiting.send(AOI_MSG_RTSP_DESCRIBE), 0U);
}

/// Registrations that come and go while answers are under way: the sanitizers look on.
TEST_F(EngineLifecycle, SurvivesRaces)
{
    constexpr int rounds = 30;
    dispatch::Engine &shared = engine();
    std::vector<std::thread> threads;
    for (ZR_ULONG id = 10; id < 14; ++id)
    {
        threads.emplace_back([&shared, id] {
            for (int round = 0; round < rounds; ++round)
            {
                ScriptedServer server({{{"", {describeAnswer + describeAnswer}}, {"", {setupAnswer}}}});
                Client client(shared, id, server);
                client.send(AOI_MSG_RTSP_DESCRIBE);
                client.send(AOI_MSG_RTSP_SETUP);
                client.recorder.messages(static_cast<size_t>(round % 3));
                client.send(AOI_MSG_RTSP_TEARDOWN);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

TEST(Dispatcher, InitAndDestroyNestAndComeAgain)
{
    for (int round = 0; round < 2; ++round)
    {
        Recorder recorder;
        ASSERT_EQ(ZR_MSGDISP_Init(0, 0, nullptr, nullptr), 0U);
        ASSERT_EQ(ZR_MSGDISP_Init(0, 0, nullptr, nullptr), 0U);
        CIAOIMsgDisp *const dispatcher = ZR_MSGDISP_GetAOIMsgDispInter();
        ASSERT_NE(dispatcher, nullptr);
        ZR_MSGDISP_Destroy();
        EXPECT_EQ(dispatcher->registerAOIMsgProc(1, &recorder), 0U);
        ZR_MSGDISP_Destroy();
        ZR_MSGDISP_Destroy(); // one too many is none
        EXPECT_NE(dispatcher->registerAOIMsgProc(2, &recorder), 0U);
        EXPECT_NE(dispatcher->unregisterAOIMsgProc(1), 0U);
        EXPECT_NE(dispatcher->sendAOIMsg(nullptr), 0U);
    }
    EXPECT_NE(ZR_MSGDISP_Init(0, 0, "a\r\nb: c", nullptr), 0U);
}

TEST(IoLoop, EndsWhileItIsNotified)
{
    for (int i = 0; i < 20; ++i)
    {
        dispatch::IoLoop loop;
        ASSERT_TRUE(loop.start());
        std::function<void()> again;
        again = [&] { loop.post(again); }; // whenever it ends, one more is announced
        loop.post(again);
        loop.stop();
    }
}

TEST(IoLoop, RunsNothingOnceItHasStopped)
{
    for (int i = 0; i < 1000; ++i)
    {
        dispatch::IoLoop loop;
        ASSERT_TRUE(loop.start());
        std::atomic<bool> stopped{false};
        std::atomic<bool> late{false};
        std::thread caller([&] {
            while (loop.run([&] { late = late || stopped; }))
            {
            }
        });
        loop.stop();
        stopped = true;
        caller.join();
        ASSERT_FALSE(late);
    }
}

/// Not inlined: a frame that is left by cancellation keeps its locals marked as out of scope, and AddressSanitizer then
/// takes the thread's own end for their use.
[[gnu::noinline]] void postFulfilling(dispatch::IoLoop &loop, std::promise<void> &promise)
{
    loop.post([&promise] { promise.set_value(); });
}

TEST(IoLoop, IsWokenAlsoByACallerThatIsCancelled)
{
    dispatch::IoLoop loop;
    ASSERT_TRUE(loop.start());
    std::promise<void> first, second;
    std::thread([&] {
        pthread_cancel(pthread_self());
        postFulfilling(loop, first);
        pthread_testcancel();
    }).join();
    EXPECT_EQ(first.get_future().wait_for(patience), std::future_status::ready);
    postFulfilling(loop, second);
    EXPECT_EQ(second.get_future().wait_for(patience), std::future_status::ready);
}

TEST(Dispatcher, MayBeLeftRunningAtTheEnd)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            ZR_MSGDISP_Init(0, 0, nullptr, nullptr);
            static Client *client = nullptr; // as a host's object: still registered, its request unanswered
            client = new Client(dispatch::Dispatcher::instance(), 1, "127.0.0.1", silentPort(false));
            client->send(AOI_MSG_RTSP_DESCRIBE);
            std::exit(0); // NOLINT(concurrency-mt-unsafe)
        },
        testing::ExitedWithCode(0), "");
}

} // namespace zr::test
