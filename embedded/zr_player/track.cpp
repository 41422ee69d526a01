#include "track.h"

#include <random>
#include <utility>

namespace zr::media {

namespace {

/// How long a group's other senders wait for the server, once they are heard.
constexpr std::chrono::seconds serverFirst{2};

/// Half to one and a half times 5 s, so that many receivers do not report at once (RFC 3550, 6.2 and 6.3.1).
std::chrono::milliseconds reportInterval()
{
    static thread_local std::minstd_rand random{std::random_device{}()};
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(2500, 7500)(random));
}

} // namespace

bool Track::setUp(const TrackTransport &transport, TrackSockets sockets, InterleavedWriter writer)
{
    m_setUp = true;
    m_closed = false;
    m_heard = m_peerHeard = false;
    m_strangerHeard.reset();
    m_transport = transport;
    m_interleaved = transport.interleaved;
    m_sockets = sockets;
    m_writer = std::move(writer);
    m_peer = {};
    m_reportTo = {};
    m_replay = {};
    m_nextReport = Clock::now() + reportInterval();
    if (m_interleaved)
    {
        return true;
    }
    const auto peer = Endpoint::parse(transport.peerAddress, transport.peerRtpPort);
    if (!peer)
    {
        return false;
    }
    m_peer = m_asked = m_reportTo = *peer;
    m_reportTo.setPort(transport.peerRtcpPort);
    // to a source-specific group nobody but its source may send
    if (const auto group = Endpoint::parse(transport.group, static_cast<uint16_t>(transport.groupPort + 1));
        transport.multicast && group && !group->isSourceSpecific())
    {
        m_reportTo = *group;
    }
    return true;
}

void Track::connectionClosed()
{
    m_closed = true;
    m_interleaved = false;
    m_writer = nullptr;
}

bool Track::rtpFromPeer(const Endpoint &from) const
{
    return from.sameHost(m_peer) && (m_transport.peerRtpPort == 0 || from.port() == m_transport.peerRtpPort);
}

bool Track::hearsInstead(const Endpoint &from, TimePoint arrival)
{
    if (!m_transport.multicast || m_transport.sourceNamed || m_asked.length() == 0)
    {
        return false;
    }
    m_strangerHeard = m_strangerHeard.value_or(arrival);
    const bool comesAfterAll = from.sameHost(m_asked) && !m_peer.sameHost(m_asked);
    if (!comesAfterAll && (m_peerHeard || arrival - *m_strangerHeard < serverFirst))
    {
        return false;
    }
    if (m_reportTo.sameHost(m_peer)) // not to the group
    {
        m_reportTo = from;
        m_reportTo.setPort(0);
    }
    m_peer = from;
    m_transport.peerRtpPort = m_transport.peerRtcpPort = 0; // they were the server's
    return true;
}

bool Track::rtcpFromPeer(const Endpoint &from)
{
    if (!from.sameHost(m_peer) || (m_transport.peerRtcpPort != 0 && from.port() != m_transport.peerRtcpPort))
    {
        return false;
    }
    if (m_reportTo.port() == 0)
    {
        m_reportTo.setPort(from.port());
    }
    return true;
}

bool Track::takeRtp(const RtpPacket &packet, size_t size, uint32_t clockRate, TimePoint arrival)
{
    m_frames += m_packets == 0 || packet.timestamp != m_timestamp ? 1 : 0;
    m_timestamp = packet.timestamp;
    m_payloadType = packet.payloadType;
    ++m_packets;
    m_bytes += size;
    m_lastArrival = arrival;
    m_heard = m_peerHeard = true;
    if (const auto mark = readReplayMark(packet))
    {
        m_replay.take(*mark, packet.timestamp);
    }
    return m_reception.take(packet, clockRate, arrival);
}

void Track::takeSenderReport(const RtcpReading::SenderReport &report, TimePoint arrival)
{
    m_reception.senderReport(report.ssrc, report.ntpMiddle, arrival);
    if (report.clock && (!m_reception.active() || report.ssrc == m_reception.ssrc()))
    {
        m_senderClock = report.clock;
    }
}

Track::Report Track::report(TimePoint now, uint32_t ssrc, const std::string &cname)
{
    m_nextReport = now + reportInterval();
    const bool heard = std::exchange(m_heard, false);
    Report report;
    report.silent = !heard;
    if (!m_setUp || (m_closed && !heard))
    {
        return report;
    }
    if (m_interleaved)
    {
        report.writer = m_writer;
        report.channel = m_transport.rtcpChannel;
    }
    else if (m_reportTo.port() != 0)
    {
        report.fd = m_sockets.rtcp;
        report.to = m_reportTo;
    }
    if (report.writer || report.fd >= 0)
    {
        const auto block = m_reception.report(now);
        report.bytes = writeReceiverReport(ssrc, block ? &*block : nullptr, cname);
    }
    return report;
}

bool Track::canPunch() const
{
    return m_peer.length() != 0 && !m_transport.multicast && m_transport.peerRtpPort != 0;
}

void Track::punchMedia(const std::vector<uint8_t> &report) const
{
    if (canPunch())
    {
        sendTo(m_sockets.rtp, m_peer, report);
    }
}

void Track::punch(uint32_t ssrc, const std::string &cname) const
{
    if (!canPunch())
    {
        return;
    }
    const std::vector<uint8_t> bytes = writeReceiverReport(ssrc, nullptr, cname);
    punchMedia(bytes);
    Endpoint rtcp = m_peer;
    rtcp.setPort(m_transport.peerRtcpPort != 0 ? m_transport.peerRtcpPort
                                               : static_cast<uint16_t>(m_transport.peerRtpPort + 1));
    sendTo(m_sockets.rtcp, rtcp, bytes);
}

} // namespace zr::media
