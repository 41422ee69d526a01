/// @file
/// The platform's own log lines. The module code tells the in-house library.
#pragma once

#include <atomic>

#include "zr_common.h"

namespace zr::log {

/// The lowest level that is written; 0 (all) until the log is made. Apart from the log, so that a line that is not
/// written costs one load.
inline std::atomic<ZR_ULONG> threshold{0};

inline bool isWritten(tagZrLogLevel level)
{
    return level >= threshold.load(std::memory_order_relaxed);
}

enum Module : ZR_ULONG
{
    Common = 0x5000001,
    Dispatch = 0x5000002,
    Player = 0x5000003,
    Util = 0x5000004,
    Route = 0x5000005,
};

} // namespace zr::log

/// A line of the log, with the source's base name. Level without its prefix: DEBUG, INFO, WARNING, ERROR. The arguments
/// are evaluated only when it is written.
#define ZR_PLATFORM_LOG(level, code, module, ...)                                                                      \
    (zr::log::isWritten(ZR_LOG_##level)                                                                                \
         ? CZRWriteLog::writeLog(ZR_LOG_##level, (code), zr::log::module, __FILE_NAME__, __LINE__, __VA_ARGS__)        \
         : void())

#ifndef __FILE_NAME__
#define __FILE_NAME__ __FILE__
#endif
