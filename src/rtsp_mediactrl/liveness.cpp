// What keeps a session alive, and notices that it is not: the timers' steps and OPTIONS.

#include "rtsp_mediactrl.h"

#include "request.h"

namespace {

/// 13403 is expected as long as nothing plays.
void logKeepLiveFailure(const char *pszFunction, ZR_ULONG ulResult)
{
    if (ulResult != ZR_RTSP_OK && ulResult != ZR_RTSP_NO_SESSION)
        RTSP_LOG(DEBUG, ulResult, "[%s] Failed to send options by Rtsp", pszFunction);
}

} // namespace

/// One tick of the media timer. At the end of a period it checks that media arrives and sends an OPTIONS.
void CRtspMediaCtrl::keepLive()
{
    static const char szFunction[] = "CRtspMediaCtrl::keepLive";
    inside(szFunction, [&] {
        if (m_ulKeepLiveTick < m_ulKeepLivePeriod)
        {
            ++m_ulKeepLiveTick;
            return;
        }
        m_ulKeepLiveTick = 1;
        CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return;
        if (m_bCheckMediaKeepLive == 1)
        {
            m_ulKeepLiveFailCount = CJugeMediaKeepLive::CheckIfRecvPkt(m_ulPortID) == 0 ? m_ulKeepLiveFailCount + 1 : 0;
            if (m_ulKeepLiveFailCount > m_ulKeepLiveMaxFail)
            {
                char szPort[PORT_LABEL_SIZE];
                RTSP_LOG(ERROR, ZR_RTSP_FAILED, "[%s] %s Failed to keep live of Rtsp for [%u] times, period %u * 0.8s",
                         szFunction, formatPort(szPort, m_ulPortID), m_ulKeepLiveMaxFail.load(),
                         m_ulKeepLivePeriod.load());
                oGuard.release();
                notifyObservers(szFunction, ZR_RTSP_NOTICE_SILENT);
                if (!oGuard.retake())
                    return;
                m_ulKeepLiveFailCount = 0;
            }
        }
        logKeepLiveFailure(szFunction, options());
    });
}

/// One tick of the ONVIF timer.
void CRtspMediaCtrl::onvifKeepLive()
{
    static const char szFunction[] = "CRtspMediaCtrl::onvifKeepLive";
    inside(szFunction, [&] {
        const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (oGuard.locked() && m_oMediaAbility.isOnvif() == 1)
            logKeepLiveFailure(szFunction, set_parameter());
    });
}

/// Sends an OPTIONS and does not wait; under m_oMutex.
/// @return 0; 13403 when nothing plays; 1, 3, 13205, 13805 or the add's own code
ZR_ULONG CRtspMediaCtrl::options()
{
    static const char szFunction[] = "CRtspMediaCtrl::options";
    if (m_ulPlayFlag == 0)
    {
        RTSP_LOG(DEBUG, ZR_RTSP_NO_SESSION, "[%s] no MediaCtrl alive, option request failed", szFunction);
        m_ulKeepLiveTick = m_ulKeepLivePeriod.load(); // the very next tick tries again
        return ZR_RTSP_NO_SESSION;
    }
    CAOIRequest oRequest(szFunction, AOI_MSG_RTSP_OPTIONS, m_ulAOIPortID);
    oRequest.header(ZR_RTSP_FAILED)
        .add("[%s] add IE SessionID failed", ZR_RTSP_IE_NOT_ADDED, CAOIIETool::addAOIIESessionID,
             m_oMediaAbility.getSessionID())
        .add("[%s] add IE AOI_IE_URL failed", ZR_RTSP_IE_NOT_ADDED, CAOIIETool::addAOIIEURL, m_strURL)
        .add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth,
             m_oMediaAbility.getOnvifInfo().m_strOptionsAuth);
    return oRequest.send("[%s] send AOI_MSG_RTSP_OPTIONS message failed", ZR_RTSP_SEND_FAILED, ZR_RTSP_SEND_FAILED);
}

/// Nobody waits for it: it switches media checking on, is a sign of life, and tells the position.
ZR_ULONG CRtspMediaCtrl::AOIProcRtspOptionsRsp(const tagAOIMsg *pstAOIMsg)
{
    static const char szFunction[] = "CRtspMediaCtrl::AOIProcRtspOptionsRsp";
    if (isNull(pstAOIMsg, szFunction))
        return ZR_RTSP_INVALID_PARAMETER;
    m_bCheckMediaKeepLive = 1;
    if (m_oMediaAbility.getSessionID().empty())
    {
        RTSP_LOG(WARNING, ZR_RTSP_NO_SESSION, "[%s] no MediaCtrl alive, option response failed", szFunction);
        return ZR_RTSP_DISCARDED;
    }
    if (pstAOIMsg->stHeader.ulMsgKind != MDP_MSG_KIND_SUCCESS)
    {
        RTSP_LOG(WARNING, ZR_RTSP_DISCARDED, "[%s] The AOI_MSG_RTSP_OPTIONS reply message not expected, [MsgType: %u]",
                 szFunction, pstAOIMsg->stHeader.ulMsgKind);
        return ZR_RTSP_OK;
    }
    ZR_ULONG ulResult = readOwnSessionID(pstAOIMsg, szFunction,
                                         "[%s] get AOI_MSG_RTSP_OPTIONS OK reponse message's IE SessionID failed");
    if (ulResult != ZR_RTSP_OK)
        return ulResult;

    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    m_ulKeepLiveFailCount = 0;
    if (m_usRangeSkipCount != 0)
    {
        --m_usRangeSkipCount;
        return ZR_RTSP_OK;
    }
    ulResult = CAOIIETool::getAOIIERange(pstAOIMsg, m_strRange);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] get AOI_MSG_RTSP_OPTIONS OK reponse message's IE Range Time failed",
                 szFunction);
        return ZR_RTSP_IE_UNREADABLE;
    }
    return ZR_RTSP_OK;
}
