/// @file
/// Log lines of the plug-in: level without its prefix, status, text, arguments; the first argument is always the
/// qualified name of the logging function. Texts stand whole where they are logged, so that a log line can be found.
#pragma once

#include <cxxabi.h>
#include <exception>
#include <type_traits>

#include "zr_common.h"

inline constexpr ZR_ULONG MODULE_RTSP = 0x6000003;
inline constexpr ZR_ULONG MODULE_RTSP_SPEED = 0x6000001;
inline constexpr ZR_ULONG MODULE_RTSP_HANDOFF = 0x6000002;

inline constexpr char FILE_RTSP_IMPL[] = "rtsp_impl";
inline constexpr char FILE_RTSP_MEDIACTRL[] = "rtsp_mediactrl";

#define RTSP_LOG_OF(level, code, module, file, ...)                                                                    \
    CZRWriteLog::writeLog(ZR_LOG_##level, (code), (module), (file), __LINE__, __VA_ARGS__)

/// A line of the class.
#define RTSP_LOG(level, code, ...) RTSP_LOG_OF(level, code, MODULE_RTSP, FILE_RTSP_MEDIACTRL, __VA_ARGS__)
/// A line of the entry points.
#define RTSP_IMPL_LOG(level, code, ...) RTSP_LOG_OF(level, code, MODULE_RTSP, FILE_RTSP_IMPL, __VA_ARGS__)
/// A line of the speed conversions.
#define RTSP_SPEED_LOG(level, code, ...) RTSP_LOG_OF(level, code, MODULE_RTSP_SPEED, FILE_RTSP_MEDIACTRL, __VA_ARGS__)
/// A line of the hand-off of stream information.
#define RTSP_HANDOFF_LOG(level, code, ...)                                                                             \
    RTSP_LOG_OF(level, code, MODULE_RTSP_HANDOFF, FILE_RTSP_MEDIACTRL, __VA_ARGS__)

/// Runs what the host or the platform called, and lets nothing out: an exception is logged and becomes the failure.
/// A thread's cancellation is no failure; it goes on.
template <typename Body, typename... Failure>
auto guarded(const char *pszFile, const char *pszFunction, Body &&fnBody, Failure... tFailure) -> decltype(fnBody())
{
    using Result = decltype(fnBody());
    try
    {
        return fnBody();
    }
    catch (abi::__forced_unwind &)
    {
        throw;
    }
    catch (const std::exception &oException)
    {
        RTSP_LOG_OF(ERROR, 1, MODULE_RTSP, pszFile, "[%s] unexpected exception: %s", pszFunction, oException.what());
    }
    catch (...)
    {
        RTSP_LOG_OF(ERROR, 1, MODULE_RTSP, pszFile, "[%s] unexpected exception", pszFunction);
    }
    if constexpr (!std::is_void_v<Result>)
        return Result(tFailure...);
}
