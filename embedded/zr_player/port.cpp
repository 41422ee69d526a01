#include "port.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

#include "control_url.h"
#include "error_text.h"
#include "media_mark.h"
#include "payload.h"
#include "platform_log.h"

namespace zr::media {

namespace {

/// A hostile sender must not fill the log.
constexpr uint64_t maxRepeatedLines = 10;

uint32_t randomNumber()
{
    thread_local std::random_device device; // asks the processor what it can, which a virtual one takes long to say
    return device();
}

/// 96 random bits in hexadecimal.
std::string randomName()
{
    std::string name;
    for (int i = 0; i < 3; ++i)
    {
        std::array<char, 9> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", randomNumber());
        name += digits.data();
    }
    return name;
}

} // namespace

ZR_ULONG MediaPort::open(ZR_ULONG portId, const std::string &localIp, std::shared_ptr<MediaPort> &out)
{
    auto local = Endpoint::parse(localIp, 0);
    if (!local)
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_INVALID, Player, "media port %u: '%.64s' is no numeric address", portId,
                        localIp.c_str());
        return ZR_MEDIA_INVALID;
    }
    std::array<UdpPair, 2> pairs;
    if (const int error = bindPairs(*local, pairs))
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_ADDRESS, Player, "media port %u: no four free UDP ports at %s: %s", portId,
                        localIp.c_str(), errorText(error).c_str());
        return ZR_MEDIA_ADDRESS;
    }
    const std::shared_ptr<MediaPort> port(new MediaPort(portId, *local, std::move(pairs)));
    if (!MediaLoop::instance().add(*port))
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_FAILED, Player, "media port %u: the media thread cannot be started", portId);
        return ZR_MEDIA_FAILED;
    }
    for (const UdpPair &pair : port->m_pairs)
    {
        for (const Descriptor *fd : {&pair.rtp, &pair.rtcp})
        {
            if (const int error = MediaLoop::instance().watch(*port, fd->get()))
            {
                ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_FAILED, Player, "media port %u: a socket cannot be watched: %s", portId,
                                errorText(error).c_str());
                port->close();
                return ZR_MEDIA_FAILED;
            }
        }
    }
    ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: open at %s", portId, local->text().c_str());
    out = port;
    return 0;
}

MediaPort::MediaPort(ZR_ULONG portId, const Endpoint &local, std::array<UdpPair, 2> pairs)
    : m_portId(portId)
    , m_local(local)
    , m_ssrc(randomNumber())
    , m_cname(randomName())
    , m_mark(common::mediaMark(portId))
    , m_pairs(std::move(pairs))
{
}

MediaPort::~MediaPort()
{
    close();
}

void MediaPort::close()
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (std::exchange(m_closed, true))
        {
            return;
        }
        for (Track &track : m_tracks)
        {
            track.connectionClosed();
        }
        if (m_picture.file != nullptr)
        {
            m_picture.file->cancel();
        }
        if (const std::shared_ptr<MediaFile> recording = std::move(m_recording.file))
        {
            lock.unlock();
            recording->finish();
            release(m_recording);
            lock.lock();
        }
        if (std::shared_ptr<MediaFile> show = std::move(m_show.file))
        {
            lock.unlock();
            show.reset();
            release(m_show);
            lock.lock();
        }
        m_released.wait(lock, [this] { return !m_recording.taken && !m_picture.taken && !m_show.taken; });
    }
    MediaLoop::instance().remove(*this);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pairs = {};
    m_groups.clear();
    ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: closed; %llu packets of others were discarded", m_portId,
                    static_cast<unsigned long long>(m_discarded));
}

ZR_ULONG MediaPort::setDescription(const char *sdp)
{
    Description description = Description::fromSdp(sdp);
    if (description.empty())
    {
        ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_INVALID, Player,
                        "media port %u: the description names no track over RTP that is understood", m_portId);
        return ZR_MEDIA_INVALID;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_description = std::move(description);
    findSections();
    return 0;
}

/// Tracks are set up in another order than they are described, and payload types may repeat.
void MediaPort::findSections()
{
    for (size_t number = 0; number < m_tracks.size(); ++number)
    {
        Track &track = m_tracks[number];
        track.setSection(common::sectionOf(m_description.sections(), track.url(), number));
    }
}

