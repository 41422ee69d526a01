// The rendezvous of a waiting request with its answer.

#include "rtsp_mediactrl.h"

#include "ace/Monotonic_Time_Policy.h"
#include "ace/Time_Value.h"

#include "windows_kernel.h"

namespace {

constexpr ZR_ULONG RESPONSE_TIMEOUT_SECONDS = 25;

ACE_Time_Value timeOfDay()
{
    constexpr uint64_t UNITS_A_SECOND = 10'000'000; // of 100 ns
    constexpr uint64_t SECONDS_1601_TO_1970 = 11'644'473'600;
    FILETIME stNow = {};
    GetSystemTimeAsFileTime(&stNow);
    const uint64_t ullUnits = (static_cast<uint64_t>(stNow.dwHighDateTime) << 32) | stNow.dwLowDateTime;
    return ACE_Time_Value(static_cast<time_t>(ullUnits / UNITS_A_SECOND - SECONDS_1601_TO_1970),
                          static_cast<suseconds_t>(ullUnits % UNITS_A_SECOND / 10));
}

/// Reads the high-resolution counter, in whole milliseconds.
/// @return false when it has no frequency (asked once a process) or cannot be read
bool counterNow(ACE_Time_Value &oNow)
{
    static const int64_t llFrequency = [] {
        LARGE_INTEGER stFrequency = {};
        return QueryPerformanceFrequency(&stFrequency) != 0 ? stFrequency.QuadPart : 0;
    }();
    LARGE_INTEGER stCounter = {};
    if (llFrequency <= 0 || QueryPerformanceCounter(&stCounter) == 0)
        return false;
    const int64_t llMilliseconds = stCounter.QuadPart % llFrequency * 1000 / llFrequency;
    oNow.set(static_cast<time_t>(stCounter.QuadPart / llFrequency), static_cast<suseconds_t>(llMilliseconds * 1000));
    return true;
}

/// The deadline on the monotonic clock, on which the condition measures it.
ACE_Time_Value deadlineAfter(ZR_ULONG ulSeconds)
{
    const ACE_Time_Value oTimeout(static_cast<time_t>(ulSeconds), 0);
    ACE_Time_Value oNow;
    if (counterNow(oNow))
        return oNow + oTimeout;
    const ACE_Time_Value oDeadline = timeOfDay() + oTimeout;
    return ACE_Monotonic_Time_Policy()() + (oDeadline - timeOfDay());
}

} // namespace

/// Waits for an answer to the newest exchange, that of the caller. The wait lets m_oMutex go, every level of it.
/// @return 0 when it was answered; -1 when the deadline passed, a later exchange overtook it, or the object is leaving
int CRtspMediaCtrl::waitForResponse(ZR_ULONG ulSeconds)
{
    const std::shared_ptr<tagExchange> poExchange = m_poExchange;
    const ACE_Time_Value oDeadline = deadlineAfter(ulSeconds);
    while (!poExchange->bMarked && !poExchange->bOvertaken && !m_bLeaving)
    {
        const CLevelsLetGo oLetGo(m_oMutex, m_ulLockDepth);
        if (m_oCond.wait(&oDeadline) != 0)
            break;
    }
    return poExchange->bMarked ? 0 : -1;
}

/// Wakes all who wait; each looks into its own exchange.
int CRtspMediaCtrl::signalResponse()
{
    return m_oCond.broadcast();
}

/// Opens a new exchange and sets its waiting state. One that is outstanding is overtaken: it ends at once, and what it
/// would have left is what the new one puts back.
void CRtspMediaCtrl::beginExchange(const tagExchangeRule &stRule)
{
    const auto poExchange = std::make_shared<tagExchange>();
    poExchange->stRule = stRule;
    poExchange->ulStateBefore = m_ulState;
    if (m_poExchange != nullptr)
    {
        m_poExchange->bOvertaken = true;
        poExchange->ulStateBefore = m_poExchange->stateAfter(m_ulState);
        signalResponse();
    }
    m_poExchange = poExchange;
    m_ulState = stRule.ulWait;
    m_ulRspResult = ZR_RTSP_FAILED;
}

