/// @file
/// The observers of one object, and the count of notifications that the running thread is inside.
#pragma once

#include <list>

#include "ace/Thread_Mutex.h"

#include "zr_rtsp/media_ctrl.h"

/// Pointers to the host's observers, in the order in which they were attached; it owns none.
///
/// The list's mutex is taken last: after the registry's and after an object's. Observers are called with it held, so
/// that an observer that was detached is not called any more. From inside a notification, of whichever object, adding
/// and removing are refused with 10109: two notifications could wait for each other's lists.
class CObserverList
{
public:
    CObserverList();

    /// @return 0; 2 for NULL; 10051 when it is there already; 10109 when the lock could not be obtained
    ZR_ULONG add(CIMediaCtrlObserver *pObserver);
    /// @return 0; 2 for NULL; 10052 when it is not there; 10109 when the lock could not be obtained
    ZR_ULONG remove(CIMediaCtrlObserver *pObserver);
    /// Calls every observer, in order; nobody when the lock could not be obtained.
    void notify(ZR_ULONG *pulCode, uintptr_t ulArgument);

    /// Whether the running thread is inside a notification, of whichever object. What would wait for that thread, or
    /// for a lock that its caller holds, must then refuse.
    static bool insideNotification();

private:
    ACE_Thread_Mutex m_oMutex;
    std::list<CIMediaCtrlObserver *> m_lstObservers;
};