ZR_ULONG MediaPort::handOff(const uint8_t *data, size_t size)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return readHandOffPacket(data, size, "the host");
}

void MediaPort::statistics(ZrMediaStatistics &out)
{
    ZrMediaStatistics sum{};
    sum.ulLastArrivalMs = 0xFFFFFFFF;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const TimePoint now = Clock::now();
    for (const Track &track : m_tracks)
    {
        const Format *format = m_description.find(track.section(), track.payloadType());
        sum.ullFrames += format != nullptr && format->media == "video" ? track.frames() : 0;
        sum.ulTracks += track.isSetUp() ? 1 : 0;
        sum.ullPackets += track.packets();
        sum.ullBytes += track.bytes();
        sum.ullLost += track.reception().lost();
        sum.ulJitterUs = std::max(sum.ulJitterUs, track.reception().jitterUs());
        sum.ullMediaMs = std::max(sum.ullMediaMs, track.reception().mediaMs());
        if (track.packets() != 0)
        {
            const auto ago = std::chrono::duration_cast<std::chrono::milliseconds>(now - track.lastArrival()).count();
            sum.ulLastArrivalMs =
                std::min(sum.ulLastArrivalMs, static_cast<ZR_ULONG>(std::min<int64_t>(ago, 0xFFFFFFFE)));
        }
    }
    out = sum;
}

bool MediaPort::trackStatistics(unsigned number, ZrTrackStatistics &out)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (number >= m_tracks.size())
    {
        return false;
    }
    const Track &track = m_tracks[number];
    const Format *format = m_description.find(track.section(), track.payloadType());
    out = {};
    out.ullPackets = track.packets();
    out.ullBytes = track.bytes();
    out.ullLost = track.reception().lost();
    out.ullReordered = track.reception().reordered();
    out.ulJitterUs = track.reception().jitterUs();
    out.ulSsrc = track.reception().ssrc();
    out.ulPayloadType = track.payloadType();
    if (const auto &clock = track.senderClock())
    {
        out.ullSenderUnixUs = static_cast<uint64_t>(std::max<int64_t>(clock->unixNs, 0)) / 1000;
    }
    if (format != nullptr && track.packets() != 0)
    {
        std::snprintf(out.szMedia, sizeof out.szMedia, "%s", format->media.c_str());
        std::snprintf(out.szEncoding, sizeof out.szEncoding, "%s", format->encoding.c_str());
    }
    return true;
}

void MediaPort::setUpTrack(unsigned number, const TrackTransport &transport, InterleavedWriter writer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    TrackSockets sockets;
    if (m_closed || number >= maxTracks || (!transport.interleaved && !socketsFor(number, transport, sockets)))
    {
        ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_NO_TRACK, Player, "media port %u: track %u was set up, but is not received",
                        m_portId, number);
        return;
    }
    if (m_tracks.size() <= number)
    {
        m_tracks.resize(number + 1);
    }
    m_rtpSeen = m_rtpSeen && number != 0; // a new session brings its own hand-off
    Track &track = m_tracks[number];
    if (!track.setUp(transport, sockets, std::move(writer)))
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_INVALID, Player,
                        "media port %u: track %u: the sender '%.64s' is no numeric address, nothing of it is taken",
                        m_portId, number, transport.peerAddress.c_str());
    }
    findSections();
    track.punch(m_ssrc, m_cname);
    MediaLoop::instance().schedule(*this, track.nextReport());
}

