/// @file
/// CRtspMediaCtrl: one RTSP media session.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "ace/Condition_Recursive_Thread_Mutex.h"
#include "ace/Recursive_Thread_Mutex.h"

#include "exchange.h"
#include "guarded.h"
#include "log.h"
#include "observer_list.h"
#include "session_lock.h"
#include "zr_common.h"
#include "zr_msg_dispatch.h"
#include "zr_rtsp/media_ctrl.h"

/// The tick in which keep-alive periods are counted.
inline constexpr ZR_ULONG KEEPLIVE_TICK_MS = 800;

/// One RTSP media session. The host calls its CIMediaCtrl faces, the platform its CIAOIMsgProc face; the object never
/// opens a connection: each request is an AOI message, and a request that waits meets its answer at m_oCond.
///
/// Locks, in their order: the registry's mutex, m_oMutex, the observer list's, the count of calls (m_oCalls). A request
/// holds m_oMutex from its state test to the end of its wait, which lets go of it; an answer's handler holds it for its
/// whole run. Fields are guarded by it unless they are atomic or guard themselves; those may be read by whoever is in
/// the object. Nothing of the platform that waits for AOIMsgPro (unregisterAOIMsgProc) is called under it.
///
/// Every operation counts itself in m_oCalls for as long as it runs; the destructor ends the session, wakes who waits,
/// and waits until nobody is inside.
class CRtspMediaCtrl : public CIMediaCtrl, public CIMediaCtrlEx, public CIAOIMsgProc, public CIMediaCtrlEx2
{
public:
    /// @param usServerPort  0: 554
    CRtspMediaCtrl(ZR_ULONG ulPortID, const std::string &strSrcUaID, const std::string &strDstUaID,
                   const std::string &strLocalIP, ZR_USHORT usLocalPort, const std::string &strServerIP,
                   ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID);
    CRtspMediaCtrl(const CRtspMediaCtrl &) = delete;
    CRtspMediaCtrl &operator=(const CRtspMediaCtrl &) = delete;

    // CIMediaCtrl, in slot order
    CMediaAbility &getMediaAbility(CMediaAbility &oOut) override;                            // object.cpp
    void setMediaAbility(const CMediaAbility &oIn) override;                                 // object.cpp
    void setDecoderDesc(const std::string &strDesc) override;                                // object.cpp
    ZR_ULONG attachObserver(CIMediaCtrlObserver *pObserver) override;                        // object.cpp
    void detachObserver(CIMediaCtrlObserver *pObserver) override;                            // object.cpp
    ZR_ULONG describe(const std::string &strURL) override;                                   // description.cpp
    ZR_ULONG setup(const std::string &strURL, tagProtocol enProtocol) override;              // signalling.cpp
    ZR_ULONG play(const std::string &strStartTime, const std::string &strStopTime) override; // playback.cpp
    void tearDown() override;                                                                // signalling.cpp
    ZR_ULONG setupToTV(ZR_ULONG ulProtocol, const tagTransportAddr &stTransport) override;   // object.cpp
    void teardownToTV() override;                                                            // object.cpp
    ~CRtspMediaCtrl() override;                                                              // object.cpp

    // CIMediaCtrlEx
    ZR_ULONG pause() override; // playback.cpp
    ZR_ULONG dragPlay(const std::string &strStartTime, const std::string &strStopTime,
                      ZR_ULONG ulSpeed) override;    // playback.cpp
    ZR_ULONG playAtSpeed(ZR_ULONG ulSpeed) override; // playback.cpp
    ZR_ULONG changeSpeed(ZR_ULONG ulSpeed) override; // playback.cpp
    ZR_ULONG download(const std::string &strStartTime, const std::string &strStopTime, ZR_ULONG ulSpeed,
                      int32_t iFullFrame) override; // playback.cpp
    std::string getRange() override;                // object.cpp

    // CIAOIMsgProc
    ZR_ULONG AOIMsgPro(tagAOIMsg *pstAOIMsg) override; // signalling.cpp

