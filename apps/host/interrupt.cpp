#include "interrupt.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "terminal_mode.h"

namespace zr::host {
namespace {

// What a signal handler may touch.
int g_asked = -1; // never read from: once written it stays readable, for all who wait
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

bool askOnce()
{
    if (g_interrupted.exchange(true))
    {
        return false;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(g_asked, &one, sizeof one);
    return true;
}

void onSignal(int)
{
    const int kept = errno;
    if (!askOnce())
    {
        TerminalMode::restore();
        _exit(130);
    }
    errno = kept;
}

void handleSignal(int signal, void (*handler)(int))
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

} // namespace

Interrupt::Interrupt()
{
    g_asked = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_asked < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
    handleSignal(SIGINT, onSignal);
    handleSignal(SIGTERM, onSignal);
}

Interrupt::~Interrupt()
{
    handleSignal(SIGINT, SIG_DFL);
    handleSignal(SIGTERM, SIG_DFL);
    close(g_asked);
    g_asked = -1;
}

bool Interrupt::asked() const
{
    return g_interrupted;
}

void Interrupt::ask()
{
    askOnce();
}

int Interrupt::handle() const
{
    return g_asked;
}

bool Interrupt::sleep(std::chrono::milliseconds time) const
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (!asked())
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
        {
            return true;
        }
        pollfd ready{g_asked, POLLIN, 0};
        poll(&ready, 1, static_cast<int>(std::min<long>(left.count(), 60000)));
    }
    return false;
}

} // namespace zr::host
