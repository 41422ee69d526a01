#include <arpa/inet.h>

#include <algorithm>

#include "mapping_parts.h"
#include "rtsp_text.h"

namespace {

using zr::dispatch::UrlParts;

/// Whether it has nothing but what a host's name has.
bool isName(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || c == '.' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
               c == '_';
    });
}

/// Whether it is an IPv6 address, with or without a zone ("fe80::1%eth0").
bool isIpv6(std::string_view text)
{
    const size_t zone = std::min(text.find('%'), text.size());
    const std::string_view name = text.substr(std::min(zone + 1, text.size()));
    in6_addr address{};
    return inet_pton(AF_INET6, std::string(text.substr(0, zone)).c_str(), &address) == 1 && isName(name);
}

bool isAuthorityEnd(char c)
{
    return c == '/' || c == '?' || c == '#';
}

/// Reads "host", "host:port", "[address]:port" into a URL's parts.
bool readAuthority(std::string_view authority, UrlParts &parts)
{
    size_t end = authority.find(':');
    if (authority.substr(0, 1) == "[")
    {
        end = authority.find(']');
        if (end == std::string_view::npos || !isIpv6(authority.substr(1, end - 1)))
            return false;
        parts.host = authority.substr(1, end - 1);
        ++end;
    }
    else
    {
        parts.host = authority.substr(0, end);
        if (parts.host.empty() || !isName(parts.host))
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
    parts.port = static_cast<uint16_t>(*port);
    return true;
}

/// A URL without its credentials; none when it is no RTSP URL.
std::optional<std::string> checkedUrl(std::string_view text)
{
    const auto parts = zr::dispatch::readUrl(text);
    return parts ? std::optional(parts->withoutCredentials()) : std::nullopt;
}

} // namespace

namespace zr::dispatch {

std::string UrlParts::withoutCredentials() const
{
    std::string url;
    url.reserve(scheme.size() + rest.size());
    url.append(scheme).append(rest);
    return url;
}

std::optional<UrlParts> readUrl(std::string_view text)
{
    UrlParts parts;
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || !rtsp::hasPrefix(text.substr(colon), "://") || rtsp::anyBelow<0x21>(text))
        return std::nullopt;
    parts.secure = rtsp::sameText(text.substr(0, colon), "rtsps");
    if (!parts.secure && !rtsp::sameText(text.substr(0, colon), "rtsp"))
        return std::nullopt;
    parts.port = parts.secure ? 322 : 554;
    const size_t begin = colon + 3;
    parts.scheme = text.substr(0, begin);
    parts.rest = text.substr(begin);
    size_t end = 0;
    size_t credentials = 0; // up to here
    for (; end < parts.rest.size() && !isAuthorityEnd(parts.rest[end]); ++end)
    {
        if (parts.rest[end] == '@')
            credentials = end + 1;
    }
    parts.rest.remove_prefix(credentials);
    if (!readAuthority(parts.rest.substr(0, end - credentials), parts))
        return std::nullopt;
    return parts;
}

std::optional<Url> parseUrl(std::string_view text)
{
    const auto parts = readUrl(text);
    if (!parts)
        return std::nullopt;
    return Url{parts->secure, std::string(parts->host), parts->port, parts->withoutCredentials()};
}

std::optional<std::string> resolveUrl(const std::string &base, std::string_view reference)
{
    if (reference.find("://") < rtsp::firstOf("/?#", reference)) // it has a scheme
        return checkedUrl(reference);
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
    return checkedUrl(whole);
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
