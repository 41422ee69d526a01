#include "show.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <unistd.h>

namespace zr::host {
namespace {

/// What the environment tells of the desktop, and whether it is there; empty: nothing.
std::string display()
{
    std::string found;
    for (const char *name : {"WAYLAND_DISPLAY", "DISPLAY"})
    {
        const char *value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody sets it
        if (value != nullptr && *value != '\0')
        {
            found += std::string(found.empty() ? "" : " and ") + name + "=" + value;
            unsigned number = 0;
            const bool here = std::sscanf(value, ":%9u", &number) == 1;
            const std::string socket = "/tmp/.X11-unix/X" + std::to_string(number);
            found += here && access(socket.c_str(), F_OK) != 0 ? " (there is no " + socket + ")" : "";
        }
    }
    return found;
}

} // namespace

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
    if (!display().empty())
    {
        return;
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
    if (!begun && m_screen != nullptr)
    {
        m_course.stop(Failure(ExitCode::Output, "showing the picture", 0, "it cannot be decoded",
                              "a decoder for it, as from the package gstreamer1.0-libav; --log-file tells why"));
    }
    else if (!begun)
    {
        m_course.stop(
            Failure(ExitCode::Output, "opening a window", 0, "nothing can open one on " + display(),
                    "whether other programs show there; the package gstreamer1.0-x; or --preview, which draws "
                    "in the terminal (--log-file tells more)"));
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
