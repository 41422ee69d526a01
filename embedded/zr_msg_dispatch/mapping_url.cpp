#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "mapping.h"
#include "rtsp_text.h"

namespace {

using zr::dispatch::Url;

bool isNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
}

/// Whether it is an IPv6 address, with or without a zone ("fe80::1%eth0").
bool isIpv6(std::string_view text)
{
    const size_t zone = std::min(text.find('%'), text.size());
    const std::string_view name = text.substr(std::min(zone + 1, text.size()));
    in6_addr address{};
    return inet_pton(AF_INET6, std::string(text.substr(0, zone)).c_str(), &address) == 1 &&
           std::all_of(name.begin(), name.end(), isNameCharacter);
}

/// Reads "host", "host:port", "[address]:port" into a URL's parts.
bool readAuthority(std::string_view authority, Url &url)
{
    size_t end = authority.find(':');
    if (authority.substr(0, 1) == "[")
    {
        end = authority.find(']');
        if (end == std::string_view::npos || !isIpv6(authority.substr(1, end - 1)))
            return false;
        url.host = authority.substr(1, end - 1);
        ++end;
    }
    else
    {
        url.host = authority.substr(0, end);
        if (url.host.empty() || !std::all_of(url.host.begin(), url.host.end(), isNameCharacter))
            return false;
    }
    if (end >= authority.size())
        return true;
    if (authority[end] != ':')
        return false;
    const std::string_view digits = authority.substr(end + 1);
    if (digits.empty())
        return true;
    const auto port = zr::rtsp::parseNumber(digits, UINT16_MAX);
    if (!port || *port == 0)
        return false;
    url.port = static_cast<uint16_t>(*port);
    return true;
}

std::optional<std::string> textOf(std::optional<Url> url)
{
    return url ? std::optional(std::move(url->withoutCredentials)) : std::nullopt;
}

} // namespace

namespace zr::dispatch {

std::optional<Url> parseUrl(std::string_view text)
{
    Url url;
    const size_t scheme = text.find("://");
    if (scheme == std::string_view::npos || rtsp::hasControls(text) || text.find(' ') != std::string_view::npos)
        return std::nullopt;
    url.secure = rtsp::sameText(text.substr(0, scheme), "rtsps");
    if (!url.secure && !rtsp::sameText(text.substr(0, scheme), "rtsp"))
        return std::nullopt;
    url.port = url.secure ? 322 : 554;
    const size_t begin = scheme + 3;
    const size_t end = rtsp::firstOf("/?#", text, begin);
    std::string_view authority = text.substr(begin, end - begin);
    const size_t credentials = authority.rfind('@');
    if (credentials != std::string_view::npos)
        authority.remove_prefix(credentials + 1);
    if (!readAuthority(authority, url))
        return std::nullopt;
    url.withoutCredentials.reserve(text.size());
    url.withoutCredentials.append(text.substr(0, begin)).append(authority).append(text.substr(end));
    return url;
}

std::optional<std::string> resolveUrl(const std::string &base, std::string_view reference)
{
    if (reference.find("://") < rtsp::firstOf("/?#", reference)) // it has a scheme
        return textOf(parseUrl(reference));
    const size_t authority = base.find("://");
    if (reference.empty() || authority == std::string::npos)
        return std::nullopt;
    const size_t path = rtsp::firstOf("/?#", base, authority + 3);
    std::string whole(reference);
    if (reference.substr(0, 2) == "//")
        whole.insert(0, base, 0, authority + 1);
    else if (reference.front() == '/')
        whole.insert(0, base, 0, path);
    else
    {
        const size_t pathEnd = rtsp::firstOf("?#", base, path);
        const size_t slash = base.substr(0, pathEnd).rfind('/');
        whole.insert(0, slash < path || slash == std::string::npos ? base.substr(0, path) + '/'
                                                                   : base.substr(0, slash + 1));
    }
    return textOf(parseUrl(whole));
}

std::optional<std::string> redirectTarget(const std::string &requestUrl, const rtsp::Message &response)
{
    const std::string *location = response.find("Location");
    if (location == nullptr)
        return std::nullopt;
    auto target = resolveUrl(requestUrl, *location);
    if (target && rtsp::beginsWith(requestUrl, "rtsps:") && !rtsp::beginsWith(*target, "rtsps:"))
        return std::nullopt;
    return target;
}

std::string hostAndPort(const Ends &ends)
{
    const bool ipv6 = ends.peerAddress.find(':') != std::string::npos;
    return (ipv6 ? '[' + ends.peerAddress + ']' : ends.peerAddress) + ':' + std::to_string(ends.peerPort);
}

} // namespace zr::dispatch
