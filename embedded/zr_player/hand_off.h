/// @file
/// The hand-off packet: an RTP packet of payload type 1 whose header extension holds a session's stream information as
/// text, "VRMP:96 H264;ARMP:0 PCMU;SPS:sprop-parameter-sets=...;".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zr::media {

/// The text's pieces; one that was not there is empty.
struct HandOff
{
    std::string videoRtpmap;   ///< "96 H264"
    std::string audioRtpmap;   ///< "0 PCMU"
    std::string parameterSets; ///< "sprop-parameter-sets=..."
};

/// Whether the bytes begin as a hand-off packet does, which no RTP packet of a track may.
bool looksLikeHandOff(const uint8_t *data, size_t size);

/// @param problem  receives what is wrong, for the log
/// @return whether it is a whole hand-off packet; only then `out` was written
bool readHandOff(const uint8_t *data, size_t size, HandOff &out, std::string &problem);

} // namespace zr::media
