#include "controls.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include <unistd.h>

#include "output_file.h"
#include "speed.h"

namespace zr::host {
namespace {

constexpr double step = 10; // seconds
constexpr double farStep = 60;
constexpr ZR_ULONG pictureWithinMs = 5000;

/// A name that no file has.
std::string freeName(const char *extension)
{
    const std::time_t now = std::time(nullptr);
    std::tm day{};
    localtime_r(&now, &day);
    std::array<char, 40> text{};
    std::strftime(text.data(), text.size(), "zr_rtsp-%Y%m%d-%H%M%S", &day);
    int number = 1;
    return numbered(std::string(text.data()) + extension, number, false);
}

std::string milliseconds(double value)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms", value);
    return text.data();
}

} // namespace

bool Controls::wanted(bool json)
{
    return !json && isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
}

Controls::Controls(Course &course, Interrupt &interrupt, TerminalMode &terminal, Report &report)
    : m_course(course)
    , m_interrupt(interrupt)
    , m_report(report)
    , m_keys(terminal)
{
    m_course.alsoWakeFor(m_keys.handle());
}

Controls::~Controls()
{
    m_course.alsoWakeFor(-1);
}

void Controls::serve()
{
    for (const Key key : m_keys.take())
    {
        if (m_course.over())
        {
            return;
        }
        try
        {
            act(key);
        }
        catch (const Failure &failed)
        {
            if (m_interrupt.asked())
            {
                throw;
            }
            say(failed.what());
        }
    }
    m_course.alsoWakeFor(m_keys.handle());
}

void Controls::act(Key key)
{
    m_hinted = m_hinted && (key == Key::Unknown || key == Key::Up || key == Key::Down);
    switch (key)
    {
    case Key::Pause:
        return togglePause();
    case Key::Back:
        return move(-step);
    case Key::Forward:
        return move(step);
    case Key::FarBack:
        return move(-farStep);
    case Key::FarForward:
        return move(farStep);
    case Key::Slower:
        return changeSpeed(false);
    case Key::Faster:
        return changeSpeed(true);
    case Key::Snapshot:
        return takePicture();
    case Key::Record:
        return toggleRecording();
    case Key::Up:
    case Key::Down:
    case Key::Unknown:
        return hint();
    case Key::Information:
        return tellInformation();
    case Key::Help:
        return say(keyHelp);
    case Key::Quit:
        return m_interrupt.ask();
    }
}

/// Once for whatever is typed on and on.
void Controls::hint()
{
    if (!std::exchange(m_hinted, true))
    {
        say("that key does nothing here: ? for help");
    }
}

void Controls::say(const std::string &text)
{
    m_report.event("told", text, nullptr);
}

void Controls::togglePause()
{
    if (m_course.paused())
    {
        m_course.playOn();
    }
    else
    {
        m_course.pause();
    }
}

void Controls::move(double seconds)
{
    auto position = m_course.position();
    if (!position)
    {
        say("a live stream plays now: there is nowhere else to go");
        return;
    }
    position->seconds += seconds;
    playFrom(*position, m_course.playback().speedCode);
}

void Controls::changeSpeed(bool up)
{
    const auto position = m_course.position();
    const auto before = m_course.playback().speedCode;
    const auto speed = nextSpeed(before, up);
    if (!position)
    {
        say("a live stream has one speed");
    }
    else if (speed != before)
    {
        playFrom(*position, speed);
    }
}

void Controls::playFrom(Position position, std::optional<ZR_ULONG> speedCode)
{
    const Span span = m_course.span();
    const Playback &first = m_course.options().playback;
    const bool backwards = speedFactor(speedCode) < 0;
    position = m_course.within(position, backwards);
    // backwards a range falls (RFC 2326, 12.34)
    const bool asAtFirst = backwards == (speedFactor(first.speedCode) < 0);
    const auto bound = parsePosition(first.to);
    const bool passed = bound && (backwards ? bound->seconds > position.seconds : bound->seconds < position.seconds);
    const std::string asked = asAtFirst && !passed ? first.to : "";
    const auto &end = backwards ? span.begin : span.end;
    Playback playback;
    playback.from = positionText(position);
    playback.to = !asked.empty() ? asked : end ? positionText(*end) : "";
    playback.speedCode = speedCode;
    m_course.seek(playback);
    m_report.event("playing",
                   "playing from " + positionShown(position) + (speedCode ? " at speed " + speedText(speedCode) : ""),
                   nullptr);
}

void Controls::takePicture()
{
    if (m_course.paused())
    {
        say("no picture comes while the stream is paused");
        return;
    }
    const std::string file = freeName(".png");
    m_course.session().snapshot(file, pictureWithinMs);
    m_report.event("snapshot", "wrote the picture " + file, {{"file", file}});
}

void Controls::toggleRecording()
{
    if (m_course.recording().empty() && m_course.paused())
    {
        say("nothing comes to record while the stream is paused");
    }
    else if (m_course.recording().empty())
    {
        m_course.record(freeName(".mkv"));
    }
    else
    {
        m_course.endRecording();
    }
}

void Controls::tellInformation()
{
    const Media &media = m_course.media();
    const Description &description = m_course.description();
    std::string text = m_course.source().url.text;
    const auto add = [&](const char *label, const std::string &value) {
        text += value.empty() ? "" : "\n  " + std::string(label).append(11 - std::strlen(label), ' ') + value;
    };
    add("tracks", summary(description) + ", over " + m_course.transport());
    add("name", description.name);
    add("made by", description.tool);
    add("range", description.range);
    add("received", counted(media.packets, "packet", "packets") + ", " + amount(media.bytes) + ", lost " +
                        std::to_string(media.lost) + ", jitter " + milliseconds(media.jitterMs));
    add("recording", m_course.recording());
    say(text);
}

} // namespace zr::host
