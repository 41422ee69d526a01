#include "mailbox.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zr::host {

Mailbox::Mailbox(const Interrupt &interrupt)
    : m_interrupt(interrupt)
    , m_wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_wakeup < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
}

Mailbox::~Mailbox()
{
    close(m_wakeup);
}

void Mailbox::post(ZR_ULONG notice)
{
    {
        const std::scoped_lock lock(m_mutex);
        m_notices.push(notice);
    }
    const uint64_t one = 1;
    // full means that it is awake already
    [[maybe_unused]] const ssize_t written = write(m_wakeup, &one, sizeof one);
}

std::optional<ZR_ULONG> Mailbox::take()
{
    const std::scoped_lock lock(m_mutex);
    if (m_notices.empty())
    {
        return std::nullopt;
    }
    const ZR_ULONG notice = m_notices.front();
    m_notices.pop();
    return notice;
}

std::optional<ZR_ULONG> Mailbox::wait(std::chrono::milliseconds longest)
{
    if (auto notice = take())
    {
        return notice;
    }
    pollfd ready[] = {{m_wakeup, POLLIN, 0}, {m_interrupt.handle(), POLLIN, 0}, {m_other, POLLIN, 0}};
    if (poll(ready, 3, static_cast<int>(std::clamp<long>(longest.count(), 0, 60000))) > 0 && ready[0].revents != 0)
    {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = read(m_wakeup, &count, sizeof count);
    }
    return take();
}

} // namespace zr::host
