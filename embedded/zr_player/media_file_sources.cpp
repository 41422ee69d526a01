/// Which packets go into a file.

#include <utility>

#include "media_file.h"
#include "platform_log.h"

namespace zr::media {

namespace {

/// What waits for the media library; beyond it packets are lost to the file.
constexpr size_t maxQueuedBytes = 32U << 20U;
/// No stream means to be coded otherwise so often.
constexpr unsigned maxChanges = 1000;

} // namespace

ZrMediaFormat plainFormat(const Format &format)
{
    return {format.media.c_str(), format.encoding.c_str(), format.parameters.c_str(),
            format.fmtp.c_str(),  format.clockRate,        format.payloadType};
}

/// The place of a track's source, which is made when the track is heard of first; none when it does not go into the
/// file.
std::optional<uint32_t> MediaFile::sourceOf(unsigned track, const Format &format)
{
    for (uint32_t i = 0; i < m_sources->size(); ++i)
    {
        const Source &source = (*m_sources)[i];
        if (source.track == track)
        {
            return source.format.payloadType == format.payloadType ? i : changedSource(i, format);
        }
    }
    if ((m_heard >> track & 1U) != 0 ||
        (!isRecording() && (format.media != "video" || m_opened || !m_sources->empty())))
    {
        return std::nullopt;
    }
    m_heard |= 1U << track;
    const ZrMediaFormat plain = plainFormat(format);
    if (m_opened || m_library.accepts(&plain) == 0)
    {
        leaveOut(track, format, m_opened ? "it began too late" : "its encoding is not written");
        return std::nullopt;
    }
    m_sources->push_back({track, format});
    return static_cast<uint32_t>(m_sources->size() - 1);
}

/// A track goes on with another payload type: a recording then goes on in another file, unless it means the same.
std::optional<uint32_t> MediaFile::changedSource(uint32_t source, const Format &format)
{
    const Source &before = (*m_sources)[source];
    if (before.format.encoding == format.encoding && before.format.clockRate == format.clockRate &&
        before.format.parameters == format.parameters && before.format.fmtp == format.fmtp)
    {
        return source;
    }
    const ZrMediaFormat plain = plainFormat(format);
    if (!isRecording() || before.format.media != format.media || m_library.accepts(&plain) == 0 ||
        m_changes > maxChanges)
    {
        return std::nullopt; // comfort noise, for one, comes and goes
    }
    if (++m_changes > maxChanges)
    {
        leaveOut(before.track, format, "the coding changed too often");
        return std::nullopt;
    }
    const auto changed = std::make_shared<Sources>(*m_sources);
    (*changed)[source].format = format;
    m_sources = changed;
    return source;
}

std::optional<uint32_t> MediaFile::metadataSource(unsigned track, const Format &format)
{
    if (!isRecording() || ((m_heard >> track & 1U) != 0 && m_metadataTrack != track))
    {
        return std::nullopt;
    }
    m_heard |= 1U << track;
    const bool plain = format.encoding == "VND.ONVIF.METADATA";
    if (!plain || (m_metadataTrack && m_metadataTrack != track))
    {
        leaveOut(track, format, plain ? "there is metadata already" : "compressed metadata is not written");
        return std::nullopt;
    }
    m_metadataTrack = track;
    m_metadataRate = format.clockRate;
    return ofMetadata;
}

void MediaFile::leaveOut(unsigned track, const Format &format, const char *why) const
{
    ZR_PLATFORM_LOG(WARNING, 0, Player, "media port %u: %s: track %u (%s) is left out: %s", m_portId, nameOf(m_kind),
                    track, format.encoding.c_str(), why);
}

void MediaFile::offer(unsigned track, unsigned tracks, const Format &format, const uint8_t *data, size_t size,
                      TimePoint arrival)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_done || m_ending || m_cancelled)
    {
        return;
    }
    m_tracks = tracks;
    const bool metadata = format.isMetadata();
    const auto source = metadata ? metadataSource(track, format) : sourceOf(track, format);
    if (!source)
    {
        return;
    }
    if (m_queuedBytes + size + sizeof(Packet) > maxQueuedBytes)
    {
        if (m_dropped++ == 0)
        {
            ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_FAILED, Player,
                            "media port %u: %s: the file is written more slowly than packets come; some are left out",
                            m_portId, nameOf(m_kind));
        }
        return;
    }
    m_queuedBytes += size + sizeof(Packet);
    m_packets.push_back({m_sources, *source, arrival, {data, data + size}});
    if (!metadata) // two payload types may mean the same
    {
        uint8_t &marked = m_packets.back().bytes[1];
        marked = static_cast<uint8_t>((marked & 0x80U) | (*m_sources)[*source].format.payloadType);
    }
    m_changed.notify_all();
}

} // namespace zr::media
