/// @file
/// Small text operations that reading and writing RTSP share. Nothing here depends on the locale. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace zr::rtsp {

/// Whether a byte is below a bound (of 1 to 0x80), or DEL. Every text that comes or goes is looked at so: eight bytes
/// at a time, and bytes above 0x7f do not count.
template <unsigned char bound>
bool anyBelow(std::string_view text)
{
    constexpr uint64_t ones = 0x0101010101010101;
    constexpr uint64_t signs = ones * 0x80;
    const auto hit = [](uint64_t bytes) {
        const uint64_t apart = bytes ^ ones * 0x7f; // 0 where it is DEL
        return (((bytes - ones * bound) & ~bytes) | ((apart - ones) & ~apart)) & signs;
    };
    uint64_t bytes = ones * bound;
    if (text.size() < sizeof(bytes))
    {
        for (const char c : text)
            bytes = bytes << 8 | static_cast<unsigned char>(c);
        return hit(bytes) != 0;
    }
    const char *const last = text.data() + text.size() - sizeof(bytes);
    uint64_t hits = 0;
    for (const char *at = text.data(); at < last; at += sizeof(bytes))
    {
        std::memcpy(&bytes, at, sizeof(bytes));
        hits |= hit(bytes);
    }
    std::memcpy(&bytes, last, sizeof(bytes));
    return (hits | hit(bytes)) != 0;
}

/// Without the blanks and tabs at both ends.
inline std::string_view trimmed(std::string_view text)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Takes a word that blanks or tabs end off the text, and those.
inline std::string_view takeWord(std::string_view &text)
{
    text = trimmed(text);
    size_t end = 0;
    while (end < text.size() && text[end] != ' ' && text[end] != '\t')
        ++end;
    const std::string_view word = text.substr(0, end);
    text = trimmed(text.substr(end));
    return word;
}

/// Whether two texts of the same size are the same but for the case of ASCII letters.
bool sameLetters(std::string_view left, std::string_view right);

/// Whether two texts are the same but for the case of ASCII letters. Most that are not differ in size or at once.
inline bool sameText(std::string_view left, std::string_view right)
{
    constexpr int caseBit = 0x20;
    if (left.size() != right.size() || left.empty())
        return left.size() == right.size();
    return ((left[0] ^ right[0]) & ~caseBit) == 0 && sameLetters(left, right);
}

/// Whether the text begins with a prefix, in the same case.
template <size_t Size>
bool hasPrefix(std::string_view text, const char (&prefix)[Size])
{
    return text.size() >= Size - 1 && std::memcmp(text.data(), prefix, Size - 1) == 0;
}

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

/// Whether it has control characters other than the allowed ones, looked at one by one.
bool hasControlsBut(std::string_view text, std::string_view allowed);

/// Whether it has control characters.
/// @param allowed  those that do not count
inline bool hasControls(std::string_view text, std::string_view allowed = {})
{
    return anyBelow<0x20>(text) && hasControlsBut(text, allowed);
}

/// The text as a log line may hold it: in quotes, printable, no longer than about 80 characters.
std::string quoted(std::string_view text);

/// Appends the text as a header may hold it: each control character becomes a blank, so that no header can be added by
/// it.
void appendHeaderSafe(std::string &out, std::string_view text);

} // namespace zr::rtsp
