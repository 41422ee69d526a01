#include "commands.h"

namespace zr::host {
namespace {

std::string codecOf(const Track &track)
{
    return track.codec.empty() ? "payload type " + std::to_string(track.payloadType) : track.codec;
}

// RTSP's answers do not reach a host: of the server only what its description says is known.
std::string serverLine(const Url &url, const Description &description)
{
    std::string line = "server " + url.host + ":" + std::to_string(url.port);
    for (const std::string &part : {description.name, description.tool, description.range})
    {
        line += part.empty() ? "" : ", " + part;
    }
    return line;
}

} // namespace

std::string summary(const Description &description)
{
    std::string text;
    for (const Track &track : description.tracks)
    {
        text += (text.empty() ? "" : ", ") + codecOf(track) + " " + track.media;
    }
    return text;
}

void describeCommand(const CommonOptions &options, Report &report)
{
    const Interrupt interrupt;
    Mailbox mailbox(interrupt);
    Plugin plugin(options.plugin);
    Session session(plugin, options.source, mailbox);
    const Description &description = session.describe();

    report.event("described", options.source.url.text + ": " + summary(description),
                 {{"url", options.source.url.text}, {"range", description.range}});
    report.event("server", serverLine(options.source.url, description),
                 {{"host", options.source.url.host},
                  {"port", options.source.url.port},
                  {"name", description.name},
                  {"tool", description.tool}});
    for (const TrackUrl &url : session.tracks())
    {
        const Track &track = *description.first(url.media);
        report.event("track",
                     "  " + track.media + "  " + codecOf(track) + "  payload type " +
                         std::to_string(track.payloadType) + ", " + std::to_string(track.clockRate) + " Hz  " + url.url,
                     {{"media", track.media},
                      {"codec", track.codec},
                      {"payload_type", track.payloadType},
                      {"clock_rate", track.clockRate},
                      {"control", url.url}});
    }
}

} // namespace zr::host
