// The frame of the answers, the routing of incoming messages, SETUP and TEARDOWN.

#include "rtsp_mediactrl.h"

#include <cmath>

#include "request.h"
#include "rtsp_impl.h"

namespace {

constexpr float NO_PLAY_SPEED = -1.0F;

const char g_szTearDown[] = "CRtspMediaCtrl::tearDown";
const char g_szSetupRsp[] = "CRtspMediaCtrl::AOIProcRtspSetupRsp";

/// The server's transport address, in its plain form or in that of a broadcast method.
template <typename... Method>
ZR_ULONG readTransport(const tagAOIMsg *pstAOIMsg, std::string &strIP, ZR_USHORT &usPort, Method... enMethod)
{
    const ZR_ULONG ulResult = CAOIIETool::getAOIIETransport(pstAOIMsg, enMethod..., strIP, usPort);
    if (ulResult != ZR_RTSP_OK)
        RTSP_LOG(ERROR, ulResult, "[%s] CAOIIETool::getAOIIETransport failed", g_szSetupRsp);
    return ulResult;
}

} // namespace

/// A failure answer's RTSP status; what cannot be read leaves the read's own result in its place.
void CRtspMediaCtrl::readErrcode(const tagAOIMsg *pstAOIMsg, const char *pszFunction, const tagLogText &stText)
{
    ZR_ULONG ulErrcode = 0;
    const ZR_ULONG ulResult = CAOIIETool::getAOIIEErrcode(pstAOIMsg, ulErrcode);
    if (ulResult != ZR_RTSP_OK)
        logText(ZR_LOG_ERROR, ulResult, stText, pszFunction);
    m_ulRspResult = ulResult != ZR_RTSP_OK ? ulResult : ulErrcode;
}

bool CRtspMediaCtrl::isNull(const tagAOIMsg *pstAOIMsg, const char *pszFunction)
{
    if (pstAOIMsg == nullptr)
        RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER, "[%s] parameter char *pstAOIMsg can't be NULL", pszFunction);
    return pstAOIMsg == nullptr;
}

/// The frame of the answers that have waiting states of their own.
ZR_ULONG CRtspMediaCtrl::takeAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg)
{
    if (isNull(pstAOIMsg, stRule.pszFunction))
        return ZR_RTSP_INVALID_PARAMETER;
    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;

    const ZR_ULONG ulKind = pstAOIMsg->stHeader.ulMsgKind;
    if ((ulKind != MDP_MSG_KIND_SUCCESS && ulKind != MDP_MSG_KIND_FAILURE) || m_ulState != stRule.ulWait)
    {
        logText(ZR_LOG_INFO, ZR_RTSP_DISCARDED, stRule.pszDiscardText, stRule.pszFunction);
        return ZR_RTSP_DISCARDED;
    }
    if (ulKind == MDP_MSG_KIND_FAILURE)
    {
        readErrcode(pstAOIMsg, stRule.pszFunction, stRule.pszErrcodeText);
        m_ulState = stRule.ulAnsweredFail;
    }
    else
    {
        const ZR_ULONG ulResult = (this->*stRule.pfnTake)(stRule, pstAOIMsg);
        if (ulResult != ZR_RTSP_OK)
            return ulResult;
        m_ulRspResult = ZR_RTSP_OK;
        m_ulState = stRule.ulAnsweredOK;
    }
    return acceptAnswer(stRule.pszFunction, stRule.ulWait, oGuard);
}

/// Reads an answer's session ID and holds it against the session's own.
/// @return 0; 13803 when it cannot be read; 13002 for another session's
ZR_ULONG CRtspMediaCtrl::readOwnSessionID(const tagAOIMsg *pstAOIMsg, const char *pszFunction, const tagLogText &stText)
{
    std::string strSessionID;
    const ZR_ULONG ulResult = CAOIIETool::getAOIIESessionID(pstAOIMsg, strSessionID);
    if (ulResult != ZR_RTSP_OK)
    {
        logText(ZR_LOG_ERROR, ulResult, stText, pszFunction);
        return ZR_RTSP_IE_UNREADABLE;
    }
    if (strSessionID != m_oMediaAbility.getSessionID())
    {
        RTSP_LOG(WARNING, ZR_RTSP_DISCARDED, "[%s] discard a Msg with SID: %s", pszFunction, strSessionID.c_str());
        return ZR_RTSP_DISCARDED;
    }
    return ZR_RTSP_OK;
}

