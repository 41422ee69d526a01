/// @file
/// Ctrl-C, and what else asks the program to end in good order.
#pragma once

#include <chrono>

namespace zr::host {

/// At most one exists at a time: signals have no other place to go.
class Interrupt
{
public:
    /// From now on the first SIGINT or SIGTERM asks the program to end in good order; another one ends it at once, with
    /// exit code 130, also while a request waits for its answer.
    Interrupt();
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
};

} // namespace zr::host
