// What hosts and platforms build on and no exported function leads to: reached by dynamic_cast, or as numbers.
// scripts/abi-check compiles it and compares its debug information with that of the last release.
#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

extern "C" void interfaces(CIMediaCtrlEx *, CIMediaCtrlEx2 *, CIMediaCtrlObserver *) {}
extern "C" void codes(tagZrRtspStatus, tagMediaCtrlState, tagZrRtspNotice) {}
extern "C" void messages(tagMDPMsgKind, decltype(AOI_MSG_RTSP_SETUP), decltype(AOI_IE_DATA)) {}
extern "C" void platformCodes(tagProtocol, tagBroadcastmethod, tagNatMode, tagZrLogLevel, tagZrMediaCode, tagZrTlsCode,
                              tagZrConnectionProblem, tagZrSessionCode, tagZrShow, tagZrCredentialsFlag,
                              tagZrRateControl, tagZrFrames, tagZrTraceKind, tagZrReplayMark, tagZrTunnel,
                              tagZrRecordingEnd)
{
}
