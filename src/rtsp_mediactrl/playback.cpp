// Speeds, PLAY in its forms, PAUSE, and what the server announces.

#include "rtsp_mediactrl.h"

#include <iterator>

#include "request.h"
#include "tw_system.h"

namespace {

const std::string PLAY_NORMAL_SUFFIX = "/play_normal";
const std::string PLAYBACK_NOW_SUFFIX = "/playback_now";

constexpr float NORMAL_SPEED = 1.0F;
constexpr ZR_ULONG PACKET_TYPE_GUOBIAO = 4;

constexpr ZR_ULONG QUIT_REASON_END_OF_STREAM = 2001;
constexpr ZR_ULONG QUIT_REASON_DEFAULT = 2002;
constexpr ZR_ULONG QUIT_REASON_SERVER_RESOURCES = 2003;
constexpr ZR_ULONG ACTION_SESSION_LOST = 1;

/// Scale by speed code; the codes 0 and 17 turn round for the "omz-v1" variant.
constexpr float PLAY_SCALES[] = {256.0F, -256.0F, -16.0F, -8.0F, -4.0F, -2.0F, -1.0F,  -0.5F,  -0.25F,  0.25F,
                                 0.5F,   1.0F,    2.0F,   4.0F,  8.0F,  16.0F, 108.0F, 258.0F, -258.0F, 0.125F};
constexpr ZR_ULONG SPEED_FASTEST = 0;
constexpr ZR_ULONG SPEED_FASTEST_ALL = 17;

/// Scale by download code: full frames, sampled frames.
constexpr float FULL_FRAME_SCALES[] = {101.0F, 102.0F, 104.0F, 108.0F};
constexpr float SAMPLED_SCALES[] = {301.0F, 302.0F, 304.0F, 308.0F};

/// The wrappers' status: what the host can act on passes, the rest is the operation's own failure.
ZR_ULONG playStatus(ZR_ULONG ulStatus, ZR_ULONG ulFallback)
{
    switch (ulStatus)
    {
    case ZR_RTSP_OK:
    case ZR_RTSP_NO_MEMORY:
    case ZR_RTSP_WRONG_STATE:
        return ulStatus;
    default:
        return ulFallback;
    }
}

} // namespace

float CRtspMediaCtrl::convetPlaySpeedParam(ZR_ULONG ulSpeed)
{
    if (ulSpeed >= std::size(PLAY_SCALES))
    {
        RTSP_SPEED_LOG(WARNING, ZR_RTSP_FAILED, "[%s] unknown vod media speed[%d], use default instead.",
                       "CRtspMediaCtrl::convetPlaySpeedParam", static_cast<int>(ulSpeed));
        return NORMAL_SPEED;
    }
    const float fScale = PLAY_SCALES[ulSpeed];
    if (ulSpeed != SPEED_FASTEST && ulSpeed != SPEED_FASTEST_ALL)
        return fScale;
    // 7 characters: the terminating zero counts, so that a longer tag does not match
    return VELK_strncasecmp(m_oMediaAbility.getDecoderTag().c_str(), "omz-v1", 7) == 0 ? -fScale : fScale;
}

float CRtspMediaCtrl::convetFullFrameDownloadSpeedParam(ZR_ULONG ulSpeed)
{
    if (ulSpeed < std::size(FULL_FRAME_SCALES))
        return FULL_FRAME_SCALES[ulSpeed];
    RTSP_SPEED_LOG(WARNING, ZR_RTSP_FAILED, "[%s] unknown download media speed[%d], use default instead.",
                   "CRtspMediaCtrl::convetFullFrameDownloadSpeedParam", static_cast<int>(ulSpeed));
    return FULL_FRAME_SCALES[0];
}

float CRtspMediaCtrl::convertSampleFrameDownloadSpeedParam(ZR_ULONG ulSpeed)
{
    if (ulSpeed < std::size(SAMPLED_SCALES))
        return SAMPLED_SCALES[ulSpeed];
    RTSP_SPEED_LOG(WARNING, ZR_RTSP_FAILED, "[%s] unknown download media speed[%d], use default instead.",
                   "CRtspMediaCtrl::convertSampleFrameDownloadSpeedParam", static_cast<int>(ulSpeed));
    return SAMPLED_SCALES[0];
}

