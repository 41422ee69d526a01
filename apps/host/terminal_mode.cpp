#include "terminal_mode.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <termios.h>
#include <unistd.h>

namespace zr::host {
namespace {

constexpr std::array<int, 10> ending = {SIGHUP, SIGQUIT, SIGINT, SIGTERM, SIGABRT,
                                        SIGBUS, SIGFPE,  SIGILL, SIGSEGV, SIGTSTP};

// What a signal handler may touch: written before the handlers are there, or atomic.
termios g_usual;
termios g_wanted;
std::atomic<bool> g_exists{false};
std::atomic<bool> g_taken{false};
std::atomic<bool> g_screen{false};
std::atomic<bool> g_deaf{false};
static_assert(std::atomic<bool>::is_always_lock_free);
std::array<struct sigaction, ending.size()> g_before;
std::array<bool, ending.size()> g_replaced;
struct sigaction g_beforeContinue;

// A program in the background that touches the terminal is stopped.
bool inForeground()
{
    return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

void write(const char *sequence)
{
    if (g_screen)
    {
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, sequence, std::strlen(sequence));
    }
}

bool takeNow()
{
    if (g_exists && inForeground() && tcsetattr(STDIN_FILENO, TCSANOW, &g_wanted) == 0)
    {
        write("\033[?1049h\033[?25l\033[?7l\033[2J"); // other screen, no cursor, no wrapping (xterm's private modes)
        g_taken = true;
    }
    return g_taken;
}

struct sigaction action(void (*handler)(int))
{
    struct sigaction made
    {
    };
    made.sa_handler = handler;
    made.sa_flags = SA_RESTART;
    return made;
}

void onEnd(int signal)
{
    const int kept = errno;
    TerminalMode::restore();
    for (size_t i = 0; i < ending.size(); ++i)
    {
        if (ending[i] == signal)
        {
            sigaction(signal, &g_before[i], nullptr);
        }
    }
    raise(signal); // acts when this handler returns, as it would have without it
    errno = kept;
}

void onSuspend(int signal)
{
    const int kept = errno;
    TerminalMode::restore();
    const struct sigaction usual = action(SIG_DFL);
    const struct sigaction own = action(onSuspend);
    sigset_t suspend;
    sigemptyset(&suspend);
    sigaddset(&suspend, signal);
    sigaction(signal, &usual, nullptr);
    raise(signal);
    pthread_sigmask(SIG_UNBLOCK, &suspend, nullptr); // it stops here, until it is continued
    sigaction(signal, &own, nullptr);
    errno = kept;
}

void onContinue(int)
{
    const int kept = errno;
    g_taken = false; // whoever had the terminal meanwhile may have changed it
    takeNow();
    errno = kept;
}

void listen()
{
    for (size_t i = 0; i < ending.size(); ++i)
    {
        sigaction(ending[i], nullptr, &g_before[i]);
        const bool interrupt = ending[i] == SIGINT || ending[i] == SIGTERM;
        const bool looked = g_before[i].sa_handler == SIG_IGN || (interrupt && g_before[i].sa_handler != SIG_DFL);
        g_replaced[i] = !looked;
        if (!looked)
        {
            const struct sigaction own = action(ending[i] == SIGTSTP ? onSuspend : onEnd);
            sigaction(ending[i], &own, nullptr);
        }
    }
    const struct sigaction own = action(onContinue);
    sigaction(SIGCONT, &own, &g_beforeContinue);
}

void stopListening()
{
    for (size_t i = 0; i < ending.size(); ++i)
    {
        if (g_replaced[i])
        {
            sigaction(ending[i], &g_before[i], nullptr);
        }
    }
    sigaction(SIGCONT, &g_beforeContinue, nullptr);
}

} // namespace

TerminalMode::TerminalMode(Kind kind, bool screen)
{
    g_screen = false;
    if (tcgetattr(STDIN_FILENO, &g_usual) != 0)
    {
        return;
    }
    g_wanted = g_usual;
    if (kind == Kind::Hidden)
    {
        g_wanted.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        g_wanted.c_lflag |= ECHONL;
    }
    else
    {
        g_wanted.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
        g_wanted.c_cc[VMIN] = 1;
        g_wanted.c_cc[VTIME] = 0;
    }
    g_screen = screen;
    g_deaf = kind == Kind::Deaf;
    g_exists = true;
    listen();
    take();
}

TerminalMode::~TerminalMode()
{
    if (g_exists)
    {
        g_exists = false;
        restore();
        stopListening();
    }
}

bool TerminalMode::take()
{
    return g_exists && inForeground() && (g_taken || takeNow());
}

bool TerminalMode::taken()
{
    return g_taken;
}

void TerminalMode::restore()
{
    if (g_taken.exchange(false) && inForeground())
    {
        // what is half written ends with CAN, an image by sixels with ST
        write("\030\033\\\033[0m\033[?7h\033[?25h\033[?1049l");
        if (g_deaf)
        {
            tcflush(STDIN_FILENO, TCIFLUSH);
        }
        tcsetattr(STDIN_FILENO, TCSANOW, &g_usual);
    }
}

} // namespace zr::host
