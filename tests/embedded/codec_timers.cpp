#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "callback_thread.h"
#include "tw_util.h"

namespace
{

using namespace std::chrono_literals;

/// A callback that tells its test when it begins, and ends when it may.
struct Held
{
    std::promise<void> begun;
    std::shared_future<void> mayEnd;
    std::atomic<int> calls{0};
    std::atomic<bool> ended{false};
    std::atomic<bool> marked{false};

    static void callback(void *user)
    {
        auto *const self = static_cast<Held *>(user);
        if (self->calls++ > 0)
            return;
        self->marked = zr::common::onCallbackThread();
        self->begun.set_value();
        self->mayEnd.wait();
        self->ended = true;
    }
};

/// Counts; its second call throws, and the third comes all the same.
struct Counter
{
    std::atomic<int> calls{0};
    std::promise<void> third;

    static void callback(void *user)
    {
        auto *const self = static_cast<Counter *>(user);
        const int call = ++self->calls;
        if (call == 2)
            throw call;
        if (call == 3)
            self->third.set_value();
    }
};

TEST(Timers, ThatAreStoppedHaveReturnedAndAreNotCalledAgain)
{
    Held held;
    std::promise<void> release;
    held.mayEnd = release.get_future().share();
    ZR_ULONG handle = 0;
    ASSERT_EQ(TW_StartIndependTimer(1, Held::callback, &held, &handle), 0U);
    ASSERT_NE(handle, 0U);
    held.begun.get_future().wait();

    std::future<bool> stopped = std::async(std::launch::async,
                                           [&]
                                           {
                                               EXPECT_EQ(TW_StopIndependTimer(handle), 0U);
                                               return held.ended.load();
                                           });
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout) << "stop came back while the callback ran";
    release.set_value();
    EXPECT_TRUE(stopped.get());
    EXPECT_TRUE(held.marked);
    EXPECT_FALSE(zr::common::onCallbackThread());
}

struct SelfStopping
{
    std::promise<void> handleKnown;
    std::promise<ZR_ULONG> stopped;
    ZR_ULONG handle = 0;
    std::atomic<int> calls{0};

    static void callback(void *user)
    {
        auto *const self = static_cast<SelfStopping *>(user);
        ++self->calls;
        self->handleKnown.get_future().wait();
        self->stopped.set_value(TW_StopIndependTimer(self->handle));
    }
};

TEST(Timers, StopFromTheirOwnCallbackAndTheNextStillRuns)
{
    SelfStopping own;
    ASSERT_EQ(TW_StartIndependTimer(1, SelfStopping::callback, &own, &own.handle), 0U);
    own.handleKnown.set_value();
    EXPECT_EQ(own.stopped.get_future().get(), 0U);

    Counter next;
    ZR_ULONG handle = 0;
    ASSERT_EQ(TW_StartIndependTimer(1, Counter::callback, &next, &handle), 0U);
    ASSERT_EQ(next.third.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_EQ(own.calls, 1);
    EXPECT_EQ(TW_StopIndependTimer(handle), 0U);
}

// every last stop ends the thread while another thread's start may need one
TEST(Timers, StartAndStopFromManyThreadsAtOnce)
{
    const auto work = []
    {
        for (int i = 0; i < 50; ++i)
        {
            Counter counter;
            ZR_ULONG handle = 0;
            ASSERT_EQ(TW_StartIndependTimer(1, Counter::callback, &counter, &handle), 0U);
            ASSERT_EQ(i % 10 == 0 ? counter.third.get_future().wait_for(30s) : std::future_status::ready,
                      std::future_status::ready);
            ASSERT_EQ(TW_StopIndependTimer(handle), 0U);
            ASSERT_NE(TW_StopIndependTimer(handle), 0U) << "a handle was used again at once";
        }
    };
    std::thread other(work);
    work();
    other.join();
}

TEST(Timers, RefuseWhatCannotRun)
{
    ZR_ULONG handle = 0;
    EXPECT_NE(TW_StartIndependTimer(0, Counter::callback, nullptr, &handle), 0U);
    EXPECT_NE(TW_StartIndependTimer(1, nullptr, nullptr, &handle), 0U);
    EXPECT_NE(TW_StartIndependTimer(1, Counter::callback, nullptr, nullptr), 0U);
    EXPECT_NE(TW_StopIndependTimer(0), 0U);
}

/// What a callback uses, destroyed when the process ends.
struct Used
{
    Counter counter;
    std::atomic<bool> alive{true};
    ~Used()
    {
        alive = false;
        std::this_thread::sleep_for(20ms); // a callback that still begins shall have the time to
    }
    static void callback(void *user)
    {
        auto *const self = static_cast<Used *>(user);
        if (!self->alive)
            std::_Exit(1);
        Counter::callback(&self->counter);
    }
};

// a host may end with a timer running
TEST(TimersAtExit, NeitherHoldTheProcessNorTouchWhatIsDestroyed)
{
    const auto endWithARunningTimer = []
    {
        static Used used;
        ZR_ULONG handle = 0;
        if (TW_StartIndependTimer(1, Used::callback, &used, &handle) != 0)
            std::_Exit(1);
        used.counter.third.get_future().wait();
        std::exit(7);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(endWithARunningTimer(), testing::ExitedWithCode(7), "");
}

} // namespace
