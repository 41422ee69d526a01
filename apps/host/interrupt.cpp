#include "interrupt.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "report.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

// What a signal handler may touch.
int g_asked = -1;                  // never read from: once written it stays readable, for all who wait
std::atomic<int> g_interrupted{0}; // the signal; -1: by ask
static_assert(std::atomic<int>::is_always_lock_free);
constexpr int ownWish = -1;

constexpr std::chrono::milliseconds tellEvery{500};
constexpr std::chrono::duration<double> toldAfter{1};
constexpr int lingerSeconds = 2; // that the platform waits for the answer to a TEARDOWN

bool askOnce(int why)
{
    int nobody = 0;
    if (!g_interrupted.compare_exchange_strong(nobody, why))
    {
        return false;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(g_asked, &one, sizeof one);
    return true;
}

int exitCodeOf(int signal)
{
    return static_cast<int>(signal == SIGTERM ? ExitCode::Terminated : ExitCode::Interrupted);
}

void onSignal(int signal)
{
    const int kept = errno;
    if (!askOnce(signal))
    {
        TerminalMode::restore();
        _exit(exitCodeOf(signal));
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

Interrupt::Interrupt(Report *report)
    : m_report(report)
    , m_ended(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    g_asked = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_asked < 0 || m_ended < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
    // signals are for the thread that waits: that ends its system call
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_thread = std::thread([this] { attend(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    handleSignal(SIGINT, onSignal);
    handleSignal(SIGTERM, onSignal);
}

Interrupt::~Interrupt()
{
    handleSignal(SIGINT, SIG_DFL);
    handleSignal(SIGTERM, SIG_DFL);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_ended, &one, sizeof one);
    m_thread.join();
    close(m_ended);
    close(g_asked);
    g_asked = -1;
}

bool Interrupt::asked() const
{
    return g_interrupted != 0;
}

void Interrupt::ask()
{
    askOnce(ownWish);
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

Failure Interrupt::failure(const std::string &step, const std::string &meaning, const std::string &advice) const
{
    return {static_cast<ExitCode>(exitCodeOf(g_interrupted)), step, 0, meaning, advice};
}

void Interrupt::attend()
{
    pollfd ready[] = {{g_asked, POLLIN, 0}, {m_ended, POLLIN, 0}};
    while (poll(ready, 2, m_report != nullptr ? static_cast<int>(tellEvery.count()) : -1) == 0)
    {
        tellWaits();
    }
    if (asked())
    {
        endWaits();
    }
}

void Interrupt::tellWaits() const
{
    const std::scoped_lock lock(m_mutex);
    for (const Wait *wait : m_waits)
    {
        const auto waited = wait->sinceBegin();
        if (waited < toldAfter)
        {
            continue;
        }
        try
        {
            m_report->waiting("waiting for " + wait->m_what + ", " + std::to_string(std::lround(waited.count())) +
                              " s of " + std::to_string(wait->m_longest.count()) + " at most  (Ctrl-C ends it)");
        }
        catch (const Failure &) // nobody reads it
        {
        }
    }
}

void Interrupt::endWaits() const
{
    const std::scoped_lock lock(m_mutex);
    for (const Wait *wait : m_waits)
    {
        const double left = static_cast<double>(wait->m_longest.count()) - wait->sinceBegin().count();
        const std::string doing = wait->m_giveUp ? "ending" : "waiting for " + wait->m_what + " before it ends";
        const long most = wait->m_giveUp ? lingerSeconds : std::lround(std::max(left, 1.0));
        try
        {
            if (m_report != nullptr)
            {
                m_report->event("interrupted",
                                "interrupted: " + doing + ", " + std::to_string(most) +
                                    " s at most; Ctrl-C again ends it at once",
                                {{"waited_for", wait->m_what}});
            }
        }
        catch (const Failure &) // nobody reads it
        {
        }
        if (wait->m_giveUp)
        {
            wait->m_giveUp();
        }
    }
}

Interrupt::Wait::Wait(const Interrupt &interrupt, std::string what, std::chrono::seconds longest,
                      std::function<void()> giveUp)
    : m_interrupt(interrupt)
    , m_what(std::move(what))
    , m_longest(longest)
    , m_giveUp(std::move(giveUp))
{
    const std::scoped_lock lock(m_interrupt.m_mutex);
    m_place = m_interrupt.m_waits.insert(m_interrupt.m_waits.end(), this);
    if (m_interrupt.asked() && m_giveUp)
    {
        m_giveUp();
    }
}

Interrupt::Wait::~Wait()
{
    const std::scoped_lock lock(m_interrupt.m_mutex);
    m_interrupt.m_waits.erase(m_place);
}

} // namespace zr::host
