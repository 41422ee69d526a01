/// @file
/// A stream that plays, steered by keys.
#pragma once

#include <string>

#include "course.h"
#include "interrupt.h"
#include "typed_keys.h"

namespace zr::host {

/// One thread.
class Controls
{
public:
    /// Whether there is somebody at a terminal who sees what happens and can type.
    static bool wanted(bool json);

    /// @param course, interrupt, terminal, report  outlive it; the course plays
    Controls(Course &course, Interrupt &interrupt, TerminalMode &terminal, Report &report);
    ~Controls();
    Controls(const Controls &) = delete;
    Controls &operator=(const Controls &) = delete;

    /// Does what was typed since the last call; does not wait for more. What cannot be done is said, and the stream
    /// plays on.
    void serve();

private:
    void act(Key key);
    void togglePause();
    void move(double seconds);
    void changeSpeed(bool up);
    void playFrom(Position position, std::optional<ZR_ULONG> speedCode);
    void takePicture();
    void toggleRecording();
    void tellInformation();
    void hint();
    void say(const std::string &text);

    Course &m_course;
    Interrupt &m_interrupt;
    Report &m_report;
    TypedKeys m_keys;
    bool m_hinted = false; ///< at the help, and no known key came since
};

} // namespace zr::host
