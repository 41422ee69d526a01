// A host over a platform of one's own: the real plug-in, linked to the libraries in this folder. Runs a session's life
// against the loop-back, prints each result, and returns 0 only when all were right.

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include "expect.h"
#include "zr_rtsp/zr_rtsp.h"

namespace {

const std::string base = "rtsp://127.0.0.1:554";
const std::string credentials = "?auth&username=demo&password=";

class Session
{
public:
    /// @param id  of the media port, and of the object with the dispatcher
    explicit Session(ZR_ULONG id)
        : control(createMediaCtrlInter(id, "viewer-" + std::to_string(id), "camera", "127.0.0.1", 40000, "127.0.0.1",
                                       554, id))
    {
        control->setDecoderDesc("onvif");
    }
    ~Session() { deleteMediaCtrlInter(&control); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    CMediaAbility ability() const
    {
        CMediaAbility copy;
        return control->getMediaAbility(copy);
    }

    CIMediaCtrl *control;
};

/// The position that the keep-alive's OPTIONS brings, some time after PLAY.
std::string awaitRange(CIMediaCtrlEx &playback)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (playback.getRange().empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return playback.getRange();
}

void play()
{
    Session session(1);
    auto &playback = dynamic_cast<CIMediaCtrlEx &>(*session.control);
    constexpr ZR_ULONG twiceAsFast = 12; // a speed code

    own::expect("describe", session.control->describe(base + "/protected" + credentials + "demo&"));
    const COnvifInfo info = session.ability().getOnvifInfo();
    own::expect("  the video's control", info.m_strVideoControl, base + "/protected/track1");
    own::expect("setup of the video", session.control->setup(info.m_strVideoControl, PROTOCOL_TCP));
    own::expect("setup of the audio", session.control->setup(info.m_strAudioControl, PROTOCOL_TCP));
    own::expect("  the session", session.ability().getSessionID(), "loop-back-");
    own::expect("play", session.control->play("", ""));
    own::expect("  the position", awaitRange(playback), "npt=");
    own::expect("pause", playback.pause());
    own::expect("dragPlay", playback.dragPlay("30", "", twiceAsFast));
    session.control->tearDown();
    own::expect("play after tearDown", session.control->play("", ""), ZR_RTSP_PLAY_FAILED);
}

void refusals()
{
    Session missing(2);
    own::expect("describe what is not there", missing.control->describe(base + "/missing"), 404);
    Session stranger(3);
    own::expect("describe, wrong password", stranger.control->describe(base + "/protected" + credentials + "guess&"),
                ZR_RTSP_INVALID_PARAMETER);
}

} // namespace

int main()
{
    try
    {
        own::expect("init", init(0, 0, nullptr, nullptr));
        if (!own::allRight)
            return 1;
        play();
        refusals();
        destroy();
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::puts(own::allRight ? "all right" : "NOT all right");
    return own::allRight ? 0 : 1;
}
