#include "observer_list.h"

#include <algorithm>

#include "ace/Guard_T.h"

#include "guarded.h"
#include "session_lock.h"

namespace {

thread_local unsigned g_uiNotificationDepth = 0;

class CNotificationScope
{
public:
    CNotificationScope() { ++g_uiNotificationDepth; }
    ~CNotificationScope() { --g_uiNotificationDepth; }
    CNotificationScope(const CNotificationScope &) = delete;
    CNotificationScope &operator=(const CNotificationScope &) = delete;
};

} // namespace

CObserverList::CObserverList()
    : m_oMutex(nullptr, errorCheckingAttributes())
{
}

ZR_ULONG CObserverList::add(CIMediaCtrlObserver *pObserver)
{
    if (pObserver == nullptr)
        return ZR_RTSP_INVALID_PARAMETER;
    if (insideNotification())
        return ZR_RTSP_LOCK_FAILED;
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    if (std::find(m_lstObservers.begin(), m_lstObservers.end(), pObserver) != m_lstObservers.end())
        return ZR_RTSP_OBSERVER_ATTACHED;
    m_lstObservers.push_back(pObserver);
    return ZR_RTSP_OK;
}

ZR_ULONG CObserverList::remove(CIMediaCtrlObserver *pObserver)
{
    if (pObserver == nullptr)
        return ZR_RTSP_INVALID_PARAMETER;
    if (insideNotification())
        return ZR_RTSP_LOCK_FAILED;
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    const auto itFound = std::find(m_lstObservers.begin(), m_lstObservers.end(), pObserver);
    if (itFound == m_lstObservers.end())
        return ZR_RTSP_OBSERVER_ABSENT;
    m_lstObservers.erase(itFound);
    return ZR_RTSP_OK;
}

void CObserverList::notify(ZR_ULONG *pulCode, uintptr_t ulArgument)
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    if (!oGuard.locked())
        return;
    const CNotificationScope oScope;
    for (CIMediaCtrlObserver *pObserver : m_lstObservers)
        guarded(FILE_RTSP_MEDIACTRL, "CObserverList::notify", [&] { pObserver->notify(pulCode, ulArgument); });
}

bool CObserverList::insideNotification()
{
    return g_uiNotificationDepth > 0;
}
