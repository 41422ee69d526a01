#include "endpoint.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

namespace zr::media {

namespace {

using HostBytes = std::array<uint8_t, 16>;

const sockaddr_in &asV4(const sockaddr_storage &address)
{
    return reinterpret_cast<const sockaddr_in &>(address);
}

const sockaddr_in6 &asV6(const sockaddr_storage &address)
{
    return reinterpret_cast<const sockaddr_in6 &>(address);
}

/// IPv6's form of either family.
HostBytes hostBytes(const sockaddr_storage &address)
{
    HostBytes bytes{};
    if (address.ss_family == AF_INET6)
    {
        std::memcpy(bytes.data(), &asV6(address).sin6_addr, bytes.size());
    }
    else if (address.ss_family == AF_INET)
    {
        bytes[10] = bytes[11] = 0xFF;
        std::memcpy(bytes.data() + 12, &asV4(address).sin_addr, 4);
    }
    return bytes;
}

bool isLoopback(const HostBytes &bytes)
{
    static const HostBytes v6Loopback = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    static const HostBytes mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 127};
    return bytes == v6Loopback || std::equal(bytes.begin(), bytes.begin() + 13, mapped.begin());
}

/// Calls found(interface) for the interface that holds the address.
template <typename Found>
bool forOwnAddress(const Endpoint &endpoint, Found found)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
    {
        return false;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        const int family = entry->ifa_addr == nullptr ? AF_UNSPEC : entry->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6)
        {
            continue;
        }
        const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        sockaddr_storage address{};
        std::memcpy(&address, entry->ifa_addr, length);
        if (Endpoint(address, length).sameHost(endpoint))
        {
            found(*entry);
            return true;
        }
    }
    return false;
}

} // namespace

Endpoint::Endpoint(const sockaddr_storage &address, socklen_t length)
    : m_address(address)
    , m_length(length)
{
}

std::optional<Endpoint> Endpoint::parse(const std::string &host, uint16_t port)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *found = nullptr;
    if (host.empty() || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
    {
        return std::nullopt;
    }
    sockaddr_storage address{};
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    Endpoint endpoint(address, found->ai_addrlen);
    freeaddrinfo(found);
    endpoint.setPort(port);
    return endpoint;
}

uint16_t Endpoint::port() const
{
    return ntohs(family() == AF_INET6 ? asV6(m_address).sin6_port : asV4(m_address).sin_port);
}

void Endpoint::setPort(uint16_t port)
{
    if (family() == AF_INET6)
    {
        reinterpret_cast<sockaddr_in6 &>(m_address).sin6_port = htons(port);
    }
    else
    {
        reinterpret_cast<sockaddr_in &>(m_address).sin_port = htons(port);
    }
}

bool Endpoint::sameHost(const Endpoint &other) const
{
    return m_length != 0 && other.m_length != 0 && hostBytes(m_address) == hostBytes(other.m_address);
}

bool Endpoint::isOwn() const
{
    return m_length != 0 && (isLoopback(hostBytes(m_address)) || forOwnAddress(*this, [](const ifaddrs &) {}));
}

bool Endpoint::isSourceSpecific() const
{
    const HostBytes bytes = hostBytes(m_address);
    const bool v6 = bytes[0] == 0xFF && bytes[1] >> 4 == 3 && bytes[2] == 0 && bytes[3] == 0;
    return family() == AF_INET ? bytes[12] == 232 : v6;
}

std::string Endpoint::text() const
{
    std::array<char, NI_MAXHOST> host{};
    if (m_length == 0 || getnameinfo(address(), m_length, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) != 0)
    {
        return "unknown";
    }
    const std::string name = family() == AF_INET6 ? "[" + std::string(host.data()) + "]" : host.data();
    return name + ":" + std::to_string(port());
}

const sockaddr *Endpoint::address() const
{
    return reinterpret_cast<const sockaddr *>(&m_address);
}

unsigned interfaceOf(const Endpoint &endpoint)
{
    unsigned index = 0;
    forOwnAddress(endpoint, [&index](const ifaddrs &entry) { index = if_nametoindex(entry.ifa_name); });
    return index;
}

} // namespace zr::media
