/// @file
/// What is typed while a stream plays.
#pragma once

#include <string>
#include <vector>

namespace zr::host {

enum class Key
{
    Pause,
    Back,
    Forward,
    FarBack,
    FarForward,
    Slower,
    Faster,
    Up,
    Down,
    Snapshot,
    Record,
    Information,
    Help,
    Quit,
    Unknown ///< any other
};

/// Takes whole keys from what a terminal sent (ECMA-48, xterm's sequences).
/// @param typed  keeps the beginning of a sequence whose rest has not come yet
std::vector<Key> takeKeys(std::string &typed);

/// The keys, a line each.
extern const char *const keyHelp;

} // namespace zr::host
