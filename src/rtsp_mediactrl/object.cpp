// The object itself: its life, its media parameters, its observers, and its relation to a TV wall.

#include "rtsp_mediactrl.h"

#include "request.h"
#include "rtsp_impl.h"
#include "zr_cc_rt.h"

namespace {

constexpr ZR_USHORT DEFAULT_RTSP_PORT = 554;

const char g_szDestructor[] = "CRtspMediaCtrl::~CRtspMediaCtrl";

/// A decoder description, parsed: tag, transport type, packet type.
struct tagDecoderDesc
{
    std::string strTag;
    ZR_ULONG ulTransportType;
    ZR_ULONG ulPacketType;
};

ZR_ULONG digit(char cDigit)
{
    return cDigit >= '0' && cDigit <= '9' ? static_cast<ZR_ULONG>(cDigit - '0') : 0;
}

ZR_ULONG transportCode(char cDigit)
{
    switch (digit(cDigit))
    {
    case 1:
        return 4;
    case 2:
        return 5;
    case 3:
        return 6;
    case 6:
        return 7;
    default:
        return 3;
    }
}

ZR_ULONG packetCode(char cDigit)
{
    switch (digit(cDigit))
    {
    case 1:
        return 8;
    case 2:
        return 4;
    default:
        return 3;
    }
}

ZR_ULONG transportType(ZR_ULONG ulTransportCode)
{
    switch (ulTransportCode)
    {
    case 4:
        return 3;
    case 5:
        return 1;
    case 6:
        return 4;
    default:
        return 2;
    }
}

tagDecoderDesc parseDecoderDesc(const std::string &strDesc)
{
    const size_t ulAt = strDesc.find('@');
    const std::string strSuffix = ulAt == std::string::npos ? std::string() : strDesc.substr(ulAt + 1);
    const bool bCodes = strSuffix.size() == 2;
    ZR_ULONG ulTransport = bCodes ? transportCode(strSuffix[0]) : 3;
    ZR_ULONG ulPacket = bCodes ? packetCode(strSuffix[1]) : 3;

    const std::string strTag = strDesc.substr(0, ulAt);
    if (strTag == "omz-v1")
    {
        ulPacket = 1;
    }
    else if (strTag == "guobiao")
    {
        ulTransport = 5;
        ulPacket = 4;
    }
    else if (strTag == "guodian")
    {
        ulTransport = 5;
        ulPacket = 9;
    }
    return {strTag, transportType(ulTransport), ulPacket};
}

ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy> &monotonicAttributes()
{
    static ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy> oAttributes;
    return oAttributes;
}

} // namespace

CRtspMediaCtrl::CRtspMediaCtrl(ZR_ULONG ulPortID, const std::string &strSrcUaID, const std::string &strDstUaID,
                               const std::string &strLocalIP, ZR_USHORT usLocalPort, const std::string &strServerIP,
                               ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID)
    : m_ulAOIPortID(ulAOIPortID)
    , m_oCond(m_oMutex, monotonicAttributes())
    , m_ulPortID(ulPortID)
{
    const ZR_USHORT usPort = usServerPort != 0 ? usServerPort : DEFAULT_RTSP_PORT;
    CRouteMgr::addUAAddr(strSrcUaID, strDstUaID, strServerIP, usPort);
    try
    {
        m_oMediaAbility.setServerIP(strServerIP);
        m_oMediaAbility.setServerPort(usPort);
        m_oMediaAbility.setLocalIP(strLocalIP);
        m_oMediaAbility.setLocalPort(usLocalPort);
        m_oMediaAbility.setLocalUaID(strSrcUaID);
        m_oMediaAbility.setRemoteUaID(strDstUaID);
        CIAOIMsgDisp *pDispatcher = g_pAOIMsgDispInter;
        if (pDispatcher != nullptr)
            pDispatcher->registerAOIMsgProc(ulAOIPortID, this);
        CJugeMediaKeepLive::RefreshMediaKeepLive(m_ulPortID);
        m_fPlaySpeed = 0.0F;
    }
    catch (...) // there will be no destructor
    {
        unregisterFromDispatcher();
        CRouteMgr::deleteUAAddr(strSrcUaID, strDstUaID);
        throw;
    }
}

CRtspMediaCtrl::~CRtspMediaCtrl()
{
    const CNoCancellation oNoCancellation; // a destructor cannot let it through
    bool bRouted = true;
    const auto fnDropRoute = [&] {
        const std::string strLocalUaID = m_oMediaAbility.getLocalUaID();
        const std::string strRemoteUaID = m_oMediaAbility.getRemoteUaID();
        if (std::exchange(bRouted, false))
            CRouteMgr::deleteUAAddr(strLocalUaID, strRemoteUaID);
    };
    try
    {
        endSession();
        unregisterFromDispatcher();
        endCallsInside();
        if (m_bAbilityFromHost == 0)
            m_oMediaAbility.release();
        fnDropRoute();
        CJugeMediaKeepLive::RefreshMediaKeepLive(m_ulPortID);
    }
    catch (...)
    {
        RTSP_LOG(ERROR, ZR_RTSP_FAILED, "[%s] Exception when resetDefault of Rtsp!", g_szDestructor);
        // nothing may reach the object any more, nor be left of it, whichever step was left out
        guarded(FILE_RTSP_MEDIACTRL, g_szDestructor, [&] { unregisterFromDispatcher(); });
        guarded(FILE_RTSP_MEDIACTRL, g_szDestructor, [&] { endCallsInside(); });
        guarded(FILE_RTSP_MEDIACTRL, g_szDestructor, fnDropRoute);
    }
}

