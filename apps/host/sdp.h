/// @file
/// What the host wants to know of a description (SDP, RFC 4566).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sps.h"

namespace zr::host {

struct Track
{
    std::string media;                     ///< "video", "audio" ...
    int payloadType = 0;                   ///< the first one offered
    std::string codec;                     ///< its rtpmap's encoding name; empty without one
    int clockRate = 0;                     ///< Hz; 0 without an rtpmap
    int channels = 0;                      ///< of sound; 0: not said
    std::string control;                   ///< as it stands; may be empty or relative
    std::string recorded;                  ///< a=x-onvif-track, of an ONVIF recording; empty: none
    std::optional<PictureFormat> picture;  ///< of H.264 (RFC 6184, 8.1) and H.265 (RFC 7798, 7.1), when it is told
    std::optional<double> framesPerSecond; ///< a=framerate, or else the picture's
};

struct Description
{
    std::string name;          ///< s=
    std::string tool;          ///< a=tool
    std::string range;         ///< a=range, such as npt=0-24
    std::vector<Track> tracks; ///< in their order
    const Track *first(const std::string &media) const;
    std::optional<double> length() const; ///< seconds of a recording, where the range tells them
    bool live() const;                    ///< whether the range says so: nothing of it can be had again, or has an end
};

/// Reads what it understands and passes over the rest; never fails.
Description parseDescription(const std::string &sdp);

/// The codecs of a description's tracks, such as "H264 video, PCMU audio".
std::string summary(const Description &description);

/// A track's codec and what its pictures or its sound are like, such as "H264 High 640x360 8 bit, 25 frames/s".
std::string details(const Track &track);

/// A control URL: absolute as it stands, "*" or none the URL itself, else joined to it.
std::string controlUrl(const std::string &url, const std::string &control);

} // namespace zr::host