bool MediaPort::socketsFor(unsigned number, const TrackTransport &transport, TrackSockets &out)
{
    if (transport.multicast)
    {
        const auto address = Endpoint::parse(transport.group, transport.groupPort);
        const auto source = Endpoint::parse(transport.peerAddress, 0);
        const char *const from = transport.sourceNamed ? transport.peerAddress.c_str() : "any sender";
        UdpPair pair;
        const int error = address && (source || !transport.sourceNamed)
                              ? joinGroup({*address, transport.sourceNamed ? source : std::nullopt, transport.groupTtl},
                                          m_local, pair)
                              : EINVAL;
        if (error != 0)
        {
            ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_ADDRESS, Player,
                            "media port %u: cannot join group '%.64s' port %u of %.64s at %s: %s", m_portId,
                            transport.group.c_str(), transport.groupPort, from, m_local.text().c_str(),
                            errorText(error).c_str());
            return false;
        }
        ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: joined group %s of %.64s", m_portId, address->text().c_str(),
                        from);
        out = {pair.rtp.get(), pair.rtcp.get()};
        MediaLoop::instance().watch(*this, out.rtp);
        MediaLoop::instance().watch(*this, out.rtcp);
        m_groups.push_back(std::move(pair));
        return true;
    }
    const int place = transport.clientRtpPort - m_local.port();
    const bool known = place == 0 || place == 2;
    const size_t index = known ? static_cast<size_t>(place) / 2 : number;
    if (index >= m_pairs.size())
    {
        return false;
    }
    if (!known)
    {
        ZR_PLATFORM_LOG(WARNING, 0, Player, "media port %u: track %u was answered for port %u, which is not its own",
                        m_portId, number, transport.clientRtpPort);
    }
    out = {m_pairs[index].rtp.get(), m_pairs[index].rtcp.get()};
    return true;
}

void MediaPort::connectionClosed()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (Track &track : m_tracks)
    {
        track.connectionClosed();
    }
}

/// After a long pause routers have forgotten the way that SETUP opened.
void MediaPort::playing()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const Track &track : m_tracks)
    {
        track.punch(m_ssrc, m_cname);
    }
}

void MediaPort::played()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (Track &track : m_tracks)
    {
        track.played();
    }
}

void MediaPort::interleavedFrame(uint8_t channel, const uint8_t *data, size_t size)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (unsigned number = 0; number < m_tracks.size(); ++number)
    {
        Track &track = m_tracks[number];
        if (track.interleavedRtp(channel))
        {
            takeRtp(track, number, data, size, Clock::now());
            return;
        }
        if (track.interleavedRtcp(channel))
        {
            takeRtcp(track, number, data, size, Clock::now());
            return;
        }
    }
}

void MediaPort::readable(int fd, PacketBatch &batch)
{
    const size_t count = batch.receive(fd);
    const TimePoint arrival = Clock::now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto owner = std::find_if(m_tracks.begin(), m_tracks.end(),
                                    [fd](const Track &track) { return track.ownsRtp(fd) || track.ownsRtcp(fd); });
    for (size_t i = 0; i < count && !m_closed; ++i)
    {
        const PacketBatch::Packet packet = batch.packet(i);
        if (looksLikeHandOff(packet.data, packet.size))
        {
            if (fd != m_pairs[0].rtp.get() || !takeHandOff(packet))
            {
                discard("a hand-off packet from elsewhere", packet.from);
            }
        }
        else if (owner == m_tracks.end())
        {
            discard("a packet before the track was set up", packet.from);
        }
        else
        {
            takeDatagram(*owner, static_cast<unsigned>(owner - m_tracks.begin()), owner->ownsRtp(fd), packet, arrival);
        }
    }
}

void MediaPort::takeDatagram(Track &track, unsigned number, bool rtp, const PacketBatch::Packet &packet,
                             TimePoint arrival)
{
    if (rtp && track.rtpFromPeer(packet.from))
    {
        takeRtp(track, number, packet.data, packet.size, arrival);
    }
    else if (!rtp && track.rtcpFromPeer(packet.from))
    {
        takeRtcp(track, number, packet.data, packet.size, arrival);
    }
    else if (rtp && track.hearsInstead(packet.from, arrival))
    {
        ZR_PLATFORM_LOG(WARNING, 0, Player,
                        "media port %u: track %u: no sender of its group was named: %s is heard from now on", m_portId,
                        number, packet.from.text().c_str());
        takeRtp(track, number, packet.data, packet.size, arrival);
    }
    else if (rtp || !track.isMulticast()) // to a group all receivers report
    {
        discard("a packet of another sender than was negotiated", packet.from);
    }
}

