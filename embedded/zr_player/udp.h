/// @file
/// UDP sockets of media ports.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "endpoint.h"

namespace zr::media {

/// Owns a descriptor.
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : m_fd(other.release())
    {
    }
    Descriptor &operator=(Descriptor &&other) noexcept;
    ~Descriptor() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int release();
    void reset();

private:
    int m_fd = -1;
};

/// The sockets of one track, at a port and the next.
struct UdpPair
{
    Descriptor rtp;
    Descriptor rtcp;
};

/// Binds two pairs at P, P + 1 and P + 2, P + 3, P even.
/// @param local  its port is set to P
/// @return 0, else the system's error number
int bindPairs(Endpoint &local, std::array<UdpPair, 2> &pairs);

/// A multicast group, as a receiver joins it.
struct Group
{
    Endpoint address;               ///< and the port of its RTP
    std::optional<Endpoint> source; ///< who alone is heard (RFC 4607); none: whoever sends
    uint8_t ttl = 0;                ///< of what is sent to it; 0: the system's
};

/// Binds a pair at a group's port and the next, and joins the group on the local address' interface.
/// @return 0, else the system's error number
int joinGroup(const Group &group, const Endpoint &local, UdpPair &pair);

/// Never blocks; what does not go is lost, as datagrams may be.
void sendTo(int fd, const Endpoint &to, const std::vector<uint8_t> &bytes);

/// What one wake-up reads of a socket: bounded, so that no sender starves the other ports. One thread.
class PacketBatch
{
public:
    struct Packet
    {
        const uint8_t *data;
        size_t size;
        Endpoint from;
    };

    PacketBatch();
    ~PacketBatch();
    PacketBatch(const PacketBatch &) = delete;
    PacketBatch &operator=(const PacketBatch &) = delete;

    /// @return how many packets were read; 0 also when reading failed for now
    size_t receive(int fd);
    Packet packet(size_t index) const;

private:
    struct Buffers;
    std::unique_ptr<Buffers> m_buffers;
};

} // namespace zr::media
