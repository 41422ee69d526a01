#include "options.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "help_page.h"
#include "option_values.h"
#include "output_file.h"
#include "position.h"
#include "replay_options.h"
#include "secrets.h"
#include "source_list.h"
#include "speed.h"
#include "usage.h"

namespace zr::host {
namespace {

constexpr double shortest = 0.001, longest = 1e9; // seconds

/// What is on the command line, before it is understood.
struct Raw
{
    std::string url;
    std::string file; ///< download's, watch's
    std::string tag;  ///< empty: the command's own
    std::string wall;
    Credentials credentials;
    std::optional<std::string> password;
    std::string passwordFile;
    std::string camerasFile;
    std::optional<Camera> camera; ///< that was meant by its name
    bool tcp = false;
    bool udp = false;
    bool multicast = false;
    bool http = false;
    bool httpOne = false;
    tagZrTunnel tunnel = ZR_TUNNEL_NONE; ///< what comes of both, and of the camera's
    std::optional<int> downloadTimes;
    bool sampled = false;
    ReplayOptions replay;
};

void addCommon(CLI::App &app, Raw &raw, CommonOptions &common)
{
    app.add_option("--user", raw.credentials.user, "User name, instead of one in the URL");
    auto *password = app.add_option("--password", raw.password,
                                    "Its password, which ps shows; or ZR_RTSP_PASSWORD in the environment, or typed");
    password->option_text("TEXT");
    app.add_option("--password-file", raw.passwordFile, "File whose first line is the password")
        ->excludes(password)
        ->option_text("FILE");
    app.add_option("--cameras", raw.camerasFile, "Names of cameras (default: ~/.config/zr_rtsp/cameras.toml)")
        ->check(CLI::ExistingFile);
    app.add_option("--ca", common.caFile, "Trust this certificate for rtsps as well (PEM)")->check(CLI::ExistingFile);
    app.add_flag("--insecure", common.insecure, "Take any certificate of an rtsps server for good");
    app.add_flag("--http", raw.http, "Tunnel RTSP and media in HTTP (implies --tcp): port 80, rtsps 443, or the URL's");
    app.add_flag("--http-one", raw.httpOne,
                 "The same over one connection, where no second one comes through; few servers take it");
    app.add_option("--tag", raw.tag, "Decoder description, such as onvif (default), guobiao, omz-v1@12")
        ->check(plain());
    app.add_flag("--json", common.json, "Print one event a line, as JSON");
    app.add_flag("--trace", common.trace, "Show the RTSP messages on the wire (stderr), credentials masked");
    app.add_option("--trace-file", common.traceFile, "Append them to a file instead")->check(writable());
    app.add_option("--log-level", common.logLevel,
                   "What the libraries log: debug, info, warning or error (default: nothing)")
        ->transform(oneOf(
            {{"debug", ZR_LOG_DEBUG}, {"info", ZR_LOG_INFO}, {"warning", ZR_LOG_WARNING}, {"error", ZR_LOG_ERROR}}))
        ->option_text("LEVEL");
    app.add_option("--log-file", common.logFile, "Where they log it (then info by default), instead of stderr")
        ->check(writable());
    app.add_option("--plugin", common.plugin, "The plug-in's file, instead of the one beside the program")
        ->check(CLI::ExistingFile);
}

void addUrl(CLI::App &app, Raw &raw)
{
    app.add_option("URL", raw.url, "rtsp://[user:password@]host[:port]/path, or a name")->required();
}

void addTransport(CLI::App &app, Raw &raw, bool tcpIsDefault)
{
    auto *tcp = app.add_flag("--tcp", raw.tcp,
                             tcpIsDefault ? "Receive media over TCP alone (default: TCP, else UDP)"
                                          : "Receive media within the RTSP connection alone");
    auto *udp =
        app.add_flag("--udp", raw.udp,
                     std::string("Receive media over UDP alone") + (tcpIsDefault ? "" : " (default: UDP, else TCP)"));
    udp->excludes(tcp);
    if (!tcpIsDefault)
    {
        app.add_flag("--multicast", raw.multicast, "Receive media from a multicast group")
            ->excludes(tcp)
            ->excludes(udp)
            ->group(moreGroup);
    }
}

void addRange(CLI::App &app, Playback &playback)
{
    app.add_option("--from", playback.from, "Begin: seconds, hh:mm:ss, or YYYYMMDDThhmmssZ")
        ->transform(place())
        ->option_text("TIME");
    app.add_option("--to", playback.to, "End, likewise")->transform(place())->option_text("TIME");
}

CLI::Option *addForce(CLI::App &app, CommonOptions &common)
{
    return app.add_flag("--force", common.force, "Write over files that are there");
}

/// @param excluded  option; empty: none
void addRecording(CLI::App &app, CourseOptions &course, const std::string &excluded)
{
    CLI::Option *const options[] = {
        app.add_option("--segment-length", course.segments.seconds,
                       "Seconds after which the next file begins, at a key frame: a-002.mkv behind a.mkv")
            ->check(numberFrom(1, 4e6, "seconds"))
            ->option_text("S"),
        app.add_option("--segment-size", course.segments.megabytes, "Megabytes after which it does")
            ->check(numberFrom(0.1, 1e9, "megabytes"))
            ->option_text("MB"),
        app.add_flag("--metadata", course.metadata, "Write the ONVIF metadata beside it, into a.metadata.jsonl")};
    for (CLI::Option *option : options)
    {
        option->group(recordingGroup);
        if (excluded.empty())
        {
            option->needs("--record");
        }
        else
        {
            option->excludes(excluded);
        }
    }
}

CLI::Option *addSilence(CLI::App &app, CourseOptions &course)
{
    return app.add_option("--silence", course.silence, "Seconds without media after which that is said")
        ->check(numberFrom(1, 3600, "seconds"))
        ->option_text("S [5]");
}

void addDuration(CLI::App &app, std::optional<double> &duration, const char *text)
{
    app.add_option("--duration", duration, text)->check(numberFrom(shortest, longest, "seconds"))->option_text("S");
}

void addSpeed(CLI::App &app, PlayOptions &play)
{
    app.add_option("--speed", play.course.speed, "Factor 0.125 to 16, negative: backwards; or code:0...19")
        ->check(speed())
        ->option_text("X");
    addDuration(app, play.duration, "Seconds of media; without it until its end or Ctrl-C");
}

void addRecord(CLI::App &app, PlayOptions &play)
{
    app.add_option("--record", play.course.record, "Record into a Matroska file (.mkv)")->check(media());
}

void addPlay(CLI::App &app, Raw &raw, PlayOptions &play)
{
    addUrl(app, raw);
    addTransport(app, raw, false);
    addRange(app, play.course.playback);
    addSpeed(app, play);
    auto *pauseAt =
        app.add_option("--pause-at", play.pauseAt, "Pause once after so many seconds of media, then play on")
            ->check(numberFrom(0, longest, "seconds"))
            ->option_text("S")
            ->group(moreGroup);
    app.add_option("--pause-for", play.pauseFor, "Seconds of that pause")
        ->check(numberFrom(0, longest, "seconds"))
        ->needs(pauseAt)
        ->option_text("S [2]")
        ->group(moreGroup);
    app.add_option("--snapshot", play.snapshot, "Write the first whole picture, as PNG")->check(media());
    addRecord(app, play);
    auto *preview = app.add_flag("--preview", play.preview, "Draw the picture in the terminal");
    app.add_flag("--window", play.window, "Show the picture in a window")->excludes(preview);
    app.add_flag("--reconnect", play.reconnect, "Begin a new session when one was ended or lost");
    addSilence(app, play.course)->group(moreGroup);
    addRecording(app, play.course, "");
}

void addDownload(CLI::App &app, Raw &raw, DownloadOptions &download)
{
    addUrl(app, raw);
    app.add_option("FILE", download.course.record, "Matroska file (.mkv) to write")->required()->check(media());
    addTransport(app, raw, true);
    addRange(app, download.course.playback);
    auto *speed = app.add_option("--speed", raw.downloadTimes, "Ask for a download at 1, 2, 4 or 8 times the speed")
                      ->transform(oneOf({{"1", 1}, {"2", 2}, {"4", 4}, {"8", 8}}))
                      ->option_text("N");
    auto *sampled = app.add_flag("--sampled", raw.sampled, "Ask for sampled frames")->needs(speed);
    app.add_flag("--full-frame", "Ask for every frame (default)")->needs(speed)->excludes(sampled);
    app.add_flag("--continue", download.resume, "Fetch what FILE lacks, if it was cut")->excludes("--force");
    addRecording(app, download.course, "--continue");
}

void addTv(CLI::App &app, Raw &raw, TvOptions &tv)
{
    addUrl(app, raw);
    app.add_option("--to", raw.wall, "The wall's receiver, IP:PORT")
        ->required()
        ->check(receiverAddress())
        ->option_text("ADDRESS");
    app.add_flag("--tcp", raw.tcp, "Over TCP, here and to the wall, instead of UDP");
    addDuration(app, tv.duration, "Seconds of the relation; without it until Ctrl-C");
}

void addWatch(CLI::App &app, Raw &raw, WatchOptions &watch)
{
    app.add_option("FILE", raw.file, "URLs, or cameras' names, one a line (default: all cameras)")
        ->check(CLI::ExistingFile);
    addTransport(app, raw, true);
    addDuration(app, watch.duration, "Seconds; without it until Ctrl-C");
    app.add_flag("--reconnect", watch.reconnect, "Begin a new session where the server ended one, was lost or refuses");
    app.add_option("--metrics", watch.metrics, "Serve Prometheus metrics (on 127.0.0.1 only, unless IP:PORT)")
        ->transform(listenAddress())
        ->option_text("PORT");
    addSilence(app, watch.course);
}

Credentials givenCredentials(const Raw &raw)
{
    Credentials given = raw.credentials;
    if (raw.camera && given.user.empty() && !raw.password && raw.passwordFile.empty())
    {
        given = credentialsOf(*raw.camera);
        if (given.complete)
        {
            return given;
        }
    }
    const char *inherited = std::getenv("ZR_RTSP_PASSWORD"); // NOLINT(concurrency-mt-unsafe): there is one thread yet
    if (raw.password)
    {
        given.password = *raw.password;
    }
    else if (!raw.passwordFile.empty())
    {
        given.password = readPassword(raw.passwordFile);
    }
    else if (inherited != nullptr)
    {
        given.password = inherited;
    }
    given.complete = raw.password || !raw.passwordFile.empty() || inherited != nullptr;
    return given;
}

void complete(Credentials &credentials, const std::string &where)
{
    if (!credentials.user.empty() && !credentials.complete && canAskPassword())
    {
        credentials.password = askPassword(credentials.user + where);
        credentials.complete = true;
    }
}

/// Devices take tunnels where their web pages are; a server of its own where it takes RTSP, which the URL then names.
void tunnel(Source &source, tagZrTunnel kind)
{
    const bool tls = source.url.text.rfind("rtsps:", 0) == 0;
    source.tunnel = kind;
    source.url.port = source.url.portNamed ? source.url.port : static_cast<uint16_t>(tls ? 443 : 80);
}

Source completeSource(const Raw &raw, const std::string &tag)
{
    Source source = makeSource(raw.url, givenCredentials(raw), tag);
    complete(source.credentials, " at " + source.url.host);
    urlForDescribe(source.url.text, source.credentials); // refuses what cannot be handed over
    return source;
}

/// Those of a file, or all cameras.
std::vector<Source> completeSources(const Raw &raw, const std::string &tag, const Cameras &cameras)
{
    Credentials given = givenCredentials(raw);
    complete(given, "");
    const auto sourceOf = [&](const Camera &camera) {
        const Credentials own = credentialsOf(camera);
        const bool has = own.complete || !own.user.empty() || !parseUrl(camera.url).credentials.user.empty();
        Source made =
            makeSource(camera.url, has ? own : given, raw.tag.empty() && !camera.tag.empty() ? camera.tag : tag);
        made.name = camera.name;
        if (camera.tunnel != ZR_TUNNEL_NONE && !raw.udp)
        {
            tunnel(made, camera.tunnel);
        }
        return made;
    };
    std::vector<Source> sources;
    if (!raw.file.empty())
    {
        return readSources(raw.file, given, tag,
                           [&](const std::string &name) { return sourceOf(cameras.named(name)); });
    }
    std::transform(cameras.all().begin(), cameras.all().end(), std::back_inserter(sources), sourceOf);
    if (sources.empty())
    {
        throw wrongUsage("there is neither a FILE nor a cameras file to watch");
    }
    return sources;
}

void requireOrder(const Playback &playback)
{
    const auto from = parsePosition(playback.from);
    const auto to = parsePosition(playback.to);
    const bool known = from && to && from->clock == to->clock && speedFactor(playback.speedCode) > 0;
    if (known && to->seconds <= from->seconds)
    {
        throw wrongUsage("--to is not behind --from: that takes a negative --speed");
    }
}

/// What a camera's name stands for takes the URL's place.
void nameCamera(Raw &raw, const Cameras &cameras)
{
    raw.camera = cameras.named(raw.url);
    raw.camerasFile = cameras.file();
    raw.url = raw.camera->url;
    raw.tag = raw.tag.empty() ? raw.camera->tag : raw.tag;
}

/// @return the cameras file, if the command line needs it
std::optional<Cameras> findCameras(Raw &raw, Options &options)
{
    const bool named = Cameras::isName(raw.url);
    std::vector<std::string> &warnings = options.common.warnings;
    if (isReadByOthers(raw.passwordFile))
    {
        warnings.push_back(openSecret(raw.passwordFile));
    }
    if (!named && options.command != Command::Cameras && options.command != Command::Watch)
    {
        return std::nullopt;
    }
    const Cameras cameras(raw.camerasFile);
    warnings.insert(warnings.end(), cameras.warnings().begin(), cameras.warnings().end());
    if (named)
    {
        nameCamera(raw, cameras);
    }
    return cameras;
}

/// The URLs' sources are known.
void understandTunnel(const Raw &raw, Options &options)
{
    if (raw.tunnel == ZR_TUNNEL_NONE)
    {
        return;
    }
    if (raw.udp || raw.multicast || options.check.multicast)
    {
        throw wrongUsage("--http carries the media, too: leave --udp and --multicast away");
    }
    tunnel(options.common.source, raw.tunnel);
    for (Source &source : options.watch.sources)
    {
        tunnel(source, raw.tunnel);
    }
}

void understand(Raw &raw, Options &options)
{
    const auto cameras = findCameras(raw, options);
    if (raw.http || raw.httpOne)
    {
        raw.tunnel = raw.httpOne ? ZR_TUNNEL_HTTP_ONE : ZR_TUNNEL_HTTP;
    }
    else if (raw.camera && !raw.udp && !raw.multicast && !options.check.multicast)
    {
        raw.tunnel = raw.camera->tunnel;
    }
    raw.tcp = raw.tcp || raw.tunnel != ZR_TUNNEL_NONE;
    const auto tagOr = [&](const char *own) { return raw.tag.empty() ? std::string(own) : raw.tag; };
    const auto source = [&](const std::string &tag) { return completeSource(raw, tag); };
    CommonOptions &common = options.common;
    switch (options.command)
    {
    case Command::Help:
    case Command::Describe:
        common.source = source(tagOr("onvif"));
        break;
    case Command::Check:
        requireFree(options.check.html, common.force);
        common.source = source(tagOr("onvif"));
        break;
    case Command::Play:
    case Command::Replay:
        options.play.course.segments.overwrite = common.force;
        requireFree(options.play.snapshot, common.force);
        requireFree(options.play.course.record, common.force);
        common.source = source(tagOr("onvif"));
        options.play.course.protocol = raw.tcp ? PROTOCOL_TCP : PROTOCOL_UDP;
        options.play.course.multicast = raw.multicast;
        options.play.course.fallBack = !raw.tcp && !raw.udp;
        if (!options.play.course.speed.empty())
        {
            options.play.course.playback.speedCode = speedCode(options.play.course.speed);
        }
        if (options.command == Command::Replay)
        {
            raw.replay.apply(options.play.course);
        }
        requireOrder(options.play.course.playback);
        break;
    case Command::Download:
        options.download.course.segments.overwrite = common.force;
        requireFree(options.download.course.record, common.force || options.download.resume);
        requireOrder(options.download.course.playback);
        common.source = source(tagOr("onvif"));
        options.download.course.protocol = raw.udp ? PROTOCOL_UDP : PROTOCOL_TCP;
        options.download.course.fallBack = !raw.tcp && !raw.udp;
        if (raw.downloadTimes)
        {
            options.download.course.playback.download =
                DownloadSpeed{static_cast<ZR_ULONG>(std::ilogb(*raw.downloadTimes)), !raw.sampled};
            common.source.tag = tagOr(common.source.credentials.user.empty() ? "plain" : "onvif");
        }
        break;
    case Command::Tv:
        common.source = source(tagOr("plain"));
        options.tv.course.protocol = raw.tcp ? PROTOCOL_TCP : PROTOCOL_UDP;
        options.tv.course.fallBack = !raw.tcp;
        options.tv.wall = addressAndPort(raw.wall).value_or(tagTransportAddr{});
        if (common.source.tag.substr(0, common.source.tag.find('@')) == "onvif")
        {
            throw wrongUsage("an onvif source has no relation to a TV wall: leave --tag away");
        }
        break;
    case Command::Watch:
        options.watch.course.protocol = raw.udp ? PROTOCOL_UDP : PROTOCOL_TCP;
        options.watch.course.fallBack = !raw.tcp && !raw.udp;
        options.watch.sources = completeSources(raw, tagOr("onvif"), *cameras);
        break;
    case Command::Cameras:
        options.cameras.file = cameras->file();
        options.cameras.cameras = cameras->all();
        break;
    }
    understandTunnel(raw, options);
}

} // namespace

Options parseOptions(int argc, char **argv, Hints &hints)
{
    Options options;
    Raw raw;
    CLI::App app("Plays RTSP sessions through the zr_rtsp plug-in", "zr_rtsp_host");
    app.formatter(std::make_shared<HelpPage>(generalHelp));
    app.set_help_flag("-h,--help", "Print this page")->group(moreGroup);
    app.set_help_all_flag("--help-all", "The exit codes as well")->group(moreGroup);
    app.set_version_flag("--version", "zr_rtsp_host " ZR_VERSION, "Print the version");
    app.require_subcommand(1);
    const auto add = [&](Command command, const char *name, const char *text, const CommandHelp &page) {
        CLI::App *added = app.add_subcommand(name, text);
        added->formatter(std::make_shared<HelpPage>(page));
        added->get_help_ptr()->group(moreGroup);
        added->set_help_all_flag("--help-all", "More, such as --user, --password-file, --json, --trace")
            ->group(moreGroup);
        added->callback([&options, command] { options.command = command; });
        return added;
    };
    auto *describe =
        add(Command::Describe, "describe", "Print a stream's tracks, codecs and control URLs", describeHelp);
    auto *check = add(Command::Check, "check", "Try all that a stream needs, and say what fails", checkHelp);
    auto *play = add(Command::Play, "play", "Play a stream; record it, or take a picture, if asked to", playHelp);
    auto *replay = add(Command::Replay, "replay", "Play an ONVIF recorder's recording by time of day", replayHelp);
    auto *download = add(Command::Download, "download", "Fetch a recording into a file", downloadHelp);
    auto *tv = add(Command::Tv, "tv", "Play a recording, sent to a TV wall as well", tvHelp);
    auto *watch = add(Command::Watch, "watch", "Play many streams at once, and say how they are", watchHelp);
    auto *cameras = add(Command::Cameras, "cameras", "List the cameras that have names", camerasHelp);
    addUrl(*describe, raw);
    describe->add_flag("--sdp", options.describe.sdp, "Print the description (SDP) as it came, and nothing else");
    addUrl(*check, raw);
    check->add_flag("--multicast", options.check.multicast, "Try multicast as well");
    addForce(*check, options.common);
    check->add_option("--report", options.check.html, "Write a page with the table and a picture (HTML)")
        ->check(writable());
    addPlay(*play, raw, options.play);
    addForce(*play, options.common)->group(moreGroup);
    addUrl(*replay, raw);
    addTransport(*replay, raw, false);
    raw.replay.add(*replay, options.play.course.playback);
    addSpeed(*replay, options.play);
    addRecord(*replay, options.play);
    addRecording(*replay, options.play.course, "");
    addForce(*replay, options.common)->group(moreGroup);
    addForce(*download, options.common);
    addDownload(*download, raw, options.download);
    addTv(*tv, raw, options.tv);
    addWatch(*watch, raw, options.watch);
    cameras->add_flag("--names", options.cameras.names)->group(""); // for the shells' completions
    for (CLI::App *command : {describe, check, play, replay, download, tv, watch, cameras})
    {
        command->option_defaults()->group(commonGroup);
        addCommon(*command, raw, options.common);
    }
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::Success &asked) // help, version
    {
        app.exit(asked);
        options.command = Command::Help;
        return options;
    }
    catch (const CLI::ParseError &wrong)
    {
        hints.usage = "see " + helpFor(app);
        throw misunderstood(app, wrong, argc > 1 ? argv[1] : "");
    }
    hints.usage = "see " + helpFor(app);
    understand(raw, options);
    if (raw.camera && raw.credentials.user.empty())
    {
        hints.credentials = "check user and password of " + raw.camera->name + " in " + raw.camerasFile;
    }
    return options;
}

} // namespace zr::host
