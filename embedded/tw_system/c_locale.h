/// @file
/// Formatting in the C locale whatever the host's: what goes on the wire or into a log has a decimal point.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace zr::system {

/// vsnprintf in the C locale. Any thread; only the calling thread's locale changes, for the call.
int formatC(char *out, size_t size, const char *format, va_list arguments) __attribute__((format(printf, 3, 0)));

} // namespace zr::system
