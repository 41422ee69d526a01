// zr_rtsp_device: a demo device to try an RTSP client on.

#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <gst/gst.h>

#include "device.h"

namespace {

constexpr const char *examples = R"(
It prints "listening URL" for each of its URLs once it is ready, and ends on SIGINT or SIGTERM.
Exit code: 0 ended by a signal, 1 it cannot serve (the reason on stderr), 2 wrong usage.

Examples:
  zr_rtsp_device                                         # a free port of this machine
  zr_rtsp_device --port 8554 --user admin --password secret
  zr_rtsp_device --address 0.0.0.0 --port 8554 --auth basic --user admin --password secret
  zr_rtsp_device --tls cert.pem key.pem --session-timeout 10)";

void addOptions(CLI::App &app, zr::device::DeviceOptions &options)
{
    using zr::device::Authentication;
    app.add_option("--address", options.address, "Address to listen on, IPv4")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--port", options.port, "Port to listen on, 0: a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    auto *user =
        app.add_option("--user", options.user, "User name that clients must give; without it everybody may come in");
    auto *password = app.add_option("--password", options.password, "Its password");
    user->needs(password);
    password->needs(user);
    app.add_option("--auth", options.authentication, "How they give it: basic or digest (default)")
        ->transform(CLI::CheckedTransformer(std::map<std::string, Authentication>{{"basic", Authentication::Basic},
                                                                                  {"digest", Authentication::Digest}})
                        .description("{basic,digest}"))
        ->needs(user);
    app.add_option_function<std::vector<std::string>>(
           "--tls",
           [&options](const std::vector<std::string> &files) {
               options.certificate = files[0];
               options.key = files[1];
           },
           "Serve rtsps with this certificate and its private key, PEM files")
        ->expected(2)
        ->type_name("CERT KEY")
        ->check(CLI::ExistingFile);
    app.add_option("--session-timeout", options.sessionTimeout,
                   "Seconds until a silent client's session ends (over TCP only a paused one)")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--vod-length", options.recordingSeconds, "Seconds of the recording at /vod")
        ->check(CLI::Range(2, 600))
        ->capture_default_str();
    app.add_option("--replay-from", options.replayFrom,
                   "Also serve /replay, as an ONVIF recorder does: when the recording began, such as 20261120T100000Z "
                   "(without rate control only over TCP)");
    app.add_option("--pattern", options.picture.pattern, "The picture")
        ->check(CLI::IsMember({"smpte", "smpte75", "ball", "bar", "pinwheel", "spokes", "zone-plate"}))
        ->capture_default_str();
}

int run(int argc, char **argv)
{
    zr::device::DeviceOptions options;
    CLI::App app(
        "A demo device: serves /live (video and audio), /video (video alone) and /vod (a recording) over RTSP.",
        "zr_rtsp_device");
    app.footer(examples);
    app.set_version_flag("--version", "zr_rtsp_device " ZR_VERSION, "Print the version");
    addOptions(app, options);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &wrong)
    {
        return app.exit(wrong) == 0 ? 0 : 2;
    }

    gst_init(nullptr, nullptr);
    zr::device::Device device(options);
    for (const auto &url : device.urls())
    {
        std::printf("listening %s\n", url.c_str());
    }
    std::fflush(stdout);
    device.run();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        return run(argc, argv);
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "zr_rtsp_device: %s\n", failed.what());
        return 1;
    }
}