/// Outside m_oMutex: unregistering waits for a handler, and a handler waits for the mutex.
void CRtspMediaCtrl::unregisterFromDispatcher()
{
    CIAOIMsgDisp *pDispatcher = g_pAOIMsgDispInter;
    if (pDispatcher == nullptr)
        return;
    const ZR_ULONG ulAOIPortID = m_ulAOIPortID.exchange(0);
    if (ulAOIPortID == 0)
        return;
    if (CObserverList::insideNotification())
        m_ulAOIPortIDLeft = ulAOIPortID;
    pDispatcher->unregisterAOIMsgProc(ulAOIPortID);
}

/// Wakes who waits for an answer, and returns when no call is inside the object any more. An observer may have torn the
/// session down a moment ago, on a call that still runs: so it is waited for even when nothing had to be unregistered.
/// There the unregistering did not wait either, and a call may be on its way that is not counted yet: so it is
/// repeated.
void CRtspMediaCtrl::endCallsInside()
{
    {
        const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (oGuard.locked()) // else nobody waits under it
        {
            m_bLeaving = true;
            signalResponse();
        }
    }
    m_oCalls.waitForNobody();
    CIAOIMsgDisp *pDispatcher = g_pAOIMsgDispInter;
    const ZR_ULONG ulAOIPortID = m_ulAOIPortIDLeft.exchange(0);
    if (ulAOIPortID != 0 && pDispatcher != nullptr)
        pDispatcher->unregisterAOIMsgProc(ulAOIPortID);
}

CMediaAbility &CRtspMediaCtrl::getMediaAbility(CMediaAbility &oOut)
{
    inside("CRtspMediaCtrl::getMediaAbility", [&] { oOut = m_oMediaAbility; });
    return oOut;
}

void CRtspMediaCtrl::setMediaAbility(const CMediaAbility &oIn)
{
    inside("CRtspMediaCtrl::setMediaAbility", [&] {
        m_oMediaAbility = oIn;
        m_bAbilityFromHost = 1;
    });
}

void CRtspMediaCtrl::setDecoderDesc(const std::string &strDesc)
{
    inside("CRtspMediaCtrl::setDecoderDesc", [&] {
        const tagDecoderDesc stDesc = parseDecoderDesc(strDesc);
        m_oMediaAbility.setDecoderTag(stDesc.strTag);
        m_oMediaAbility.setPacketType(stDesc.ulPacketType);
        m_oMediaAbility.setTransportType(stDesc.ulTransportType);
    });
}

ZR_ULONG CRtspMediaCtrl::attachObserver(CIMediaCtrlObserver *pObserver)
{
    static const char szFunction[] = "CRtspMediaCtrl::attachObserver";
    const auto fnAttach = [&]() -> ZR_ULONG {
        if (pObserver == nullptr)
        {
            RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER, "[%s] invalid parameter.", szFunction);
            return ZR_RTSP_INVALID_PARAMETER;
        }
        const ZR_ULONG ulResult = m_oObserverList.add(pObserver);
        if (ulResult == ZR_RTSP_OK)
            return ZR_RTSP_OK;
        RTSP_LOG(ERROR, ulResult, "[%s] attach an observer failed.", szFunction);
        return ZR_RTSP_FAILED;
    };
    return inside(szFunction, fnAttach, ZR_RTSP_FAILED);
}

void CRtspMediaCtrl::detachObserver(CIMediaCtrlObserver *pObserver)
{
    static const char szFunction[] = "CRtspMediaCtrl::detachObserver";
    inside(szFunction, [&] {
        if (pObserver == nullptr)
        {
            RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER, "[%s] invalid parameter.", szFunction);
            return;
        }
        const ZR_ULONG ulResult = m_oObserverList.remove(pObserver);
        if (ulResult != ZR_RTSP_OK)
            RTSP_LOG(ERROR, ulResult, "[%s] detach an observer failed.", szFunction);
    });
}

std::string CRtspMediaCtrl::getRange()
{
    return inside(
        "CRtspMediaCtrl::getRange",
        [&] {
            const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
            return oGuard.locked() ? m_strRange : std::string();
        },
        "");
}

void CRtspMediaCtrl::setPlaybackNowFlag(ZR_ULONG ulFlag)
{
    inside("CRtspMediaCtrl::setPlaybackNowFlag", [&] { m_ulPlaybackNowFlag = ulFlag; });
}