float CRtspMediaCtrl::downloadSpeed(ZR_ULONG ulSpeed, int32_t iFullFrame)
{
    return iFullFrame != 0 ? convetFullFrameDownloadSpeedParam(ulSpeed) : convertSampleFrameDownloadSpeedParam(ulSpeed);
}

ZR_ULONG CRtspMediaCtrl::play(const std::string &strStartTime, const std::string &strStopTime)
{
    const auto fnPlay = [&] {
        const ZR_ULONG ulHandOff = sendOnvifRtp();
        if (ulHandOff != ZR_RTSP_OK)
            return ulHandOff;
        return playStatus(generalPlay(NORMAL_SPEED, strStartTime, strStopTime), ZR_RTSP_PLAY_FAILED);
    };
    return inside("CRtspMediaCtrl::play", fnPlay, ZR_RTSP_PLAY_FAILED);
}

ZR_ULONG CRtspMediaCtrl::playAtSpeed(ZR_ULONG ulSpeed)
{
    const auto fnPlay = [&] {
        return playStatus(playFromHere(convetPlaySpeedParam(ulSpeed)), ZR_RTSP_SPEED_PLAY_FAILED);
    };
    return inside("CRtspMediaCtrl::playAtSpeed", fnPlay, ZR_RTSP_SPEED_PLAY_FAILED);
}

ZR_ULONG CRtspMediaCtrl::changeSpeed(ZR_ULONG ulSpeed)
{
    const auto fnPlay = [&] {
        return playStatus(playFromHere(convetPlaySpeedParam(ulSpeed)), ZR_RTSP_SPEED_CHANGE_FAILED);
    };
    return inside("CRtspMediaCtrl::changeSpeed", fnPlay, ZR_RTSP_SPEED_CHANGE_FAILED);
}

ZR_ULONG CRtspMediaCtrl::download(const std::string &strStartTime, const std::string &strStopTime, ZR_ULONG ulSpeed,
                                  int32_t iFullFrame)
{
    const auto fnPlay = [&] {
        const float fScale = downloadSpeed(ulSpeed, iFullFrame);
        return playStatus(generalPlay(fScale, strStartTime, strStopTime), ZR_RTSP_SPEED_CHANGE_FAILED);
    };
    return inside("CRtspMediaCtrl::download", fnPlay, ZR_RTSP_SPEED_CHANGE_FAILED);
}

/// Plays on without a range.
ZR_ULONG CRtspMediaCtrl::playFromHere(float fSpeed)
{
    const std::string strStartTime;
    const std::string strStopTime;
    return generalPlay(fSpeed, strStartTime, strStopTime);
}

/// Whether the session's URL takes the suffixes of the "guobiao" variant.
bool CRtspMediaCtrl::takesURLSuffix() const
{
    return m_oMediaAbility.getDecoderTag() == "guobiao" || m_oMediaAbility.getPacketType() == PACKET_TYPE_GUOBIAO;
}

