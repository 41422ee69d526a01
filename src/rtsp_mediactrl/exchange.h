/// @file
/// The rendezvous of a request that waits with its answer.
#pragma once

#include "log.h"
#include "zr_rtsp/codes.h"
#include "zr_types.h"

/// In place of a state: leave what stands, or put back what the request found.
inline constexpr ZR_ULONG STATE_KEPT = 0xFFFFFFFF;
inline constexpr ZR_ULONG STATE_PUT_BACK = 0xFFFFFFFE;

/// The states of one kind of request: while it waits, what a good answer makes of that, and what it leaves in the end.
struct tagExchangeRule
{
    ZR_ULONG ulWait;
    ZR_ULONG ulAnsweredOK;
    ZR_ULONG ulAfterAnswer;
    ZR_ULONG ulAfterRefusal;
    ZR_ULONG ulAfterTimeout;
    bool bIdleEnds; ///< a state that was set back to idle meanwhile ends it, and stays
    bool bRetake;   ///< the lock is let go and taken again before the outcome is judged
};

inline constexpr tagExchangeRule EXCHANGE_SETUP = {
    MEDIACTRL_STATE_SETUP_WAIT, MEDIACTRL_STATE_SETUP_OK, MEDIACTRL_STATE_SUCCESS, STATE_KEPT, STATE_KEPT, false, true};
/// The relation to a TV wall never changes the session's own state.
inline constexpr tagExchangeRule EXCHANGE_SETUP_TO_TV = {
    MEDIACTRL_STATE_SETUP_WAIT, MEDIACTRL_STATE_SETUP_OK, STATE_PUT_BACK, STATE_PUT_BACK, STATE_PUT_BACK, false, true};
inline constexpr tagExchangeRule EXCHANGE_PLAY = {MEDIACTRL_STATE_PLAY_WAIT,
                                                  MEDIACTRL_STATE_PLAY_OK,
                                                  MEDIACTRL_STATE_PLAY,
                                                  STATE_PUT_BACK,
                                                  STATE_PUT_BACK,
                                                  true,
                                                  true};
inline constexpr tagExchangeRule EXCHANGE_PAUSE = {MEDIACTRL_STATE_PAUSE_WAIT,
                                                   MEDIACTRL_STATE_PAUSE_OK,
                                                   MEDIACTRL_STATE_PAUSE,
                                                   MEDIACTRL_STATE_PLAY,
                                                   MEDIACTRL_STATE_PLAY,
                                                   true,
                                                   true};
/// DESCRIBE has no states of its own: it sets the object ready and tells its outcome by its result alone.
inline constexpr tagExchangeRule EXCHANGE_DESCRIBE = {MEDIACTRL_STATE_SUCCESS,
                                                      MEDIACTRL_STATE_SUCCESS,
                                                      MEDIACTRL_STATE_SUCCESS,
                                                      MEDIACTRL_STATE_SUCCESS,
                                                      MEDIACTRL_STATE_SUCCESS,
                                                      false,
                                                      false};

/// How an exchange ended.
enum class EOutcome
{
    lockLost, ///< the mutex could not be taken again: 10109
    timedOut, ///< or overtaken by a later request, or the object is being destroyed
    idle,     ///< the state was set back to idle meanwhile
    refused,
    answered
};

/// A failed exchange: its log line, and the status that it gives.
struct tagExchangeFailure
{
    tagZrLogLevel enLevel;
    ZR_ULONG ulCode;
    tagLogText stText;
    ZR_ULONG ulStatus;
};

/// What an operation makes of the outcomes other than a good answer; a lock that is lost is 10109 for all.
struct tagConclusion
{
    tagExchangeFailure stIdle;
    tagExchangeFailure stTimedOut;
    tagExchangeFailure stRefused; ///< its text takes the answer's result after the function's name
};

/// One exchange, from the request's wait to the decision on its outcome. Guarded by the object's mutex.
///
/// An answer carries no number: it belongs to the newest exchange, if that is of its kind. An exchange that a later one
/// overtook ends at once, writes no state and reads only what had been marked in its own record: a condition may wake
/// for nothing, or for somebody else.
struct tagExchange
{
    tagExchangeRule stRule;
    ZR_ULONG ulStateBefore; ///< to put back
    bool bOvertaken = false;
    bool bMarked = false; ///< an answer was taken; the next two are what it left
    ZR_ULONG ulState = 0;
    ZR_ULONG ulRspResult = 0;

    EOutcome outcome() const
    {
        if (!bMarked)
            return EOutcome::timedOut;
        return ulState == stRule.ulAnsweredOK ? EOutcome::answered : EOutcome::refused;
    }

    /// The state that stands after it, given the one that stands now.
    ZR_ULONG stateAfter(ZR_ULONG ulStateNow) const
    {
        const EOutcome enOutcome = outcome();
        const ZR_ULONG ulAfter = enOutcome == EOutcome::answered  ? stRule.ulAfterAnswer
                                 : enOutcome == EOutcome::refused ? stRule.ulAfterRefusal
                                                                  : stRule.ulAfterTimeout;
        if (ulAfter == STATE_KEPT)
            return ulStateNow;
        return ulAfter == STATE_PUT_BACK ? ulStateBefore : ulAfter;
    }
};
