/// @file
/// Clocks of the Windows kernel; elsewhere the same names over the system's clocks.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include "zr_types.h"

/// A count of ticks.
union LARGE_INTEGER
{
    int64_t QuadPart; ///< the whole
};

/// A time of day in two halves.
struct FILETIME
{
    uint32_t dwLowDateTime;  ///< the lower 32 bits
    uint32_t dwHighDateTime; ///< the upper ones
};

/// @return non-zero, and the ticks a second of the monotonic counter; 0 when there is none
ZR_PLATFORM_API int QueryPerformanceFrequency(LARGE_INTEGER *pstFrequency);
/// @return non-zero, and the monotonic counter (CLOCK_MONOTONIC); 0 when it cannot be read
ZR_PLATFORM_API int QueryPerformanceCounter(LARGE_INTEGER *pstCounter);
/// The time of day, in units of 100 ns since 1601-01-01 UTC.
ZR_PLATFORM_API void GetSystemTimeAsFileTime(FILETIME *pstTime);
#endif
