#include "sdp.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

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
    track.clockRate =
        slash == std::string::npos ? 0 : static_cast<int>(std::strtol(encoding.c_str() + slash + 1, nullptr, 10));
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
    double begin = 0;
    double end = 0;
    if (std::sscanf(range.c_str(), "npt=%lf-%lf", &begin, &end) == 2 && end > begin)
    {
        return end - begin;
    }
    return std::nullopt;
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
        else
        {
            takePrefix(line, "a=control:", description.tracks.back().control);
        }
    }
    return description;
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
