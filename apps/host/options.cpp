#include "options.h"

#include <array>
#include <vector>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "help_page.h"
#include "option_values.h"
#include "options_raw.h"
#include "speed.h"
#include "usage.h"

namespace zr::host {
namespace {

constexpr double shortest = 0.001, longest = 1e9; // seconds

void addCommon(CLI::App &app, RawOptions &raw, CommonOptions &common)
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

void addUrl(CLI::App &app, RawOptions &raw)
{
    app.add_option("URL", raw.url, "rtsp://[user:password@]host[:port]/path, or a name")->required();
}

void addTransport(CLI::App &app, RawOptions &raw, bool tcpIsDefault)
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

CLI::Validator recording()
{
    return media("a recording is a Matroska file", ".mkv");
}

void addRecord(CLI::App &app, PlayOptions &play)
{
    app.add_option("--record", play.course.record, "Record into a Matroska file (.mkv)")->check(recording());
}

void addPlay(CLI::App &app, RawOptions &raw, PlayOptions &play)
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
    app.add_option("--snapshot", play.snapshot, "Write the first whole picture (.png)")
        ->check(media("a picture is a PNG file", ".png"));
    addRecord(app, play);
    auto *preview = app.add_flag("--preview", play.preview, "Draw the picture in the terminal");
    app.add_flag("--window", play.window, "Show the picture in a window")->excludes(preview);
    app.add_flag("--reconnect", play.reconnect, "Begin a new session when one was ended or lost");
    addSilence(app, play.course)->group(moreGroup);
    addRecording(app, play.course, "");
}

void addDownload(CLI::App &app, RawOptions &raw, DownloadOptions &download)
{
    addUrl(app, raw);
    app.add_option("FILE", download.course.record, "Matroska file (.mkv) to write")->required()->check(recording());
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

void addTv(CLI::App &app, RawOptions &raw, TvOptions &tv)
{
    addUrl(app, raw);
    app.add_option("--to", raw.wall, "The wall's receiver, IP:PORT")
        ->required()
        ->check(receiverAddress())
        ->option_text("ADDRESS");
    app.add_flag("--tcp", raw.tcp, "Over TCP, here and to the wall, instead of UDP");
    addDuration(app, tv.duration, "Seconds of the relation; without it until Ctrl-C");
}

void addWatch(CLI::App &app, RawOptions &raw, WatchOptions &watch)
{
    app.add_option("FILE", raw.file, "URLs, or cameras' names, one a line (default: all cameras)")
        ->check([](const std::string &file) {
            return file.find("://") == std::string::npos
                       ? CLI::ExistingFile(file)
                       : file + " is one stream: a file is to be named, which lists them, one a line";
        });
    addTransport(app, raw, true);
    addDuration(app, watch.duration, "Seconds; without it until Ctrl-C");
    app.add_flag("--reconnect", watch.reconnect, "Begin a new session where the server ended one, was lost or refuses");
    app.add_option("--metrics", watch.metrics, "Serve Prometheus metrics (on 127.0.0.1 only, unless IP:PORT)")
        ->transform(listenAddress())
        ->option_text("PORT");
    addSilence(app, watch.course);
}

} // namespace

Options parseOptions(int argc, char **argv, Hints &hints)
{
    Options options;
    RawOptions raw;
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
        added
            ->set_help_all_flag("--help-all", command == Command::Cameras
                                                  ? "How the file is written"
                                                  : "More, such as --user, --password-file, --json, --trace")
            ->group(moreGroup);
        added->callback([&options, command] { options.command = command; });
        return added;
    };
    auto *describe =
        add(Command::Describe, "describe", "Print a stream's tracks, codecs and control URLs", describeHelp);
    auto *check = add(Command::Check, "check", "Try all that a stream needs, and say what fails", checkHelp);
    auto *play = add(Command::Play, "play", "Play a stream, steered by keys (? lists them); record it", playHelp);
    auto *replay = add(Command::Replay, "replay", "Play an ONVIF recorder's recording by time of day", replayHelp);
    auto *download = add(Command::Download, "download", "Fetch a recording into a file", downloadHelp);
    auto *tv = add(Command::Tv, "tv", "Play a recording, sent to a TV wall as well", tvHelp);
    auto *watch = add(Command::Watch, "watch", "Play many streams at once, and say how they are", watchHelp);
    auto *cameras = add(Command::Cameras, "cameras", "List the cameras that have names", camerasHelp);
    addUrl(*describe, raw);
    describe->add_flag("--sdp", options.describe.sdp,
                       "Print only the description (SDP), as it came: nothing is masked");
    addUrl(*check, raw);
    check->add_flag("--multicast", options.check.multicast, "Try multicast as well");
    addForce(*check, options.common);
    check->add_option("--report", options.check.html, "Write a page with the table and a picture (HTML)")
        ->check(writableAs("a report is an HTML page", ".html"));
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
        // a list asks no device: what all take is taken there, too, but of no use
        command->option_defaults()->group(command == cameras ? "" : commonGroup);
        addCommon(*command, raw, options.common);
    }
    for (const char *useful : {"--cameras", "--json"})
    {
        cameras->get_option(useful)->group("Options");
    }
    std::vector<char *> words(argv, argv + argc);
    static std::array<char, 7> helpOption = {"--help"};
    if (argc > 1 && std::string(argv[1]) == "help") // as others have it
    {
        words.erase(words.begin() + 1);
        words.insert(words.begin() + (argc > 2 ? 2 : 1), helpOption.data());
    }
    try
    {
        app.parse(static_cast<int>(words.size()), words.data());
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
