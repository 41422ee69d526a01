// Requests, from the call of the object to the release of the message; answers; and the keep-alive walk.
#include "micro_session.h"

#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

using micro::platform;
using Probe = CRtspMediaCtrlProbe;

namespace {

using Request = void (*)(CRtspMediaCtrl &object);

/// Calls what builds, sends and releases a request; the dispatcher refuses it, so that nothing waits.
void request(benchmark::State &state, const char *tag, ZR_ULONG before, Request call)
{
    const micro::Session session(tag);
    if (std::string(tag) == "onvif")
        session.authenticate();
    CRtspMediaCtrl &object = session.object();
    Probe::setState(object, before);
    platform.sendResult = 1;
    platform.sent = 0;
    while (state.KeepRunning())
        call(object);
    if (platform.sent != state.iterations())
        state.SkipWithError("not every call sent its request");
}

void describe(CRtspMediaCtrl &object)
{
    static const std::string url = micro::URL;
    object.describe(url);
}

void setup(CRtspMediaCtrl &object)
{
    static const std::string url = std::string(micro::URL) + "/track1";
    object.setup(url, PROTOCOL_TCP);
}

void play(CRtspMediaCtrl &object)
{
    static const std::string from = "10";
    static const std::string to = "20";
    object.dragPlay(from, to, 1);
}

void pause(CRtspMediaCtrl &object)
{
    object.pause();
}

void options(CRtspMediaCtrl &object)
{
    Probe::play(object, 1);
    object.keepLive();
}

void setParameter(CRtspMediaCtrl &object)
{
    object.onvifKeepLive();
}

void tearDown(CRtspMediaCtrl &object)
{
    object.tearDown();
}

BENCHMARK_CAPTURE(request, DESCRIBE, "", MEDIACTRL_STATE_SUCCESS, describe);
BENCHMARK_CAPTURE(request, SETUP, "", MEDIACTRL_STATE_SUCCESS, setup);
BENCHMARK_CAPTURE(request, PLAY, "", MEDIACTRL_STATE_SUCCESS, play);
BENCHMARK_CAPTURE(request, PAUSE, "", MEDIACTRL_STATE_PLAY, pause);
BENCHMARK_CAPTURE(request, OPTIONS, "", MEDIACTRL_STATE_PLAY, options);
BENCHMARK_CAPTURE(request, TEARDOWN, "", MEDIACTRL_STATE_SUCCESS, tearDown);
BENCHMARK_CAPTURE(request, SETUP_with_Digest, "onvif", MEDIACTRL_STATE_SUCCESS, setup);
BENCHMARK_CAPTURE(request, OPTIONS_with_Digest, "onvif", MEDIACTRL_STATE_PLAY, options);
BENCHMARK_CAPTURE(request, SET_PARAMETER, "onvif", MEDIACTRL_STATE_PLAY, setParameter);

/// A good answer, from its arrival at the object to its end.
void answer(benchmark::State &state, ZR_ULONG messageId, ZR_ULONG before)
{
    const micro::Session session("");
    zr::aoi::Answer good = session.answer(messageId, MDP_MSG_KIND_SUCCESS);
    good.transport = zr::aoi::TransportAddress{"10.0.0.9", 50000};
    good.range = "npt=12.5-";
    good.server = "camera/1.0";
    const zr::aoi::MessagePtr message = zr::aoi::writeAnswer(good);
    while (state.KeepRunning())
    {
        Probe::setState(session.object(), before);
        if (!session.take(message))
            state.SkipWithError("the answer was not taken");
    }
}
BENCHMARK_CAPTURE(answer, SETUP, AOI_MSG_RTSP_SETUP, MEDIACTRL_STATE_SETUP_WAIT);
BENCHMARK_CAPTURE(answer, PLAY, AOI_MSG_RTSP_PLAY, MEDIACTRL_STATE_PLAY_WAIT);
BENCHMARK_CAPTURE(answer, OPTIONS, AOI_MSG_RTSP_OPTIONS, MEDIACTRL_STATE_PLAY);

/// The five Authorization values of a session.
void digestChallenge(benchmark::State &state)
{
    const micro::Session session("onvif");
    session.authenticate();
    const zr::aoi::MessagePtr message = challengeFor(session);
    while (state.KeepRunning())
    {
        if (!session.take(message))
            state.SkipWithError("the challenge was not taken");
    }
}
BENCHMARK(digestChallenge);

/// One tick of the keep-alive timer over many sessions that play.
void keepAliveWalk(benchmark::State &state, ZR_ULONG period)
{
    std::vector<std::unique_ptr<micro::Session>> sessions;
    for (int64_t i = 0; i < state.range(0); ++i)
    {
        sessions.push_back(std::make_unique<micro::Session>(""));
        Probe::play(sessions.back()->object(), period);
    }
    platform.sendResult = 0;
    platform.sent = 0;
    while (state.KeepRunning())
        platform.keepLiveTimer(nullptr);
    const int64_t asked = state.iterations() * state.range(0);
    state.SetItemsProcessed(asked);
    if (period == 1 && platform.sent != asked)
        state.SkipWithError("not every session sent its OPTIONS");
}
BENCHMARK_CAPTURE(keepAliveWalk, none_due, 0xFFFFFFFF)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(keepAliveWalk, all_due, 1)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);

/// A session's object from its creation to its deletion, among many others.
void lifeAmong(benchmark::State &state)
{
    std::vector<std::unique_ptr<micro::Session>> others;
    for (int64_t i = 0; i < state.range(0); ++i)
        others.push_back(std::make_unique<micro::Session>(""));
    while (state.KeepRunning())
        const micro::Session session("");
}
BENCHMARK(lifeAmong)->Arg(100)->Arg(10000);

} // namespace
