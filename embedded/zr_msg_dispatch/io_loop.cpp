#include "io_loop.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <sys/resource.h>

#include <ace/Dev_Poll_Reactor.h>
#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap_T.h>

#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

// the reactor's own timers would follow the wall clock
using MonotonicHeap = ACE_Timer_Heap_T<ACE_Event_Handler *, ACE_Event_Handler_Handle_Timeout_Upcall,
                                       ACE_SYNCH_RECURSIVE_MUTEX, ACE_Monotonic_Time_Policy>;

constexpr size_t leastHandles = 1024;
constexpr size_t mostHandles = 65536;
constexpr unsigned toleratedFailures = 100;

/// The reactor indexes its handlers by descriptor, so it must hold the highest that the process may get.
size_t handleTableSize()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return leastHandles;
    return std::clamp<size_t>(static_cast<size_t>(limit.rlim_cur), leastHandles, mostHandles);
}

/// What cannot be done for want of memory costs one session's request, not the thread.
template <typename Work>
void guarded(const Work &work)
{
    try
    {
        work();
    }
    catch (const std::exception &error)
    {
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O thread goes on after: %s", error.what());
    }
}

} // namespace

bool JobQueue::post(Job job)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_wake)
        return false;
    m_jobs.push_back(std::move(job));
    if (!m_woken)
        m_woken = m_wake();
    return true;
}

void JobQueue::open(std::function<bool()> wake)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = std::move(wake);
}

void JobQueue::close()
{
    std::deque<Job> dropped; // destroyed after the lock: a job may own much
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = nullptr;
    dropped.swap(m_jobs);
}

std::deque<Job> JobQueue::take()
{
    std::deque<Job> batch;
    const std::lock_guard<std::mutex> lock(m_mutex);
    batch.swap(m_jobs);
    m_woken = false;
    return batch;
}

/// Runs the jobs when the reactor was notified.
class IoLoop::Waker : public ACE_Event_Handler
{
public:
    explicit Waker(JobQueue &jobs)
        : m_jobs(jobs)
    {
    }

    int handle_exception(ACE_HANDLE) override
    {
        for (const Job &job : m_jobs.take())
            guarded(job);
        return 0;
    }

private:
    JobQueue &m_jobs;
};

IoLoop::IoLoop() = default;

IoLoop::~IoLoop()
{
    stop();
}

bool IoLoop::start()
{
    auto timers = std::make_unique<MonotonicHeap>();
    constexpr bool restartAfterSignals = true;
    constexpr int keepNotifyPipe = 0;
    constexpr int leaveSignalsAlone = 0;
    auto implementation = std::make_unique<ACE_Dev_Poll_Reactor>(
        handleTableSize(), restartAfterSignals, nullptr, timers.get(), keepNotifyPipe, nullptr, leaveSignalsAlone);
    if (!implementation->initialized())
    {
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O thread gets no reactor: %s",
                        std::generic_category().message(errno).c_str());
        return false;
    }
    m_timers = std::move(timers);
    constexpr bool owned = true;
    m_reactor = std::make_unique<ACE_Reactor>(implementation.release(), owned);
    m_waker = std::make_unique<Waker>(*m_jobs);
    m_jobs->open([this] { return m_reactor->notify(m_waker.get()) == 0; });
    try
    {
        m_ended = false;
        m_thread = quietThread([this] { run(); });
    }
    catch (const std::system_error &error)
    {
        m_ended = true;
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "no I/O thread: %s", error.what());
        return false;
    }
    return true;
}

void IoLoop::run()
{
    unsigned failures = 0;
    while (!m_stopping)
    {
        int handled = 0;
        guarded([this, &handled] { handled = m_reactor->handle_events(); });
        if (handled >= 0)
        {
            failures = 0;
        }
        else if (++failures == toleratedFailures)
        {
            ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O thread ends, its reactor fails: %s",
                            std::generic_category().message(errno).c_str());
            break;
        }
    }
    m_ended = true;
}

void IoLoop::stop()
{
    if (m_thread.joinable())
    {
        post([this] { m_stopping = true; });
        m_thread.join();
    }
    m_jobs->close();
}

void IoLoop::abandon(std::chrono::milliseconds patience)
{
    constexpr std::chrono::milliseconds step{2};
    post([this] { m_stopping = true; });
    for (auto waited = std::chrono::milliseconds::zero(); waited < patience && !m_ended; waited += step)
        std::this_thread::sleep_for(step);
    if (m_ended && m_thread.joinable())
        m_thread.join();
    m_jobs->close();
}

LoopTimer::LoopTimer(IoLoop &loop, std::function<void()> callback)
    : m_loop(loop)
    , m_callback(std::move(callback))
{
}

LoopTimer::~LoopTimer()
{
    stop();
}

void LoopTimer::start(std::chrono::milliseconds delay)
{
    stop();
    const auto whole = std::max(delay, std::chrono::milliseconds::zero()).count();
    m_id = m_loop.reactor().schedule_timer(this, nullptr,
                                           ACE_Time_Value(whole / 1000, static_cast<suseconds_t>(whole % 1000 * 1000)));
    if (m_id == -1)
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "no timer: %s",
                        std::generic_category().message(errno).c_str());
}

void LoopTimer::stop()
{
    if (m_id != -1)
        m_loop.reactor().cancel_timer(m_id);
    m_id = -1;
}

int LoopTimer::handle_timeout(const ACE_Time_Value &, const void *)
{
    m_id = -1;
    m_callback();
    return 0;
}

} // namespace zr::dispatch
