/// @file
/// Pictures' sizes and rates out of a sequence parameter set.
#pragma once

#include <optional>
#include <string>

namespace zr::host {

struct PictureFormat
{
    unsigned width = 0; ///< as shown, without what is cropped
    unsigned height = 0;
    unsigned bitDepth = 8;                      ///< of luma
    std::optional<double> framesPerSecond = {}; ///< where the stream tells it
    std::string profile;                        ///< such as "High"; empty: unknown
};

/// @param nal  an H.264 SPS as a NAL unit (ITU-T H.264, 7.3.2.1.1), whatever a server sent
/// @return nothing when it is none, is cut off, or names an impossible size
std::optional<PictureFormat> parseH264Sps(const std::string &nal);

/// @param nal  an H.265 SPS as a NAL unit (ITU-T H.265, 7.3.2.2.1)
std::optional<PictureFormat> parseH265Sps(const std::string &nal);

} // namespace zr::host
