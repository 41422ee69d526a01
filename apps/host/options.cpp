#include "options.h"

#include <filesystem>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "speed.h"

namespace zr::host {
namespace {

constexpr const char *footer = R"(
Exit codes:
  0 media arrived (play), the stream was described (describe)   4 credentials missing or refused
  1 internal error                                               5 refused by the server
  2 wrong usage                                                  6 no media arrived, or it stopped
  3 the server cannot be reached, or does not answer             7 a picture or recording could not be written
  130 ended by Ctrl-C before media arrived, or by a second Ctrl-C

Examples:
  zr_rtsp_host describe rtsp://192.0.2.10/live --user admin --password secret
  zr_rtsp_host play rtsp://192.0.2.10/live --tcp --duration 10 --snapshot picture.png --record stream.mkv
  zr_rtsp_host play rtsp://192.0.2.10/vod --from 5 --to 15 --speed 2)";

/// What is on the command line, before it is understood.
struct Raw
{
    std::string url;
    Credentials credentials;
    bool tcp = false;
};

const CLI::Validator writable(
    [](std::string &file) {
        const std::filesystem::path path(file);
        std::error_code ignored;
        const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
        return std::filesystem::is_directory(folder, ignored) ? std::string() : "there is no folder " + folder.string();
    },
    "FILE");

void addCommon(CLI::App &app, Raw &raw, CommonOptions &common)
{
    app.add_option("URL", raw.url, "rtsp://[user:password@]host[:port]/path")->required();
    app.add_option("--user", raw.credentials.user, "User name, instead of one in the URL");
    app.add_option("--password", raw.credentials.password,
                   "Its password; better in the environment, where ps does not show it")
        ->envname("ZR_RTSP_PASSWORD");
    app.add_option("--tag", common.source.tag,
                   "Decoder description, such as onvif, guobiao, omz-v1@12; only onvif authenticates")
        ->capture_default_str();
    app.add_flag("--json", common.json, "Print one event a line, as JSON");
    app.add_option("--log-level", common.logLevel, "What the libraries log: debug, info, warning or error (default)")
        ->transform(CLI::CheckedTransformer(std::map<std::string, tagZrLogLevel>{
            {"debug", ZR_LOG_DEBUG}, {"info", ZR_LOG_INFO}, {"warning", ZR_LOG_WARNING}, {"error", ZR_LOG_ERROR}}));
    app.add_option("--log-file", common.logFile, "Where they log it, instead of stderr")->check(writable);
    app.add_option("--plugin", common.plugin, "The plug-in's file, instead of the one beside the program")
        ->check(CLI::ExistingFile);
}

void addPlay(CLI::App &app, Raw &raw, PlayOptions &play)
{
    auto *tcp = app.add_flag("--tcp", raw.tcp, "Receive media interleaved in the RTSP connection");
    app.add_flag("--udp", "Receive media over UDP (default)")->excludes(tcp);
    app.add_option("--from", play.playback.from, "Begin: seconds, hh:mm:ss, or YYYYMMDDThhmmssZ");
    app.add_option("--to", play.playback.to, "End, likewise");
    app.add_option("--speed", play.speed, "Factor from 0.125 to 16, negative for backwards; or code:N, N from 0 to 19");
    app.add_option("--duration", play.duration, "Seconds of media; without it until its end or Ctrl-C")
        ->check(CLI::PositiveNumber);
    auto *pauseAt =
        app.add_option("--pause-at", play.pauseAt, "Pause once after so many seconds of media, then play on")
            ->check(CLI::NonNegativeNumber);
    app.add_option("--pause-for", play.pauseFor, "Seconds of that pause")
        ->check(CLI::NonNegativeNumber)
        ->needs(pauseAt)
        ->capture_default_str();
    app.add_option("--snapshot", play.snapshot, "Write the first whole picture, as PNG")->check(writable);
    app.add_option("--record", play.record, "Record into a Matroska file (.mkv)")->check(writable);
}

void understand(const Raw &raw, Options &options)
{
    options.common.source.url = parseUrl(raw.url);
    Credentials &credentials = options.common.source.credentials;
    credentials = options.common.source.url.credentials;
    if (!raw.credentials.user.empty())
    {
        credentials = raw.credentials;
    }
    else if (!credentials.user.empty() && !raw.credentials.password.empty())
    {
        credentials.password = raw.credentials.password;
    }
    urlForDescribe(options.common.source.url.text, credentials); // refuses what cannot be handed over
    if (!options.play.speed.empty())
    {
        options.play.playback.speedCode = speedCode(options.play.speed);
    }
    options.play.protocol = raw.tcp ? PROTOCOL_TCP : PROTOCOL_UDP;
}

} // namespace

Options parseOptions(int argc, char **argv)
{
    Options options;
    Raw raw;
    CLI::App app("Plays RTSP sessions through the zr_rtsp plug-in.", "zr_rtsp_host");
    app.footer(footer);
    app.require_subcommand(1);
    auto *describe = app.add_subcommand("describe", "Print a stream's tracks, codecs and control URLs");
    auto *play = app.add_subcommand("play", "Play a stream: receive it, and record it or take a picture if asked to");
    addCommon(*describe, raw, options.common);
    addCommon(*play, raw, options.common);
    addPlay(*play, raw, options.play);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::Success &asked) // help
    {
        app.exit(asked);
        return options;
    }
    catch (const CLI::ParseError &wrong)
    {
        throw wrongUsage(wrong.what());
    }
    understand(raw, options);
    options.command = describe->parsed() ? Command::Describe : Command::Play;
    return options;
}

} // namespace zr::host
