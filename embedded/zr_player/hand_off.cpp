#include "hand_off.h"

#include <algorithm>
#include <string_view>

#include "rtp.h"

namespace zr::media {

namespace {

constexpr size_t headerSize = 16;
constexpr size_t maxSize = 640;

/// Takes a text of pieces apart, each a name, its value, and ";".
bool readPieces(std::string_view text, HandOff &out, std::string &problem)
{
    while (!text.empty())
    {
        const size_t end = text.find(';');
        const size_t colon = text.find(':');
        if (end == std::string_view::npos || colon >= end)
        {
            problem = "a piece without its end";
            return false;
        }
        const std::string_view name = text.substr(0, colon);
        const std::string_view value = text.substr(colon + 1, end - colon - 1);
        std::string *const target = name == "VRMP"   ? &out.videoRtpmap
                                    : name == "ARMP" ? &out.audioRtpmap
                                    : name == "SPS"  ? &out.parameterSets
                                                     : nullptr;
        if (target == nullptr)
        {
            problem = "a piece of unknown name";
            return false;
        }
        target->assign(value);
        text.remove_prefix(end + 1);
    }
    return true;
}

} // namespace

bool looksLikeHandOff(const uint8_t *data, size_t size)
{
    return size >= 2 && data[0] == 0x90 && data[1] == 0x01;
}

bool readHandOff(const uint8_t *data, size_t size, HandOff &out, std::string &problem)
{
    if (!looksLikeHandOff(data, size) || size < headerSize || size > maxSize)
    {
        problem = "not a hand-off packet, or its size is out of bounds";
        return false;
    }
    const size_t textSize = size_t{4} * readU16(data + 14);
    if (textSize != size - headerSize)
    {
        problem = "its extension is said to have " + std::to_string(textSize) + " bytes, but " +
                  std::to_string(size - headerSize) + " are there";
        return false;
    }
    std::string_view text(reinterpret_cast<const char *>(data + headerSize), textSize);
    const size_t last = text.find_last_not_of('\0');
    text = text.substr(0, last == std::string_view::npos ? 0 : last + 1);
    if (textSize - text.size() > 3 || std::any_of(text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }))
    {
        problem = "its text holds bytes that are no text";
        return false;
    }
    HandOff read;
    if (!readPieces(text, read, problem))
    {
        return false;
    }
    out = std::move(read);
    return true;
}

} // namespace zr::media
