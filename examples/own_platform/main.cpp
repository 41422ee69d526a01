// A host over a platform of one's own: the real plug-in, linked to the libraries in this folder. Runs a session's life
// against the loop-back, prints each result, and returns 0 only when all were right.

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include "zr_rtsp/zr_rtsp.h"

namespace {

const std::string base = "rtsp://127.0.0.1:554";
const std::string credentials = "?auth&username=demo&password=";

bool allRight = true;

void expect(const char *step, ZR_ULONG result, ZR_ULONG expected = ZR_RTSP_OK)
{
    const bool right = result == expected;
    std::printf("%-32s %5u  %s\n", step, result, right ? "right" : "WRONG");
    allRight = allRight && right;
}

void expect(const char *step, const std::string &result, const std::string &beginning)
{
    const bool right = result.compare(0, beginning.size(), beginning) == 0;
    std::printf("%-32s %s  %s\n", step, result.c_str(), right ? "right" : "WRONG");
    allRight = allRight && right;
}

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

    expect("describe", session.control->describe(base + "/protected" + credentials + "demo&"));
    const COnvifInfo info = session.ability().getOnvifInfo();
    expect("  the video's control", info.m_strVideoControl, base + "/protected/track1");
    expect("setup of the video", session.control->setup(info.m_strVideoControl, PROTOCOL_TCP));
    expect("setup of the audio", session.control->setup(info.m_strAudioControl, PROTOCOL_TCP));
    expect("  the session", session.ability().getSessionID(), "loop-back-");
    expect("play", session.control->play("", ""));
    expect("  the position", awaitRange(playback), "npt=");
    expect("pause", playback.pause());
    expect("dragPlay", playback.dragPlay("30", "", twiceAsFast));
    session.control->tearDown();
    expect("play after tearDown", session.control->play("", ""), ZR_RTSP_PLAY_FAILED);
}

void refusals()
{
    Session missing(2);
    expect("describe what is not there", missing.control->describe(base + "/missing"), 404);
    Session stranger(3);
    expect("describe, wrong password", stranger.control->describe(base + "/protected" + credentials + "guess&"),
           ZR_RTSP_INVALID_PARAMETER);
}

} // namespace

int main()
{
    try
    {
        expect("init", init(0, 0, nullptr, nullptr));
        if (!allRight)
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
    std::puts(allRight ? "all right" : "NOT all right");
    return allRight ? 0 : 1;
}
