#include "udp.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <random>

#include <unistd.h>

namespace zr::media {

namespace {

/// Where media ports lie; below and above are other services' and the system's own choice.
constexpr unsigned firstPort = 20000;
constexpr unsigned portBlocks = 10000; ///< of four ports each
/// From one search to the next, in blocks, without a common factor with their number: what is in use lies apart. A
/// server on this machine that tries a few ports from where it is finds none in a dense range.
constexpr unsigned portStride = 3571;

/// A key frame of several hundred packets arrives at once; the system may grant less.
constexpr int receiveBuffer = 2 * 1024 * 1024;

constexpr size_t batchSize = 32;
constexpr size_t maxDatagram = 65536;

int set(int fd, int level, int name, int value)
{
    return setsockopt(fd, level, name, &value, sizeof value);
}

Descriptor openSocket(const Endpoint &at, bool shared)
{
    Descriptor fd(socket(at.family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!fd || (shared && set(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1) != 0) ||
        bind(fd.get(), at.address(), at.length()) != 0)
    {
        return {};
    }
    set(fd.get(), SOL_SOCKET, SO_RCVBUF, receiveBuffer);
    return fd;
}

/// @return 0, else the system's error number
int bindPair(Endpoint at, bool shared, UdpPair &pair)
{
    pair.rtp = openSocket(at, shared);
    if (pair.rtp)
    {
        at.setPort(static_cast<uint16_t>(at.port() + 1));
        pair.rtcp = openSocket(at, shared);
    }
    return pair.rtp && pair.rtcp ? 0 : errno;
}

void copyAddress(const Endpoint &from, sockaddr_storage &to)
{
    std::copy_n(reinterpret_cast<const char *>(from.address()), from.length(), reinterpret_cast<char *>(&to));
}

/// Joins a group from any source or from one, whichever the protocol (RFC 3678, 5.1).
/// @return 0, or -1 and errno
int joinOne(int fd, const Group &group, unsigned interface)
{
    const int level = group.address.family() == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
    if (!group.source)
    {
        group_req request{};
        request.gr_interface = interface;
        copyAddress(group.address, request.gr_group);
        return setsockopt(fd, level, MCAST_JOIN_GROUP, &request, sizeof request);
    }
    group_source_req request{};
    request.gsr_interface = interface;
    copyAddress(group.address, request.gsr_group);
    copyAddress(*group.source, request.gsr_source);
    return setsockopt(fd, level, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request);
}

} // namespace

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept
{
    if (this != &other)
    {
        reset();
        m_fd = other.release();
    }
    return *this;
}

int Descriptor::release()
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void Descriptor::reset()
{
    if (m_fd >= 0)
    {
        const int keptError = errno;
        ::close(m_fd);
        errno = keptError;
        m_fd = -1;
    }
}

int bindPairs(Endpoint &local, std::array<UdpPair, 2> &pairs)
{
    // every block is tried once, from where the last search ended
    static std::atomic<uint64_t> next{std::random_device{}()};
    for (unsigned tries = 0; tries < portBlocks; ++tries)
    {
        const auto port = static_cast<unsigned>(firstPort + 4 * (next.fetch_add(portStride) % portBlocks));
        int error = 0;
        for (size_t i = 0; i < pairs.size() && error == 0; ++i)
        {
            Endpoint at = local;
            at.setPort(static_cast<uint16_t>(port + 2 * i));
            error = bindPair(at, false, pairs[i]);
        }
        if (error == 0)
        {
            local.setPort(static_cast<uint16_t>(port));
            return 0;
        }
        pairs = {};
        if (error != EADDRINUSE)
        {
            return error;
        }
    }
    return EADDRINUSE;
}

int joinGroup(const Group &group, const Endpoint &local, UdpPair &pair)
{
    const Endpoint &address = group.address;
    if (const int error = bindPair(address, true, pair))
    {
        return error;
    }
    const unsigned interface = interfaceOf(local);
    for (const Descriptor *fd : {&pair.rtp, &pair.rtcp})
    {
        if (joinOne(fd->get(), group, interface) != 0)
        {
            return errno;
        }
    }
    // reports go to the group through the same interface
    const int out = pair.rtcp.get();
    const bool v6 = address.family() == AF_INET6;
    if (v6)
    {
        set(out, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface));
    }
    else
    {
        ip_mreqn request{};
        request.imr_ifindex = static_cast<int>(interface);
        setsockopt(out, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request);
    }
    if (group.ttl != 0)
    {
        set(out, v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_MULTICAST_HOPS : IP_MULTICAST_TTL, group.ttl);
    }
    return 0;
}

void sendTo(int fd, const Endpoint &to, const std::vector<uint8_t> &bytes)
{
    sendto(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT, to.address(), to.length());
}

struct PacketBatch::Buffers
{
    std::array<mmsghdr, batchSize> headers{};
    std::array<iovec, batchSize> vectors{};
    std::array<sockaddr_storage, batchSize> from{};
    std::unique_ptr<uint8_t[]> bytes{new uint8_t[batchSize * maxDatagram]}; // not cleared: little of it is ever used
};

PacketBatch::PacketBatch()
    : m_buffers(std::make_unique<Buffers>())
{
    for (size_t i = 0; i < batchSize; ++i)
    {
        m_buffers->vectors[i] = {m_buffers->bytes.get() + i * maxDatagram, maxDatagram};
        m_buffers->headers[i].msg_hdr.msg_iov = &m_buffers->vectors[i];
        m_buffers->headers[i].msg_hdr.msg_iovlen = 1;
        m_buffers->headers[i].msg_hdr.msg_name = &m_buffers->from[i];
    }
}

PacketBatch::~PacketBatch() = default;

size_t PacketBatch::receive(int fd)
{
    for (mmsghdr &header : m_buffers->headers)
    {
        header.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
    }
    const int count = recvmmsg(fd, m_buffers->headers.data(), batchSize, MSG_DONTWAIT, nullptr);
    return count > 0 ? static_cast<size_t>(count) : 0;
}

PacketBatch::Packet PacketBatch::packet(size_t index) const
{
    const mmsghdr &header = m_buffers->headers[index];
    return {static_cast<const uint8_t *>(m_buffers->vectors[index].iov_base), header.msg_len,
            Endpoint(m_buffers->from[index], header.msg_hdr.msg_namelen)};
}

} // namespace zr::media
