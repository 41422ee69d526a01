/// @file
/// Recordings that clients seek in.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace zr::device {

/// The type of media of a recording that clients may seek in as fast as they like.
GType seekableMediaType();

/// Waits, up to half a second, until all streams that are set up tell their rates: right after a seek they may not
/// know them yet, and the library, which tells them in its answer to PLAY, ends the program then.
/// To be called where the library reckons the answer's range.
void awaitRates(GstRTSPMedia *media);

} // namespace zr::device
