/// @file
/// Marks the threads on which the platform calls the plug-in: there, unregistering must not wait.
#pragma once

namespace own {

inline thread_local bool onCallbackThread = false;

} // namespace own
