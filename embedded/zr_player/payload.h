/// @file
/// What is within RTP packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zr::media {

/// Whether a payload may be taken apart: GStreamer's depayloaders (1.22) read beyond a fragment that is shorter than
/// its own head, which ends the process, and end a file at what they do not know.
/// @param encoding  of the description, in capitals
/// @return null: it may be; else why it may not
const char *whyNotDepayable(const std::string &encoding, const uint8_t *payload, size_t size);

} // namespace zr::media
