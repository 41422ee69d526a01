/// @file
/// The media thread: it waits for the sockets of all media ports and for the times at which their reports are due.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rtp.h"
#include "udp.h"

namespace zr::media {

/// What the media thread drives. It holds no lock of its own during these calls.
class LoopClient
{
public:
    virtual ~LoopClient() = default;
    /// One of its sockets may have something to read. Media thread.
    virtual void readable(int fd, PacketBatch &batch) = 0;
    /// The time it asked for has come. Media thread.
    /// @return when next
    virtual TimePoint tick(TimePoint now) = 0;
};

/// One media thread for the process; it runs while there are clients.
class MediaLoop
{
public:
    static MediaLoop &instance();
    ~MediaLoop();
    MediaLoop(const MediaLoop &) = delete;
    MediaLoop &operator=(const MediaLoop &) = delete;

    /// Any thread but the media thread. The client must outlive its removal.
    /// @return false when the system gives no more descriptors or threads
    bool add(LoopClient &client);
    /// Any thread; the caller may hold the client's own lock. No effect on a client that was removed.
    /// @return 0, else the system's error number
    int watch(LoopClient &client, int fd);
    void schedule(LoopClient &client, TimePoint due);
    /// No call into the client runs or begins when this returns. Not on the media thread, and not under a lock that the
    /// client's calls take.
    void remove(LoopClient &client);

private:
    struct Client
    {
        std::vector<int> fds;
        TimePoint due;
    };

    MediaLoop() = default;
    bool start();
    void stop();
    void wake() const;
    void run();
    void dispatch(int fd, PacketBatch &batch);
    void tickDue();
    std::optional<int> waitMs();
    template <typename Call>
    void callInto(std::unique_lock<std::mutex> &lock, LoopClient &client, Call call);

    /// Guards the thread's beginning and end. Taken before m_mutex; the media thread never takes it.
    std::mutex m_threadMutex;
    std::thread m_thread;
    Descriptor m_epoll;
    Descriptor m_wake;

    /// Guards what follows; nothing is called under it.
    std::mutex m_mutex;
    std::condition_variable m_idle; ///< a call into a client ended
    std::unordered_map<LoopClient *, Client> m_clients;
    std::unordered_map<int, LoopClient *> m_byFd;
    std::set<std::pair<TimePoint, LoopClient *>> m_dues;
    LoopClient *m_running = nullptr;
    bool m_stop = false;
};

} // namespace zr::media
