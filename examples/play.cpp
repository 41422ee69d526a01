// A minimal host: plays a stream for three seconds, takes a picture, pauses, seeks, and plays on twice as fast.

#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

using namespace std::chrono_literals;

namespace {

constexpr ZR_ULONG id = 1; // the media port's and the object's: any number that no other session has

void require(const char *step, ZR_ULONG code)
{
    if (code != 0)
        throw std::runtime_error(step + (" failed with " + std::to_string(code)));
}

void tell(const char *what)
{
    ZrMediaStatistics received = {};
    ZR_MediaPortStatistics(id, &received);
    std::printf("%s: %llu packets, %llu lost\n", what, static_cast<unsigned long long>(received.ullPackets),
                static_cast<unsigned long long>(received.ullLost));
}

void play(CIMediaCtrl &control, const std::string &url, const char *picture)
{
    control.setDecoderDesc("onvif"); // what cameras and most recorders are
    require("describe", control.describe(url));
    CMediaAbility ability;
    control.getMediaAbility(ability);
    require("reading the description", ZR_MediaPortSetDescription(id, ability.getDescribeRspSdp().c_str()));
    require("setup", control.setup(ability.getOnvifInfo().m_strVideoControl, PROTOCOL_TCP));

    require("play", control.play("", ""));
    require("taking the picture", ZR_MediaPortSnapshot(id, picture, 5000));
    std::this_thread::sleep_for(3s);
    tell("played");

    auto &playback = dynamic_cast<CIMediaCtrlEx &>(control);
    constexpr ZR_ULONG twiceAsFast = 12; // a speed code, not a factor
    require("pause", playback.pause());
    tell("paused");
    require("seeking", playback.dragPlay("5", "", twiceAsFast));
    std::this_thread::sleep_for(1s);
    tell("played on from 5 s");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH PICTURE.png\n", argv[0]);
        return 2;
    }
    if (init(0, 0, nullptr, nullptr) != 0)
        return 1;
    int exitCode = 1;
    CIMediaCtrl *control = nullptr;
    try
    {
        const std::string host = argv[1];
        const auto port = static_cast<ZR_USHORT>(std::stoul(argv[2]));
        const char *const local = "127.0.0.1"; // this machine's address on the way to the server
        ZR_USHORT localPort = 0;
        require("opening a media port", ZR_MediaPortOpen(id, id, local, &localPort)); // before the object is made
        control = createMediaCtrlInter(id, "viewer", host, local, localPort, host, port, id);
        play(*control, "rtsp://" + host + ":" + argv[2] + argv[3], argv[4]);
        exitCode = 0;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s\n", failed.what());
    }
    deleteMediaCtrlInter(&control); // tears the session down
    ZR_MediaPortClose(id);          // after the object is gone
    destroy();
    return exitCode;
}