void CRtspMediaCtrl::setPlayNormalFlag(ZR_ULONG ulFlag)
{
    inside("CRtspMediaCtrl::setPlayNormalFlag", [&] { m_ulPlayNormalFlag = ulFlag; });
}

void CRtspMediaCtrl::setKeepLiveInterval(ZR_ULONG ulMilliseconds)
{
    inside("CRtspMediaCtrl::setKeepLiveInterval", [&] {
        if (m_oMediaAbility.isOnvif() != 1)
            m_ulKeepLivePeriod = ulMilliseconds / KEEPLIVE_TICK_MS;
    });
}

ZR_ULONG CRtspMediaCtrl::setupToTV(ZR_ULONG ulProtocol, const tagTransportAddr &stTransport)
{
    static const char szFunction[] = "CRtspMediaCtrl::setupToTV";
    const auto fnSetup = [&]() -> ZR_ULONG {
        if (g_pAOIMsgDispInter == nullptr)
        {
            RTSP_LOG(ERROR, ZR_RTSP_NO_DISPATCHER, "[%s] can't find an AOI msg dispatch module", szFunction);
            return ZR_RTSP_SETUP_FAILED;
        }
        CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return ZR_RTSP_LOCK_FAILED;
        if (m_strVodToTvURL.empty())
        {
            RTSP_LOG(ERROR, ZR_RTSP_SETUP_FAILED, "[%s] not support vod to tv.", szFunction);
            return ZR_RTSP_SETUP_FAILED;
        }
        if (m_ulState < MEDIACTRL_STATE_SUCCESS || m_ulState > MEDIACTRL_STATE_PAUSE)
        {
            RTSP_LOG(ERROR, ZR_RTSP_WRONG_STATE, "[%s] can not setup vod to tv, media ctrl state is %d.", szFunction,
                     static_cast<int>(m_ulState));
            return ZR_RTSP_WRONG_STATE;
        }
        const ZR_ULONG ulOnvif = m_oMediaAbility.isOnvif();
        CAOIRequest oRequest(szFunction, AOI_MSG_RTSP_SETUP, m_ulAOIPortID);
        oRequest.header(0)
            .add("[%s] add IE AOI_IE_SESSION_ID failed", 0, CAOIIETool::addAOIIESessionID,
                 m_oMediaAbility.getSessionID())
            .add("[%s] add IE AOI_IE_URL failed", 0, CAOIIETool::addAOIIEURL, m_strVodToTvURL)
            .add("[%s] add IE SrcUaID failed", 0, CAOIIETool::addAOIIESrcUaID, m_oMediaAbility.getLocalUaID(), ulOnvif)
            .add("[%s] add IE DstUaID failed", 0, CAOIIETool::addAOIIEDstUaID, m_oMediaAbility.getRemoteUaID(), ulOnvif)
            .row("[%s] add IE AOI_IE_TRANSPORT failed", 0,
                 [&](tagAOIMsg *pstMsg) {
                     return CAOIIETool::addAOIIETransport(stTransport.strIP, stTransport.usPort,
                                                          static_cast<tagProtocol>(ulProtocol), pstMsg, 0);
                 })
            .add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth,
                 m_oMediaAbility.getOnvifInfo().m_strSetupAuth);
        if (oRequest.send("[%s] send AOI_MSG_RTSP_SETUP message failed", 0, 0) != ZR_RTSP_OK)
            return oRequest.status();
        return concludeSetup(szFunction, EXCHANGE_SETUP_TO_TV, oGuard);
    };
    return inside(szFunction, fnSetup, ZR_RTSP_SETUP_FAILED);
}

void CRtspMediaCtrl::teardownToTV()
{
    static const char szFunction[] = "CRtspMediaCtrl::teardownToTV";
    inside(szFunction, [&] {
        if (g_pAOIMsgDispInter == nullptr)
        {
            RTSP_LOG(ERROR, ZR_RTSP_NO_DISPATCHER, "[%s] can't find an AOI msg dispatch module", szFunction);
            return;
        }
        const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
        if (!oGuard.locked())
            return;
        if (m_ulState == MEDIACTRL_STATE_IDLE)
        {
            RTSP_LOG(WARNING, ZR_RTSP_WRONG_STATE, "[%s] current RTSPMediaCtrl is idle", szFunction);
            return;
        }
        CAOIRequest oRequest(szFunction, AOI_MSG_RTSP_TEARDOWN, m_ulAOIPortID);
        oRequest.header(0)
            .add("[%s] add IE SessionID failed", 0, CAOIIETool::addAOIIESessionID, m_oMediaAbility.getSessionID())
            .add("[%s] add IE AOI_IE_URL failed", 0, CAOIIETool::addAOIIEURL, m_strVodToTvURL)
            .send("[%s] send AOI_MSG_RTSP_TEARDOWN message failed", ZR_RTSP_SEND_FAILED, 0);
    });
}
