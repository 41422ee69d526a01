/// @file
/// Media that all clients of a mount share.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace zr::device {

/// Has a factory's media shared by all clients, and going on whoever comes and goes.
void shareMedia(GstRTSPMediaFactory *factory);

/// Has no client of a server seek in media that others see, too: a Range other than from now on is refused with 457
/// (RFC 2326, 11.3.8), and every Scale is 1.
/// @param client  new, of any mounts
void keepFromSeeking(GstRTSPClient *client);

} // namespace zr::device
