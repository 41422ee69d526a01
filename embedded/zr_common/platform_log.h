/// @file
/// The platform's own log lines. The module code tells the in-house library.
#pragma once

#include "zr_common.h"

namespace zr::log {

enum Module : ZR_ULONG
{
    Common = 0x5000001,
    Dispatch = 0x5000002,
    Player = 0x5000003,
    Util = 0x5000004,
    Route = 0x5000005,
};

} // namespace zr::log

/// A line of the log, with the source's base name. Level without its prefix: DEBUG, INFO, WARNING, ERROR.
#define ZR_PLATFORM_LOG(level, code, module, ...)                                                                      \
    CZRWriteLog::writeLog(ZR_LOG_##level, (code), zr::log::module, __FILE_NAME__, __LINE__, __VA_ARGS__)

#ifndef __FILE_NAME__
#define __FILE_NAME__ __FILE__
#endif
