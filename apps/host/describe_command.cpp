#include <algorithm>

#include "commands.h"
#include "masking.h"

namespace zr::host {
namespace {

std::string serverLine(const Url &url, const Description &description, const ZrSessionFacts &facts)
{
    std::string line = "server " + url.host + ":" + std::to_string(url.port);
    const std::pair<const char *, std::string> parts[] = {{"software ", facts.szServer},
                                                          {"name ", description.name},
                                                          {"made by ", description.tool},
                                                          {"range ", description.range}};
    for (const auto &[label, part] : parts)
    {
        line += part.empty() ? "" : ", " + (label + part);
    }
    return line;
}

constexpr std::chrono::milliseconds answerWithin{2000};

/// Whether an ONVIF recorder replays this; nothing where that cannot be told.
struct Replayed
{
    std::optional<bool> is;
    std::string reason;
};

// Servers that do not look at Require answer well, whatever it says: so what nobody knows is required once, too.
Replayed askForReplay(const Session &session)
{
    constexpr ZR_ULONG unsupported = 551; // RFC 2326, 12.32
    const auto answer = session.ask(answerWithin, "onvif-replay");
    if (!answer)
    {
        return {std::nullopt, "the server does not answer when it is asked"};
    }
    if (answer->ulCheckStatus == unsupported)
    {
        return {false, "the server refuses Require: onvif-replay"};
    }
    if (answer->ulCheckStatus / 100 != 2)
    {
        return {std::nullopt, "asked for it, the server answers " + std::to_string(answer->ulCheckStatus)};
    }
    const auto other = session.ask(answerWithin, "org.example.nothing");
    return other && other->ulCheckStatus == unsupported
               ? Replayed{true, "the server takes Require: onvif-replay"}
               : Replayed{std::nullopt,
                          "the server takes Require: onvif-replay, but whatever else is required as well"};
}

/// Asks for the server's methods in the same turn.
Replayed learnOfReplay(const Session &session, const Description &description)
{
    const auto isRecorded = [](const Track &track) { return !track.recorded.empty(); };
    const bool recorded = std::any_of(description.tracks.begin(), description.tracks.end(), isRecorded);
    Replayed replayed =
        recorded ? Replayed{true, "its tracks are a recording's (x-onvif-track)"} : askForReplay(session);
    if (*session.facts().szMethods == '\0') // where that was refused
    {
        session.ask(answerWithin);
    }
    return replayed;
}

void tellReplay(const Replayed &replayed, Report &report)
{
    const char *const known = replayed.is.value_or(false) ? "yes" : "no";
    report.event("onvif_replay",
                 std::string("ONVIF replay: ") + (replayed.is ? known : "unknown") + " (" + replayed.reason + ")",
                 {{"replay", replayed.is ? Fields(*replayed.is) : Fields(nullptr)}, {"reason", replayed.reason}});
}

void tellServer(const Url &url, const Session &session, const Description &description, Report &report)
{
    const Replayed replayed = learnOfReplay(session, description);
    const ZrSessionFacts facts = session.facts();
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
    tellReplay(replayed, report);
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
    if (!track.recorded.empty())
    {
        fields["onvif_track"] = track.recorded;
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
        const std::string sdp = own.sdp ? session.sdp() : shown(session.sdp()); // as it came where that is asked for
        report.verbatim("sdp", sdp, {{"sdp", sdp}});
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
