/// @file
/// What a session's thread waits for: the plug-in's notifications, and the end of the program.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <queue>

#include "interrupt.h"
#include "zr_types.h"

namespace zr::host {

/// Collects the notifications of one session from other threads for the one thread that waits.
class Mailbox
{
public:
    explicit Mailbox(const Interrupt &interrupt);
    ~Mailbox();
    Mailbox(const Mailbox &) = delete;
    Mailbox &operator=(const Mailbox &) = delete;

    /// Any thread; returns at once.
    void post(ZR_ULONG notice);

    const Interrupt &interrupt() const { return m_interrupt; }

    /// From now on wait returns early as well when this descriptor is readable; the caller then reads it. -1: none.
    void alsoWakeFor(int handle) { m_other = handle; }

    /// Sleeps until a notification is there, the program is to end or the time is over.
    /// @return the oldest notification not yet taken
    std::optional<ZR_ULONG> wait(std::chrono::milliseconds longest);

private:
    std::optional<ZR_ULONG> take();

    const Interrupt &m_interrupt;
    int m_wakeup;
    int m_other = -1;
    std::mutex m_mutex; ///< guards m_notices; held for a moment only
    std::queue<ZR_ULONG> m_notices;
};

} // namespace zr::host
