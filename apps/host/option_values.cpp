#include "option_values.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "failure.h"
#include "output_file.h"
#include "position.h"
#include "speed.h"

namespace zr::host {
namespace {

std::string wrong(const std::string &value, const std::string &allowed)
{
    return "it takes " + allowed + ", not \"" + value + "\"";
}

std::string shown(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", number);
    return text;
}

CLI::Validator numbers(double least, double most, const std::string &allowed, bool whole)
{
    const std::string bounds = allowed + " from " + shown(least) + (std::isfinite(most) ? " to " + shown(most) : " on");
    return {[=](std::string &text) {
                char *end = nullptr;
                const double value = std::strtod(text.c_str(), &end);
                const bool number = !text.empty() && *end == '\0' && std::isfinite(value);
                const bool good = number && value >= least && value <= most &&
                                  (!whole || text.find_first_not_of("0123456789") == std::string::npos);
                return good ? std::string() : wrong(text, bounds);
            },
            ""};
}

/// Whether a name ends as other formats' do. What is no format's, such as ".part", promises none.
bool promisesAnother(const std::string &file, const std::string &own)
{
    static constexpr std::array<const char *, 37> formats = {
        ".mkv", ".webm", ".mp4", ".m4v", ".m4a", ".mov",  ".avi",  ".ts",    ".m2ts", ".mts",  ".mpg", ".mpeg", ".flv",
        ".wmv", ".asf",  ".3gp", ".ogg", ".ogv", ".wav",  ".mp3",  ".aac",   ".h264", ".h265", ".264", ".265",  ".png",
        ".jpg", ".jpeg", ".gif", ".bmp", ".tif", ".tiff", ".webp", ".mjpeg", ".pdf",  ".csv",  ".json"};
    std::string end = std::filesystem::path(file).extension().string();
    std::transform(end.begin(), end.end(), end.begin(), [](unsigned char c) { return std::tolower(c); });
    return end != own && std::find(formats.begin(), formats.end(), end) != formats.end();
}

std::string whyMisnamed(const std::string &file, const std::string &what, const std::string &end)
{
    return promisesAnother(file, end) ? file + " is another format's name: " + what + ", name it *" + end : "";
}

bool hasControl(const std::string &text)
{
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

} // namespace

CLI::Validator numberFrom(double least, double most, const char *unit)
{
    return numbers(least, most, unit, false);
}

CLI::Validator wholeNumberFrom(double least, double most, const char *unit)
{
    return numbers(least, most, std::string("whole ") + unit, true);
}

CLI::Validator oneOf(std::vector<std::pair<std::string, ZR_ULONG>> words)
{
    return {[words = std::move(words)](std::string &text) {
                std::string allowed;
                for (const auto &[word, value] : words)
                {
                    if (word == text)
                    {
                        text = std::to_string(value);
                        return std::string();
                    }
                    allowed += (allowed.empty() ? "" : word == words.back().first ? " or " : ", ") + word;
                }
                return wrong(text, allowed);
            },
            ""};
}

CLI::Validator writable()
{
    return {[](std::string &file) { return whyUnwritable(file); }, "FILE"};
}

CLI::Validator writableAs(const std::string &what, const std::string &end)
{
    return {[=](std::string &file) {
                std::string wrongName = whyMisnamed(file, what, end);
                return wrongName.empty() ? whyUnwritable(file) : wrongName;
            },
            "FILE"};
}

CLI::Validator media(const std::string &what, const std::string &end)
{
    return {[=](std::string &file) {
                if (std::string wrongName = whyMisnamed(file, what, end); !wrongName.empty())
                {
                    return wrongName;
                }
                std::error_code ignored;
                const bool other =
                    std::filesystem::exists(file, ignored) && !std::filesystem::is_regular_file(file, ignored);
                const std::string why = whyUnwritable(file);
                return why.empty() && other ? file + " is no ordinary file: media is not written into it" : why;
            },
            "FILE"};
}

CLI::Validator plain()
{
    return {[](std::string &text) { return std::string(hasControl(text) ? "it holds a control character" : ""); }, ""};
}

CLI::Validator place()
{
    return {[](std::string &text) {
                if (const auto clock = clockText(text))
                {
                    text = *clock;
                    return std::string();
                }
                const auto position = parsePosition(text);
                const bool number = position && text.find_first_not_of("0123456789:.") == std::string::npos;
                const bool verbatim = text == "now" || text.find('=') != std::string::npos; // such as smpte=
                return !hasControl(text) && (number || verbatim)
                           ? std::string()
                           : wrong(text, "seconds such as 90, 00:01:30, or a time such as 20260102T180000Z (UTC)");
            },
            ""};
}

CLI::Validator clockTime()
{
    return {[](std::string &text) {
                const auto asked = clockText(text);
                const std::string given = text;
                text = asked.value_or(text);
                return asked ? std::string() : wrong(given, "a time such as 2026-11-20T10:00:00Z (UTC)");
            },
            ""};
}

CLI::Validator speed()
{
    return {[](std::string &text) {
                try
                {
                    speedCode(text);
                    return std::string();
                }
                catch (const Failure &bad)
                {
                    return "\"" + text + "\" is no speed: " + bad.meaning();
                }
            },
            ""};
}

std::optional<tagTransportAddr> addressAndPort(const std::string &text)
{
    const size_t colon = text.find(':');
    const std::string ip = text.substr(0, colon);
    const std::string digits = colon == std::string::npos ? "" : text.substr(colon + 1);
    const bool number =
        !digits.empty() && digits.size() <= 5 && digits.find_first_not_of("0123456789") == std::string::npos;
    const int port = number ? std::stoi(digits) : 0;
    if (!CLI::ValidIPV4(ip).empty() || port < 1 || port > 65535)
    {
        return std::nullopt;
    }
    return tagTransportAddr{static_cast<ZR_USHORT>(port), ip};
}

CLI::Validator receiverAddress()
{
    return {[](std::string &text) {
                return addressAndPort(text) ? std::string()
                                            : wrong(text, "an IPv4 address and a port, such as 192.0.2.40:5000");
            },
            ""};
}

CLI::Validator listenAddress()
{
    return {[](std::string &text) {
                const std::string address = (text.find(':') == std::string::npos ? "127.0.0.1:" : "") + text;
                const auto found = addressAndPort(address);
                const std::string given = text;
                text = found ? found->strIP + ":" + std::to_string(found->usPort) : text;
                return found ? std::string() : wrong(given, "a port such as 9554, or an IPv4 address and port");
            },
            ""};
}

} // namespace zr::host
