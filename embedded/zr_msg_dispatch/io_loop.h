/// @file
/// The I/O thread: a reactor, jobs from other threads, one-shot timers on the monotonic clock.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

namespace zr::dispatch {

using Job = std::function<void()>;

/// The way into the I/O thread. It may outlive its loop, so whoever posts keeps a shared pointer to it and needs to
/// know nothing of the loop's life.
class JobQueue
{
public:
    /// Runs a job on the I/O thread, after those posted before. Any thread; never blocks.
    /// @return false when the loop has ended: the job is dropped
    bool post(Job job);

private:
    friend class IoLoop;
    void open(std::function<bool()> wake);
    void close();
    std::deque<Job> take();

    /// Guards all below. The wake-up is called under it, so that after close nobody touches the reactor.
    std::mutex m_mutex;
    std::deque<Job> m_jobs;
    std::function<bool()> m_wake; ///< none: closed
    bool m_woken = false;         ///< for the jobs that wait
};

class IoLoop
{
public:
    IoLoop();
    ~IoLoop();
    IoLoop(const IoLoop &) = delete;
    IoLoop &operator=(const IoLoop &) = delete;

    /// Starts the thread. @return false when the system gives no reactor or thread; the log says why
    bool start();
    /// Ends the thread and waits for it; jobs that it did not reach are dropped. Not on the I/O thread.
    void stop();
    /// Lets the thread run out without waiting for its jobs, at most that long: the process is ending.
    void abandon(std::chrono::milliseconds patience);

    const std::shared_ptr<JobQueue> &jobs() const { return m_jobs; }
    bool post(Job job) { return m_jobs->post(std::move(job)); }
    /// I/O thread only, as is all that is registered with it.
    ACE_Reactor &reactor() { return *m_reactor; }

private:
    class Waker;
    void run();

    const std::shared_ptr<JobQueue> m_jobs = std::make_shared<JobQueue>();
    std::unique_ptr<ACE_Timer_Queue> m_timers; ///< outlives the reactor, which does not own it
    std::unique_ptr<Waker> m_waker;            ///< likewise: the reactor's end looks at notifications that wait
    std::unique_ptr<ACE_Reactor> m_reactor;
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_ended{true};
};

/// A one-shot timer. I/O thread only (destroyed there, or after the loop has stopped); its owner must not be destroyed
/// from inside its callback.
class LoopTimer : private ACE_Event_Handler
{
public:
    LoopTimer(IoLoop &loop, std::function<void()> callback);
    ~LoopTimer() override;

    /// Starts it, or starts it anew.
    void start(std::chrono::milliseconds delay);
    void stop();
    bool armed() const { return m_id != -1; }

private:
    int handle_timeout(const ACE_Time_Value &now, const void *act) override;

    IoLoop &m_loop;
    const std::function<void()> m_callback;
    long m_id = -1;
};

} // namespace zr::dispatch
