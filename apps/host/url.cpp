#include "url.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "failure.h"

namespace zr::host {
namespace {

size_t authorityEnd(const std::string &url)
{
    const size_t scheme = url.find("://");
    return scheme == std::string::npos ? 0 : std::min(url.find_first_of("/?#", scheme + 3), url.size());
}

bool isControl(char character)
{
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

int hexValue(char digit)
{
    static constexpr char digits[] = "0123456789abcdef";
    const char lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
    const char *found = lower == '\0' ? nullptr : std::strchr(digits, lower);
    return found == nullptr ? -1 : static_cast<int>(found - digits);
}

std::string percentDecoded(const std::string &text)
{
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] != '%')
        {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0)
        {
            throw wrongUsage("the URL's credentials hold a % without two hexadecimal digits");
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

uint16_t parsePort(const std::string &digits)
{
    const bool numeric =
        !digits.empty() && digits.size() <= 5 && digits.find_first_not_of("0123456789") == std::string::npos;
    const int port = numeric ? std::stoi(digits) : 0;
    if (port < 1 || port > 65535)
    {
        throw wrongUsage("the URL's port is not a number from 1 to 65535");
    }
    return static_cast<uint16_t>(port);
}

// A mark's first character is escaped behind the authority. Within it escapes are not understood everywhere, but a host
// name may be written in any case, and the plug-in compares exactly.
std::string withoutMark(std::string url, const std::string &mark)
{
    for (size_t at = url.find(mark); at != std::string::npos; at = url.find(mark, at + 1))
    {
        if (at < authorityEnd(url))
        {
            url[at] = static_cast<char>(url[at] - 'a' + 'A');
            continue;
        }
        char escaped[4];
        std::snprintf(escaped, sizeof escaped, "%%%02x", static_cast<unsigned>(static_cast<unsigned char>(url[at])));
        url.replace(at, 1, escaped);
    }
    return url;
}

} // namespace

Url parseUrl(const std::string &text)
{
    const bool tls = text.rfind("rtsps://", 0) == 0;
    if (!tls && text.rfind("rtsp://", 0) != 0)
    {
        throw wrongUsage("the URL does not begin with rtsp:// or rtsps://");
    }
    if (std::any_of(text.begin(), text.end(), [](char c) { return isControl(c) || c == ' '; }))
    {
        throw wrongUsage("the URL holds a blank or a control character");
    }
    const size_t begin = tls ? 8 : 7;
    const size_t end = authorityEnd(text);
    std::string authority = text.substr(begin, end - begin);

    Url url;
    const size_t at = authority.rfind('@');
    if (at != std::string::npos)
    {
        const std::string given = authority.substr(0, at);
        const size_t colon = given.find(':');
        url.credentials.user = percentDecoded(given.substr(0, colon));
        url.credentials.complete = colon != std::string::npos;
        url.credentials.password = colon == std::string::npos ? "" : percentDecoded(given.substr(colon + 1));
        authority.erase(0, at + 1);
    }
    if (!authority.empty() && authority.front() == '[')
    {
        throw wrongUsage("IPv6 addresses are not supported");
    }
    const size_t colon = authority.find(':');
    url.host = authority.substr(0, colon);
    url.portNamed = colon != std::string::npos;
    url.port =
        colon == std::string::npos ? static_cast<uint16_t>(tls ? 322 : 554) : parsePort(authority.substr(colon + 1));
    if (url.host.empty())
    {
        throw wrongUsage("the URL names no host");
    }
    url.text = text.substr(0, begin) + authority + text.substr(end, text.find('#', end) - end);
    return url;
}

std::string urlForDescribe(const std::string &url, const Credentials &credentials)
{
    if (credentials.user.empty() && credentials.password.empty())
    {
        return withoutMark(url, "auth");
    }
    const std::string both = credentials.user + credentials.password;
    if (std::any_of(both.begin(), both.end(), isControl) || credentials.user.find("password=") != std::string::npos)
    {
        throw wrongUsage("the user name or the password holds what cannot be handed over: a control character, or "
                         "\"password=\" in the user name");
    }
    std::string plain = url;
    for (const char *mark : {"auth", "username=", "password="})
    {
        plain = withoutMark(plain, mark);
    }
    return plain + "?auth&username=" + credentials.user + "&password=" + credentials.password + "&";
}

std::string urlForSetup(const std::string &control)
{
    return withoutMark(control, "auth");
}

} // namespace zr::host
