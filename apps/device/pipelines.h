/// @file
/// The device's media, as GStreamer launch descriptions.
#pragma once

#include <cstdint>
#include <string>

namespace zr::device {

/// What every picture of the device looks like.
struct Picture
{
    std::string pattern = "smpte"; ///< a pattern of videotestsrc
    int width = 640;
    int height = 360;
    int framesPerSecond = 25; ///< with one key frame a second
};

/// A camera that plays now. Both streams' clocks are the server's.
/// @param audio  with a second stream, PCMU
std::string livePipeline(const Picture &picture, bool audio);

/// Writes a recording: H.264 and PCMA in Matroska.
/// @param seconds  its length
/// @param file     where it goes; must be seekable, for the index of its key frames
std::string recordingPipeline(const Picture &picture, int seconds, const std::string &file);

/// Plays such a recording to a client, from any of its key frames.
std::string playbackPipeline(const std::string &file);

/// Plays its video, with the ONVIF replay extension in its packets.
/// @param begin  of the recording, in seconds since 1900
std::string replayPipeline(const std::string &file, uint64_t begin);

} // namespace zr::device
