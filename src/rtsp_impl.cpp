#include "rtsp_impl.h"

#include <algorithm>
#include <list>

#include "ace/Guard_T.h"
#include "ace/Thread_Mutex.h"

#include "log.h"
#include "observer_list.h"
#include "rtsp_mediactrl.h"
#include "zr_rtsp/zr_rtsp.h"

std::atomic<CIAOIMsgDisp *> g_pAOIMsgDispInter{nullptr};

namespace
{

/// The live objects, in the order of their creation; it owns none. Guarded by the mutex below, which is the first in
/// the order of locks: before an object's and before an observer list's.
std::list<CIMediaCtrl *> g_lstMediaCtrl;
ACE_Thread_Mutex g_oMediaCtrlListMutex(nullptr, errorCheckingAttributes());

CIMediaCtrl *createRegistered(ZR_ULONG ulPortID, const std::string &strSrcUaID, const std::string &strDstUaID,
                              const std::string &strLocalIP, ZR_USHORT usLocalPort, const std::string &strServerIP,
                              ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID)
{
    if (CObserverList::insideNotification())
        return nullptr;
    const ACE_Guard<ACE_Thread_Mutex> oGuard(g_oMediaCtrlListMutex);
    if (!oGuard.locked())
        return nullptr;
    // its place first: once the object is there, nothing can fail any more
    std::list<CIMediaCtrl *> lstNew(1, nullptr);
    lstNew.front() = new CRtspMediaCtrl(ulPortID, strSrcUaID, strDstUaID, strLocalIP, usLocalPort, strServerIP,
                                        usServerPort, ulAOIPortID);
    RTSP_IMPL_LOG(INFO, 0, "[%s] succeed create a MediaCtrl Object with SrcUaID : %s",
                  "zr_rtsp.dll::createMediaCtrlInter", strSrcUaID.c_str());
    g_lstMediaCtrl.splice(g_lstMediaCtrl.end(), lstNew);
    return g_lstMediaCtrl.back();
}

ZR_ULONG unregisterObject(CIMediaCtrl *poCIMediaCtrl)
{
    if (CObserverList::insideNotification())
        return ZR_RTSP_LOCK_FAILED;
    const ACE_Guard<ACE_Thread_Mutex> oGuard(g_oMediaCtrlListMutex);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    const auto itFound = std::find(g_lstMediaCtrl.begin(), g_lstMediaCtrl.end(), poCIMediaCtrl);
    if (itFound != g_lstMediaCtrl.end())
        g_lstMediaCtrl.erase(itFound);
    return ZR_RTSP_OK;
}

/// Starts what keeps sessions alive. The timers are not there yet: until then a session lives as long as its server
/// lets it live by its RTCP.
void startKeepLiveTimers(const char *pszFunction)
{
    RTSP_IMPL_LOG(INFO, 0, "[%s] sessions are not kept alive yet: no timers", pszFunction);
}

} // namespace

ZR_ULONG init(ZR_ULONG ulMaxMessageBytes, ZR_ULONG ulConnectTimeoutMs, const char *pszUserAgent, const char *pszCaFile)
{
    static const char szFunction[] = "zr_rtsp.dll::init";
    const auto fnInit = [&]
    {
        const ZR_ULONG ulResult = ZR_MSGDISP_Init(ulMaxMessageBytes, ulConnectTimeoutMs, pszUserAgent, pszCaFile);
        if (ulResult != ZR_RTSP_OK)
        {
            RTSP_IMPL_LOG(ERROR, ulResult, "[%s] Failed to init MsgDispatch Module", szFunction);
            return ulResult;
        }
        g_pAOIMsgDispInter = ZR_MSGDISP_GetAOIMsgDispInter();
        startKeepLiveTimers(szFunction);
        return static_cast<ZR_ULONG>(ZR_RTSP_OK);
    };
    return guarded(FILE_RTSP_IMPL, szFunction, fnInit, ZR_RTSP_FAILED);
}

void destroy()
{
    guarded(FILE_RTSP_IMPL, "zr_rtsp.dll::destroy", [] { ZR_MSGDISP_Destroy(); });
}

CIMediaCtrl *createMediaCtrlInter(ZR_ULONG ulPortID, const std::string &strSrcUaID, const std::string &strDstUaID,
                                  const std::string &strLocalIP, ZR_USHORT usLocalPort, const std::string &strServerIP,
                                  ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID)
{
    const auto fnCreate = [&]
    {
        return createRegistered(ulPortID, strSrcUaID, strDstUaID, strLocalIP, usLocalPort, strServerIP, usServerPort,
                                ulAOIPortID);
    };
    return guarded(FILE_RTSP_IMPL, "zr_rtsp.dll::createMediaCtrlInter", fnCreate, nullptr);
}

ZR_ULONG deleteMediaCtrlInter(CIMediaCtrl **ppoCIMediaCtrl)
{
    static const char szFunction[] = "zr_rtsp.dll::deleteMediaCtrlInter";
    const auto fnDelete = [&]() -> ZR_ULONG
    {
        if (ppoCIMediaCtrl == nullptr || *ppoCIMediaCtrl == nullptr)
        {
            RTSP_IMPL_LOG(WARNING, ZR_RTSP_INVALID_PARAMETER,
                          "[%s] parameter CIMediaCtrl * poCIMediaCtrl can't be NULL", szFunction);
            return ZR_RTSP_INVALID_PARAMETER;
        }
        const ZR_ULONG ulResult = unregisterObject(*ppoCIMediaCtrl);
        if (ulResult != ZR_RTSP_OK)
            return ulResult;
        delete *ppoCIMediaCtrl;
        *ppoCIMediaCtrl = nullptr;
        RTSP_IMPL_LOG(INFO, 0, "[%s] succeed delete the MediaCtrl Object", szFunction);
        return ZR_RTSP_OK;
    };
    return guarded(FILE_RTSP_IMPL, szFunction, fnDelete, ZR_RTSP_FAILED);
}