/// Builds and sends the PLAY of generalPlay.
ZR_ULONG CRtspMediaCtrl::sendGeneralPlay(const char *pszFunction, float fSpeed, const std::string &strStartTime,
                                         const std::string &strStopTime)
{
    const COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    CAOIRequest oRequest(pszFunction, AOI_MSG_RTSP_PLAY, m_ulAOIPortID);
    oRequest.header(ZR_RTSP_PLAY_FAILED)
        .add("[%s] add IE SessionID failed", ZR_RTSP_IE_NOT_ADDED, CAOIIETool::addAOIIESessionID,
             m_oMediaAbility.getSessionID())
        .row("[%s] add IE AOI_IE_URL failed", ZR_RTSP_IE_NOT_ADDED, [&](tagAOIMsg *pstMsg) {
            const bool bSuffix = takesURLSuffix() && m_ulPlayNormalFlag == 1;
            return bSuffix ? CAOIIETool::addAOIIEURL(m_strURL + PLAY_NORMAL_SUFFIX, pstMsg)
                           : CAOIIETool::addAOIIEURL(m_strURL, pstMsg);
        });
    if (!strStartTime.empty() && m_oMediaAbility.getDecoderTag() != "omz-v1")
        oRequest.row("[%s] add IE RangeTime failed", ZR_RTSP_DRAG_FAILED, [&](tagAOIMsg *pstMsg) {
            RTSP_LOG(INFO, 0, "[%s] start range time is %s, stop rang time is %s.", pszFunction, strStartTime.c_str(),
                     strStopTime.c_str());
            return CAOIIETool::addAOIIERangetime(strStartTime, strStopTime, pstMsg);
        });
    // an ONVIF device is asked for a Scale only where it asked for credentials
    if (m_oMediaAbility.isOnvif() != 1 || !oInfo.m_strPlayAuth.empty())
        oRequest.row({"[%s] add IE Scale failed, the play speed is %f", fSpeed}, ZR_RTSP_IE_NOT_ADDED,
                     [&](tagAOIMsg *pstMsg) { return CAOIIETool::addAOIIEScale(fSpeed, pstMsg); });
    oRequest.add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth, oInfo.m_strPlayAuth);
    return oRequest.send({"[%s] send AOI_MSG_RTSP_PLAY message failed,the play speed is %f", fSpeed},
                         ZR_RTSP_REQUEST_SEND_FAILED, ZR_RTSP_REQUEST_SEND_FAILED);
}

ZR_ULONG CRtspMediaCtrl::generalPlay(float fSpeed, const std::string &strStartTime, const std::string &strStopTime)
{
    static const char szFunction[] = "CRtspMediaCtrl::generalPlay";
    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    if (m_ulState < MEDIACTRL_STATE_SUCCESS)
    {
        RTSP_LOG(ERROR, ZR_RTSP_WRONG_STATE, "[%s] current RTSPMediaCtrl is idle or not in MEDIACTRL_STATE_SUCCESS!",
                 szFunction);
        return ZR_RTSP_WRONG_STATE;
    }
    const ZR_ULONG ulSent = sendGeneralPlay(szFunction, fSpeed, strStartTime, strStopTime);
    if (ulSent != ZR_RTSP_OK)
        return ulSent;

    const tagConclusion stConclusion = {
        {ZR_LOG_WARNING,
         ZR_RTSP_FAILED,
         {"[%s] Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg, the play speed is %f",
          fSpeed},
         ZR_RTSP_FAILED},
        {ZR_LOG_WARNING,
         ZR_RTSP_NO_ANSWER,
         {"[%s] don't receive a AOI_MSG_RTSP_PLAY OK response Message, the play speed is %f", fSpeed},
         ZR_RTSP_NO_ANSWER},
        {ZR_LOG_ERROR,
         ZR_RTSP_PLAY_REFUSED,
         {"[%s] receive a AOI_MSG_RTSP_PLAY ERR[RTSP_errcode:%u] response Message, the play speed is %f", fSpeed},
         ZR_RTSP_PLAY_REFUSED}};
    return conclude(szFunction, EXCHANGE_PLAY, oGuard, stConclusion);
}

/// Builds and sends the PLAY of dragPlay.
ZR_ULONG CRtspMediaCtrl::sendDragPlay(const char *pszFunction, const std::string &strStartTime,
                                      const std::string &strStopTime, ZR_ULONG ulSpeed)
{
    CAOIRequest oRequest(pszFunction, AOI_MSG_RTSP_PLAY, m_ulAOIPortID);
    oRequest.header(ZR_RTSP_DRAG_FAILED)
        .add("[%s] add IE SessionID failed", ZR_RTSP_DRAG_FAILED, CAOIIETool::addAOIIESessionID,
             m_oMediaAbility.getSessionID())
        .row("[%s] add IE AOI_IE_URL failed", ZR_RTSP_DRAG_FAILED,
             [&](tagAOIMsg *pstMsg) {
                 ZR_ULONG ulSet = 1;
                 const bool bSuffix = takesURLSuffix() && m_ulPlaybackNowFlag.compare_exchange_strong(ulSet, 0);
                 return CAOIIETool::addAOIIEURL(bSuffix ? m_strURL + PLAYBACK_NOW_SUFFIX : m_strURL, pstMsg);
             })
        .row("[%s] add IE RangeTime failed", ZR_RTSP_DRAG_FAILED,
             [&](tagAOIMsg *pstMsg) { return CAOIIETool::addAOIIERangetime(strStartTime, strStopTime, pstMsg); })
        .row("[%s] add IE Scale failed", ZR_RTSP_DRAG_FAILED,
             [&](tagAOIMsg *pstMsg) { return CAOIIETool::addAOIIEScale(convetPlaySpeedParam(ulSpeed), pstMsg); })
        .add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth,
             m_oMediaAbility.getOnvifInfo().m_strPlayAuth);
    return oRequest.send("[%s] send AOI_MSG_RTSP_PLAY message failed", ZR_RTSP_REQUEST_SEND_FAILED,
                         ZR_RTSP_DRAG_FAILED);
}

