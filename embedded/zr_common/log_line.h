/// @file
/// The text of a log line, fit for a terminal and a file whatever the far side put into it.
#pragma once

#include <cstdarg>
#include <string>

#include "zr_common.h"

namespace zr::common {

/// A line's text is cut here, with a mark.
constexpr size_t logTextLimit = 4096;

/// "0x6000003 13501 rtsp_mediactrl:120 text": what the format gives in the C locale. Control characters but the tab
/// come out as "\x0a", credentials as "***" (maskCredentials), so that no text can begin a line of its own or steer a
/// terminal; other bytes pass as they are.
std::string formatLogLine(ZR_ULONG code, ZR_ULONG module, const char *file, int line, const char *format,
                          va_list arguments) __attribute__((format(printf, 5, 0)));

} // namespace zr::common