void MediaPort::takeRtp(Track &track, unsigned number, const uint8_t *data, size_t size, TimePoint arrival)
{
    const auto packet = readRtp(data, size);
    if (!packet)
    {
        discard("bytes that are no RTP packet", {});
        return;
    }
    m_mark->store(true, std::memory_order_relaxed); // no lock: who checks does so at its own time
    m_rtpSeen = true;
    const Format *format = m_description.find(track.section(), packet->payloadType);
    if (track.takeRtp(*packet, size, format == nullptr ? 0 : format->clockRate, arrival) &&
        ++m_sourceChanges <= maxRepeatedLines)
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: track %u: source %08x begins, payload type %u (%s)", m_portId,
                        number, packet->ssrc, packet->payloadType,
                        format == nullptr ? "unknown" : format->encoding.c_str());
    }
    if (format == nullptr)
    {
        return;
    }
    if (const char *why = whyNotDepayable(format->encoding, data + packet->payload, packet->payloadSize))
    {
        discard(why, {});
        return;
    }
    for (const FileSlot *slot : {&m_recording, &m_picture, &m_show})
    {
        if (slot->file != nullptr)
        {
            slot->file->offer(number, static_cast<unsigned>(m_tracks.size()), *format, data, size, arrival);
        }
    }
}

void MediaPort::takeRtcp(Track &track, unsigned number, const uint8_t *data, size_t size, TimePoint arrival)
{
    const auto reading = readRtcp(data, size);
    if (!reading)
    {
        discard("bytes that are no RTCP packet", {});
        return;
    }
    if (reading->senderReport)
    {
        track.takeSenderReport(*reading->senderReport, arrival);
        if (m_recording.file != nullptr && track.senderClock())
        {
            m_recording.file->tellClock(number, *track.senderClock());
        }
    }
    for (const uint32_t ssrc : reading->byes)
    {
        if (track.reception().active() && ssrc == track.reception().ssrc() && ++m_sourceChanges <= maxRepeatedLines)
        {
            ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: track %u: source %08x said goodbye (RTCP BYE)", m_portId,
                            number, ssrc);
        }
    }
}

bool MediaPort::takeHandOff(const PacketBatch::Packet &packet)
{
    if (!packet.from.sameHost(m_local) && !packet.from.isOwn())
    {
        return false;
    }
    if (m_rtpSeen)
    {
        // every PLAY of the session brings one
        ZR_PLATFORM_LOG(DEBUG, 0, Player, "media port %u: hand-off packet of %s ignored, the media began", m_portId,
                        packet.from.text().c_str());
        return true;
    }
    readHandOffPacket(packet.data, packet.size, packet.from.text().c_str());
    return true;
}

ZR_ULONG MediaPort::readHandOffPacket(const uint8_t *data, size_t size, const char *from)
{
    HandOff handOff;
    std::string problem;
    if (!readHandOff(data, size, handOff, problem))
    {
        ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_INVALID, Player, "media port %u: hand-off packet of %s refused: %s", m_portId,
                        from, problem.c_str());
        return ZR_MEDIA_INVALID;
    }
    problem = m_description.confirm(handOff);
    ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: hand-off packet of %s: video '%s', audio '%s'", m_portId, from,
                    handOff.videoRtpmap.c_str(), handOff.audioRtpmap.c_str());
    if (!problem.empty())
    {
        ZR_PLATFORM_LOG(WARNING, 0, Player, "media port %u: the description holds: %s", m_portId, problem.c_str());
    }
    return 0;
}

void MediaPort::discard(const char *what, const Endpoint &from)
{
    if (++m_discarded <= maxRepeatedLines)
    {
        ZR_PLATFORM_LOG(WARNING, 0, Player, "media port %u: discarded %s (from %s)%s", m_portId, what,
                        from.length() == 0 ? "the peer" : from.text().c_str(),
                        m_discarded == maxRepeatedLines ? "; further ones are only counted" : "");
    }
}

TimePoint MediaPort::tick(TimePoint now)
{
    std::vector<Track::Report> byConnection;
    TimePoint next = TimePoint::max();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (Track &track : m_tracks)
        {
            if (!m_closed && track.nextReport() <= now)
            {
                Track::Report report = track.report(now, m_ssrc, m_cname);
                if (report.writer)
                {
                    byConnection.push_back(std::move(report));
                }
                else if (!report.bytes.empty())
                {
                    sendTo(report.fd, report.to, report.bytes);
                    if (report.silent)
                    {
                        track.punchMedia(report.bytes);
                    }
                }
            }
            next = std::min(next, track.nextReport());
        }
    }
    // without the lock: the connection may hold its own while it brings a frame
    for (const Track::Report &report : byConnection)
    {
        report.writer(report.channel, report.bytes.data(), report.bytes.size());
    }
    return next;
}

} // namespace zr::media
