/// @file
/// What keeps an object whole while threads are in it: the guard on its mutex, and the count of calls inside.
#pragma once

#include <condition_variable>
#include <mutex>

#include "ace/Guard_T.h"
#include "ace/Recursive_Thread_Mutex.h"

#include "zr_types.h"

/// Attributes of a mutex that refuses the thread that holds it already, instead of hanging it for ever: a guard then
/// reports that it does not hold the lock. Valid as long as the library is loaded.
ACE_mutexattr_t *errorCheckingAttributes();

/// A scoped guard on an object's recursive mutex that also counts how deep its thread holds it: a wait on the object's
/// condition must let go every level, and the condition itself lets go one.
class CObjectGuard
{
public:
    /// @param ulDepth  the count, guarded by the mutex itself
    CObjectGuard(ACE_Recursive_Thread_Mutex &oMutex, ZR_ULONG &ulDepth)
        : m_oGuard(oMutex)
        , m_ulDepth(ulDepth)
    {
        if (locked())
            ++m_ulDepth;
    }
    ~CObjectGuard() { release(); }
    CObjectGuard(const CObjectGuard &) = delete;
    CObjectGuard &operator=(const CObjectGuard &) = delete;

    /// Every user tests this: a lock that was not obtained is a failure (10109).
    bool locked() const { return m_oGuard.locked() != 0; }

    void release()
    {
        if (!locked())
            return;
        --m_ulDepth;
        m_oGuard.release();
    }

    /// Takes the lock again after release().
    bool retake()
    {
        m_oGuard.acquire();
        if (locked())
            ++m_ulDepth;
        return locked();
    }

private:
    ACE_Guard<ACE_Recursive_Thread_Mutex> m_oGuard;
    ZR_ULONG &m_ulDepth;
};

/// Lets every level of an object's mutex go but the one that a condition's wait lets go itself, and takes them all back
/// at the end, also when the wait is left by a cancellation.
class CLevelsLetGo
{
public:
    CLevelsLetGo(ACE_Recursive_Thread_Mutex &oMutex, ZR_ULONG &ulDepth)
        : m_oMutex(oMutex)
        , m_ulDepth(ulDepth)
        , m_ulLevels(ulDepth)
    {
        m_ulDepth = 0; // who takes the lock meanwhile counts from the start
        for (ZR_ULONG ulLevel = 1; ulLevel < m_ulLevels; ++ulLevel)
            m_oMutex.release();
    }
    ~CLevelsLetGo()
    {
        for (ZR_ULONG ulLevel = 1; ulLevel < m_ulLevels; ++ulLevel)
            m_oMutex.acquire();
        m_ulDepth = m_ulLevels;
    }
    CLevelsLetGo(const CLevelsLetGo &) = delete;
    CLevelsLetGo &operator=(const CLevelsLetGo &) = delete;

private:
    ACE_Recursive_Thread_Mutex &m_oMutex;
    ZR_ULONG &m_ulDepth;
    const ZR_ULONG m_ulLevels;
};

/// Counts the calls that are inside an object. Its own lock is taken last and held for nothing but the count.
class CCallCount
{
public:
    void enter()
    {
        const std::lock_guard<std::mutex> oLock(m_oMutex);
        ++m_ulCalls;
    }

    void leave()
    {
        // notified under the lock: once it is let go, the waiting destructor may free all this
        const std::lock_guard<std::mutex> oLock(m_oMutex);
        if (--m_ulCalls == 0)
            m_oNobodyInside.notify_all();
    }

    /// Waits until nobody is inside; the destructor's, after which no call may begin.
    void waitForNobody()
    {
        std::unique_lock<std::mutex> oLock(m_oMutex);
        m_oNobodyInside.wait(oLock, [this] { return m_ulCalls == 0; });
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oNobodyInside;
    ZR_ULONG m_ulCalls = 0;
};

/// One call inside an object, from its first to its last line.
class CCallInside
{
public:
    explicit CCallInside(CCallCount &oCalls)
        : m_oCalls(oCalls)
    {
        m_oCalls.enter();
    }
    ~CCallInside() { m_oCalls.leave(); }
    CCallInside(const CCallInside &) = delete;
    CCallInside &operator=(const CCallInside &) = delete;

private:
    CCallCount &m_oCalls;
};
