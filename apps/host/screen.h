/// @file
/// The whole terminal, drawn again and again.
#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "report.h"

namespace zr::host {

/// A body, such as a picture or a table, below it what was said last, in all the rows that the body leaves, and where
/// things stand. What was said meanwhile is handed on when it is destroyed, as the terminal's usual screen shows none
/// of it. Draws while a TerminalMode with screen is taken, and fits what is there then: that the terminal's size
/// changed needs no telling. Any thread.
class Screen : public Report
{
public:
    /// Whether the terminal can be drawn on, by its name in the environment.
    static bool possible();
    /// @param report  outlives it and prints on the usual screen
    explicit Screen(Report &report)
        : m_report(report)
    {
    }
    /// When the TerminalMode is gone.
    ~Screen() override;
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    void event(const std::string &name, const std::string &text, const Fields &fields) override;
    void status(const Status &now) override;
    void waiting(const std::string &text) override { status({"waiting", text, nullptr}); }
    void failure(const Failure &what) override;

    /// Hands on what was said so far, and from now on at once. When the TerminalMode is gone.
    void leave();
    /// What there is room for.
    static TerminalSize bodySize();
    /// @param rows  drawn as they are: they fit and steer the terminal on purpose only. One that is no row of text but
    ///              draws an image stands alone
    void body(std::vector<std::string> rows);

private:
    using Clock = std::chrono::steady_clock;

    void draw();
    std::string drawn(const TerminalSize &size) const;
    std::string drawnMessages(const TerminalSize &size, size_t free) const;

    Report &m_report;
    mutable std::mutex m_mutex;     ///< guards the terminal and what follows
    std::deque<std::string> m_said; ///< all of it, within reason
    Clock::time_point m_lastSaid;
    size_t m_forgotten = 0; ///< of what was said first
    std::vector<std::string> m_body;
    std::string m_status;
    TerminalSize m_drawnFor{0, 0};
    Clock::time_point m_lastDrawn;
    bool m_left = false;
};

} // namespace zr::host
