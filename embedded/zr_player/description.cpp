#include "description.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace zr::media {

namespace {

constexpr size_t maxSections = 16;
constexpr size_t maxFormats = 16;
constexpr size_t maxLine = 8192;
constexpr size_t maxName = 64;

struct StaticType
{
    const char *media;
    const char *encoding;
    const char *parameters;
    uint32_t clockRate;
    uint8_t payloadType;
};

/// RFC 3551, tables 4 and 5. 2 is reserved there; drafts gave it to G726-32, and devices use it.
constexpr StaticType staticTypes[] = {
    {"audio", "PCMU", "", 8000, 0},   {"audio", "G726-32", "", 8000, 2}, {"audio", "GSM", "", 8000, 3},
    {"audio", "G723", "", 8000, 4},   {"audio", "DVI4", "", 8000, 5},    {"audio", "DVI4", "", 16000, 6},
    {"audio", "LPC", "", 8000, 7},    {"audio", "PCMA", "", 8000, 8},    {"audio", "G722", "", 8000, 9},
    {"audio", "L16", "2", 44100, 10}, {"audio", "L16", "1", 44100, 11},  {"audio", "QCELP", "", 8000, 12},
    {"audio", "CN", "", 8000, 13},    {"audio", "MPA", "", 90000, 14},   {"audio", "G728", "", 8000, 15},
    {"audio", "DVI4", "", 11025, 16}, {"audio", "DVI4", "", 22050, 17},  {"audio", "G729", "", 8000, 18},
    {"video", "CELB", "", 90000, 25}, {"video", "JPEG", "", 90000, 26},  {"video", "NV", "", 90000, 28},
    {"video", "H261", "", 90000, 31}, {"video", "MPV", "", 90000, 32},   {"video", "MP2T", "", 90000, 33},
    {"video", "H263", "", 90000, 34},
};

/// The static types as formats; each lives as long as the program.
const Format *staticFormat(uint8_t payloadType)
{
    static const std::vector<Format> formats = [] {
        std::vector<Format> all;
        for (const StaticType &type : staticTypes)
        {
            all.push_back({type.media, type.payloadType, type.encoding, type.clockRate, type.parameters, {}});
        }
        return all;
    }();
    const auto found = std::find_if(formats.begin(), formats.end(),
                                    [payloadType](const Format &format) { return format.payloadType == payloadType; });
    return found == formats.end() ? nullptr : &*found;
}

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    const size_t last = text.find_last_not_of(" \t\r");
    return first == std::string_view::npos || last == std::string_view::npos ? std::string_view()
                                                                             : text.substr(first, last - first + 1);
}

/// Cuts the text up to the separator (or its end) off its front.
std::string_view cut(std::string_view &text, char separator)
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return piece;
}

template <typename Number>
std::optional<Number> number(std::string_view text, Number max)
{
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && value <= max ? std::optional<Number>(value)
                                                                                    : std::nullopt;
}

/// Finds the format that an attribute's value ("96 H264/90000") begins with, and cuts its number off; null when the
/// section has none.
Format *formatOf(Section &section, std::string_view &value)
{
    const auto payloadType = number<unsigned>(trimmed(cut(value, ' ')), 127);
    value = trimmed(value);
    const auto found =
        std::find_if(section.formats.begin(), section.formats.end(), [&payloadType](const Format &format) {
            return payloadType && format.payloadType == *payloadType;
        });
    return found == section.formats.end() ? nullptr : &*found;
}

