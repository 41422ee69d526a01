/// @file
/// Keys as they are typed.
#pragma once

#include <string>
#include <vector>

#include "keys.h"
#include "terminal_mode.h"

namespace zr::host {

/// One thread.
class TypedKeys
{
public:
    /// @param terminal  outlives it
    explicit TypedKeys(TerminalMode &terminal)
        : m_terminal(terminal)
    {
    }

    /// What is readable when something was typed; -1 while another program has the terminal, or nobody is there.
    int handle();
    /// What was typed since the last call; does not wait.
    std::vector<Key> take();

private:
    TerminalMode &m_terminal;
    std::string m_typed;
    bool m_ended = false; ///< nobody is there any more
};

} // namespace zr::host
