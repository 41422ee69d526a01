#include "session_keeper.h"

#include <algorithm>
#include <utility>

#include "rtsp_text.h"

namespace zr::dispatch {

SessionKeeper::SessionKeeper(IoLoop &loop, const Settings &settings, std::function<void()> due)
    : m_settings(settings)
    , m_due(std::move(due))
    , m_timer(loop, [this] { onTimer(); })
{
}

milliseconds SessionKeeper::timeout() const
{
    return m_timeoutSeconds * m_settings.sessionSecond;
}

milliseconds SessionKeeper::patience() const
{
    return m_timeoutSeconds < m_settings.servedTimeout ? timeout() / 2 : timeout() * 3 / 4;
}

void SessionKeeper::sent(ZR_ULONG messageId, std::string_view shown)
{
    m_heard = SteadyClock::now();
    if (!shown.empty() && (messageId == AOI_MSG_RTSP_OPTIONS || rtsp::beginsWith(shown, "Basic ")))
        m_authorization = shown;
}

void SessionKeeper::watch(const Session &session)
{
    if (session.setups == 0 || session.id.empty() || session.timeoutSeconds == m_timeoutSeconds)
        return;
    m_timeoutSeconds = session.timeoutSeconds;
    m_timer.start(patience());
}

void SessionKeeper::missed()
{
    if (m_timeoutSeconds == 0)
        return;
    m_heard = SteadyClock::now() - patience() / 2;
    m_timer.start(patience() / 2);
}

void SessionKeeper::stop()
{
    m_timeoutSeconds = 0;
    m_authorization.clear();
    m_timer.stop();
}

void SessionKeeper::onTimer()
{
    const auto silent = std::chrono::duration_cast<milliseconds>(SteadyClock::now() - m_heard);
    if (silent < patience())
    {
        m_timer.start(patience() - silent + milliseconds(1));
        return;
    }
    m_timer.start(std::max(patience() / 4, milliseconds(1))); // in case this one has to wait for its turn
    m_due();
}

} // namespace zr::dispatch
