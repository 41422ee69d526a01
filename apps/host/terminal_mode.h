/// @file
/// The terminal on stdin in another mode than the shell's, and back again whatever happens.
#pragma once

namespace zr::host {

/// Gives the terminal its own mode back when destroyed, before the program is suspended (Ctrl-Z), ends by a signal or
/// crashes; takes it again when the program is continued in the foreground. At most one exists at a time: signals have
/// no other place to go. One thread, but for restore.
class TerminalMode
{
public:
    enum class Kind
    {
        Hidden, ///< a line is read, and what is typed is not shown
        Keys,   ///< each key is read at once, and none is shown; Ctrl-C and Ctrl-Z mean what they always do
        Deaf ///< nothing is read, and what is typed is neither shown nor left to the shell; Ctrl-C and so on as above
    };

    /// Without effect when stdin is no terminal. To be made after an Interrupt, which looks after SIGINT and SIGTERM.
    /// @param screen  the terminal's other screen is taken as well, without a cursor: all of it is drawn anew, again
    ///                and again. stdout is the same terminal
    explicit TerminalMode(Kind kind, bool screen = false);
    ~TerminalMode();
    TerminalMode(const TerminalMode &) = delete;
    TerminalMode &operator=(const TerminalMode &) = delete;

    /// Takes the terminal if it could not be taken before because another program had it.
    /// @return whether it is taken: else stdin must not be read
    bool take();
    /// Whether it is taken at this moment: else nothing is drawn on its other screen. Any thread.
    static bool taken();
    /// Gives it back, if it was taken. Any thread, and signal handlers that end the program.
    static void restore();
};

} // namespace zr::host
