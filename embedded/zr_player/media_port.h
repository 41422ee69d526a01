/// @file
/// Media ports as the dispatcher sees them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zr_types.h"

namespace zr::media {

constexpr unsigned maxTracks = 8;

/// What a SETUP answer agreed on for one track.
struct TrackTransport
{
    std::string url; ///< that was asked, which names its section of the description; may be empty
    bool interleaved = false;
    uint8_t rtpChannel = 0; ///< interleaved
    uint8_t rtcpChannel = 1;
    std::string peerAddress;  ///< numeric; of the packets' sender, UDP
    uint16_t peerRtpPort = 0; ///< 0: the answer named none, any port of that address is taken
    uint16_t peerRtcpPort = 0;
    uint16_t clientRtpPort = 0; ///< the local port of the track
    bool multicast = false;
    std::string group; ///< multicast
    uint16_t groupPort = 0;
    uint8_t groupTtl = 0;     ///< of reports to the group; 0: not said
    bool sourceNamed = false; ///< multicast: the peer alone is to be heard (source-specific, RFC 4607)
};

/// Sends an interleaved frame back (RTCP); false when the connection is gone. Any thread, never blocks.
using InterleavedWriter = std::function<bool(uint8_t channel, const void *data, size_t size)>;

/// What the frames of a replayed recording told of when they were recorded, in microseconds since 1970.
struct ReplayTimes
{
    int64_t firstUs = 0; ///< of the session's first frame
    int64_t latestUs = 0;
    uint64_t frames = 0; ///< that told it
};

/// The port of one session. Any thread.
class Port
{
public:
    virtual ~Port() = default;
    /// A track was set up.
    /// @param number  0 for the session's first SETUP
    /// @param writer  of an interleaved session; empty otherwise
    virtual void setUpTrack(unsigned number, const TrackTransport &transport, InterleavedWriter writer) = 0;
    /// A PLAY is about to go out, the session's first or another one.
    virtual void playing() = 0;
    /// A PLAY was answered: what is missing about there is no loss.
    virtual void played() = 0;
    /// An interleaved frame arrived. Returns soon; the bytes are the caller's.
    virtual void interleavedFrame(uint8_t channel, const uint8_t *data, size_t size) = 0;
    /// The connection is gone or the session ended: no more frames, and the writer is let go.
    virtual void connectionClosed() = 0;
    /// None where the packets tell no times.
    virtual std::optional<ReplayTimes> replayTimes() { return std::nullopt; }
};

/// The open port of an AOI port identifier; null when there is none.
std::shared_ptr<Port> findByAoiPort(ZR_ULONG aoiPortId);

} // namespace zr::media
