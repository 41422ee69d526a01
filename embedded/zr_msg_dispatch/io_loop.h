/// @file
/// The I/O loop: descriptors, jobs from other threads, one-shot timers on the monotonic clock.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/epoll.h>

namespace zr::dispatch {

using Job = std::function<void()>;
class LoopTimer;

/// The way into the loop. It may outlive its loop, so whoever posts keeps a shared pointer to it and needs to know
/// nothing of the loop's life.
class JobQueue
{
public:
    /// Runs a job on the loop's turn, after those posted before. Any thread; never blocks.
    /// @return false when the loop has ended: the job is dropped
    bool post(Job job);

private:
    friend class IoLoop;
    void open(std::function<void()> wake);
    void close();
    bool isOpenAndEmpty();
    void take(std::vector<Job> &batch);
    bool sleepUnlessJobs();
    void noteAwake();

    /// Guards all below. The wake-up is called under it, so that after close nobody touches the loop.
    std::mutex m_mutex;
    std::vector<Job> m_jobs;
    std::function<void()> m_wake; ///< none: closed
    bool m_sleeping = false;      ///< the loop looks at its jobs no more before it is woken
};

/// Everything that is registered with the loop belongs to whoever has the *turn*: the loop's thread while it acts on
/// what happened, or a caller of run(). One thread at a time has it, and nobody waits or calls out of the library with
/// it, but into media ports.
///
/// Between two turns the loop's thread makes the calls that answers lead to. One of them may take its time: then
/// replaceThread() gives the loop another thread, and the one that is late ends when it comes back.
class IoLoop
{
public:
    /// Whose descriptor is watched. Called on the turn.
    class Watcher
    {
    public:
        /// @param events  EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR
        virtual void happened(uint32_t events) = 0;

    protected:
        ~Watcher() = default;
    };

    IoLoop();
    ~IoLoop();
    IoLoop(const IoLoop &) = delete;
    IoLoop &operator=(const IoLoop &) = delete;

    /// Starts the thread. @return false when the system gives no descriptor or thread; the log says why
    /// @param betweenTurns  called on the loop's thread after each turn, and without it
    bool start(std::function<void()> betweenTurns = {});
    /// Ends the thread, and those that were replaced, and waits for them and for who has the turn; jobs that were not
    /// reached are dropped. Not on the loop's thread.
    void stop();
    /// Lets the thread run out without waiting for its jobs, at most that long: the process is ending.
    void abandon(std::chrono::milliseconds patience);

    const std::shared_ptr<JobQueue> &jobs() const { return m_jobs; }
    bool post(Job job) { return m_jobs->post(std::move(job)); }
    /// Runs a job at once on the calling thread if that may have the turn and no job waits before it; posts it if not.
    /// Any thread; never blocks. @return false when the loop has ended: the job is dropped
    template <typename Work>
    bool run(const Work &work)
    {
        return runNow(std::cref(work)) || post(work);
    }
    /// Goes on with another thread, for the loop's own does not come back from between two turns. Any thread, without
    /// the turn. @return false when there is no thread to be had
    bool replaceThread();
    /// Whether the calling thread is, or still is, the loop's.
    bool onItsThread() const;

    // on the turn

    /// Has a watcher told of events until forget(). @return false, errno says why
    bool watch(int descriptor, Watcher &watcher, uint32_t events);
    /// Changes what it is told of.
    void change(int descriptor, uint32_t events);
    /// Before the descriptor is closed; one that is not watched is none.
    void forget(int descriptor);

private:
    friend class LoopTimer;
    class Turn;
    struct Watched
    {
        Watcher *watcher = nullptr;
        uint32_t registration = 0; ///< tells an event of one that had the descriptor before
    };
    static constexpr size_t mostEvents = 64;
    using Events = std::array<epoll_event, mostEvents>;
    using Clock = std::chrono::steady_clock;
    using Timers = std::multimap<Clock::time_point, LoopTimer *>;

    bool runNow(const Job &job);
    bool openDescriptors();
    struct Server;
    void serve(Server &self);
    bool hasEnded();
    void joinEnded();
    int wait(Events &events);
    void act(const Events &events, int count);
    void tell(const epoll_event &event);
    void fireTimers();
    void planWaking();
    void wake() const;

    const std::shared_ptr<JobQueue> m_jobs = std::make_shared<JobQueue>();
    std::function<void()> m_betweenTurns;
    int m_epoll = -1;
    int m_waker = -1; ///< for jobs
    int m_alarm = -1; ///< for timers

    std::mutex m_turn;              ///< is the turn; guards what follows
    std::vector<Watched> m_watched; ///< by descriptor
    Timers m_timers;
    std::vector<Job> m_batch; ///< empty, but for its memory

    Clock::time_point m_wakesAt = Clock::time_point::min(); ///< for which the alarm was set last

    std::atomic<uint64_t> m_current{0}; ///< number of the thread whose loop it is
    std::atomic<bool> m_stopping{false};

    struct Server
    {
        uint64_t number = 0;
        bool ended = false;
        std::thread thread;
    };
    std::mutex m_serversMutex;   ///< guards what follows, and the change of m_current
    std::list<Server> m_servers; ///< the loop's thread is the last one
};

/// A one-shot timer. On the loop's turn only (destroyed there, or after the loop has stopped); its owner must not be
/// destroyed from inside its callback.
class LoopTimer
{
public:
    LoopTimer(IoLoop &loop, std::function<void()> callback);
    ~LoopTimer();
    LoopTimer(const LoopTimer &) = delete;
    LoopTimer &operator=(const LoopTimer &) = delete;

    /// Starts it, or starts it anew.
    void start(std::chrono::milliseconds delay);
    void stop();
    bool armed() const { return m_armed; }

private:
    friend class IoLoop;

    IoLoop &m_loop;
    const std::function<void()> m_callback;
    IoLoop::Timers::iterator m_place; ///< while it is armed
    bool m_armed = false;
};

} // namespace zr::dispatch
