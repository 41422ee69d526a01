/// @file
/// The picture of a stream that plays, in the terminal or in a window.
#pragma once

#include <mutex>
#include <vector>

#include "course.h"
#include "interrupt.h"
#include "picture_text.h"
#include "screen.h"

namespace zr::host {

/// One thread, but for what the platform brings.
class Show
{
public:
    /// In a window, where there is a desktop.
    /// @param course, interrupt, report  outlive it; the course plays
    /// @throws Failure  when there is none, or the session shows nothing
    Show(Course &course, Interrupt &interrupt, Report &report);
    /// In the terminal.
    Show(Course &course, Interrupt &interrupt, Report &report, Screen &screen, PictureText &text);
    ~Show();
    Show(const Show &) = delete;
    Show &operator=(const Show &) = delete;

    /// Draws the latest picture. A window that was closed ends the program as Ctrl-C does; where there cannot be one
    /// the course is stopped by a failure.
    void serve();

    /// @throws Failure  when there is no desktop
    static void requireDisplay();

private:
    void end(bool begun);
    static void take(void *self, const unsigned char *rgb, ZR_ULONG width, ZR_ULONG height);

    Course &m_course;
    Interrupt &m_interrupt;
    Report &m_report;
    Screen *const m_screen = nullptr;
    PictureText *const m_text = nullptr;
    TerminalSize m_drawnFor{0, 0};

    std::mutex m_mutex; ///< guards what follows
    std::vector<unsigned char> m_rgb;
    ZR_ULONG m_width = 0;
    ZR_ULONG m_height = 0;
    bool m_fresh = false;
    bool m_over = false;
    bool m_begun = false; ///< when it is over
};

} // namespace zr::host
