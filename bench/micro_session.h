/// @file
/// What the benchmarks of the plug-in share: one object over a dispatcher that sends nothing.
#pragma once

#include <string>

#include "aoi_message.h"
#include "rtsp_mediactrl.h"
#include "tw_util.h"

namespace micro {

constexpr const char *URL = "rtsp://10.0.0.9:8554/live";
constexpr const char *SESSION_ID = "6B8B4567";
constexpr auto LOG_OFF = static_cast<tagZrLogLevel>(ZR_LOG_ERROR + 1);

/// Stands in for the dispatch library and the timers. One thread.
struct Platform final : CIAOIMsgDisp
{
    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override;
    ZR_ULONG registerAOIMsgProc(ZR_ULONG /*id*/, CIAOIMsgProc * /*processor*/) override { return 0; }
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG /*id*/) override { return 0; }

    ZR_ULONG sendResult = 1; ///< of the sends: what waits for an answer returns at once when it is refused
    int64_t sent = 0;
    TW_TIMER_CALLBACK keepLiveTimer = nullptr; ///< the plug-in's, of the period in which it counts keep-alives
};
extern Platform platform;

/// An object as a host gets it from the plug-in, in the middle of a session.
class Session
{
public:
    /// @param tag  of the decoder
    explicit Session(const std::string &tag);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Has an ONVIF session answer a Digest challenge from now on.
    void authenticate() const;
    /// Hands the object a message.
    /// @return whether it took it
    bool take(const zr::aoi::MessagePtr &message) const { return m_object->AOIMsgPro(message.get()) == 0; }
    /// A message to this object.
    zr::aoi::Answer answer(ZR_ULONG messageId, ZR_ULONG kind) const;

    CRtspMediaCtrl &object() const { return *m_object; }

private:
    CIMediaCtrl *m_owned;
    CRtspMediaCtrl *m_object;
    ZR_ULONG m_aoiPort;
};

/// A refusal that asks for Digest.
zr::aoi::MessagePtr challengeFor(const Session &session);

} // namespace micro

/// The fields that a benchmark sets instead of having an answer set them.
struct CRtspMediaCtrlProbe
{
    static void setState(CRtspMediaCtrl &ctrl, ZR_ULONG state) { ctrl.m_ulState = state; }
    static void begin(CRtspMediaCtrl &ctrl)
    {
        ctrl.m_strURL = micro::URL;
        ctrl.m_oMediaAbility.setSessionID(micro::SESSION_ID);
    }
    /// @param period  in ticks
    static void play(CRtspMediaCtrl &ctrl, ZR_ULONG period)
    {
        ctrl.m_ulPlayFlag = 1;
        ctrl.m_ulKeepLivePeriod = period;
        ctrl.m_ulKeepLiveTick = 1;
        ctrl.m_bCheckMediaKeepLive = 1;
    }
    static ZR_ULONG dataFromSdp(const char *text, const char *section, const char *key, ZR_ULONG limit, char *out)
    {
        return CRtspMediaCtrl::getDataFromSDP(text, section, key, limit, out);
    }
};