ZR_ULONG CRtspMediaCtrl::dragPlay(const std::string &strStartTime, const std::string &strStopTime, ZR_ULONG ulSpeed)
{
    static const char szFunction[] = "CRtspMediaCtrl::dragPlay";
    const auto fnDrag = [&]() -> ZR_ULONG {
        m_usRangeSkipCount = 1;
        CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return ZR_RTSP_LOCK_FAILED;
        m_strRange = strStartTime;
        const ZR_ULONG ulSent = sendDragPlay(szFunction, strStartTime, strStopTime, ulSpeed);
        if (ulSent != ZR_RTSP_OK)
            return ulSent;

        static const tagConclusion stConclusion = {
            {ZR_LOG_WARNING, ZR_RTSP_DRAG_FAILED,
             "[%s] Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg", ZR_RTSP_DRAG_FAILED},
            {ZR_LOG_ERROR, ZR_RTSP_NO_ANSWER, "[%s] don't receive a AOI_MSG_RTSP_PALY OK response Message",
             ZR_RTSP_DRAG_FAILED},
            {ZR_LOG_ERROR, ZR_RTSP_PLAY_REFUSED,
             "[%s] receive a AOI_MSG_RTSP_PALY ERR[RTSP_errcode:%u] response Message", ZR_RTSP_DRAG_FAILED}};
        return conclude(szFunction, EXCHANGE_PLAY, oGuard, stConclusion);
    };
    return inside(szFunction, fnDrag, ZR_RTSP_DRAG_FAILED);
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspPlayRsp(const tagAOIMsg *pstAOIMsg)
{
    static const tagAnswerRule stRule = {"CRtspMediaCtrl::AOIProcRtspPlayRsp",
                                         MEDIACTRL_STATE_PLAY_WAIT,
                                         MEDIACTRL_STATE_PLAY_OK,
                                         MEDIACTRL_STATE_PLAY_FAIL,
                                         "[%s] get AOI_MSG_RTSP_PLAY OK reponse message's IE SessionID failed",
                                         "[%s] get AOI_MSG_RTSP_PLAY reponse message's IE Errcode failed",
                                         "[%s] discard a Msg ",
                                         &CRtspMediaCtrl::takePlayAnswer};
    return takeAnswer(stRule, pstAOIMsg);
}

/// The flag is set here, not by who waits: a tear-down between the two must have the last word.
ZR_ULONG CRtspMediaCtrl::takePlayAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg)
{
    const ZR_ULONG ulResult = readOwnSessionID(pstAOIMsg, stRule.pszFunction, stRule.pszSessionText);
    if (ulResult == ZR_RTSP_OK)
        m_ulPlayFlag = 1;
    return ulResult;
}

