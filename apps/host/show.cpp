#include "show.h"

#include <cstdlib>
#include <utility>

namespace zr::host {

Show::Show(Course &course, Interrupt &interrupt, Report &report)
    : m_course(course)
    , m_interrupt(interrupt)
    , m_report(report)
{
    m_course.session().show(ZR_SHOW_WINDOW, &take, this);
}

Show::Show(Course &course, Interrupt &interrupt, Report &report, Screen &screen, PictureText &text)
    : m_course(course)
    , m_interrupt(interrupt)
    , m_report(report)
    , m_screen(&screen)
    , m_text(&text)
{
    m_course.session().show(ZR_SHOW_PICTURES, &take, this);
}

Show::~Show()
{
    m_course.session().endShow();
}

void Show::requireDisplay()
{
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY"})
    {
        const char *value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): there is one thread yet
        if (value != nullptr && *value != '\0')
        {
            return;
        }
    }
    throw Failure(ExitCode::Usage, "opening a window", 0,
                  "there is no display: neither DISPLAY nor WAYLAND_DISPLAY is in the environment",
                  "--preview, which draws in the terminal, or --snapshot");
}

void Show::take(void *self, const unsigned char *rgb, ZR_ULONG width, ZR_ULONG height)
{
    auto &show = *static_cast<Show *>(self);
    const std::scoped_lock lock(show.m_mutex);
    if (rgb == nullptr)
    {
        show.m_over = true;
        show.m_begun = width != 0;
        return;
    }
    show.m_rgb.assign(rgb, rgb + size_t{width} * height * 3);
    show.m_width = width;
    show.m_height = height;
    show.m_fresh = true;
}

void Show::end(bool begun)
{
    if (!begun)
    {
        m_course.stop(Failure(ExitCode::Output, "showing the picture", 0,
                              m_screen != nullptr ? "it cannot be decoded" : "there cannot be a window",
                              "--log-file, which then tells why"));
    }
    else if (m_screen != nullptr)
    {
        m_report.event("show_ended", "there is no picture any more: --log-file tells why", nullptr);
    }
    else
    {
        m_report.event("show_ended", "the window was closed", nullptr);
        m_interrupt.ask();
    }
}

void Show::serve()
{
    std::vector<unsigned char> rgb;
    ZR_ULONG width = 0;
    ZR_ULONG height = 0;
    {
        std::unique_lock lock(m_mutex);
        if (std::exchange(m_over, false))
        {
            const bool begun = m_begun;
            lock.unlock();
            return end(begun);
        }
        const TerminalSize room = m_screen != nullptr ? Screen::bodySize() : TerminalSize{};
        const bool resized = room.columns != m_drawnFor.columns || room.rows != m_drawnFor.rows;
        if (m_screen == nullptr || m_rgb.empty() || (!m_fresh && !resized))
        {
            return;
        }
        m_fresh = false;
        m_drawnFor = room;
        rgb = m_rgb;
        width = m_width;
        height = m_height;
    }
    m_screen->body(m_text->draw(rgb.data(), width, height, m_drawnFor));
}

} // namespace zr::host
