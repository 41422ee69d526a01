/// @file
/// A media port: the sockets, tracks and description of one session.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "description.h"
#include "media_file.h"
#include "media_loop.h"
#include "media_port.h"
#include "track.h"
#include "zr_platform.h"

namespace zr::media {

/// Host threads open, ask and close it, the media thread reads its sockets and sends its reports, the dispatcher
/// sets tracks up and brings interleaved frames on its loop's turn. After close() whatever still holds it finds it
/// inert.
class MediaPort final : public Port, private LoopClient
{
public:
    /// @param out  receives the port; written on success only
    /// @return 0, else a code
    static ZR_ULONG open(ZR_ULONG portId, const std::string &localIp, std::shared_ptr<MediaPort> &out);
    ~MediaPort() override;
    MediaPort(const MediaPort &) = delete;
    MediaPort &operator=(const MediaPort &) = delete;

    uint16_t firstPort() const { return m_local.port(); }

    // of hosts, any thread

    ZR_ULONG setDescription(const char *sdp);
    /// A hand-off packet from inside this process.
    ZR_ULONG handOff(const uint8_t *data, size_t size);
    ZR_ULONG record(const std::string &file, const RecordingPlan &plan);
    ZR_ULONG endRecording();
    /// @return 0 while one goes on
    ZR_ULONG recording();
    ZR_ULONG snapshot(const std::string &file, std::chrono::milliseconds timeout);
    ZR_ULONG show(ZrMediaKind kind, Viewer viewer);
    ZR_ULONG endShow();
    void statistics(ZrMediaStatistics &out);
    ZR_ULONG replay(ZrReplayFacts &out);
    /// @return whether there is such a track
    bool trackStatistics(unsigned number, ZrTrackStatistics &out);
    /// Nothing of the port runs when this returns. Not on the media thread. Once or more.
    void close();

    // of the dispatcher

    void setUpTrack(unsigned number, const TrackTransport &transport, InterleavedWriter writer) override;
    void playing() override;
    void played() override;
    void interleavedFrame(uint8_t channel, const uint8_t *data, size_t size) override;
    void connectionClosed() override;
    std::optional<ReplayTimes> replayTimes() override;

    /// Sends the reports that are due, as the media thread does.
    /// @return when the next is
    TimePoint tick(TimePoint now) override;

private:
    MediaPort(ZR_ULONG portId, const Endpoint &local, std::array<UdpPair, 2> pairs);

    /// A file that is made of the packets; one of each kind at a time.
    struct FileSlot
    {
        bool taken = false; ///< by the host thread that begins or ends it as well
        std::shared_ptr<MediaFile> file;
    };

    void readable(int fd, PacketBatch &batch) override;
    ZR_ULONG begin(FileSlot &slot, ZrMediaKind kind, const std::string &file, Viewer viewer = {},
                   const RecordingPlan &plan = {});
    void release(FileSlot &slot);

    // under m_mutex
    void findSections();
    void takeDatagram(Track &track, unsigned number, bool rtp, const PacketBatch::Packet &packet, TimePoint arrival);
    void takeRtp(Track &track, unsigned number, const uint8_t *data, size_t size, TimePoint arrival);
    void takeRtcp(Track &track, unsigned number, const uint8_t *data, size_t size, TimePoint arrival);
    bool takeHandOff(const PacketBatch::Packet &packet);
    ZR_ULONG readHandOffPacket(const uint8_t *data, size_t size, const char *from);
    bool socketsFor(unsigned number, const TrackTransport &transport, TrackSockets &out);
    void discard(const char *what, const Endpoint &from);

    const ZR_ULONG m_portId;
    const Endpoint m_local;
    const uint32_t m_ssrc;     ///< the receiver's own, in its reports
    const std::string m_cname; ///< of no meaning outside this session (RFC 7022)
    const std::shared_ptr<std::atomic<bool>> m_mark;

    /// Guards what follows, taken once a batch or frame. The loop's and the files' locks may
    /// be taken under it; no writer is called.
    std::mutex m_mutex;
    std::condition_variable m_released; ///< a slot was released
    FileSlot m_recording;
    FileSlot m_picture;
    FileSlot m_show;
    bool m_closed = false;
    std::array<UdpPair, 2> m_pairs;
    std::vector<UdpPair> m_groups; ///< multicast
    std::vector<Track> m_tracks;
    Description m_description;
    bool m_rtpSeen = false;
    uint64_t m_discarded = 0;
    uint64_t m_sourceChanges = 0;
};

} // namespace zr::media
