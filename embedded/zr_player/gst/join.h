/// @file
/// Recordings that are read again: what they hold, and two as one. Nothing is decoded.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "pipeline.h"

namespace zr::media {

/// A key frame, and by what it is known again: the end of its bytes, for parameter sets may stand before it or not.
struct KeyFrame
{
    uint64_t time = 0; ///< nanoseconds
    std::string tail;
};

/// What a recording holds.
struct RecordingLook
{
    uint64_t end = 0;                              ///< nanoseconds, of its longest track
    std::map<std::string, GstPtr<GstCaps>> tracks; ///< "video", "audio"
    std::deque<KeyFrame> keys;                     ///< of the video, the last of them
    KeyFrame firstKey;
    int64_t date = 0;    ///< at which it begins, nanoseconds since 1970; 0: it does not say
    std::string comment; ///< of whoever wrote it

    bool hasVideo() const { return tracks.count("video") != 0; }
};

/// Reads a Matroska file through, also one that is cut off. Takes its time; any thread.
/// @throws std::runtime_error  what is wrong, when it holds no media
RecordingLook lookThrough(const std::string &file);

/// Writes both into a third file: the second goes on at its first key frame, where that is found in the first one, else
/// behind the first one's end. Takes its time; any thread.
/// @return what was done, for the log; none when the second ends before the first one does: nothing is written then
/// @throws std::runtime_error  what is wrong: they cannot be read, differ in their coding, or out cannot be written
std::optional<std::string> joinRecordings(const std::string &first, const std::string &second, const std::string &out);

} // namespace zr::media
