#include "sdp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "base64.h"
#include "position.h"

namespace zr::host {
namespace {

bool takePrefix(const std::string &line, const char *prefix, std::string &rest)
{
    const std::string wanted(prefix);
    if (line.rfind(wanted, 0) != 0)
    {
        return false;
    }
    rest = line.substr(wanted.size());
    return true;
}

int number(const char *text, char **end)
{
    return static_cast<int>(std::clamp(std::strtol(text, end, 10), 0L, 1000000000L));
}

Track readMedia(const std::string &value)
{
    Track track;
    std::istringstream words(value);
    std::string port;
    std::string profile;
    words >> track.media >> port >> profile >> track.payloadType;
    return track;
}

void readRtpmap(const std::string &value, Track &track)
{
    std::istringstream words(value);
    int payloadType = -1;
    std::string encoding;
    words >> payloadType >> encoding;
    if (payloadType != track.payloadType)
    {
        return;
    }
    const size_t slash = encoding.find('/');
    track.codec = encoding.substr(0, slash);
    char *end = nullptr;
    track.clockRate = slash == std::string::npos ? 0 : number(encoding.c_str() + slash + 1, &end);
    if (track.media == "audio" && slash != std::string::npos)
    {
        track.channels = *end == '/' ? number(end + 1, nullptr) : 1; // RFC 4566, 6
    }
}

void readParameters(const std::string &value, Track &track)
{
    int payloadType = -1;
    std::istringstream(value) >> payloadType;
    if (payloadType != track.payloadType)
    {
        return;
    }
    const auto find = [&](const std::string &name) {
        const size_t at = value.find(name + "=");
        const size_t begin = at == std::string::npos ? value.size() : at + name.size() + 1;
        return value.substr(begin, value.find_first_of(",; ", begin) - begin);
    };
    for (const auto &[name, parse] :
         {std::pair("sprop-parameter-sets", &parseH264Sps), std::pair("sprop-sps", &parseH265Sps)})
    {
        const auto bytes = fromBase64(find(name));
        if (bytes && !bytes->empty())
        {
            track.picture = parse(*bytes);
        }
    }
    if (track.picture && !track.framesPerSecond)
    {
        track.framesPerSecond = track.picture->framesPerSecond;
    }
}

void readFrameRate(const std::string &value, Track &track)
{
    constexpr double unusual = 1000;
    const double rate = std::strtod(value.c_str(), nullptr);
    if (rate > 0 && rate <= unusual)
    {
        track.framesPerSecond = rate;
    }
}

std::string codecOf(const Track &track)
{
    return track.codec.empty() ? "payload type " + std::to_string(track.payloadType) : track.codec;
}

// Whole frames without a fraction, others as 29.97.
std::string rateText(double framesPerSecond)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g frames/s", framesPerSecond);
    return text;
}

} // namespace

const Track *Description::first(const std::string &media) const
{
    for (const Track &track : tracks)
    {
        if (track.media == media)
        {
            return &track;
        }
    }
    return nullptr;
}

std::optional<double> Description::length() const
{
    const Span span = parseSpan(range);
    const bool told = span.begin && span.end && span.begin->clock == span.end->clock;
    const double seconds = told ? span.end->seconds - span.begin->seconds : 0;
    return seconds > 0 ? std::optional<double>(seconds) : std::nullopt;
}

bool Description::live() const
{
    return range.rfind("npt=now", 0) == 0;
}

Description parseDescription(const std::string &sdp)
{
    Description description;
    std::istringstream lines(sdp);
    std::string line;
    std::string value;
    while (std::getline(lines, line))
    {
        if (!line.empty() && line.back() == '\r')
        {
            line.pop_back();
        }
        if (takePrefix(line, "m=", value))
        {
            description.tracks.push_back(readMedia(value));
        }
        else if (description.tracks.empty())
        {
            takePrefix(line, "s=", description.name) || takePrefix(line, "a=tool:", description.tool) ||
                takePrefix(line, "a=range:", description.range);
        }
        else if (takePrefix(line, "a=rtpmap:", value))
        {
            readRtpmap(value, description.tracks.back());
        }
        else if (takePrefix(line, "a=fmtp:", value))
        {
            readParameters(value, description.tracks.back());
        }
        else if (takePrefix(line, "a=framerate:", value))
        {
            readFrameRate(value, description.tracks.back());
        }
        else
        {
            takePrefix(line, "a=control:", description.tracks.back().control) ||
                takePrefix(line, "a=x-onvif-track:", description.tracks.back().recorded);
        }
    }
    return description;
}

std::string summary(const Description &description)
{
    std::string text;
    for (const Track &track : description.tracks)
    {
        text += (text.empty() ? "" : ", ") + codecOf(track) + " " + track.media;
    }
    return text;
}

std::string details(const Track &track)
{
    std::string text = codecOf(track);
    if (track.picture)
    {
        const PictureFormat &picture = *track.picture;
        text += (picture.profile.empty() ? "" : " " + picture.profile) + " " + std::to_string(picture.width) + "x" +
                std::to_string(picture.height) + " " + std::to_string(picture.bitDepth) + " bit";
    }
    text += track.framesPerSecond ? ", " + rateText(*track.framesPerSecond) : "";
    text += track.channels > 0
                ? ", " + std::to_string(track.channels) + (track.channels == 1 ? " channel" : " channels")
                : "";
    return text;
}

std::string controlUrl(const std::string &url, const std::string &control)
{
    if (control.empty() || control == "*")
    {
        return url;
    }
    if (control.find("://") != std::string::npos)
    {
        return control;
    }
    return url + (url.back() == '/' ? "" : "/") + control;
}

} // namespace zr::host