/// Leaves the state that an exchange's rule gives; one that was overtaken leaves nothing.
void CRtspMediaCtrl::endExchange(const tagExchange &stExchange)
{
    if (stExchange.bOvertaken)
        return;
    m_ulState = stExchange.stateAfter(m_ulState);
    m_poExchange.reset();
}

/// Waits for the answer to a request that was just sent, and leaves the state that the rule gives.
/// @param oGuard       the caller's; released and taken again after the wait where the rule says so, not held after
///                     lockLost
/// @param ulRspResult  receives the answer's result
EOutcome CRtspMediaCtrl::exchange(const tagExchangeRule &stRule, CObjectGuard &oGuard, ZR_ULONG &ulRspResult)
{
    beginExchange(stRule);
    const std::shared_ptr<tagExchange> poExchange = m_poExchange;
    try
    {
        waitForResponse(RESPONSE_TIMEOUT_SECONDS);
    }
    catch (...) // a cancelled thread must not leave the object waiting
    {
        endExchange(*poExchange);
        throw;
    }
    if (stRule.bRetake)
    {
        oGuard.release();
        if (!oGuard.retake())
            return EOutcome::lockLost;
    }
    // judged once, here: an answer may have come while the lock was free
    ulRspResult = poExchange->ulRspResult;
    if (stRule.bIdleEnds && !poExchange->bOvertaken && m_ulState == MEDIACTRL_STATE_IDLE)
    {
        m_poExchange.reset();
        return EOutcome::idle;
    }
    endExchange(*poExchange);
    return poExchange->outcome();
}

/// Waits for the answer to a request that was just sent; logs what came of it unless that is a good one.
/// @return 0, 10109, or the status of the failure
ZR_ULONG CRtspMediaCtrl::conclude(const char *pszFunction, const tagExchangeRule &stRule, CObjectGuard &oGuard,
                                  const tagConclusion &stConclusion)
{
    const auto fnFailed = [&](const tagExchangeFailure &stFailure, auto... tResult) {
        logText(stFailure.enLevel, stFailure.ulCode, stFailure.stText, pszFunction, tResult...);
        return stFailure.ulStatus;
    };
    ZR_ULONG ulRspResult = 0;
    switch (exchange(stRule, oGuard, ulRspResult))
    {
    case EOutcome::lockLost:
        return ZR_RTSP_LOCK_FAILED;
    case EOutcome::idle:
        return fnFailed(stConclusion.stIdle);
    case EOutcome::timedOut:
        return fnFailed(stConclusion.stTimedOut);
    case EOutcome::refused:
        return fnFailed(stConclusion.stRefused, ulRspResult);
    case EOutcome::answered:
        break;
    }
    return ZR_RTSP_OK;
}

/// The end of every answer that was taken: marks the exchange it belongs to, and wakes who waits. That once the mutex
/// is let go: who is woken before only wakes to sleep again, on the mutex, which was a third of an answer's price.
/// @param ulWait  the waiting state of the answer's kind
/// @param oGuard  the caller's; released
ZR_ULONG CRtspMediaCtrl::acceptAnswer(const char *pszFunction, ZR_ULONG ulWait, CObjectGuard &oGuard)
{
    if (m_poExchange != nullptr && m_poExchange->stRule.ulWait == ulWait && !m_poExchange->bMarked)
    {
        m_poExchange->bMarked = true;
        m_poExchange->ulState = m_ulState;
        m_poExchange->ulRspResult = m_ulRspResult;
    }
    oGuard.release();
    if (signalResponse() != 0)
    {
        RTSP_LOG(ERROR, ZR_RTSP_SIGNAL_FAILED, "[%s] condition signal failed", pszFunction);
        return ZR_RTSP_SIGNAL_FAILED;
    }
    return ZR_RTSP_OK;
}