    // CIMediaCtrlEx2
    void setPlaybackNowFlag(ZR_ULONG ulFlag) override;          // object.cpp
    void setPlayNormalFlag(ZR_ULONG ulFlag) override;           // object.cpp
    void setKeepLiveInterval(ZR_ULONG ulMilliseconds) override; // object.cpp
    ZR_ULONG setup(const std::string &strURL, tagProtocol enProtocol, ZR_ULONG ulSpeed,
                   int32_t iFullFrame) override; // signalling.cpp

    // the keep-alive timers' steps, under the registry's mutex
    void keepLive();      // liveness.cpp
    void onvifKeepLive(); // liveness.cpp

private:
    friend struct CRtspMediaCtrlProbe; // the tests' view of the fields

    static constexpr size_t PORT_LABEL_SIZE = 32;

    /// What the three answers with states of their own have in common.
    struct tagAnswerRule
    {
        const char *pszFunction;
        ZR_ULONG ulWait;
        ZR_ULONG ulAnsweredOK;
        ZR_ULONG ulAnsweredFail;
        const char *pszSessionText; ///< a good answer's session ID cannot be read
        const char *pszErrcodeText; ///< a refusal's status cannot be read
        const char *pszDiscardText;
        /// Takes a good answer; 0 accepts it, another result leaves it unsignalled.
        ZR_ULONG (CRtspMediaCtrl::*pfnTake)(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg);
    };
    struct tagProcRow;

    // frame of every operation
    template <typename Body, typename... Failure>
    auto inside(const char *pszFunction, Body &&fnBody, Failure... tFailure)
    {
        const CCallInside oInside(m_oCalls);
        return guarded(FILE_RTSP_MEDIACTRL, pszFunction, std::forward<Body>(fnBody), tFailure...);
    }

    // exchange.cpp: the rendezvous of a request with its answer, all under m_oMutex
    int waitForResponse(ZR_ULONG ulSeconds);
    int signalResponse();
    EOutcome exchange(const tagExchangeRule &stRule, CObjectGuard &oGuard, ZR_ULONG &ulRspResult);
    ZR_ULONG conclude(const char *pszFunction, const tagExchangeRule &stRule, CObjectGuard &oGuard,
                      const tagConclusion &stConclusion);
    void beginExchange(const tagExchangeRule &stRule);
    void endExchange(const tagExchange &stExchange);
    ZR_ULONG acceptAnswer(const char *pszFunction, ZR_ULONG ulWait, CObjectGuard &oGuard);

