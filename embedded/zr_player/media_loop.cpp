#include "media_loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform_log.h"

namespace zr::media {

MediaLoop &MediaLoop::instance()
{
    static MediaLoop loop;
    return loop;
}

MediaLoop::~MediaLoop()
{
    const std::lock_guard<std::mutex> lock(m_threadMutex);
    stop();
}

bool MediaLoop::start()
{
    m_epoll = Descriptor(epoll_create1(EPOLL_CLOEXEC));
    m_wake = Descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_wake.get();
    if (!m_epoll || !m_wake || epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_wake.get(), &event) != 0)
    {
        return false;
    }
    m_stop = false;
    try
    {
        m_thread = std::thread(&MediaLoop::run, this);
    }
    catch (const std::system_error &)
    {
        return false;
    }
    return true;
}

void MediaLoop::stop()
{
    if (!m_thread.joinable())
    {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    wake();
    m_thread.join();
    m_epoll.reset();
    m_wake.reset();
}

void MediaLoop::wake() const
{
    // a full counter wakes as well
    (void)eventfd_write(m_wake.get(), 1);
}

bool MediaLoop::add(LoopClient &client)
{
    const std::lock_guard<std::mutex> threadLock(m_threadMutex);
    if (!m_thread.joinable() && !start())
    {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clients[&client].due = TimePoint::max();
    return true;
}

int MediaLoop::watch(LoopClient &client, int fd)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(&client);
    if (found == m_clients.end())
    {
        return 0;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0)
    {
        return errno;
    }
    found->second.fds.push_back(fd);
    m_byFd[fd] = &client;
    return 0;
}

void MediaLoop::schedule(LoopClient &client, TimePoint due)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(&client);
    if (found == m_clients.end())
    {
        return;
    }
    m_dues.erase({found->second.due, &client});
    found->second.due = due;
    if (due != TimePoint::max())
    {
        const auto placed = m_dues.insert({due, &client}).first; // on its own: begin() must be asked for after it
        if (placed == m_dues.begin() && m_running == nullptr)
        {
            wake();
        }
    }
}

void MediaLoop::remove(LoopClient &client)
{
    const std::lock_guard<std::mutex> threadLock(m_threadMutex);
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(&client);
    if (found == m_clients.end())
    {
        return;
    }
    for (const int fd : found->second.fds)
    {
        epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
        m_byFd.erase(fd);
    }
    m_dues.erase({found->second.due, &client});
    m_clients.erase(found);
    m_idle.wait(lock, [this, &client] { return m_running != &client; });
    const bool last = m_clients.empty();
    lock.unlock();
    if (last)
    {
        stop();
    }
}

/// @return how long to wait in milliseconds, -1: for ever; none when the thread is to end
std::optional<int> MediaLoop::waitMs()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stop)
    {
        return std::nullopt;
    }
    if (m_dues.empty())
    {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_dues.begin()->first - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60000));
}

void MediaLoop::run()
{
    PacketBatch batch;
    std::array<epoll_event, 64> events{};
    while (const std::optional<int> timeout = waitMs())
    {
        const int count = epoll_wait(m_epoll.get(), events.data(), events.size(), *timeout);
        for (int i = 0; i < count; ++i)
        {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == m_wake.get())
            {
                eventfd_t ignored = 0;
                (void)eventfd_read(fd, &ignored);
            }
            else
            {
                dispatch(fd, batch);
            }
        }
        tickDue();
    }
}

template <typename Call>
void MediaLoop::callInto(std::unique_lock<std::mutex> &lock, LoopClient &client, Call call)
{
    m_running = &client;
    lock.unlock();
    try
    {
        call();
    }
    catch (const std::exception &error)
    {
        ZR_PLATFORM_LOG(ERROR, 3, Player, "the media thread goes on after a failure: %s", error.what());
    }
    lock.lock();
    m_running = nullptr;
    m_idle.notify_all();
}

void MediaLoop::dispatch(int fd, PacketBatch &batch)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = m_byFd.find(fd);
    if (found != m_byFd.end())
    {
        LoopClient &client = *found->second;
        callInto(lock, client, [&client, fd, &batch] { client.readable(fd, batch); });
    }
}

void MediaLoop::tickDue()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const TimePoint now = Clock::now();
    while (!m_dues.empty() && m_dues.begin()->first <= now)
    {
        LoopClient &client = *m_dues.begin()->second;
        m_dues.erase(m_dues.begin());
        m_clients[&client].due = TimePoint::max();
        // a failure, too, comes back later
        TimePoint next = now + std::chrono::seconds(5);
        callInto(lock, client, [&client, now, &next] { next = client.tick(now); });
        const auto found = m_clients.find(&client);
        if (found != m_clients.end() && next < found->second.due)
        {
            m_dues.erase({found->second.due, &client});
            found->second.due = next;
            m_dues.insert({next, &client});
        }
    }
}

} // namespace zr::media
