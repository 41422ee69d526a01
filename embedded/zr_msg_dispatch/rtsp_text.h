/// @file
/// Small text operations that reading and writing RTSP share. Nothing here depends on the locale. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zr::rtsp {

/// Without the blanks and tabs at both ends.
std::string_view trimmed(std::string_view text);

/// Whether two texts are the same but for the case of ASCII letters.
bool sameText(std::string_view left, std::string_view right);

/// Whether the text begins with the prefix, compared without case.
bool beginsWith(std::string_view text, std::string_view prefix);

/// The position of the first of a few characters from `begin` on; the text's size when there is none.
size_t firstOf(std::string_view characters, std::string_view text, size_t begin = 0);

/// Takes the piece in front of the first separator that stands outside of quoted strings off the text, and that
/// separator.
/// @return the piece, trimmed
std::string_view takePiece(std::string_view &text, char separator);

/// Whether one of the pieces is what a predicate looks for.
template <typename Predicate>
bool anyPiece(std::string_view text, char separator, Predicate &&isIt)
{
    while (!text.empty())
    {
        if (isIt(takePiece(text, separator)))
            return true;
    }
    return false;
}

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

/// Appends the text as a header may hold it: each control character becomes a blank, so that no header can be added by
/// it.
void appendHeaderSafe(std::string &out, std::string_view text);

} // namespace zr::rtsp
