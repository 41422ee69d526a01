/// @file
/// Recordings that play backwards.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace zr::device {

/// Has media sent backwards at the speed that it plays at, by groups of pictures.
/// @param media  just made; its groups begin at whole seconds
void paceBackwards(GstRTSPMedia *media);

} // namespace zr::device
