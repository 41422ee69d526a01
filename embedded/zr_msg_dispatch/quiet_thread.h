/// @file
/// Threads that leave signals to the host.
#pragma once

#include <csignal>
#include <thread>
#include <utility>

#include <pthread.h>

namespace zr::dispatch {

/// Starts a thread that no signal interrupts, whatever its starter has blocked: a host's handlers run on its own
/// threads. Throws std::system_error like std::thread.
template <typename Work>
std::thread quietThread(Work work)
{
    class AllBlocked
    {
    public:
        AllBlocked()
        {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &m_before);
        }
        ~AllBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
        AllBlocked(const AllBlocked &) = delete;
        AllBlocked &operator=(const AllBlocked &) = delete;

    private:
        sigset_t m_before = {};
    };
    const AllBlocked inherited;
    return std::thread(std::move(work));
}

} // namespace zr::dispatch
