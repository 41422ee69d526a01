/// @file
/// The mark of threads on which the platform calls out (with messages, from timers). What waits for running
/// calls must not wait on such a thread: it would wait for itself, or for a lock that its caller holds.
#pragma once

namespace zr::common {

/// Marks the calling thread while it lives. Marks nest.
class CallbackThreadMark
{
public:
    CallbackThreadMark();
    ~CallbackThreadMark();
    CallbackThreadMark(const CallbackThreadMark &) = delete;
    CallbackThreadMark &operator=(const CallbackThreadMark &) = delete;
};

/// Whether the calling thread is marked.
bool onCallbackThread();

} // namespace zr::common
