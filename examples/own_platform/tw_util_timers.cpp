// The base utility library, first half: periodic timers.

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "callback_thread.h"
#include "message.h"
#include "tw_util.h"

namespace {

/// A timer and its thread, which keeps it alive as long as it runs.
struct Timer
{
    std::mutex mutex; ///< guards the mark; no callback runs under it
    std::condition_variable changed;
    bool stopped = false;
    std::thread thread;

    void run(std::chrono::milliseconds period, TW_TIMER_CALLBACK callback, void *user)
    {
        own::onCallbackThread = true;
        auto next = std::chrono::steady_clock::now() + period;
        std::unique_lock<std::mutex> lock(mutex);
        while (!changed.wait_until(lock, next, [this] { return stopped; }))
        {
            lock.unlock();
            callback(user); // the plug-in's, which lets no exception out
            lock.lock();
            next += period;
        }
    }
};

struct Timers
{
    std::mutex mutex; ///< guards all below
    std::map<ZR_ULONG, std::shared_ptr<Timer>> byHandle;
    ZR_ULONG last = 0;
};

Timers &timers()
{
    static Timers &instance = *new Timers; // never freed: a host may end its process with timers running
    return instance;
}

} // namespace

// Called twice by init, on its host's thread: every 800 ms and every 30 s. The clock must be monotonic, or setting the
// time of day stops the keep-alives. The callbacks may take their time (they walk all sessions); one timer's must never
// overlap. It must not be called on the host's thread. A failure leaves the handle as it was: the sessions then have no
// keep-alive; init succeeds all the same.
ZR_ULONG TW_StartIndependTimer(ZR_ULONG ulPeriodMs, TW_TIMER_CALLBACK pfnCallback, void *pvUser, ZR_ULONG *pulHandle)
{
    if (ulPeriodMs == 0 || pfnCallback == nullptr || pulHandle == nullptr)
        return own::invalid;
    Timers &all = timers();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto timer = std::make_shared<Timer>();
    try
    {
        timer->thread = std::thread([=] { timer->run(std::chrono::milliseconds(ulPeriodMs), pfnCallback, pvUser); });
    }
    catch (const std::system_error &)
    {
        return own::failed;
    }
    all.byHandle[++all.last] = timer;
    *pulHandle = all.last;
    return 0;
}

// Called by destroy, on its host's thread, for each timer. When it returns, the callback does not run and never will:
// the host may unload the plug-in. On the timer's own thread do not wait, for you would wait for yourself. A failure is
// logged.
ZR_ULONG TW_StopIndependTimer(ZR_ULONG ulHandle)
{
    std::unique_lock<std::mutex> lock(timers().mutex);
    const auto found = timers().byHandle.extract(ulHandle);
    lock.unlock();
    if (found.empty())
        return own::failed;
    Timer &timer = *found.mapped();
    lock = std::unique_lock<std::mutex>(timer.mutex);
    timer.stopped = true;
    timer.changed.notify_all();
    lock.unlock();
    if (timer.thread.get_id() == std::this_thread::get_id())
        timer.thread.detach();
    else
        timer.thread.join();
    return 0;
}
