/// @file
/// Log lines of the plug-in: level without its prefix, status, text, arguments; the first argument is always the
/// qualified name of the logging function. Texts stand whole where they are logged, so that a log line can be found.
#pragma once

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

/// A line's text and where it stands, for texts that are handed on to who logs them. They take the function's name
/// alone, or a speed after it.
struct tagLogText
{
    tagLogText(const char *pszTheText, int iTheLine = __builtin_LINE())
        : pszText(pszTheText)
        , iLine(iTheLine)
    {
    }
    /// @param fTheSpeed  for the text's "%f"
    tagLogText(const char *pszTheText, float fTheSpeed, int iTheLine = __builtin_LINE())
        : pszText(pszTheText)
        , bSpeed(true)
        , fSpeed(fTheSpeed)
        , iLine(iTheLine)
    {
    }

    const char *pszText;
    bool bSpeed = false;
    float fSpeed = 0.0F;
    int iLine;
};

/// @param tArguments  what the text takes between the function's name and the speed
template <typename... Arguments>
void logText(tagZrLogLevel enLevel, ZR_ULONG ulCode, const tagLogText &stText, const char *pszFunction,
             Arguments... tArguments)
{
    if (stText.bSpeed)
        CZRWriteLog::writeLog(enLevel, ulCode, MODULE_RTSP, FILE_RTSP_MEDIACTRL, stText.iLine, stText.pszText,
                              pszFunction, tArguments..., static_cast<double>(stText.fSpeed));
    else
        CZRWriteLog::writeLog(enLevel, ulCode, MODULE_RTSP, FILE_RTSP_MEDIACTRL, stText.iLine, stText.pszText,
                              pszFunction, tArguments...);
}
