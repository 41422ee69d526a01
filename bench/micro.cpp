// Google Benchmark programs for the pieces of a session: what docs/performance.md tells of.
#include <benchmark/benchmark.h>

#include "micro_session.h"
#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

namespace micro {

Platform platform;

ZR_ULONG Platform::sendAOIMsg(tagMDPMsg *message)
{
    benchmark::DoNotOptimize(message);
    ++sent;
    return sendResult;
}

Session::Session(const std::string &tag)
{
    static ZR_ULONG lastAoiPort = 0;
    m_aoiPort = ++lastAoiPort;
    m_owned = createMediaCtrlInter(m_aoiPort, "src", "dst", "127.0.0.1", 6000, "10.0.0.9", 8554, m_aoiPort);
    m_object = dynamic_cast<CRtspMediaCtrl *>(m_owned);
    m_object->setDecoderDesc(tag);
    CRtspMediaCtrlProbe::begin(*m_object);
}

Session::~Session()
{
    deleteMediaCtrlInter(&m_owned);
}

void Session::authenticate() const
{
    m_object->describe(std::string(URL) + "?auth&username=admin&password=secret-1&");
    take(challengeFor(*this));
}

zr::aoi::Answer Session::answer(ZR_ULONG messageId, ZR_ULONG kind) const
{
    zr::aoi::Answer answer;
    answer.messageId = messageId;
    answer.kind = kind;
    answer.destinationId = m_aoiPort;
    answer.sessionId = SESSION_ID;
    return answer;
}

zr::aoi::MessagePtr challengeFor(const Session &session)
{
    zr::aoi::Answer refusal = session.answer(AOI_MSG_RTSP_DESCRIBE, MDP_MSG_KIND_FAILURE);
    refusal.errorCode = 401;
    refusal.challenge = R"(Digest realm="camera", nonce="66bb3cf06bb5d8eb1d7a1b8ac0d33a1f")";
    return zr::aoi::writeAnswer(refusal);
}

} // namespace micro

ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG /*ulMaxMessageBytes*/, ZR_ULONG /*ulConnectTimeoutMs*/, const char * /*pszUserAgent*/,
                         const char * /*pszCaFile*/)
{
    return 0;
}

void ZR_MSGDISP_Destroy() {}

CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    return &micro::platform;
}

ZR_ULONG TW_StartIndependTimer(ZR_ULONG ulPeriodMs, TW_TIMER_CALLBACK pfnCallback, void * /*pvUser*/,
                               ZR_ULONG *pulHandle)
{
    if (ulPeriodMs == KEEPLIVE_TICK_MS)
        micro::platform.keepLiveTimer = pfnCallback;
    *pulHandle = ulPeriodMs;
    return 0;
}

ZR_ULONG TW_StopIndependTimer(ZR_ULONG /*ulHandle*/)
{
    return 0;
}

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    ZR_LogSetLevel(micro::LOG_OFF); // what is refused on purpose is not told
    if (init(0, 0, nullptr, nullptr) != 0)
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    destroy();
    return 0;
}
