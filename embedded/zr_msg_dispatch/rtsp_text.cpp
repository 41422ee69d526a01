#include "rtsp_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "masking.h"

namespace {

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

/// The end of a piece that has quoted strings.
size_t endOfQuoted(std::string_view text, char separator)
{
    bool inQuotes = false;
    size_t end = 0;
    for (; end < text.size() && (inQuotes || text[end] != separator); ++end)
    {
        if (inQuotes && text[end] == '\\')
            ++end;
        else if (text[end] == '"')
            inQuotes = !inQuotes;
    }
    return end;
}

} // namespace

namespace zr::rtsp {

bool sameLetters(std::string_view left, std::string_view right)
{
    return std::memcmp(left.data(), right.data(), left.size()) == 0 ||
           std::equal(left.begin(), left.end(), right.begin(),
                      [](char a, char b) { return a == b || lower(a) == lower(b); });
}

bool beginsWith(std::string_view text, std::string_view prefix)
{
    return sameText(text.substr(0, prefix.size()), prefix);
}

size_t firstOf(std::string_view characters, std::string_view text, size_t begin)
{
    // string_view's find_first_of looks for each of the text's characters among these
    for (const char c : characters)
        text = text.substr(0, text.find(c, begin));
    return text.size();
}

std::string_view takePiece(std::string_view &text, char separator)
{
    size_t end = std::min(text.find(separator), text.size());
    if (text.substr(0, end).find('"') != std::string_view::npos)
        end = endOfQuoted(text, separator);
    const std::string_view piece = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return piece;
}

std::optional<uint32_t> parseNumber(std::string_view text, uint32_t maximum)
{
    uint32_t number = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, number);
    if (text.empty() || problem != std::errc() || stop != end || number > maximum)
        return std::nullopt;
    return number;
}

std::optional<double> parseDecimal(std::string_view text, double maximum)
{
    double number = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (text.empty() || problem != std::errc() || stop != end || !std::isfinite(number) || std::fabs(number) > maximum)
        return std::nullopt;
    return number;
}

bool isToken(std::string_view text)
{
    constexpr std::string_view separators = "()<>@,;:\\\"/[]?={}";
    return !text.empty() && std::all_of(text.begin(), text.end(), [separators](char c) {
        return c > 0x20 && c < 0x7f && separators.find(c) == std::string_view::npos;
    });
}

bool hasControlsBut(std::string_view text, std::string_view allowed)
{
    return std::any_of(text.begin(), text.end(),
                       [allowed](char c) { return isControl(c) && allowed.find(c) == std::string_view::npos; });
}

// What is escaped, or cut, would not be recognised as secret any more.
std::string quoted(std::string_view text)
{
    std::string shown(text);
    common::maskCredentials(shown);
    constexpr size_t longest = 80;
    constexpr char digits[] = "0123456789abcdef";
    std::string out = "\"";
    for (const char c : shown)
    {
        if (out.size() > longest)
            return out + "...\"";
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f)
            out += c;
        else
            out.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
    return out + '"';
}

void appendHeaderSafe(std::string &out, std::string_view text)
{
    const auto begin = static_cast<std::ptrdiff_t>(out.size());
    const bool safe = !hasControls(text);
    out.append(text);
    if (!safe)
        std::replace_if(out.begin() + begin, out.end(), isControl, ' ');
}

} // namespace zr::rtsp
