#include "io_loop.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

constexpr unsigned toleratedFailures = 100;
constexpr uint32_t ofTheLoop = 0; ///< a registration: its own descriptors

/// The loop that the calling thread serves, and its number there.
struct Service
{
    const IoLoop *loop = nullptr;
    uint64_t number = 0;
};
thread_local Service service;
thread_local const IoLoop *turnOf = nullptr; ///< the loop whose turn the calling thread has

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
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O loop goes on after: %s", error.what());
    }
}

/// Looks every now and then until it is so, at most that long.
template <typename Happened>
void waitFor(const Happened &happened, std::chrono::milliseconds patience)
{
    constexpr std::chrono::milliseconds step{2};
    for (auto waited = std::chrono::milliseconds::zero(); waited < patience && !happened(); waited += step)
        std::this_thread::sleep_for(step);
}

std::string systemText()
{
    return std::generic_category().message(errno);
}

/// A host's thread that is cancelled goes after the loop's work, not within it.
class NotCancelled
{
public:
    NotCancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~NotCancelled() { pthread_setcancelstate(m_before, nullptr); }
    NotCancelled(const NotCancelled &) = delete;
    NotCancelled &operator=(const NotCancelled &) = delete;

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace

// ---- jobs

bool JobQueue::post(Job job)
{
    const NotCancelled whole; // between the note that the loop is woken, and its waking
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_wake)
        return false;
    m_jobs.push_back(std::move(job));
    if (std::exchange(m_sleeping, false))
        m_wake();
    return true;
}

void JobQueue::open(std::function<void()> wake)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = std::move(wake);
}

void JobQueue::close()
{
    std::vector<Job> dropped; // destroyed after the lock: a job may own much
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = nullptr;
    dropped.swap(m_jobs);
}

bool JobQueue::isOpenAndEmpty()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_wake && m_jobs.empty();
}

/// @param batch  empty
void JobQueue::take(std::vector<Job> &batch)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    batch.swap(m_jobs);
}

void JobQueue::noteAwake()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sleeping = false;
}

bool JobQueue::sleepUnlessJobs()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sleeping = m_jobs.empty();
    return m_sleeping;
}

// ---- the turn

/// Has the turn while it lives, if it was to be had.
class IoLoop::Turn
{
public:
    enum class Wanted
    {
        Waiting,
        AtOnce
    };
    Turn(IoLoop &loop, Wanted wanted)
        : m_lock(loop.m_turn, std::defer_lock)
    {
        if (wanted == Wanted::Waiting)
            m_lock.lock();
        else if (turnOf != &loop)
            m_lock.try_lock();
        if (m_lock.owns_lock())
            turnOf = &loop;
    }
    ~Turn()
    {
        if (m_lock.owns_lock())
            turnOf = nullptr;
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    bool had() const { return m_lock.owns_lock(); }

private:
    std::unique_lock<std::mutex> m_lock;
};

/// @return false when it cannot now
bool IoLoop::runNow(const Job &job)
{
    const NotCancelled whole;
    const Turn turn(*this, Turn::Wanted::AtOnce);
    if (!turn.had() || !m_jobs->isOpenAndEmpty())
        return false;
    guarded(job);
    planWaking();
    return true;
}

void IoLoop::act(const Events &events, int count)
{
    const Turn turn(*this, Turn::Wanted::Waiting);
    m_jobs->noteAwake(); // what is posted from here on will be seen
    for (int i = 0; i < count; ++i)
        guarded([this, &event = events[static_cast<size_t>(i)]] { tell(event); });
    fireTimers();
    m_jobs->take(m_batch);
    for (const Job &job : m_batch)
        guarded(job);
    m_batch.clear();
    planWaking();
}

/// Waking for a timer that was stopped is cheaper than setting the alarm for each one that comes after it.
void IoLoop::planWaking()
{
    if (m_timers.empty() || (m_wakesAt <= m_timers.begin()->first && m_wakesAt > Clock::now()))
        return;
    m_wakesAt = m_timers.begin()->first;
    const auto since = m_wakesAt.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    itimerspec alarm = {};
    alarm.it_value.tv_sec = seconds.count();
    alarm.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(since - seconds).count());
    if (timerfd_settime(m_alarm, TFD_TIMER_ABSTIME, &alarm, nullptr) != 0)
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "timers do not fire: %s", systemText().c_str());
}

void IoLoop::tell(const epoll_event &event)
{
    const auto descriptor = static_cast<size_t>(event.data.u64 & UINT32_MAX);
    const auto registration = static_cast<uint32_t>(event.data.u64 >> 32U);
    if (registration == ofTheLoop || m_watched[descriptor].registration != registration)
        return;
    if (Watcher *const watcher = m_watched[descriptor].watcher)
        watcher->happened(event.events);
}

void IoLoop::fireTimers()
{
    const Clock::time_point now = Clock::now();
    while (!m_timers.empty() && m_timers.begin()->first <= now)
    {
        LoopTimer &timer = *m_timers.begin()->second;
        timer.stop();
        guarded(timer.m_callback);
    }
}

bool IoLoop::watch(int descriptor, Watcher &watcher, uint32_t events)
{
    const auto place = static_cast<size_t>(descriptor);
    if (m_watched.size() <= place)
        m_watched.resize(place + 1);
    Watched &watched = m_watched[place];
    if (++watched.registration == ofTheLoop)
        ++watched.registration;
    epoll_event wanted = {};
    wanted.events = events;
    wanted.data.u64 = uint64_t{watched.registration} << 32U | place;
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &wanted) != 0)
        return false;
    watched.watcher = &watcher;
    return true;
}

