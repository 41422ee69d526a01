/// @file
/// When a session needs a sign of life.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "aoi_message.h"
#include "io_loop.h"
#include "mapping.h"
#include "settings.h"

namespace zr::dispatch {

/// Watches that a server hears of its session in time: at half the session's time-out without a request, or at three
/// quarters where the time-out is so long that the requester's own keep-alives serve it. On the loop's turn.
class SessionKeeper
{
public:
    /// @param due  sends a keep-alive
    SessionKeeper(IoLoop &loop, const Settings &settings, std::function<void()> due);

    /// A request of the session was sent.
    /// @param shown  its Authorization; may be empty
    void sent(ZR_ULONG messageId, std::string_view shown);
    /// What the session has agreed on by now; it is watched once it is set up.
    void watch(const Session &session);
    /// A keep-alive went down with its connection: the next one is due sooner.
    void missed();
    /// The session is over, its credentials are forgotten.
    void stop();

    /// What a keep-alive may show of the requester's credentials: Basic ones, or the Digest of its last OPTIONS.
    const std::string &authorization() const { return m_authorization; }

private:
    milliseconds timeout() const;
    milliseconds patience() const;
    void onTimer();

    const Settings &m_settings;
    const std::function<void()> m_due;
    unsigned m_timeoutSeconds = 0; ///< 0: not watched
    SteadyClock::time_point m_heard;
    std::string m_authorization;
    LoopTimer m_timer; ///< left alone by requests: it looks when it fires
};

} // namespace zr::dispatch
