// The kernel's clocks; on Windows the system has them, and this source is not built. All on the thread of a host that
// is about to wait for an answer, under its session's lock: they must not block.

#include <ctime>

#include "windows_kernel.h"

namespace {

constexpr int64_t ticksPerSecond = 1'000'000'000;

} // namespace

// Called once a process. 0 says that there is no counter: then the time of day decides how long a request may take.
int QueryPerformanceFrequency(LARGE_INTEGER *pstFrequency)
{
    pstFrequency->QuadPart = ticksPerSecond;
    return 1;
}

// Called once a request, for its deadline. It must be CLOCK_MONOTONIC: the plug-in waits on that clock for what it
// computes from this one. 0 says that it cannot be read now.
int QueryPerformanceCounter(LARGE_INTEGER *pstCounter)
{
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    pstCounter->QuadPart = now.tv_sec * ticksPerSecond + now.tv_nsec;
    return 1;
}

// Called where the counter is missing. It cannot fail.
void GetSystemTimeAsFileTime(FILETIME *pstTime)
{
    constexpr uint64_t secondsTo1970 = 11'644'473'600; // from 1601
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t units =
        (static_cast<uint64_t>(now.tv_sec) + secondsTo1970) * 10'000'000 + static_cast<uint64_t>(now.tv_nsec) / 100;
    pstTime->dwLowDateTime = static_cast<uint32_t>(units);
    pstTime->dwHighDateTime = static_cast<uint32_t>(units >> 32);
}
