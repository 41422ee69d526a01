#include "sps.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace zr::host {
namespace {

constexpr unsigned largestSide = 16384;
constexpr uint64_t unusualRate = 1000; // frames per second: what is faster is nonsense

/// Reads the bits of a NAL unit without its header and its emulation prevention bytes (H.264, 7.4.1).
class BitReader
{
public:
    BitReader(const std::string &nal, size_t header)
    {
        size_t zeros = 0;
        for (size_t i = header; i < nal.size(); ++i)
        {
            const bool prevention = zeros >= 2 && nal[i] == 3;
            zeros = nal[i] == 0 ? zeros + 1 : 0;
            if (!prevention)
            {
                m_bytes += nal[i];
            }
        }
    }

    /// @throws std::out_of_range  at the end
    unsigned bit()
    {
        const auto byte = static_cast<unsigned char>(m_bytes.at(m_next / 8));
        return byte >> (7 - m_next++ % 8) & 1U;
    }

    /// @param count  32 at most
    uint32_t bits(unsigned count)
    {
        uint32_t value = 0;
        for (; count > 0; --count)
        {
            value = value << 1 | bit();
        }
        return value;
    }

    void skip(size_t count) { m_next += count; } // beyond the end the next bit throws

    /// Exp-Golomb, unsigned (H.264, 9.1).
    uint32_t ue()
    {
        unsigned zeros = 0;
        while (bit() == 0)
        {
            if (++zeros == 32)
            {
                throw std::out_of_range("an endless number");
            }
        }
        return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + bits(zeros));
    }

    int32_t se()
    {
        const uint32_t code = ue();
        return static_cast<int32_t>(code % 2 == 0 ? -static_cast<int64_t>(code / 2) : int64_t{code / 2} + 1);
    }

private:
    std::string m_bytes;
    size_t m_next = 0;
};

const char *h264Profile(unsigned profile, bool constrained)
{
    switch (profile)
    {
    case 66:
        return constrained ? "Constrained Baseline" : "Baseline";
    case 77:
        return "Main";
    case 88:
        return "Extended";
    case 100:
        return "High";
    case 110:
        return "High 10";
    case 122:
        return "High 4:2:2";
    case 244:
        return "High 4:4:4";
    default:
        return "";
    }
}

