/// @file
/// One track of a media port: which packets are its own, what it has received, what it reports. Guarded by its port.
#pragma once

#include <optional>
#include <string>

#include "media_port.h"
#include "replay.h"
#include "rtcp.h"
#include "udp.h"

namespace zr::media {

/// The sockets that a UDP track sends from; the port owns them.
struct TrackSockets
{
    int rtp = -1;
    int rtcp = -1;
};

class Track
{
public:
    /// Begins the track, or begins it again for another session; what was counted stays.
    /// @return false when the transport's peer is no numeric address: nothing will be taken
    bool setUp(const TrackTransport &transport, TrackSockets sockets, InterleavedWriter writer);
    /// No more interleaved frames; a UDP track goes on as long as packets come.
    void connectionClosed();

    bool isSetUp() const { return m_setUp; }
    const std::string &url() const { return m_transport.url; }
    /// Its place in the description, which its port looks up.
    size_t section() const { return m_section; }
    void setSection(size_t section) { m_section = section; }
    bool interleavedRtp(uint8_t channel) const { return m_interleaved && channel == m_transport.rtpChannel; }
    bool interleavedRtcp(uint8_t channel) const { return m_interleaved && channel == m_transport.rtcpChannel; }
    bool isMulticast() const { return m_transport.multicast; }
    bool ownsRtp(int fd) const { return m_setUp && fd == m_sockets.rtp; }
    bool ownsRtcp(int fd) const { return m_setUp && fd == m_sockets.rtcp; }
    bool rtpFromPeer(const Endpoint &from) const;
    /// Whether another sender to a group is heard as the peer from now on. Who sends to a group need not be who was
    /// asked (RFC 2326, 12.39: a server MAY name the source); where neither the answer nor the description names one,
    /// the server itself is preferred: another is heard where nothing of it comes, one alone, and until it does.
    bool hearsInstead(const Endpoint &from, TimePoint arrival);
    /// Also learns the peer's RTCP port where the answer named none.
    bool rtcpFromPeer(const Endpoint &from);

    void played() { m_reception.played(); }
    /// Counts a packet.
    /// @return whether a new source begins with it
    bool takeRtp(const RtpPacket &packet, size_t size, uint32_t clockRate, TimePoint arrival);
    void takeSenderReport(const RtcpReading::SenderReport &report, TimePoint arrival);

    /// Where a report goes.
    struct Report
    {
        std::vector<uint8_t> bytes;
        int fd = -1;
        Endpoint to;
        InterleavedWriter writer; ///< of an interleaved track
        uint8_t channel = 0;
        bool silent = false; ///< no packet came since the one before
    };
    /// The report that is due; bytes are empty when there is nobody to send it to.
    Report report(TimePoint now, uint32_t ssrc, const std::string &cname);
    /// Sends an empty report from both sockets to a peer whose ports are known, which opens the firewalls and address
    /// translators between.
    void punch(uint32_t ssrc, const std::string &cname) const;
    /// Sends a report to where the media comes from, which keeps the way open while none comes.
    void punchMedia(const std::vector<uint8_t> &report) const;
    TimePoint nextReport() const { return m_nextReport; }

    /// Of the newest report of the source that is heard; none: there was none, or it has no clock.
    const std::optional<SenderClock> &senderClock() const { return m_senderClock; }
    const Reception &reception() const { return m_reception; }
    /// Of the present session.
    const ReplayTrack &replay() const { return m_replay; }
    uint64_t packets() const { return m_packets; }
    uint64_t bytes() const { return m_bytes; }
    /// Frames of which a packet came: they share a timestamp (RFC 3550, 5.1).
    uint64_t frames() const { return m_frames; }
    uint8_t payloadType() const { return m_payloadType; }   ///< of the latest packet
    TimePoint lastArrival() const { return m_lastArrival; } ///< valid once there are packets

private:
    /// Whether it is known where one peer alone sends from.
    bool canPunch() const;

    bool m_setUp = false;
    bool m_interleaved = false; ///< and its connection is there
    bool m_closed = false;      ///< its connection is gone: reports only answer packets
    bool m_heard = false;       ///< a packet since the last report
    TrackTransport m_transport;
    size_t m_section = 0;
    TrackSockets m_sockets;
    InterleavedWriter m_writer;
    Endpoint m_peer;
    Endpoint m_asked;                         ///< the server, of a group; else as the peer
    bool m_peerHeard = false;                 ///< a packet of the peer's was taken
    std::optional<TimePoint> m_strangerHeard; ///< when a packet of another sender came first
    Endpoint m_reportTo;                      ///< port 0: not known yet
    Reception m_reception;
    ReplayTrack m_replay;
    std::optional<SenderClock> m_senderClock;
    uint64_t m_packets = 0;
    uint64_t m_bytes = 0;
    uint64_t m_frames = 0;
    uint32_t m_timestamp = 0;
    uint8_t m_payloadType = 0;
    TimePoint m_lastArrival;
    TimePoint m_nextReport = TimePoint::max();
};

} // namespace zr::media
