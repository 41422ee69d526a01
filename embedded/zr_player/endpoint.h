/// @file
/// Numeric transport addresses, IPv4 and IPv6.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

namespace zr::media {

/// An address and a port. An IPv4 address in IPv6's mapped form equals the plain one.
class Endpoint
{
public:
    Endpoint() = default;
    Endpoint(const sockaddr_storage &address, socklen_t length);

    /// @param host  numeric; names are not resolved
    /// @return none when it is not numeric
    static std::optional<Endpoint> parse(const std::string &host, uint16_t port);

    uint16_t port() const;
    void setPort(uint16_t port);
    bool sameHost(const Endpoint &other) const;
    /// Whether the address is one of this machine's own; asks the system, so not for every packet.
    bool isOwn() const;
    /// Whether it is a multicast address of the source-specific range: 232/8 or FF3x::/32 (RFC 4607, 1).
    bool isSourceSpecific() const;
    /// "192.0.2.1:554" or "[2001:db8::1]:554", for the log.
    std::string text() const;

    int family() const { return m_address.ss_family; }
    const sockaddr *address() const;
    socklen_t length() const { return m_length; }

private:
    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

/// The index of the interface that holds the address; 0: unknown, the system chooses.
unsigned interfaceOf(const Endpoint &endpoint);

} // namespace zr::media