ZR_ULONG CRtspMediaCtrl::pause()
{
    static const char szFunction[] = "CRtspMediaCtrl::pause";
    const auto fnPause = [&]() -> ZR_ULONG {
        CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return ZR_RTSP_LOCK_FAILED;
        if (m_ulState != MEDIACTRL_STATE_PLAY)
        {
            RTSP_LOG(ERROR, ZR_RTSP_WRONG_STATE, "[%s] current RTSPMediaCtrl is idle or not in MEDIACTRL_STATE_PLAY!",
                     szFunction);
            return ZR_RTSP_WRONG_STATE;
        }
        CAOIRequest oRequest(szFunction, AOI_MSG_RTSP_PAUSE, m_ulAOIPortID);
        oRequest.header(ZR_RTSP_PAUSE_FAILED)
            .add("[%s] add IE SessionID failed", ZR_RTSP_PAUSE_FAILED, CAOIIETool::addAOIIESessionID,
                 m_oMediaAbility.getSessionID())
            .add("[%s] add IE AOI_IE_URL failed", ZR_RTSP_PAUSE_FAILED, CAOIIETool::addAOIIEURL, m_strURL);
        if (oRequest.send("[%s] send AOI_MSG_RTSP_PAUSE message failed", ZR_RTSP_SEND_FAILED, ZR_RTSP_PAUSE_FAILED) !=
            ZR_RTSP_OK)
            return oRequest.status();

        static const tagConclusion stConclusion = {
            {ZR_LOG_WARNING, ZR_RTSP_PAUSE_FAILED,
             "[%s] Execute pause failed, maybe receive a AOI_MSG_RTSP_ADMINSSION_ANNOUNCE msg", ZR_RTSP_PAUSE_FAILED},
            {ZR_LOG_ERROR, ZR_RTSP_PAUSE_TIMEOUT, "[%s] don't receive a AOI_MSG_RTSP_PAUSE OK response Message",
             ZR_RTSP_PAUSE_FAILED},
            {ZR_LOG_ERROR, ZR_RTSP_PAUSE_FAILED,
             "[%s] receive a AOI_MSG_RTSP_PAUSE ERR[RTSP_errcode:%u] response Message", ZR_RTSP_PAUSE_FAILED}};
        return conclude(szFunction, EXCHANGE_PAUSE, oGuard, stConclusion);
    };
    return inside(szFunction, fnPause, ZR_RTSP_PAUSE_FAILED);
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspPauseRsp(const tagAOIMsg *pstAOIMsg)
{
    static const tagAnswerRule stRule = {"CRtspMediaCtrl::AOIProcRtspPauseRsp",
                                         MEDIACTRL_STATE_PAUSE_WAIT,
                                         MEDIACTRL_STATE_PAUSE_OK,
                                         MEDIACTRL_STATE_PAUSE_FAIL,
                                         "[%s] get AOI_MSG_RTSP_PAUSE OK reponse message's IE SessionID failed",
                                         "[%s] get AOI_MSG_RTSP_PAUSE reponse message's IE Errcode failed",
                                         "[%s] discard a Msg",
                                         &CRtspMediaCtrl::takePauseAnswer};
    return takeAnswer(stRule, pstAOIMsg);
}

ZR_ULONG CRtspMediaCtrl::takePauseAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg)
{
    return readOwnSessionID(pstAOIMsg, stRule.pszFunction, stRule.pszSessionText);
}

/// Sends a SET_PARAMETER that carries the session ID alone, and does not wait; under m_oMutex. Its failure is reported
/// in the words of OPTIONS.
/// @return 0; 1, 3, 13205 or 13805
ZR_ULONG CRtspMediaCtrl::set_parameter()
{
    CAOIRequest oRequest("CRtspMediaCtrl::set_parameter", AOI_MSG_RTSP_SET_PARAMERTER, m_ulAOIPortID);
    oRequest.header(ZR_RTSP_FAILED)
        .add("[%s] add IE SessionID failed", ZR_RTSP_IE_NOT_ADDED, CAOIIETool::addAOIIESessionID,
             m_oMediaAbility.getSessionID());
    return oRequest.send("[%s] send AOI_MSG_RTSP_OPTIONS message failed", ZR_RTSP_SEND_FAILED, ZR_RTSP_SEND_FAILED);
}

/// "[PortID: %u]", for the log.
/// @param pszBuffer  32 bytes at least; returned
char *CRtspMediaCtrl::formatPort(char *pszBuffer, ZR_ULONG ulPortID)
{
    VELK_snprintf(pszBuffer, PORT_LABEL_SIZE, "[PortID: %u]", ulPortID);
    pszBuffer[PORT_LABEL_SIZE - 1] = '\0';
    return pszBuffer;
}

