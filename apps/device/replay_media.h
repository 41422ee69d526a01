/// @file
/// A recording that is replayed as an ONVIF recorder does.
#pragma once

#include <cstdint>

#include <gst/rtsp-server/rtsp-server.h>

namespace zr::device {

/// Seconds from 1900, where NTP begins (RFC 3550, 4), to 1970.
constexpr uint32_t from1900To1970 = 2208988800U;

/// Makes a server that knows the headers of a replay.
/// @return the caller's
GstRTSPServer *makeReplayServer();

/// Has a client's PLAY with a Scale and without a Range go on where such a factory's media is.
/// @param client  new, of any mounts
void keepPlace(GstRTSPClient *client);

/// Makes a factory whose media takes ranges of the clock, and Require, Rate-Control and Frames of a replay.
/// @param begin  of the recording, in seconds since 1970
/// @return the caller's
GstRTSPMediaFactory *makeReplayFactory(uint32_t begin);

} // namespace zr::device