void IoLoop::change(int descriptor, uint32_t events)
{
    const auto place = static_cast<size_t>(descriptor);
    epoll_event wanted = {};
    wanted.events = events;
    wanted.data.u64 = uint64_t{m_watched[place].registration} << 32U | place;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, descriptor, &wanted) != 0)
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "a descriptor is not watched: %s", systemText().c_str());
}

void IoLoop::forget(int descriptor)
{
    const auto place = static_cast<size_t>(descriptor);
    if (place >= m_watched.size() || !std::exchange(m_watched[place].watcher, nullptr))
        return;
    epoll_event none = {};
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, descriptor, &none);
}

// ---- the thread

IoLoop::IoLoop() = default;

IoLoop::~IoLoop()
{
    stop();
    for (const int descriptor : {m_epoll, m_waker, m_alarm})
    {
        if (descriptor >= 0)
            close(descriptor);
    }
}

bool IoLoop::openDescriptors()
{
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    m_waker = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_alarm = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    epoll_event wanted = {}; // edges: neither has to be read
    wanted.events = EPOLLIN | EPOLLET;
    wanted.data.u64 = uint64_t{ofTheLoop} << 32U;
    if (m_epoll >= 0 && m_waker >= 0 && m_alarm >= 0 && epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_waker, &wanted) == 0 &&
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_alarm, &wanted) == 0)
        return true;
    ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O loop gets no descriptors: %s", systemText().c_str());
    return false;
}

void IoLoop::wake() const
{
    const uint64_t one = 1;
    // it fails only when the counter is full, and then the loop has been woken
    [[maybe_unused]] const ssize_t written = write(m_waker, &one, sizeof(one));
}

bool IoLoop::start(std::function<void()> betweenTurns)
{
    m_betweenTurns = std::move(betweenTurns);
    if (!openDescriptors())
        return false;
    m_jobs->open([this] { wake(); });
    return replaceThread();
}

/// The servers' mutex is held; those that have ended need it no more.
void IoLoop::joinEnded()
{
    m_servers.remove_if([](Server &server) {
        if (server.ended)
            server.thread.join();
        return server.ended;
    });
}

bool IoLoop::replaceThread()
{
    const std::lock_guard<std::mutex> lock(m_serversMutex);
    joinEnded();
    Server &server = m_servers.emplace_back();
    server.number = m_current + 1;
    try
    {
        server.thread = quietThread([this, &server] { serve(server); });
    }
    catch (const std::system_error &error)
    {
        m_servers.pop_back();
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "no I/O thread: %s", error.what());
        return false;
    }
    m_current = server.number;
    return true;
}

bool IoLoop::onItsThread() const
{
    return service.loop == this && service.number == m_current;
}

int IoLoop::wait(Events &events)
{
    constexpr int forEver = -1;
    const int patience = m_jobs->sleepUnlessJobs() ? forEver : 0;
    const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), patience);
    return count < 0 && errno == EINTR ? 0 : count;
}

void IoLoop::serve(Server &self)
{
    {
        const std::lock_guard<std::mutex> begun(m_serversMutex);
    }
    service = {this, self.number};
    unsigned failures = 0;
    Events events;
    while (!m_stopping)
    {
        if (m_betweenTurns) // first: the thread that was replaced may have left work
            guarded(m_betweenTurns);
        if (!onItsThread())
            break;
        const int count = wait(events);
        failures = count < 0 ? failures + 1 : 0;
        if (failures == toleratedFailures)
        {
            ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "the I/O thread ends, it cannot wait: %s",
                            systemText().c_str());
            break;
        }
        act(events, count);
    }
    const std::lock_guard<std::mutex> lock(m_serversMutex);
    self.ended = true;
}

bool IoLoop::hasEnded()
{
    const std::lock_guard<std::mutex> lock(m_serversMutex);
    return m_servers.empty() || m_servers.back().ended;
}

void IoLoop::stop()
{
    post([this] { m_stopping = true; });
    for (bool all = false; !all;) // meanwhile one may be replaced
    {
        std::list<Server> servers;
        {
            const std::lock_guard<std::mutex> lock(m_serversMutex);
            servers.swap(m_servers);
        }
        for (Server &server : servers)
            server.thread.join();
        all = servers.empty();
    }
    m_jobs->close();
    const Turn last(*this, Turn::Wanted::Waiting); // whoever found it open is done
}

void IoLoop::abandon(std::chrono::milliseconds patience)
{
    post([this] { m_stopping = true; });
    waitFor([this] { return hasEnded(); }, patience);
    {
        const std::lock_guard<std::mutex> lock(m_serversMutex);
        joinEnded();
    }
    m_jobs->close();
    waitFor([this] { return Turn(*this, Turn::Wanted::AtOnce).had(); }, patience);
}

// ---- timers

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
    m_place = m_loop.m_timers.emplace(IoLoop::Clock::now() + delay, this);
    m_armed = true;
}

void LoopTimer::stop()
{
    if (std::exchange(m_armed, false))
        m_loop.m_timers.erase(m_place);
}

} // namespace zr::dispatch
