/// @file
/// Small text operations that reading and writing RTSP share. Nothing here depends on the locale. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr::rtsp {

/// Without the blanks and tabs at both ends.
std::string_view trimmed(std::string_view text);

/// Whether two texts are the same but for the case of ASCII letters.
bool sameText(std::string_view left, std::string_view right);

/// Whether the text begins with the prefix, compared without case.
bool beginsWith(std::string_view text, std::string_view prefix);

/// The pieces between separators that stand outside of quoted strings, each trimmed.
std::vector<std::string_view> split(std::string_view text, char separator);

/// A decimal number of digits alone; none when it is something else or exceeds the maximum.
std::optional<uint32_t> parseNumber(std::string_view text, uint32_t maximum);

/// A decimal fraction ("-0.5", no exponent); none when it is something else or exceeds the maximum either way.
std::optional<double> parseDecimal(std::string_view text, double maximum);

/// Whether it is a token of RFC 2326, 15.1.
bool isToken(std::string_view text);

/// Whether it has control characters.
/// @param allowed  those that do not count
bool hasControls(std::string_view text, std::string_view allowed = {});

/// The text as a log line may hold it: in quotes, printable, no longer than about 80 characters.
std::string quoted(std::string_view text);

/// The text as a header may hold it: each control character becomes a blank, so that no header can be added by it.
std::string headerSafe(std::string_view text);

} // namespace zr::rtsp
