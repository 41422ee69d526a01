/// @file
/// Media that all clients of a mount share.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace zr::device {

/// Has a factory's media shared by all clients, and going on whoever comes and goes.
void shareMedia(GstRTSPMediaFactory *factory);

} // namespace zr::device
