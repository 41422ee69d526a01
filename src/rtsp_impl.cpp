#include "rtsp_impl.h"

#include <list>
#include <memory>
#include <unordered_map>

#include "ace/Guard_T.h"
#include "ace/Thread_Mutex.h"

#include "guarded.h"
#include "observer_list.h"
#include "rtsp_mediactrl.h"
#include "session_lock.h"
#include "tw_util.h"
#include "zr_rtsp/zr_rtsp.h"

std::atomic<CIAOIMsgDisp *> g_pAOIMsgDispInter{nullptr};

namespace {

/// The live objects, in the order of their creation; it owns none. It and their places are guarded by the mutex below,
/// which is the first in the order of locks: before an object's and before an observer list's.
std::list<CIMediaCtrl *> g_lstMediaCtrl;
/// Where each stands in it, so that a deletion among thousands searches nothing.
std::unordered_map<CIMediaCtrl *, std::list<CIMediaCtrl *>::iterator> g_mapPlaces;
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
    // its place first, then the object: from there on nothing is lost
    std::list<CIMediaCtrl *> lstNew(1, nullptr);
    auto poNew = std::make_unique<CRtspMediaCtrl>(ulPortID, strSrcUaID, strDstUaID, strLocalIP, usLocalPort,
                                                  strServerIP, usServerPort, ulAOIPortID);
    RTSP_IMPL_LOG(INFO, 0, "[%s] succeed create a MediaCtrl Object with SrcUaID : %s",
                  "zr_rtsp.dll::createMediaCtrlInter", strSrcUaID.c_str());
    g_mapPlaces.emplace(poNew.get(), lstNew.begin());
    lstNew.front() = poNew.release();
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
    const auto itFound = g_mapPlaces.find(poCIMediaCtrl);
    if (itFound != g_mapPlaces.end())
    {
        g_lstMediaCtrl.erase(itFound->second);
        g_mapPlaces.erase(itFound);
    }
    return ZR_RTSP_OK;
}

/// Handles of the keep-alive timers, 0: none. Written by init and destroy, which a host calls one after the other.
ZR_ULONG g_ulRtspKeepLiveTimer = 0;
ZR_ULONG g_ulOnvifKeepLiveTimer = 0;

constexpr ZR_ULONG ONVIF_KEEPLIVE_PERIOD_MS = 30000;

/// A timer's callback: one keep-alive step of every object, under the registry's mutex, so that a step never meets an
/// object that is being destroyed.
template <void (CRtspMediaCtrl::*pmStep)()>
void keepLiveForRtsp(void * /*pvUser*/)
{
    static const char szFunction[] = "zr_rtsp.dll::keepLiveForRtsp";
    guarded(FILE_RTSP_IMPL, szFunction, [] {
        const ACE_Guard<ACE_Thread_Mutex> oGuard(g_oMediaCtrlListMutex);
        if (!oGuard.locked())
            return;
        for (CIMediaCtrl *poCIMediaCtrl : g_lstMediaCtrl)
        {
            auto *poMediaCtrl = dynamic_cast<CRtspMediaCtrl *>(poCIMediaCtrl);
            if (poMediaCtrl == nullptr)
                RTSP_IMPL_LOG(WARNING, ZR_RTSP_FAILED, "[%s] The RtspMediaCtrl is not support", szFunction);
            else
                (poMediaCtrl->*pmStep)();
        }
    });
}

void stopTimer(ZR_ULONG &ulTimer, const char *pszFunction)
{
    if (ulTimer == 0)
        return;
    const ZR_ULONG ulResult = TW_StopIndependTimer(ulTimer);
    if (ulResult != ZR_RTSP_OK)
        RTSP_IMPL_LOG(ERROR, ulResult, "[%s] stop timer for rtsp keeping live failed.", pszFunction);
    ulTimer = 0;
}

} // namespace

ZR_ULONG init(ZR_ULONG ulMaxMessageBytes, ZR_ULONG ulConnectTimeoutMs, const char *pszUserAgent, const char *pszCaFile)
{
    static const char szFunction[] = "zr_rtsp.dll::init";
    const auto fnInit = [&] {
        const ZR_ULONG ulResult = ZR_MSGDISP_Init(ulMaxMessageBytes, ulConnectTimeoutMs, pszUserAgent, pszCaFile);
        if (ulResult != ZR_RTSP_OK)
        {
            RTSP_IMPL_LOG(ERROR, ulResult, "[%s] Failed to init MsgDispatch Module", szFunction);
            return ulResult;
        }
        g_pAOIMsgDispInter = ZR_MSGDISP_GetAOIMsgDispInter();
        TW_StartIndependTimer(KEEPLIVE_TICK_MS, keepLiveForRtsp<&CRtspMediaCtrl::keepLive>, nullptr,
                              &g_ulRtspKeepLiveTimer);
        TW_StartIndependTimer(ONVIF_KEEPLIVE_PERIOD_MS, keepLiveForRtsp<&CRtspMediaCtrl::onvifKeepLive>, nullptr,
                              &g_ulOnvifKeepLiveTimer);
        return static_cast<ZR_ULONG>(ZR_RTSP_OK);
    };
    return guarded(FILE_RTSP_IMPL, szFunction, fnInit, ZR_RTSP_FAILED);
}

void destroy()
{
    static const char szFunction[] = "zr_rtsp.dll::destroy";
    guarded(FILE_RTSP_IMPL, szFunction, [] {
        stopTimer(g_ulRtspKeepLiveTimer, szFunction);
        stopTimer(g_ulOnvifKeepLiveTimer, szFunction);
        ZR_MSGDISP_Destroy();
    });
}

CIMediaCtrl *createMediaCtrlInter(ZR_ULONG ulPortID, const std::string &strSrcUaID, const std::string &strDstUaID,
                                  const std::string &strLocalIP, ZR_USHORT usLocalPort, const std::string &strServerIP,
                                  ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID)
{
    const auto fnCreate = [&] {
        return createRegistered(ulPortID, strSrcUaID, strDstUaID, strLocalIP, usLocalPort, strServerIP, usServerPort,
                                ulAOIPortID);
    };
    return guarded(FILE_RTSP_IMPL, "zr_rtsp.dll::createMediaCtrlInter", fnCreate, nullptr);
}

ZR_ULONG deleteMediaCtrlInter(CIMediaCtrl **ppoCIMediaCtrl)
{
    static const char szFunction[] = "zr_rtsp.dll::deleteMediaCtrlInter";
    const auto fnDelete = [&]() -> ZR_ULONG {
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