bool hasChromaFormat(unsigned profile)
{
    constexpr unsigned with[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    for (const unsigned one : with)
    {
        if (one == profile)
        {
            return true;
        }
    }
    return false;
}

void skipScalingLists(BitReader &in, unsigned chroma)
{
    const unsigned lists = chroma == 3 ? 12 : 8;
    for (unsigned list = 0; list < lists; ++list)
    {
        if (in.bit() == 0)
        {
            continue;
        }
        int64_t last = 8;
        int64_t next = 8;
        for (unsigned i = 0; i < (list < 6 ? 16U : 64U); ++i)
        {
            if (next != 0)
            {
                next = (last + in.se() + 256) % 256;
            }
            last = next == 0 ? last : next;
        }
    }
}

void skipPictureOrder(BitReader &in)
{
    constexpr unsigned mostInCycle = 255;
    const uint32_t type = in.ue();
    if (type == 0)
    {
        in.ue();
    }
    else if (type == 1)
    {
        in.bit();
        in.se();
        in.se();
        const uint32_t cycle = in.ue();
        for (uint32_t i = 0; i < cycle && cycle <= mostInCycle; ++i)
        {
            in.se();
        }
    }
}

/// The usability information's beginning, which H.264 (E.1.1) and H.265 (E.2.1) share.
void skipUsability(BitReader &in)
{
    constexpr unsigned extended = 255;
    if (in.bit() == 1 && in.bits(8) == extended) // sample aspect ratio
    {
        in.skip(32);
    }
    if (in.bit() == 1) // overscan
    {
        in.bit();
    }
    if (in.bit() == 1) // video signal
    {
        in.skip(4);
        in.skip(in.bit() == 1 ? 24 : 0);
    }
    if (in.bit() == 1) // chroma location
    {
        in.ue();
        in.ue();
    }
}

/// The timing, where there is one.
std::optional<double> readRate(BitReader &in, unsigned ticksPerFrame)
{
    if (in.bit() == 0)
    {
        return std::nullopt;
    }
    const uint32_t units = in.bits(32);
    const uint32_t scale = in.bits(32);
    const double rate = units == 0 ? 0 : scale / (double{1} * ticksPerFrame * units);
    return rate > 0 && rate <= unusualRate ? std::optional<double>(rate) : std::nullopt;
}

/// @param cropped  in pixels, left and right or top and bottom together
bool setSize(PictureFormat &format, uint64_t width, uint64_t height, uint64_t croppedWidth, uint64_t croppedHeight)
{
    if (width > largestSide || height > largestSide || croppedWidth >= width || croppedHeight >= height)
    {
        return false;
    }
    format.width = static_cast<unsigned>(width - croppedWidth);
    format.height = static_cast<unsigned>(height - croppedHeight);
    return true;
}

std::optional<PictureFormat> readH264(BitReader in)
{
    PictureFormat format;
    const unsigned profile = in.bits(8);
    const unsigned constraints = in.bits(8);
    format.profile = h264Profile(profile, (constraints & 0x40U) != 0);
    in.bits(8); // level
    in.ue();
    unsigned chroma = 1;
    bool separate = false;
    if (hasChromaFormat(profile))
    {
        chroma = in.ue();
        separate = chroma == 3 && in.bit() == 1;
        format.bitDepth = 8 + in.ue();
        in.ue();
        in.bit();
        if (in.bit() == 1)
        {
            skipScalingLists(in, chroma);
        }
    }
    in.ue();
    skipPictureOrder(in);
    in.ue();
    in.bit();
    const uint64_t width = (uint64_t{in.ue()} + 1) * 16;
    const uint64_t mapUnits = uint64_t{in.ue()} + 1;
    const unsigned fields = in.bit() == 1 ? 1 : 2; // map units of a frame
    in.skip(fields == 2 ? 1 : 0);
    in.bit();
    uint64_t cropX = 0;
    uint64_t cropY = 0;
    if (in.bit() == 1)
    {
        cropX = uint64_t{in.ue()} + in.ue();
        cropY = uint64_t{in.ue()} + in.ue();
    }
    const bool sampled = !separate && (chroma == 1 || chroma == 2);
    const unsigned unitX = sampled ? 2 : 1;
    const unsigned unitY = (!separate && chroma == 1 ? 2 : 1) * fields;
    if (chroma > 3 || format.bitDepth < 8 || format.bitDepth > 14 ||
        !setSize(format, width, mapUnits * 16 * fields, cropX * unitX, cropY * unitY))
    {
        return std::nullopt;
    }
    if (in.bit() == 1)
    {
        skipUsability(in);
        format.framesPerSecond = readRate(in, 2);
    }
    return format;
}

void skipProfileTierLevel(BitReader &in, unsigned subLayers)
{
    in.skip(88 + 8);
    bool profilePresent[8] = {};
    bool levelPresent[8] = {};
    for (unsigned i = 0; i < subLayers; ++i)
    {
        profilePresent[i] = in.bit() == 1;
        levelPresent[i] = in.bit() == 1;
    }
    in.skip(subLayers > 0 ? 2 * (8 - subLayers) : 0);
    for (unsigned i = 0; i < subLayers; ++i)
    {
        in.skip((profilePresent[i] ? 88U : 0U) + (levelPresent[i] ? 8U : 0U));
    }
}

void skipScalingListsH265(BitReader &in)
{
    for (unsigned size = 0; size < 4; ++size)
    {
        for (unsigned matrix = 0; matrix < (size == 3 ? 2U : 6U); ++matrix)
        {
            if (in.bit() == 0)
            {
                in.ue();
                continue;
            }
            const unsigned coefficients = (size == 0 ? 16 : 64) + (size > 1 ? 1 : 0);
            for (unsigned i = 0; i < coefficients; ++i)
            {
                in.se();
            }
        }
    }
}

/// How far the pictures that one refers to are from it, in their order.
using References = std::vector<int64_t>;

/// @param former  of the set before; null: it is the first (H.265, 7.3.7 and 7.4.8)
References readReferences(BitReader &in, const References *former)
{
    constexpr uint32_t most = 16;
    References references;
    if (former != nullptr && in.bit() == 1)
    {
        const bool negative = in.bit() == 1;
        const int64_t shift = (int64_t{in.ue()} + 1) * (negative ? -1 : 1);
        References shifted = *former;
        shifted.push_back(0);
        for (const int64_t reference : shifted)
        {
            const bool used = in.bit() == 1 || in.bit() == 1;
            if (used && reference + shift != 0)
            {
                references.push_back(reference + shift);
            }
        }
        // the earlier ones and then the later ones, each beginning with the nearest
        std::sort(references.begin(), references.end(),
                  [](int64_t one, int64_t other) { return one < 0 && other < 0 ? one > other : one < other; });
        return references;
    }
    const uint32_t earlier = in.ue();
    const uint32_t later = in.ue();
    if (earlier > most || later > most)
    {
        throw std::out_of_range("more references than there can be");
    }
    for (uint32_t i = 0; i < earlier + later; ++i)
    {
        const bool begins = i == 0 || i == earlier;
        const int64_t step = int64_t{in.ue()} + 1;
        in.bit();
        references.push_back((begins ? 0 : references.back()) + (i < earlier ? -step : step));
    }
    return references;
}

/// From behind the bit depths on.
std::optional<double> readRateH265(BitReader &in, unsigned subLayers)
{
    constexpr uint32_t mostSets = 64;
    const unsigned orderBits = in.ue() + 4;
    const unsigned ordered = in.bit() == 1 ? subLayers + 1 : 1;
    for (unsigned i = 0; i < 3 * ordered + 6; ++i) // and the sizes of blocks
    {
        in.ue();
    }
    if (in.bit() == 1 && in.bit() == 1)
    {
        skipScalingListsH265(in);
    }
    in.skip(2);
    if (in.bit() == 1) // PCM
    {
        in.skip(8);
        in.ue();
        in.ue();
        in.skip(1);
    }
    References references;
    const uint32_t sets = in.ue();
    for (uint32_t i = 0; i < sets && sets <= mostSets; ++i)
    {
        references = readReferences(in, i == 0 ? nullptr : &references);
    }
    if (in.bit() == 1) // long-term references
    {
        const uint32_t longTerm = in.ue();
        in.skip(size_t{longTerm} * (orderBits + 1));
    }
    in.skip(2);
    if (in.bit() == 0)
    {
        return std::nullopt;
    }
    skipUsability(in);
    in.skip(3);
    for (unsigned i = in.bit() == 1 ? 4 : 0; i > 0; --i) // the window that is displayed
    {
        in.ue();
    }
    return readRate(in, 1);
}

std::optional<PictureFormat> readH265(BitReader in)
{
    PictureFormat format;
    in.skip(4);
    const unsigned subLayers = in.bits(3); // beside the base
    in.bit();
    BitReader profile = in;
    profile.skip(3);
    const unsigned number = profile.bits(5);
    format.profile = number == 1 ? "Main" : number == 2 ? "Main 10" : "";
    skipProfileTierLevel(in, subLayers);
    in.ue();
    const unsigned chroma = in.ue();
    const bool separate = chroma == 3 && in.bit() == 1;
    const uint64_t width = in.ue();
    const uint64_t height = in.ue();
    uint64_t cropX = 0;
    uint64_t cropY = 0;
    if (in.bit() == 1)
    {
        cropX = uint64_t{in.ue()} + in.ue();
        cropY = uint64_t{in.ue()} + in.ue();
    }
    format.bitDepth = 8 + in.ue();
    in.ue();
    const unsigned unitX = !separate && (chroma == 1 || chroma == 2) ? 2 : 1;
    const unsigned unitY = !separate && chroma == 1 ? 2 : 1;
    if (chroma > 3 || format.bitDepth < 8 || format.bitDepth > 16 ||
        !setSize(format, width, height, cropX * unitX, cropY * unitY))
    {
        return std::nullopt;
    }
    try
    {
        format.framesPerSecond = readRateH265(in, subLayers);
    }
    catch (const std::out_of_range &) // the size is known all the same
    {
    }
    return format;
}

} // namespace

std::optional<PictureFormat> parseH264Sps(const std::string &nal)
{
    try
    {
        const bool sps = !nal.empty() && (static_cast<unsigned char>(nal[0]) & 0x1fU) == 7;
        return sps ? readH264(BitReader(nal, 1)) : std::nullopt;
    }
    catch (const std::out_of_range &)
    {
        return std::nullopt;
    }
}

std::optional<PictureFormat> parseH265Sps(const std::string &nal)
{
    try
    {
        const bool sps = !nal.empty() && (static_cast<unsigned char>(nal[0]) >> 1 & 0x3fU) == 33;
        return sps ? readH265(BitReader(nal, 2)) : std::nullopt;
    }
    catch (const std::out_of_range &)
    {
        return std::nullopt;
    }
}

} // namespace zr::host
