#include <algorithm>

#include "commands.h"

namespace zr::host {
namespace {

std::string serverLine(const Url &url, const Description &description, const ZrSessionFacts &facts)
{
    std::string line = "server " + url.host + ":" + std::to_string(url.port);
    for (const std::string &part : {std::string(facts.szServer), description.name, description.tool, description.range})
    {
        line += part.empty() ? "" : ", " + part;
    }
    return line;
}

void tellServer(const Url &url, const Session &session, const Description &description, Report &report)
{
    constexpr std::chrono::milliseconds methodsWithin{2000};
    const ZrSessionFacts facts = session.ask(methodsWithin).value_or(session.facts());
    const auto length = description.length();
    report.event("server", serverLine(url, description, facts),
                 {{"host", url.host},
                  {"port", url.port},
                  {"server", facts.szServer},
                  {"methods", facts.szMethods},
                  {"tls", facts.szTls},
                  {"name", description.name},
                  {"tool", description.tool},
                  {"range", description.range},
                  {"length", length ? Fields(*length) : Fields(nullptr)},
                  {"session_timeout", facts.ulTimeout}});
    if (*facts.szMethods != '\0')
    {
        report.event("methods", std::string("methods ") + facts.szMethods, nullptr);
    }
}

Fields trackFields(const Track &track, const std::string &url)
{
    Fields fields{{"media", track.media},
                  {"codec", track.codec},
                  {"payload_type", track.payloadType},
                  {"clock_rate", track.clockRate},
                  {"control", url}};
    if (track.picture)
    {
        fields.update({{"width", track.picture->width},
                       {"height", track.picture->height},
                       {"bit_depth", track.picture->bitDepth},
                       {"profile", track.picture->profile}});
    }
    if (track.framesPerSecond)
    {
        fields["frames_per_s"] = *track.framesPerSecond;
    }
    if (track.channels > 0)
    {
        fields["channels"] = track.channels;
    }
    return fields;
}

} // namespace

void describeCommand(const CommonOptions &options, const DescribeOptions &own, Report &report)
{
    const Interrupt interrupt(&report);
    Mailbox mailbox(interrupt);
    Plugin plugin(options.plugin);
    Session session(plugin, options.source, mailbox);
    const auto tellSdp = [&] {
        std::string text = session.sdp();
        text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
        text.erase(text.find_last_not_of('\n') + 1);
        report.event("sdp", text, {{"sdp", session.sdp()}});
    };
    try
    {
        session.describe();
    }
    catch (const Failure &)
    {
        if (!session.sdp().empty()) // what it holds may say why it is of no use
        {
            tellSdp();
        }
        throw;
    }
    if (own.sdp)
    {
        return tellSdp();
    }
    const Description &description = session.description();
    report.event("described", options.source.url.text + ": " + summary(description),
                 {{"url", options.source.url.text}, {"range", description.range}});
    tellServer(options.source.url, session, description, report);
    for (const TrackUrl &url : session.tracks())
    {
        const Track &track = *description.first(url.media);
        report.event("track",
                     "  " + track.media + "  " + details(track) + "  payload type " +
                         std::to_string(track.payloadType) + ", " + std::to_string(track.clockRate) + " Hz  " + url.url,
                     trackFields(track, url.url));
    }
}

} // namespace zr::host
