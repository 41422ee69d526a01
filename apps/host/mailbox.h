/// @file
/// What happens while the main thread waits: Ctrl-C, and the plug-in's notifications.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <queue>

#include "zr_types.h"

namespace zr::host {

/// Collects notifications from other threads and SIGINT and SIGTERM for the one thread that waits. At most one mailbox
/// exists at a time: signals have no other place to go.
class Mailbox
{
public:
    /// From now on the first SIGINT or SIGTERM asks the program to end in good order; another one ends it at once, with
    /// exit code 130, also while a request waits for its answer.
    Mailbox();
    ~Mailbox();
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;

    /// Any thread; returns at once.
    void post(ZR_ULONG notice);

    /// Sleeps until a notification is there, a signal came or the time is over.
    /// @return the oldest notification not yet taken
    std::optional<ZR_ULONG> wait(std::chrono::milliseconds longest);

    /// Whether a signal came.
    bool interrupted() const;

private:
    std::optional<ZR_ULONG> take();

    std::mutex m_mutex; ///< guards m_notices; held for a moment only
    std::queue<ZR_ULONG> m_notices;
};

} // namespace zr::host
