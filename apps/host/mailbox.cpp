#include "mailbox.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zr::host {
namespace {

// What a signal handler may touch.
int g_wakeup = -1;
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void wake()
{
    const uint64_t one = 1;
    // full means that it is awake already
    [[maybe_unused]] const ssize_t written = write(g_wakeup, &one, sizeof one);
}

void onSignal(int)
{
    const int kept = errno;
    if (g_interrupted.exchange(true))
    {
        _exit(130);
    }
    wake();
    errno = kept;
}

void handle(int signal, void (*handler)(int))
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

} // namespace

Mailbox::Mailbox()
{
    g_wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_wakeup < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
    handle(SIGINT, onSignal);
    handle(SIGTERM, onSignal);
}

Mailbox::~Mailbox()
{
    handle(SIGINT, SIG_DFL);
    handle(SIGTERM, SIG_DFL);
    close(g_wakeup);
    g_wakeup = -1;
}

void Mailbox::post(ZR_ULONG notice)
{
    {
        const std::scoped_lock lock(m_mutex);
        m_notices.push(notice);
    }
    wake();
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
    pollfd ready{g_wakeup, POLLIN, 0};
    if (!interrupted() && poll(&ready, 1, static_cast<int>(std::max<long>(longest.count(), 0))) > 0)
    {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = read(g_wakeup, &count, sizeof count);
    }
    return take();
}

bool Mailbox::interrupted() const
{
    return g_interrupted;
}

} // namespace zr::host
