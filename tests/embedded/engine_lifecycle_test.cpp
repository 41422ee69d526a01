#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "callback_thread.h"
#include "dispatcher.h"
#include "engine_fixture.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::SizeIs;
using testing::StartsWith;

class EngineLifecycle : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(engine.start()); }

    dispatch::Engine engine{quickSettings()};
};

/// Something that one thread waits for and another lets go.
class Latch
{
public:
    void release()
    {
        m_signal.change([this] { m_open = true; });
    }
    bool wait(std::chrono::milliseconds limit = patience)
    {
        return m_signal.wait([this] { return m_open; }, limit);
    }

private:
    Signal m_signal;
    bool m_open = false;
};

TEST_F(EngineLifecycle, RegistersEachIdentifierOnce)
{
    Recorder recorder;
    EXPECT_NE(engine.registerAOIMsgProc(0, &recorder), 0U);
    EXPECT_NE(engine.registerAOIMsgProc(0xFFFFFFFF, &recorder), 0U);
    EXPECT_NE(engine.registerAOIMsgProc(1, nullptr), 0U);
    EXPECT_EQ(engine.registerAOIMsgProc(1, &recorder), 0U);
    EXPECT_NE(engine.registerAOIMsgProc(1, &recorder), 0U);
    EXPECT_EQ(engine.unregisterAOIMsgProc(1), 0U);
    EXPECT_NE(engine.unregisterAOIMsgProc(1), 0U);
    EXPECT_EQ(engine.registerAOIMsgProc(1, &recorder), 0U);
}

/// From outside, unregistering returns after the running call, also one that blocks; others go on meanwhile.
TEST_F(EngineLifecycle, UnregisteringWaitsForTheRunningCall)
{
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}}});
    ScriptedServer second({{{"DESCRIBE", {describeAnswer}}}});
    Latch entered;
    Latch leave;
    std::atomic<bool> returned{false};
    Client client(engine, 3, "127.0.0.1", server.port());
    client.recorder.inside = [&] {
        entered.release();
        leave.wait();
    };
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_TRUE(entered.wait());
    std::thread other([&] {
        client.unregister();
        returned = true;
    });
    Client neighbour(engine, 4, "127.0.0.1", second.port());
    ASSERT_EQ(neighbour.describe(), 0U);
    EXPECT_THAT(neighbour.recorder.messages(1), SizeIs(1));
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(returned);
    leave.release();
    other.join();
    EXPECT_THAT(client.recorder.messages(1), SizeIs(1));
}

/// From inside it does not wait, and nothing begins after it.
TEST_F(EngineLifecycle, UnregisteringFromInsideReturns)
{
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}, {"SETUP", {setupAnswer}}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    Latch done;
    client.recorder.inside = [&] {
        EXPECT_TRUE(common::onCallbackThread());
        EXPECT_EQ(client.unregister(), 0U);
        done.release();
    };
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_EQ(client.setup(), 0U);
    ASSERT_TRUE(done.wait());
    ASSERT_TRUE(server.ended(1));
    EXPECT_THAT(client.recorder.messages(2, 30ms), SizeIs(1));
}

/// More observers block than there are threads at first: those behind them are served all the same.
TEST_F(EngineLifecycle, BlockedObserversStopOnlyThemselves)
{
    constexpr ZR_ULONG blocked = 8;
    Latch leave;
    std::vector<std::unique_ptr<ScriptedServer>> servers;
    std::vector<std::unique_ptr<Client>> clients;
    for (ZR_ULONG number = 0; number <= blocked; ++number)
    {
        servers.push_back(std::make_unique<ScriptedServer>(std::vector<Script>{{{"DESCRIBE", {describeAnswer}}}}));
        clients.push_back(std::make_unique<Client>(engine, 100 + number, "127.0.0.1", servers.back()->port()));
        if (number < blocked)
            clients.back()->recorder.inside = [&leave] { leave.wait(); };
        ASSERT_EQ(clients.back()->describe(), 0U);
    }
    EXPECT_THAT(clients.back()->recorder.messages(1), SizeIs(1));
    leave.release();
    for (const auto &client : clients)
        EXPECT_THAT(client->recorder.messages(1), SizeIs(1));
}

/// Whatever is outstanding, a TEARDOWN that was accepted reaches the server.
TEST_F(EngineLifecycle, TeardownOvertakesWhatIsOutstanding)
{
    ScriptedServer server({{{"SETUP", {setupAnswer}}, {"PLAY", {}}, {"TEARDOWN", {}, After::Close}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    ASSERT_EQ(client.setup(), 0U);
    ASSERT_THAT(client.recorder.messages(1), SizeIs(1));
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    ASSERT_EQ(client.unregister(), 0U);
    EXPECT_TRUE(server.ended(1));
    const auto seen = server.requests(3);
    ASSERT_THAT(seen, SizeIs(3));
    EXPECT_THAT(seen[2], StartsWith("TEARDOWN "));
    EXPECT_THAT(client.recorder.messages(2, 0ms), SizeIs(1));
}

/// Registrations that come and go while answers are under way: the sanitizers look on.
TEST_F(EngineLifecycle, SurvivesRaces)
{
    constexpr int rounds = 30;
    std::vector<std::thread> threads;
    for (ZR_ULONG id = 10; id < 14; ++id)
    {
        threads.emplace_back([this, id] {
            for (int round = 0; round < rounds; ++round)
            {
                ScriptedServer server({{{"", {describeAnswer + describeAnswer}}, {"", {setupAnswer}}}});
                Client client(engine, id, "127.0.0.1", server.port());
                client.describe();
                client.setup();
                if (round % 3 != 0)
                    client.recorder.messages(static_cast<size_t>(round % 3));
                client.send(AOI_MSG_RTSP_TEARDOWN);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(EngineLifecycle, ShutDownSendsTheTeardownsAndRefusesAfterwards)
{
    ScriptedServer server({{{"SETUP", {setupAnswer}}, {"PLAY", {}}, {"TEARDOWN", {ok()}}}});
    ScriptedServer silent({Script{{"DESCRIBE", {}}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    Client waiting(engine, 4, "127.0.0.1", silent.port());
    ASSERT_EQ(waiting.describe(), 0U);
    ASSERT_EQ(client.setup(), 0U);
    ASSERT_THAT(client.recorder.messages(1), SizeIs(1));
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    engine.shutDown();
    EXPECT_TRUE(server.ended(1));
    EXPECT_THAT(server.requests(3).back(), StartsWith("TEARDOWN "));
    EXPECT_NE(client.describe(), 0U);
    EXPECT_NE(client.unregister(), 0U);
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

TEST(Dispatcher, MayBeLeftRunningAtTheEnd)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            dispatch::Dispatcher &dispatcher = dispatch::Dispatcher::instance();
            ZR_MSGDISP_Init(0, 0, nullptr, nullptr);
            static Client *client = nullptr; // as a host's object: still registered, its request unanswered
            client = new Client(dispatcher, 1, "127.0.0.1", silentPort(false));
            client->describe();
            std::exit(0); // NOLINT(concurrency-mt-unsafe)
        },
        testing::ExitedWithCode(0), "");
}

} // namespace zr::test
