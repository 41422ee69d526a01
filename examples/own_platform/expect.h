/// @file
/// How the example says of each step whether it came out right.
#pragma once

#include <cstdio>
#include <string>

#include "zr_rtsp/codes.h"

namespace own {

inline bool allRight = true;

inline void expect(const char *step, const std::string &result, bool right)
{
    std::printf("%-32s %s  %s\n", step, result.c_str(), right ? "right" : "WRONG");
    allRight = allRight && right;
}

inline void expect(const char *step, ZR_ULONG result, ZR_ULONG expected = ZR_RTSP_OK)
{
    expect(step, std::to_string(result), result == expected);
}

inline void expect(const char *step, const std::string &result, const std::string &beginning)
{
    expect(step, result, result.compare(0, beginning.size(), beginning) == 0);
}

} // namespace own
