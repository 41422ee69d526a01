#include "log_line.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "c_locale.h"
#include "masking.h"

namespace {

constexpr std::string_view cutMark = "... (cut)";

void appendHarmless(std::string &line, std::string_view text)
{
    static constexpr char digits[] = "0123456789abcdef";
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7F)
            line.append({'\\', 'x', digits[byte >> 4], digits[byte & 15]});
        else
            line.push_back(c);
    }
}

} // namespace

std::string zr::common::formatLogLine(ZR_ULONG code, ZR_ULONG module, const char *file, int line, const char *format,
                                      va_list arguments)
{
    std::array<char, 64> numbers{};
    std::string result;
    std::snprintf(numbers.data(), numbers.size(), "0x%07x %u ", module, code);
    result += numbers.data();
    result += file == nullptr ? "?" : file;
    std::snprintf(numbers.data(), numbers.size(), ":%d ", line);
    result += numbers.data();

    std::array<char, 2 * logTextLimit> text; // so that what is cut is recognised as secret before it is
    const int length = format == nullptr ? -1 : system::formatC(text.data(), text.size(), format, arguments);
    if (length < 0)
        return result + "(no text: its format failed)";
    std::string masked(text.data(), std::min(static_cast<size_t>(length), text.size() - 1));
    maskCredentials(masked);
    appendHarmless(result, std::string_view(masked).substr(0, logTextLimit));
    if (masked.size() > logTextLimit || static_cast<size_t>(length) >= text.size())
        result += cutMark;
    return result;
}
