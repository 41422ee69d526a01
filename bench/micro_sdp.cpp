// What is taken out of a description: by the object, and by a media port.
#include <array>
#include <string>

#include <benchmark/benchmark.h>

#include "description.h"
#include "micro_session.h"

namespace {

/// A camera's description, brought to a number of lines by attributes that nobody knows, before its video and behind.
std::string descriptionOf(int64_t lines)
{
    const std::array<std::string, 4> parts = {"v=0\r\no=- 1 1 IN IP4 10.0.0.9\r\ns=Media\r\nt=0 0\r\n",
                                              "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",
                                              "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z0IAH5WoFAFuQA==,"
                                              "aM48gA==\r\na=control:track1\r\n",
                                              "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\na=control:track2\r\n"};
    const int64_t filling = lines - 11;
    std::string filler;
    for (int64_t i = 0; i < filling / 2; ++i)
        filler += "a=x-vendor-" + std::to_string(i) + ":0123456789abcdef\r\n";
    return parts[0] + filler + parts[1] + filler + parts[2] + parts[3];
}

/// The last value of the description.
void getDataFromSdp(benchmark::State &state)
{
    const std::string sdp = descriptionOf(state.range(0));
    std::array<char, 512> value{};
    while (state.KeepRunning())
    {
        if (CRtspMediaCtrlProbe::dataFromSdp(sdp.c_str(), "m=audio", "a=control:", value.size(), value.data()) != 0)
            state.SkipWithError("the value was not found");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sdp.size()));
}
BENCHMARK(getDataFromSdp)->Arg(60)->Arg(10000);

/// The whole answer to a DESCRIBE, as an ONVIF session takes it.
void describeAnswer(benchmark::State &state)
{
    const micro::Session session("onvif");
    zr::aoi::Answer answer = session.answer(AOI_MSG_RTSP_DESCRIBE, MDP_MSG_KIND_SUCCESS);
    answer.body = descriptionOf(state.range(0));
    answer.contentBase = std::string(micro::URL) + "/";
    answer.server = "camera/1.0";
    const zr::aoi::MessagePtr message = zr::aoi::writeAnswer(answer);
    while (state.KeepRunning())
    {
        if (!session.take(message))
            state.SkipWithError("the answer was not taken");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(answer.body->size()));
}
BENCHMARK(describeAnswer)->Arg(60)->Arg(10000);

/// A media port's own reading.
void tracksFromSdp(benchmark::State &state)
{
    const std::string sdp = descriptionOf(state.range(0));
    while (state.KeepRunning())
    {
        if (zr::media::Description::fromSdp(sdp).sections().size() != 2)
            state.SkipWithError("the tracks were not found");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sdp.size()));
}
BENCHMARK(tracksFromSdp)->Arg(60)->Arg(10000);

} // namespace