/// Tells the observers a code. Not under m_oMutex: an observer may tear the session down, and would take the locks in
/// the other order.
void CRtspMediaCtrl::notifyObservers(const char *pszFunction, ZR_ULONG ulCode)
{
    char szPort[PORT_LABEL_SIZE];
    RTSP_LOG(INFO, 0, "[%s] %s Notify rtsp error: %u to MCM", pszFunction, formatPort(szPort, m_ulPortID), ulCode);
    m_oObserverList.notify(&ulCode, 0);
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspAdminAnnounReq(const tagAOIMsg *pstAOIMsg)
{
    static const char szFunction[] = "CRtspMediaCtrl::AOIProcRtspAdminAnnounReq";
    if (isNull(pstAOIMsg, szFunction))
        return ZR_RTSP_INVALID_PARAMETER;
    const ZR_ULONG ulSession = readOwnSessionID(
        pstAOIMsg, szFunction, "[%s] get AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE SessionID failed");
    if (ulSession != ZR_RTSP_OK)
        return ulSession;

    auto enReason = static_cast<tagAOIIEQuitReason>(0xFFFFFFFF);
    const ZR_ULONG ulResult = CAOIIETool::getAOIIEQuitReason(pstAOIMsg, enReason);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult,
                 "[%s] get AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE QuitReason failed, use default",
                 szFunction);
        enReason = static_cast<tagAOIIEQuitReason>(QUIT_REASON_DEFAULT);
    }
    const ZR_ULONG ulReason = enReason;
    ZR_ULONG ulCode = ZR_RTSP_NOTICE_ENDED;
    if (ulReason == QUIT_REASON_END_OF_STREAM)
    {
        ulCode = ZR_RTSP_NOTICE_END_OF_STREAM;
    }
    else if (ulReason == QUIT_REASON_SERVER_RESOURCES)
    {
        ulCode = ZR_RTSP_NOTICE_SERVER_RESOURCES;
    }
    else
    {
        if (ulReason != QUIT_REASON_DEFAULT)
            RTSP_LOG(WARNING, ZR_RTSP_DISCARDED,
                     "[%s] AOI_MSG_RTSP_ADMINSSION_ANNOUNCE requst message's IE QuitReason:(%u) illegal", szFunction,
                     ulReason);
        const std::string strTag = m_oMediaAbility.getDecoderTag();
        if (VELK_strnstr("guobiao", strTag.c_str(), strTag.size()) != nullptr)
            ulCode = ZR_RTSP_NOTICE_ENDED_GUOBIAO;
    }
    notifyObservers(szFunction, ulCode);
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspNotifyReq(const tagAOIMsg *pstAOIMsg)
{
    static const char szFunction[] = "CRtspMediaCtrl::AOIProcRtspNotifyReq";
    if (isNull(pstAOIMsg, szFunction))
        return ZR_RTSP_INVALID_PARAMETER;
    const ZR_ULONG ulSession = readOwnSessionID(
        pstAOIMsg, szFunction, "[%s] get AOI_MSG_INTERNAL_NOTIFY_RTSP requst message's IE SessionID failed");
    if (ulSession != ZR_RTSP_OK)
        return ulSession;

    auto enAction = static_cast<tagAOIIERtspActionType>(255);
    const ZR_ULONG ulResult = CAOIIETool::getAOIIESAction(pstAOIMsg, enAction);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] get AOI_MSG_INTERNAL_NOTIFY_RTSP request message's IE SessionAction failed",
                 szFunction);
        return ZR_RTSP_IE_UNREADABLE;
    }
    if (enAction == ACTION_SESSION_LOST && m_ulPlayFlag == 1)
        notifyObservers(szFunction,
                        m_oMediaAbility.isOnvif() == 1 ? ZR_RTSP_NOTICE_ONVIF_LOST : ZR_RTSP_NOTICE_CONNECTION_LOST);
    return ZR_RTSP_OK;
}
