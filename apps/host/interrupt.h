/// @file
/// Ctrl-C, and what else asks the program to end; what must not be waited for then.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "failure.h"

namespace zr::host {

class Report;

/// At most one exists at a time: signals have no other place to go.
class Interrupt
{
public:
    /// From now on the first SIGINT or SIGTERM asks the program to end in good order; another one ends it at once, with
    /// exit code 130 or 143, also while a request waits for its answer.
    /// @param report  is told what is waited for, and at once what an interrupt does about it; null: nobody
    explicit Interrupt(Report *report = nullptr);
    ~Interrupt();
    Interrupt(const Interrupt &) = delete;
    Interrupt &operator=(const Interrupt &) = delete;

    /// Whether a signal came, or ask was called. Any thread, as the rest.
    bool asked() const;
    /// Asks as a signal does.
    void ask();
    /// A descriptor that is readable from then on.
    int handle() const;
    /// Sleeps so long, or until it was asked.
    /// @return false when it was asked
    bool sleep(std::chrono::milliseconds time) const;
    /// What a step comes to that was interrupted: with the exit code of the signal.
    Failure failure(const std::string &step, const std::string &meaning, const std::string &advice = {}) const;

    /// While it lives its thread is in a call that waits.
    class Wait
    {
    public:
        /// @param what     such as "the answer to describe"
        /// @param longest  after which the call returns by itself
        /// @param giveUp   makes it return, when the program is to end: at once if that was asked before. On any
        ///                 thread, not after the destructor, perhaps twice; it does not wait, nor make Waits. None: the
        ///                 call goes on
        Wait(const Interrupt &interrupt, std::string what, std::chrono::seconds longest,
             std::function<void()> giveUp = {});
        ~Wait();
        Wait(const Wait &) = delete;
        Wait &operator=(const Wait &) = delete;

        std::chrono::duration<double> sinceBegin() const { return std::chrono::steady_clock::now() - m_begin; }

    private:
        friend class Interrupt;

        const Interrupt &m_interrupt;
        const std::string m_what;
        const std::chrono::seconds m_longest;
        const std::function<void()> m_giveUp;
        const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
        std::list<const Wait *>::iterator m_place;
    };

private:
    void attend();
    void tellWaits() const;
    void endWaits() const;

    Report *const m_report;
    int m_ended = -1;           ///< readable when the thread is to end
    mutable std::mutex m_mutex; ///< guards m_waits; held while they are given up
    mutable std::list<const Wait *> m_waits;
    std::thread m_thread;
};

} // namespace zr::host
