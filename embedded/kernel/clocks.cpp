#include <ctime>

#include "windows_kernel.h"

namespace {

constexpr int64_t nanosecondsPerSecond = 1'000'000'000;

} // namespace

int QueryPerformanceFrequency(LARGE_INTEGER *pstFrequency)
{
    if (pstFrequency == nullptr)
        return 0;
    pstFrequency->QuadPart = nanosecondsPerSecond;
    return 1;
}

int QueryPerformanceCounter(LARGE_INTEGER *pstCounter)
{
    timespec now{};
    if (pstCounter == nullptr || clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    pstCounter->QuadPart = now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
    return 1;
}

void GetSystemTimeAsFileTime(FILETIME *pstTime)
{
    constexpr uint64_t secondsTo1970 = 11'644'473'600; // from 1601
    timespec now{};
    if (pstTime == nullptr || clock_gettime(CLOCK_REALTIME, &now) != 0)
        return;
    const uint64_t ticks =
        (static_cast<uint64_t>(now.tv_sec) + secondsTo1970) * 10'000'000 + static_cast<uint64_t>(now.tv_nsec) / 100;
    pstTime->dwLowDateTime = static_cast<uint32_t>(ticks);
    pstTime->dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
}