    // signalling.cpp: the frame of the answers
    static bool isNull(const tagAOIMsg *pstAOIMsg, const char *pszFunction);
    ZR_ULONG takeAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg);
    void readErrcode(const tagAOIMsg *pstAOIMsg, const char *pszFunction, const tagLogText &stText);
    ZR_ULONG readOwnSessionID(const tagAOIMsg *pstAOIMsg, const char *pszFunction, const tagLogText &stText);

    // signalling.cpp: answers, one a message ID
    ZR_ULONG AOIProcRtspSetupRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG AOIProcRtspTeardownRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG AOIProcRtspSetParameterRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takeSetupAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takeServerAddress(const tagAOIMsg *pstAOIMsg, const std::string &strSessionID);
    ZR_ULONG takeMulticastAddress(const tagAOIMsg *pstAOIMsg);
    static std::string withoutCredentialTail(const std::string &strURL);
    ZR_ULONG sendSetup(const char *pszFunction, const std::string &strURL, const COnvifInfo &oInfo);
    ZR_ULONG concludeSetup(const char *pszFunction, const tagExchangeRule &stRule, CObjectGuard &oGuard);
    ZR_ULONG setupSession(const char *pszFunction, const std::string &strURL, tagProtocol enProtocol);

    // object.cpp
    void endSession();
    void unregisterFromDispatcher();
    void endCallsInside();

    // playback.cpp
    float convetPlaySpeedParam(ZR_ULONG ulSpeed);
    float convetFullFrameDownloadSpeedParam(ZR_ULONG ulSpeed);
    float convertSampleFrameDownloadSpeedParam(ZR_ULONG ulSpeed);
    float downloadSpeed(ZR_ULONG ulSpeed, int32_t iFullFrame);
    ZR_ULONG generalPlay(float fSpeed, const std::string &strStartTime, const std::string &strStopTime);
    ZR_ULONG playFromHere(float fSpeed);
    bool takesURLSuffix() const;
    ZR_ULONG sendGeneralPlay(const char *pszFunction, float fSpeed, const std::string &strStartTime,
                             const std::string &strStopTime);
    ZR_ULONG sendDragPlay(const char *pszFunction, const std::string &strStartTime, const std::string &strStopTime,
                          ZR_ULONG ulSpeed);
    ZR_ULONG AOIProcRtspPlayRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG AOIProcRtspPauseRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takePlayAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takePauseAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg);
    ZR_ULONG set_parameter();
    ZR_ULONG AOIProcRtspAdminAnnounReq(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG AOIProcRtspNotifyReq(const tagAOIMsg *pstAOIMsg);
    void notifyObservers(const char *pszFunction, ZR_ULONG ulCode);
    static char *formatPort(char *pszBuffer, ZR_ULONG ulPortID);

    // description.cpp
    ZR_ULONG describe();
    ZR_ULONG keepURL(const std::string &strURL);
    ZR_ULONG AOIProcRtspDescribeRsp(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takeDescription(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG takeChallenge(const tagAOIMsg *pstAOIMsg);
    ZR_ULONG getOnvifInfoFromSdp(const tagAOIMsg *pstAOIMsg);
    static ZR_ULONG getDataFromSDP(const char *pszText, const char *pszSection, const char *pszKey, ZR_ULONG ulMaxLen,
                                   char *pszOut);
    ZR_ULONG calcAuth(COnvifInfo &oInfo);
    std::string calcMethodAuth(const char *pszHA1, const COnvifInfo &oInfo, const std::string &strMethod);

    // liveness.cpp
    ZR_ULONG options();
    ZR_ULONG AOIProcRtspOptionsRsp(const tagAOIMsg *pstAOIMsg);

    // handoff.cpp
    ZR_ULONG sendOnvifRtp();

    CMediaAbility m_oMediaAbility; ///< guards itself
    std::atomic<ZR_ULONG> m_bAbilityFromHost{0};
    CObserverList m_oObserverList;       ///< guards itself
    std::atomic<ZR_ULONG> m_ulAOIPortID; ///< exchanged for 0 by whoever unregisters, so that it happens once
    ACE_Recursive_Thread_Mutex m_oMutex;
    ACE_Condition<ACE_Recursive_Thread_Mutex> m_oCond; ///< on the monotonic clock
    std::string m_strRange;
    ZR_ULONG m_ulState = MEDIACTRL_STATE_IDLE;
    ZR_ULONG m_ulRspResult = 1;
    ZR_ULONG m_ulKeepLiveFailCount = 0;
    std::atomic<ZR_ULONG> m_ulPlayFlag{0};
    std::atomic<ZR_USHORT> m_usRangeSkipCount{0};
    std::string m_strURL;
    std::string m_strVodToTvURL;
    const ZR_ULONG m_ulPortID;
    std::atomic<tagProtocol> m_enProtocol{PROTOCOL_UDP};
    std::atomic<tagBroadcastmethod> m_enBroadcastMethod{BROADCASTMETHOD_NONE};
    std::atomic<ZR_ULONG> m_ulKeepLiveMaxFail{150};
    std::atomic<ZR_ULONG> m_ulKeepLivePeriod{1}; ///< in ticks of 800 ms
    std::atomic<ZR_ULONG> m_ulKeepLiveTick{1};
    std::atomic<ZR_ULONG> m_bCheckMediaKeepLive{0};
    std::atomic<ZR_ULONG> m_bMSRelayer{0};
    std::atomic<float> m_fPlaySpeed{0.0F};
    std::atomic<ZR_ULONG> m_ulPlaybackNowFlag{0};
    std::atomic<ZR_ULONG> m_ulPlayNormalFlag{0};

    /// Unregistered from inside a notification, where unregistering does not wait; 0: none.
    std::atomic<ZR_ULONG> m_ulAOIPortIDLeft{0};
    ZR_ULONG m_ulLockDepth = 0;                ///< levels of m_oMutex that its thread holds; guarded by it
    std::shared_ptr<tagExchange> m_poExchange; ///< the newest outstanding, or none; guarded by m_oMutex
    bool m_bLeaving = false;                   ///< the destructor wakes who waits; guarded by m_oMutex
    CCallCount m_oCalls;
};
