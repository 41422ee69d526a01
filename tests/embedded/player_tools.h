/// @file
/// What the media port tests share: an open port, packets, sockets.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "endpoint.h"
#include "media_port.h"
#include "port.h"
#include "udp.h"
#include "zr_platform.h"

namespace zr::test {

using Bytes = std::vector<uint8_t>;

constexpr ZR_ULONG portId = 4711;
constexpr ZR_ULONG aoiPortId = 815;

inline Bytes rtp(uint16_t sequence, uint32_t timestamp = 0, uint32_t ssrc = 7, uint8_t payloadType = 96)
{
    const auto byte = [](uint32_t value, int shift) { return static_cast<uint8_t>(value >> shift); };
    Bytes bytes = {0x80, payloadType, byte(sequence, 8), byte(sequence, 0)};
    for (const uint32_t word : {timestamp, ssrc})
        bytes.insert(bytes.end(), {byte(word, 24), byte(word, 16), byte(word, 8), byte(word, 0)});
    bytes.resize(100, 0xAB);
    return bytes;
}

inline bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

/// The next packet; empty when none comes.
inline Bytes receiveFrom(int fd)
{
    pollfd ready{fd, POLLIN, 0};
    Bytes bytes(2000);
    const ssize_t size = poll(&ready, 1, 20000) == 1 ? recv(fd, bytes.data(), bytes.size(), 0) : 0;
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return bytes;
}

/// A UDP socket of the far side.
class Sender
{
public:
    explicit Sender(const char *host)
        : m_at(*media::Endpoint::parse(host, 0))
        , m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        EXPECT_EQ(bind(m_fd.get(), m_at.address(), m_at.length()), 0);
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        EXPECT_EQ(getsockname(m_fd.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
        m_at = media::Endpoint(address, length);
    }

    uint16_t port() const { return m_at.port(); }
    void send(uint16_t to, const Bytes &bytes) const
    {
        media::sendTo(m_fd.get(), *media::Endpoint::parse("127.0.0.1", to), bytes);
    }
    /// To a multicast group.
    void sendByLoopback(const media::Endpoint &group, const Bytes &bytes) const
    {
        ip_mreqn out{};
        out.imr_ifindex = static_cast<int>(media::interfaceOf(*media::Endpoint::parse("127.0.0.1", 0)));
        EXPECT_EQ(setsockopt(m_fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
        media::sendTo(m_fd.get(), group, bytes);
    }
    Bytes receive() const { return receiveFrom(m_fd.get()); }

private:
    media::Endpoint m_at;
    media::Descriptor m_fd;
};

class OpenPort : public testing::Test
{
protected:
    OpenPort()
    {
        EXPECT_EQ(ZR_MediaPortOpen(portId, aoiPortId, "127.0.0.1", &m_first), 0U);
        m_port = media::findByAoiPort(aoiPortId);
    }
    ~OpenPort() override { ZR_MediaPortClose(portId); }

    static ZrMediaStatistics statistics()
    {
        ZrMediaStatistics counted{};
        EXPECT_EQ(ZR_MediaPortStatistics(portId, &counted), 0U);
        return counted;
    }
    static bool arrived(uint64_t packets)
    {
        return eventually([packets] { return statistics().ullPackets >= packets; });
    }
    void tickAfter(std::chrono::seconds passed) const
    {
        static_cast<media::MediaPort &>(*m_port).tick(std::chrono::steady_clock::now() + passed);
    }
    void feed(const Bytes &bytes, uint8_t channel = 0) const
    {
        m_port->interleavedFrame(channel, bytes.data(), bytes.size());
    }
    void feed(const std::vector<Bytes> &packets) const
    {
        for (const Bytes &packet : packets)
            feed(packet);
    }
    void setUpInterleaved(uint8_t number = 0, media::InterleavedWriter writer = {}) const
    {
        media::TrackTransport transport;
        transport.interleaved = true;
        transport.rtpChannel = static_cast<uint8_t>(2 * number);
        transport.rtcpChannel = static_cast<uint8_t>(2 * number + 1);
        m_port->setUpTrack(number, transport, std::move(writer));
    }
    void setUpUdp(unsigned number, uint16_t peerRtpPort, uint16_t peerRtcpPort) const
    {
        media::TrackTransport transport;
        transport.peerAddress = "127.0.0.1";
        transport.peerRtpPort = peerRtpPort;
        transport.peerRtcpPort = peerRtcpPort;
        transport.clientRtpPort = static_cast<uint16_t>(m_first + 2 * number);
        m_port->setUpTrack(number, transport, {});
    }

    ZR_USHORT m_first = 0;
    std::shared_ptr<media::Port> m_port;
};

} // namespace zr::test