/// What comes in under one message ID, and who takes it.
struct CRtspMediaCtrl::tagProcRow
{
    ZR_ULONG ulMsgID;
    bool bRequest; ///< the far side's own: taken without a look at the destination
    ZR_ULONG (CRtspMediaCtrl::*pfnHandler)(const tagAOIMsg *pstAOIMsg);
    const char *pszDiscardText;
    const char *pszErrorText;
};

ZR_ULONG CRtspMediaCtrl::AOIMsgPro(tagAOIMsg *pstAOIMsg)
{
    // a failure of the notice's handler is reported in the announcement's words
    static const tagProcRow aRows[] = {
        {AOI_MSG_RTSP_SETUP, false, &CRtspMediaCtrl::AOIProcRtspSetupRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_SETUP", "[%s] AOIProcRtspSetup brings an error"},
        {AOI_MSG_RTSP_PLAY, false, &CRtspMediaCtrl::AOIProcRtspPlayRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_PLAY", "[%s] AOIProcRtspPlay brings an error"},
        {AOI_MSG_RTSP_PAUSE, false, &CRtspMediaCtrl::AOIProcRtspPauseRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_PAUSE", "[%s] AOIProcRtspPause brings an error"},
        {AOI_MSG_RTSP_TEARDOWN, false, &CRtspMediaCtrl::AOIProcRtspTeardownRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_TEARDOWN", "[%s] AOIProcRtspTeardown brings an error"},
        {AOI_MSG_RTSP_OPTIONS, false, &CRtspMediaCtrl::AOIProcRtspOptionsRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_OPTIONS", "[%s] AOIProcRtspOptions brings an error"},
        {AOI_MSG_RTSP_DESCRIBE, false, &CRtspMediaCtrl::AOIProcRtspDescribeRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_DESCRIBE", "[%s] AOIProcRtspDescribeRsp brings an error"},
        {AOI_MSG_RTSP_SET_PARAMERTER, false, &CRtspMediaCtrl::AOIProcRtspSetParameterRsp,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_SET_PARAMERTER", "[%s] AOIProcRtspSetParameter brings an error"},
        {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, true, &CRtspMediaCtrl::AOIProcRtspAdminAnnounReq,
         "[%s] discard a Msg which ID is AOI_MSG_RTSP_ADMINSSION_ANNOUNCE",
         "[%s] AOIProcRtspAdminAnnoun brings an error"},
        {AOI_MSG_INTERNAL_NOTIFY_RTSP, true, &CRtspMediaCtrl::AOIProcRtspNotifyReq,
         "[%s] discard a Msg which ID is AOI_MSG_INTERNAL_NOTIFY_RTSP", "[%s] AOIProcRtspAdminAnnoun brings an error"},
    };
    static const char szFunction[] = "CRtspMediaCtrl::AOIMsgPro";

    const auto fnDispatch = [&]() -> ZR_ULONG {
        if (isNull(pstAOIMsg, szFunction))
            return ZR_RTSP_INVALID_PARAMETER;
        const tagMDPMsgHeader &stHeader = pstAOIMsg->stHeader;
        for (const tagProcRow &stRow : aRows)
        {
            if (stRow.ulMsgID != stHeader.ulMsgID)
                continue;
            const bool bAccepted =
                stRow.bRequest ? stHeader.ulMsgKind == MDP_MSG_KIND_REQUEST
                               : stHeader.ulMsgKind != MDP_MSG_KIND_REQUEST && stHeader.ulDstID == m_ulAOIPortID;
            if (!bAccepted)
            {
                logText(ZR_LOG_WARNING, ZR_RTSP_DISCARDED, stRow.pszDiscardText, szFunction);
                return ZR_RTSP_DISCARDED;
            }
            const ZR_ULONG ulResult = (this->*stRow.pfnHandler)(pstAOIMsg);
            if (ulResult != ZR_RTSP_OK)
                logText(ZR_LOG_ERROR, ulResult, stRow.pszErrorText, szFunction);
            return ulResult;
        }
        RTSP_LOG(WARNING, ZR_RTSP_DISCARDED, "[%s] discard a Msg which ID is unknown, [ID: 0x%x]", szFunction,
                 stHeader.ulMsgID);
        return ZR_RTSP_DISCARDED;
    };
    return inside(szFunction, fnDispatch, ZR_RTSP_FAILED);
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspTeardownRsp(const tagAOIMsg * /*pstAOIMsg*/)
{
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspSetParameterRsp(const tagAOIMsg * /*pstAOIMsg*/)
{
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::setup(const std::string &strURL, tagProtocol enProtocol)
{
    static const char szFunction[] = "CRtspMediaCtrl::setup";
    return inside(
        szFunction, [&] { return setupSession(szFunction, strURL, enProtocol); }, ZR_RTSP_SETUP_FAILED);
}

ZR_ULONG CRtspMediaCtrl::setup(const std::string &strURL, tagProtocol enProtocol, ZR_ULONG ulSpeed, int32_t iFullFrame)
{
    static const char szFunction[] = "CRtspMediaCtrl::setup";
    const auto fnSetup = [&] {
        m_fPlaySpeed = downloadSpeed(ulSpeed, iFullFrame);
        const ZR_ULONG ulResult = static_cast<CIMediaCtrl *>(this)->setup(strURL, enProtocol);
        if (ulResult != ZR_RTSP_OK)
            RTSP_LOG(ERROR, ZR_RTSP_SEND_FAILED, "[%s] rtsp setup failed.", szFunction);
        return ulResult;
    };
    return inside(szFunction, fnSetup, ZR_RTSP_SETUP_FAILED);
}

/// A URL without the tail that "auth" begins, and without the one character in front of it; whole where the text begins
/// with it.
std::string CRtspMediaCtrl::withoutCredentialTail(const std::string &strURL)
{
    const size_t ulAuth = strURL.find("auth");
    return ulAuth == std::string::npos ? strURL : strURL.substr(0, ulAuth - 1);
}

/// Builds and sends a SETUP.
ZR_ULONG CRtspMediaCtrl::sendSetup(const char *pszFunction, const std::string &strURL, const COnvifInfo &oInfo)
{
    const ZR_ULONG ulOnvif = m_oMediaAbility.isOnvif();
    const float fSpeed = m_fPlaySpeed;
    CAOIRequest oRequest(pszFunction, AOI_MSG_RTSP_SETUP, m_ulAOIPortID);
    oRequest.header(0)
        .add("[%s] add IE AOI_IE_URL failed", 0, CAOIIETool::addAOIIEURL, withoutCredentialTail(strURL))
        .add("[%s] add IE SrcUaID failed", 0, CAOIIETool::addAOIIESrcUaID, m_oMediaAbility.getLocalUaID(), ulOnvif)
        .add("[%s] add IE DstUaID failed", 0, CAOIIETool::addAOIIEDstUaID, m_oMediaAbility.getRemoteUaID(), ulOnvif)
        .row("[%s] add IE AOI_IE_TRANSPORT failed", 0, [&](tagAOIMsg *pstMsg) {
            const tagBroadcastmethod enMethod = m_enBroadcastMethod;
            const bool bMulticast = enMethod == BROADCASTMETHOD_MULTICAST;
            return CAOIIETool::addAOIIETransport(bMulticast ? std::string() : m_oMediaAbility.getLocalIP(),
                                                 m_oMediaAbility.getLocalPort(), m_enProtocol, enMethod, pstMsg, 0);
        });
    if (std::fabs(fSpeed - NO_PLAY_SPEED) > 0.00001F && ulOnvif == 0)
        oRequest.row({"[%s] add IE Scale failed, the play speed is %f", fSpeed}, ZR_RTSP_IE_NOT_ADDED,
                     [&](tagAOIMsg *pstMsg) { return CAOIIETool::addAOIIEScale(fSpeed, pstMsg); });
    oRequest.add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth, oInfo.m_strSetupAuth);
    const std::string strSessionID = m_oMediaAbility.getSessionID();
    if (!strSessionID.empty())
        oRequest.add("[%s] add IE SessionID failed", 0, CAOIIETool::addAOIIESessionID, strSessionID);
    return oRequest.send("[%s] send AOI_MSG_RTSP_SETUP message failed", 0, 0);
}

/// Waits for the answer to a SETUP that was sent, and says what came of it.
ZR_ULONG CRtspMediaCtrl::concludeSetup(const char *pszFunction, const tagExchangeRule &stRule, CObjectGuard &oGuard)
{
    ZR_ULONG ulRspResult = 0;
    switch (exchange(stRule, oGuard, ulRspResult))
    {
    case EOutcome::lockLost:
        return ZR_RTSP_LOCK_FAILED;
    case EOutcome::timedOut:
        RTSP_LOG(ERROR, ZR_RTSP_SETUP_TIMEOUT, "[%s] don't receive a AOI_MSG_RTSP_SETUP OK response Message",
                 pszFunction);
        return ZR_RTSP_SETUP_FAILED;
    case EOutcome::idle:
    case EOutcome::refused:
        RTSP_LOG(ERROR, ZR_RTSP_SETUP_FAILED,
                 "[%s] receive a AOI_MSG_RTSP_SETUP ERR[RTSP_errcode: %u] response Message", pszFunction, ulRspResult);
        // a refusal is never a success, whatever status it bears
        return ulRspResult != ZR_RTSP_OK ? ulRspResult : ZR_RTSP_SETUP_FAILED;
    case EOutcome::answered:
        break;
    }
    RTSP_LOG(INFO, 0, "[%s] successful setup the MediaCtrl relation, SID is : %s", pszFunction,
             m_oMediaAbility.getSessionID().c_str());
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::setupSession(const char *pszFunction, const std::string &strURL, tagProtocol enProtocol)
{
    m_enProtocol = enProtocol;
    const COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    m_enBroadcastMethod = oInfo.m_enBroadcastMethod;
    if (m_bAbilityFromHost == 0)
    {
        const ZR_ULONG ulInit = m_oMediaAbility.init();
        if (ulInit != ZR_RTSP_OK)
        {
            RTSP_LOG(ERROR, ulInit, "[%s] Failed to init MediaAbility", pszFunction);
            return ulInit;
        }
    }
    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    if (m_ulState != MEDIACTRL_STATE_IDLE && m_ulState != MEDIACTRL_STATE_SUCCESS)
    {
        // the comma is a full-width one, in the GBK code page
        RTSP_LOG(ERROR, ZR_RTSP_WRONG_STATE, "[%s] current RTSPMediaCtrl is not correct\xa3\xacstate is %u",
                 pszFunction, m_ulState);
        return ZR_RTSP_WRONG_STATE;
    }

    const ZR_ULONG ulSent = sendSetup(pszFunction, strURL, oInfo);
    if (ulSent != ZR_RTSP_OK)
        return ulSent;
    return concludeSetup(pszFunction, EXCHANGE_SETUP, oGuard);
}

ZR_ULONG CRtspMediaCtrl::AOIProcRtspSetupRsp(const tagAOIMsg *pstAOIMsg)
{
    static const tagAnswerRule stRule = {g_szSetupRsp,
                                         MEDIACTRL_STATE_SETUP_WAIT,
                                         MEDIACTRL_STATE_SETUP_OK,
                                         MEDIACTRL_STATE_SETUP_FAIL,
                                         "[%s] get AOI_MSG_RTSP_SETUP reponse message's IE SessionID failed",
                                         "[%s] get AOI_MSG_RTSP_SETUP reponse message's IE Errcode failed",
                                         "[%s] discard a Msg ",
                                         &CRtspMediaCtrl::takeSetupAnswer};
    return takeAnswer(stRule, pstAOIMsg);
}

/// A good SETUP answer. What cannot be read ends it; what was stored before stays.
ZR_ULONG CRtspMediaCtrl::takeSetupAnswer(const tagAnswerRule &stRule, const tagAOIMsg *pstAOIMsg)
{
    std::string strSessionID;
    ZR_ULONG ulResult = CAOIIETool::getAOIIESessionID(pstAOIMsg, strSessionID);
    if (ulResult != ZR_RTSP_OK)
    {
        logText(ZR_LOG_ERROR, ulResult, stRule.pszSessionText, stRule.pszFunction);
        return ZR_RTSP_IE_UNREADABLE;
    }
    m_oMediaAbility.setSessionID(strSessionID);
    ulResult = takeServerAddress(pstAOIMsg, strSessionID);
    if (ulResult != ZR_RTSP_OK)
        return ulResult;

    std::string strIP;
    ZR_USHORT usPort = 0;
    ulResult = readTransport(pstAOIMsg, strIP, usPort);
    if (ulResult != ZR_RTSP_OK)
        return ulResult;
    m_oMediaAbility.setTcpVodToTvServerIP(strIP);
    m_oMediaAbility.setTcpVodToTvServerPort(usPort);
    m_oMediaAbility.setTcpVodToTvServerAudioPort(usPort);
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::takeServerAddress(const tagAOIMsg *pstAOIMsg, const std::string &strSessionID)
{
    std::string strIP;
    ZR_USHORT usPort = 0;
    const tagProtocol enProtocol = m_enProtocol;
    if (enProtocol == PROTOCOL_TCP)
    {
        const ZR_ULONG ulResult = readTransport(pstAOIMsg, strIP, usPort);
        if (ulResult != ZR_RTSP_OK)
            return ulResult;
        m_oMediaAbility.setServerIP(strIP);
        m_oMediaAbility.setServerPort(usPort);
    }
    if (enProtocol != PROTOCOL_UDP)
        return ZR_RTSP_OK;

    m_enBroadcastMethod = m_oMediaAbility.getOnvifInfo().m_enBroadcastMethod;
    if (m_enBroadcastMethod == BROADCASTMETHOD_MULTICAST && m_oMediaAbility.isOnvif() == 1)
    {
        const ZR_ULONG ulResult = takeMulticastAddress(pstAOIMsg);
        if (ulResult != ZR_RTSP_OK)
            return ulResult;
    }
    if (m_strURL.find("NatOut") != std::string::npos)
    {
        const ZR_ULONG ulResult = readTransport(pstAOIMsg, strIP, usPort);
        if (ulResult != ZR_RTSP_OK)
            return ulResult;
        m_oMediaAbility.setNATMode(NAT_MODE_OUT);
        m_oMediaAbility.setNATSessionStr(strSessionID);
        m_oMediaAbility.setServerIP(strIP);
        m_oMediaAbility.setServerPort(usPort);
    }
    else if (m_strURL.find("NatIn") != std::string::npos)
    {
        m_oMediaAbility.setNATMode(NAT_MODE_IN);
        m_oMediaAbility.setNATSessionStr(strSessionID);
    }
    return ZR_RTSP_OK;
}

/// The group of an ONVIF source's track: the first belongs to the video, the next to the audio.
ZR_ULONG CRtspMediaCtrl::takeMulticastAddress(const tagAOIMsg *pstAOIMsg)
{
    std::string strIP;
    ZR_USHORT usPort = 0;
    const ZR_ULONG ulResult = readTransport(pstAOIMsg, strIP, usPort, m_enBroadcastMethod.load());
    if (ulResult != ZR_RTSP_OK)
        return ulResult;
    const COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    if (!oInfo.m_strVideoControl.empty() && m_oMediaAbility.getServerPort() == 0)
    {
        m_oMediaAbility.setServerIP(strIP);
        m_oMediaAbility.setServerPort(usPort);
    }
    if (!oInfo.m_strAudioControl.empty() && m_oMediaAbility.getServerPort() == m_oMediaAbility.getServerAudioPort())
    {
        m_oMediaAbility.setServerIP(strIP);
        m_oMediaAbility.setServerAudioPort(usPort);
    }
    return ZR_RTSP_OK;
}

void CRtspMediaCtrl::tearDown()
{
    inside(g_szTearDown, [&] { endSession(); });
}

/// Sends a TEARDOWN, and ends the registration once it was accepted.
void CRtspMediaCtrl::endSession()
{
    if (g_pAOIMsgDispInter == nullptr)
    {
        RTSP_LOG(ERROR, ZR_RTSP_NO_DISPATCHER, "[%s] can't find a AOI msg dispatch module", g_szTearDown);
        return;
    }
    {
        const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return;
        m_ulPlayFlag = 0;
        if (m_ulState == MEDIACTRL_STATE_IDLE)
        {
            RTSP_LOG(WARNING, ZR_RTSP_WRONG_STATE, "[%s] current RTSPMediaCtrl is idle", g_szTearDown);
            return;
        }
        CAOIRequest oRequest(g_szTearDown, AOI_MSG_RTSP_TEARDOWN, m_ulAOIPortID);
        oRequest.header(0)
            .add("[%s] add IE SessionID failed", 0, CAOIIETool::addAOIIESessionID, m_oMediaAbility.getSessionID())
            .add("[%s] add IE AOI_IE_URL failed", 0, CAOIIETool::addAOIIEURL, m_strURL)
            .add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth,
                 m_oMediaAbility.getOnvifInfo().m_strTeardownAuth);
        if (oRequest.send("[%s] send AOI_MSG_RTSP_TEARDOWN message failed", ZR_RTSP_SEND_FAILED, 0) != ZR_RTSP_OK)
            return;
    }
    unregisterFromDispatcher();
    RTSP_LOG(INFO, 0, "[%s] successful stop the MediaCtrl relationship.", g_szTearDown);
}