/// "H264/90000", "L16/44100/2"; the hand-off's has no clock rate.
void readEncoding(std::string_view value, Format &format)
{
    format.encoding.assign(trimmed(cut(value, '/')).substr(0, maxName));
    std::transform(format.encoding.begin(), format.encoding.end(), format.encoding.begin(),
                   [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    const uint32_t clockRate = number<uint32_t>(trimmed(cut(value, '/')), 10000000).value_or(0);
    const bool fine = format.media == "video" || format.isMetadata();
    const bool telephone = format.encoding == "PCMU" || format.encoding == "PCMA";
    format.clockRate = clockRate != 0 ? clockRate : fine ? 90000 : telephone ? 8000 : 0;
    format.parameters.assign(trimmed(value).substr(0, maxName));
}

/// "video 0 RTP/AVP 96 97".
void readMedia(std::string_view value, std::vector<Section> &sections)
{
    Section section;
    section.media.assign(cut(value, ' ').substr(0, maxName));
    cut(value, ' ');
    const std::string_view protocol = cut(value, ' ');
    const bool rtp = protocol.substr(0, 4) == "RTP/";
    while (rtp && !value.empty() && section.formats.size() < maxFormats)
    {
        if (const auto payloadType = number<unsigned>(trimmed(cut(value, ' ')), 127))
        {
            const Format *known = staticFormat(static_cast<uint8_t>(*payloadType));
            section.formats.push_back(known != nullptr ? *known : Format());
            section.formats.back().payloadType = static_cast<uint8_t>(*payloadType);
            section.formats.back().media = section.media;
        }
    }
    // kept even when nothing in it is understood: tracks are counted by section
    sections.push_back(std::move(section));
}

void readAttribute(std::string_view value, Section &section)
{
    const std::string_view name = cut(value, ':');
    if (name == "rtpmap")
    {
        if (Format *format = formatOf(section, value))
        {
            readEncoding(value, *format);
        }
    }
    else if (name == "fmtp")
    {
        if (Format *format = formatOf(section, value))
        {
            format->fmtp.assign(value);
        }
    }
    else if (name == "control")
    {
        section.control.assign(trimmed(value));
    }
}

bool understood(const std::vector<Section> &sections)
{
    return std::any_of(sections.begin(), sections.end(), [](const Section &section) {
        return std::any_of(section.formats.begin(), section.formats.end(),
                           [](const Format &format) { return !format.encoding.empty(); });
    });
}

} // namespace

Description Description::fromSdp(std::string_view sdp)
{
    Description description;
    std::vector<Section> &sections = description.m_sections;
    while (!sdp.empty())
    {
        const std::string_view line = trimmed(cut(sdp, '\n'));
        if (line.size() < 2 || line.size() > maxLine || line[1] != '=')
        {
            continue;
        }
        if (line[0] == 'm')
        {
            if (sections.size() == maxSections)
            {
                break;
            }
            readMedia(line.substr(2), sections);
        }
        else if (line[0] == 'a' && !sections.empty())
        {
            readAttribute(line.substr(2), sections.back());
        }
    }
    if (!understood(sections))
    {
        sections.clear();
    }
    return description;
}

std::string Description::confirm(const HandOff &handOff)
{
    std::string problems;
    if (!handOff.videoRtpmap.empty())
    {
        problems += confirmFormat("video", handOff.videoRtpmap, handOff.parameterSets);
    }
    if (!handOff.audioRtpmap.empty())
    {
        problems += confirmFormat("audio", handOff.audioRtpmap, {});
    }
    return problems;
}

std::string Description::confirmFormat(const char *media, std::string_view rtpmap, const std::string &parameterSets)
{
    std::string_view value = rtpmap;
    const auto payloadType = number<unsigned>(trimmed(cut(value, ' ')), 127);
    Format handed;
    handed.media = media;
    readEncoding(trimmed(value), handed);
    if (!payloadType || handed.encoding.empty())
    {
        return std::string("the ") + media + " rtpmap '" + std::string(rtpmap) + "' names no payload type; ";
    }
    handed.payloadType = static_cast<uint8_t>(*payloadType);
    handed.fmtp = parameterSets;
    bool described = false;
    for (const Section &section : m_sections)
    {
        for (const Format &format : section.formats)
        {
            if (section.media == media && format.payloadType == handed.payloadType &&
                format.encoding == handed.encoding)
            {
                return {};
            }
        }
        described = described || section.media == media;
    }
    if (described)
    {
        return std::string("the ") + media + " rtpmap '" + std::string(rtpmap) + "' is not the description's; ";
    }
    m_sections.push_back({media, {handed}, {}});
    return {};
}

const Format *Description::find(size_t section, uint8_t payloadType) const
{
    const auto in = [payloadType](const Section &of) -> const Format * {
        for (const Format &format : of.formats)
        {
            if (format.payloadType == payloadType && !format.encoding.empty())
            {
                return &format;
            }
        }
        return nullptr;
    };
    if (section < m_sections.size())
    {
        if (const Format *format = in(m_sections[section]))
        {
            return format;
        }
    }
    for (const Section &other : m_sections)
    {
        if (const Format *format = in(other))
        {
            return format;
        }
    }
    return staticFormat(payloadType);
}

} // namespace zr::media
