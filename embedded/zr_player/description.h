/// @file
/// What a session's tracks carry: read from the SDP (RFC 4566), confirmed by the hand-off packet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hand_off.h"

namespace zr::media {

/// A payload type's meaning.
struct Format
{
    std::string media; ///< "video", "audio", "application"
    uint8_t payloadType = 0;
    std::string encoding;   ///< in capitals: "H264", "PCMU"
    uint32_t clockRate = 0; ///< Hz; 0: unknown
    std::string parameters; ///< of the rtpmap: an audio's channels
    std::string fmtp;       ///< "packetization-mode=1;sprop-parameter-sets=..."

    /// Whether it is ONVIF metadata, compressed or not.
    bool isMetadata() const { return encoding.rfind("VND.ONVIF.METADATA", 0) == 0; }
};

/// A media section and its formats, in the order of its m= line.
struct Section
{
    std::string media;
    std::vector<Format> formats;
    std::string control; ///< of the URL that sets it up; empty: not said
};

class Description
{
public:
    /// Reads media sections over RTP with their rtpmap and fmtp lines; static payload types need none (RFC 3551, 6).
    /// Bounded: at most 16 sections of 16 formats, lines above 8192 bytes are passed over.
    static Description fromSdp(std::string_view sdp);

    /// Compares with a hand-off, and takes over what is not described yet.
    /// @return what differs or cannot be used, for the log; empty when all agrees
    std::string confirm(const HandOff &handOff);

    /// The meaning of a payload type in a section: what it says itself, else what any section says, else the static
    /// one. Null when there is none.
    const Format *find(size_t section, uint8_t payloadType) const;

    bool empty() const { return m_sections.empty(); }
    const std::vector<Section> &sections() const { return m_sections; }

private:
    std::string confirmFormat(const char *media, std::string_view rtpmap, const std::string &parameterSets);

    std::vector<Section> m_sections;
};

} // namespace zr::media
