#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cxxabi.h>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include <ace/Event_Handler.h>
#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Sig_Handler.h>
#include <ace/Thread_Manager.h>
#include <ace/Timer_Heap_T.h>
#include <ace/Timer_Queue_Adapters.h>

#include "callback_thread.h"
#include "platform_log.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG codeFailed = 1; ///< no thread or memory; or no such timer
constexpr ZR_ULONG codeInvalid = 2;

// monotonic: a wall clock that is set must neither stop the keep-alives nor send them all at once
using TimerHeap = ACE_Timer_Heap_T<ACE_Event_Handler *, ACE_Event_Handler_Handle_Timeout_Upcall,
                                   ACE_SYNCH_RECURSIVE_MUTEX, ACE_Monotonic_Time_Policy>;

/// The heap and the thread that serves it.
class TimerThread
{
public:
    TimerThread()
        : m_adapter(&m_threads)
    {
    }
    ~TimerThread()
    {
        m_adapter.deactivate();
        m_adapter.wait();
    }
    TimerThread(const TimerThread &) = delete;
    TimerThread &operator=(const TimerThread &) = delete;

    bool begin()
    {
        const ACE_Sig_Guard blocked; // signals are for the host's own threads
        return m_adapter.activate() == 0;
    }

    /// @return the heap's own number of the timer, -1 when it has no memory
    long schedule(ACE_Event_Handler *handler, ZR_ULONG handle, ZR_ULONG periodMs)
    {
        const ACE_Time_Value period(static_cast<time_t>(periodMs / 1000),
                                    static_cast<suseconds_t>(periodMs % 1000) * 1000);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the heap carries a pointer for its user, and the handle is in it
        return m_adapter.schedule(handler, reinterpret_cast<const void *>(static_cast<uintptr_t>(handle)),
                                  m_adapter.timer_queue()->gettimeofday() + period, period);
    }

    void cancel(long number) { m_adapter.cancel(number); }

private:
    ACE_Thread_Manager m_threads; // not the process's: that one waits for its threads when the process ends
    ACE_Thread_Timer_Queue_Adapter<TimerHeap> m_adapter;
};

thread_local bool onTimerThread = false;

/// All timers. One handler serves them, and a timer that was stopped is no longer found by its handle: ACE's cancel
/// does not wait for a callback that runs, nor for one about to.
///
/// The thread begins with the first timer and ends with the last one, unless that is stopped on the thread itself:
/// then it stays, without work, for the next.
class Timers : public ACE_Event_Handler
{
public:
    ZR_ULONG start(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user, ZR_ULONG &handle)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_thread == nullptr)
        {
            auto thread = std::make_unique<TimerThread>();
            if (!thread->begin())
                return codeFailed;
            m_thread = std::move(thread);
        }
        do
            ++m_lastHandle;
        while (m_lastHandle == 0 || m_timers.count(m_lastHandle) != 0);
        const auto timer = m_timers.insert({m_lastHandle, {-1, callback, user}}).first;
        timer->second.number = m_thread->schedule(this, m_lastHandle, periodMs);
        if (timer->second.number < 0)
        {
            m_timers.erase(timer);
            return codeFailed;
        }
        handle = m_lastHandle;
        return 0;
    }

    ZR_ULONG stop(ZR_ULONG handle)
    {
        std::unique_ptr<TimerThread> ending; // joined after the lock is released
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto found = m_timers.find(handle);
        if (found == m_timers.end())
            return codeFailed;
        m_thread->cancel(found->second.number);
        m_timers.erase(found);
        if (onTimerThread)
            return 0;
        m_returned.wait(lock, [&] { return m_running != handle; });
        if (m_timers.empty() && m_running == 0)
            ending = std::move(m_thread);
        lock.unlock();
        return 0;
    }

    /// No callback begins any more, for what it would use is about to be destroyed. One that runs gets a moment, but no
    /// more: the thread that ends the process may hold what it waits for.
    void processEnds()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_processEnds = true;
        if (!onTimerThread)
            m_returned.wait_for(lock, std::chrono::seconds(1), [this] { return m_running == 0; });
    }

    int handle_timeout(const ACE_Time_Value & /*now*/, const void *act) override
    {
        const auto handle = static_cast<ZR_ULONG>(reinterpret_cast<uintptr_t>(act));
        Timer timer;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            const auto found = m_timers.find(handle);
            if (found == m_timers.end() || m_processEnds)
                return 0;
            timer = found->second;
            m_running = handle;
        }
        const Returned returned{*this};
        call(timer);
        return 0;
    }

private:
    struct Timer
    {
        long number = -1; ///< the heap's
        TW_TIMER_CALLBACK callback = nullptr;
        void *user = nullptr;
    };

    /// Ends the running mark, however the callback ended.
    struct Returned
    {
        Timers &timers;
        ~Returned()
        {
            const std::lock_guard<std::mutex> lock(timers.m_mutex);
            timers.m_running = 0;
            timers.m_returned.notify_all();
        }
    };

    static void call(const Timer &timer)
    {
        const zr::common::CallbackThreadMark mark;
        onTimerThread = true;
        try
        {
            timer.callback(timer.user);
        }
        catch (abi::__forced_unwind &)
        {
            throw;
        }
        catch (...)
        {
            ZR_PLATFORM_LOG(ERROR, codeFailed, Util, "[TW_StartIndependTimer] a timer's callback threw an exception");
        }
    }

    std::mutex m_mutex; ///< guards all below; taken before ACE's own locks; no callback runs under it
    std::condition_variable m_returned;
    std::map<ZR_ULONG, Timer> m_timers;
    ZR_ULONG m_lastHandle = 0;
    ZR_ULONG m_running = 0; ///< the timer whose callback runs, 0: none
    bool m_processEnds = false;
    std::unique_ptr<TimerThread> m_thread;
};

Timers &timers()
{
    static Timers &instance = *new Timers; // never freed: a host may end its process with timers running
    [[maybe_unused]] static const int registered = std::atexit([] { timers().processEnds(); });
    return instance;
}

} // namespace

ZR_ULONG TW_StartIndependTimer(ZR_ULONG ulPeriodMs, TW_TIMER_CALLBACK pfnCallback, void *pvUser, ZR_ULONG *pulHandle)
{
    if (ulPeriodMs == 0 || pfnCallback == nullptr || pulHandle == nullptr)
        return codeInvalid;
    ZR_ULONG result = codeFailed;
    try
    {
        result = timers().start(ulPeriodMs, pfnCallback, pvUser, *pulHandle);
    }
    catch (const std::bad_alloc &)
    {
        result = codeFailed;
    }
    if (result != 0)
        ZR_PLATFORM_LOG(ERROR, result, Util, "[TW_StartIndependTimer] no thread or memory for a timer of %u ms",
                        ulPeriodMs);
    return result;
}

ZR_ULONG TW_StopIndependTimer(ZR_ULONG ulHandle)
{
    const ZR_ULONG result = timers().stop(ulHandle);
    if (result != 0)
        ZR_PLATFORM_LOG(WARNING, result, Util, "[TW_StopIndependTimer] there is no timer %u", ulHandle);
    return result;
}
