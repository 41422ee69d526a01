// Fetches a part of a recording into a file, faster than it plays, and shows how far it is.

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

constexpr ZR_ULONG id = 1; // the media port's and the object's

void require(const char *step, ZR_ULONG code)
{
    if (code != 0)
        throw std::runtime_error(step + (" failed with " + std::to_string(code)));
}

/// Shows the progress until so much media has come.
void await(uint64_t milliseconds)
{
    constexpr uint64_t lastFrame = 100; // nobody tells how long the last one lasts
    constexpr ZR_ULONG givenUp = 10000, nothingYet = 0xFFFFFFFF;
    ZrMediaStatistics received = {};
    while (received.ullMediaMs + lastFrame < milliseconds)
    {
        std::this_thread::sleep_for(200ms);
        require("statistics", ZR_MediaPortStatistics(id, &received));
        std::printf("%3u%%, %.1f MB\n", static_cast<unsigned>(received.ullMediaMs * 100 / milliseconds),
                    static_cast<double>(received.ullBytes) / 1e6);
        if (received.ulLastArrivalMs > givenUp && received.ulLastArrivalMs != nothingYet)
            throw std::runtime_error("the server has stopped sending");
    }
}

/// @param from, to  seconds of the recording
void fetch(CIMediaCtrl &control, const std::string &url, unsigned long from, unsigned long to, const char *file)
{
    constexpr ZR_ULONG fourTimes = 2; // a download code: 0 to 3 are 1, 2, 4 and 8 times
    constexpr ZR_ULONG everyFrame = 1;
    control.setDecoderDesc("onvif");
    require("describe", control.describe(url));
    CMediaAbility ability;
    control.getMediaAbility(ability);
    require("reading the description", ZR_MediaPortSetDescription(id, ability.getDescribeRspSdp().c_str()));
    const std::string video = ability.getOnvifInfo().m_strVideoControl;
    // interleaved in the connection, where no packet is lost; the one object has all three interfaces
    require("setup", dynamic_cast<CIMediaCtrlEx2 &>(control).setup(video, PROTOCOL_TCP, fourTimes, everyFrame));
    require("recording", ZR_MediaPortRecord(id, file));
    auto &playback = dynamic_cast<CIMediaCtrlEx &>(control);
    require("download", playback.download(std::to_string(from), std::to_string(to), fourTimes, everyFrame));
    await((to - from) * 1000);
    control.tearDown();
    require("ending the recording", ZR_MediaPortRecord(id, nullptr)); // the file is whole now
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH FROM TO FILE.mkv\n", argv[0]);
        return 2;
    }
    if (init(0, 0, nullptr, nullptr) != 0)
        return 1;
    int exitCode = 1;
    CIMediaCtrl *control = nullptr;
    try
    {
        const std::string host = argv[1];
        const std::string local = "127.0.0.1"; // this machine's address on the way to the server
        const auto port = static_cast<ZR_USHORT>(std::stoul(argv[2]));
        ZR_USHORT localPort = 0;
        require("opening a media port", ZR_MediaPortOpen(id, id, local.c_str(), &localPort));
        control = createMediaCtrlInter(id, "fetcher", host, local, localPort, host, port, id);
        fetch(*control, "rtsp://" + host + ":" + argv[2] + argv[3], std::stoul(argv[4]), std::stoul(argv[5]), argv[6]);
        std::puts("done");
        exitCode = 0;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s\n", failed.what());
    }
    deleteMediaCtrlInter(&control);
    ZR_MediaPortClose(id);
    destroy();
    return exitCode;
}
