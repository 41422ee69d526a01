#include "rtsp_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

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

} // namespace

namespace zr::rtsp {

std::string_view trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool sameText(std::string_view left, std::string_view right)
{
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) { return lower(a) == lower(b); });
}

bool beginsWith(std::string_view text, std::string_view prefix)
{
    return sameText(text.substr(0, prefix.size()), prefix);
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    bool inQuotes = false;
    size_t begin = 0;
    for (size_t at = 0; at < text.size(); ++at)
    {
        if (inQuotes && text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            inQuotes = !inQuotes;
        else if (!inQuotes && text[at] == separator)
        {
            pieces.push_back(trimmed(text.substr(begin, at - begin)));
            begin = at + 1;
        }
    }
    pieces.push_back(trimmed(text.substr(begin)));
    return pieces;
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

bool hasControls(std::string_view text, std::string_view allowed)
{
    return std::any_of(text.begin(), text.end(),
                       [allowed](char c) { return isControl(c) && allowed.find(c) == std::string_view::npos; });
}

std::string quoted(std::string_view text)
{
    constexpr size_t longest = 80;
    constexpr char digits[] = "0123456789abcdef";
    std::string out = "\"";
    for (const char c : text)
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

std::string headerSafe(std::string_view text)
{
    std::string out(text);
    std::replace_if(out.begin(), out.end(), isControl, ' ');
    return out;
}

} // namespace zr::rtsp
