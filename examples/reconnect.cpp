// An observer that reconnects: begins a new session, after growing pauses, whenever the old one has ended.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

using namespace std::chrono_literals;

namespace {

constexpr ZR_ULONG id = 1; // the media port's and the object's

/// Hands a notification on to the host's own thread: inside of one no object can be made or deleted.
class Ending : public CIMediaCtrlObserver
{
public:
    /// @return what ended the session, or 0: nothing within that time
    ZR_ULONG await(std::chrono::seconds time)
    {
        std::future<ZR_ULONG> ended = m_ended.get_future();
        return ended.wait_for(time) == std::future_status::ready ? ended.get() : 0;
    }

private:
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t) override
    {
        if (!m_told.exchange(true)) // it may hear more than one thing
            m_ended.set_value(*code);
    }

    std::atomic<bool> m_told{false};
    std::promise<ZR_ULONG> m_ended;
};

/// @return 0 when it plays
ZR_ULONG begin(CIMediaCtrl &control, const std::string &url)
{
    control.setDecoderDesc("onvif");
    ZR_ULONG code = control.describe(url);
    CMediaAbility ability;
    control.getMediaAbility(ability);
    if (code == 0)
        code = ZR_MediaPortSetDescription(id, ability.getDescribeRspSdp().c_str());
    if (code == 0)
        code = control.setup(ability.getOnvifInfo().m_strVideoControl, PROTOCOL_TCP);
    return code == 0 ? control.play("", "") : code;
}

/// @return 0 when it played so long, else what failed or ended it
ZR_ULONG playOnce(const std::string &host, ZR_USHORT port, const std::string &path, std::chrono::seconds time)
{
    Ending ending; // outlives the object that tells it
    ZR_USHORT localPort = 0;
    const char *const local = "127.0.0.1"; // this machine's address on the way to the server
    ZR_ULONG code = ZR_MediaPortOpen(id, id, local, &localPort);
    CIMediaCtrl *control = createMediaCtrlInter(id, "viewer", host, local, localPort, host, port, id);
    control->attachObserver(&ending);
    if (code == 0)
        code = begin(*control, "rtsp://" + host + ":" + std::to_string(port) + path);
    if (code == 0)
    {
        std::printf("playing\n");
        code = ending.await(time);
    }
    deleteMediaCtrlInter(&control); // waits for a notification that runs
    ZR_MediaPortClose(id);
    return code;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5 || init(0, 0, nullptr, nullptr) != 0)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH SECONDS\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0); // each line at once
    const auto port = static_cast<ZR_USHORT>(std::stoul(argv[2]));
    auto pause = 1s;
    auto begun = std::chrono::steady_clock::now();
    while (const ZR_ULONG code = playOnce(argv[1], port, argv[3], std::chrono::seconds(std::stoul(argv[4]))))
    {
        std::printf("failed, or ended: %u; once more in %lld s\n", code, static_cast<long long>(pause.count()));
        std::this_thread::sleep_for(pause);
        pause = std::chrono::steady_clock::now() - begun > 1min ? 1s : std::min(pause * 2, 30s);
        begun = std::chrono::steady_clock::now();
    }
    destroy();
}
