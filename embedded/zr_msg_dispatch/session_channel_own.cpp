// What the platform asks a server for of its own accord: signs of life, and the end of a session that nobody was given.

#include <utility>

#include "platform_log.h"
#include "result_codes.h"
#include "rtsp_text.h"
#include "session_channel.h"

namespace zr::dispatch {

/// The server is to hear of its session.
void SessionChannel::keepAlive()
{
    aoi::Request request;
    request.messageId = AOI_MSG_RTSP_OPTIONS;
    request.authorization = m_keeper.authorization();
    submitOwn(std::move(request));
}

void SessionChannel::submitOwn(aoi::Request request)
{
    request.sourceId = m_registration->id;
    const auto accepted = std::make_shared<Accepted>(m_registration, std::move(request),
                                                     SteadyClock::now() + m_services.settings.requestTimeout);
    accepted->own = true;
    submit(accepted);
}

/// It stays here; what it says of the session counts.
void SessionChannel::takeOwnAnswer(const Exchange &exchange, const rtsp::Message &response)
{
    if (isTeardown(exchange.messageId))
    {
        m_tornDown = isSuccess(response);
        return;
    }
    if (m_doubted && response.status == statusSessionNotFound)
    {
        m_connection->close();
        lost("the server knows the session no longer, it may have restarted", false);
        return;
    }
    mapResponse(exchange.accepted->request, exchange.url, response, m_session, m_connection->ends());
    noteFacts(exchange, response);
    if (isSuccess(response))
        return;
    if (mayNote())
        ZR_PLATFORM_LOG(WARNING, codeProtocol, Dispatch, "%s: the keep-alive is answered %d", name().c_str(),
                        response.status);
    if (response.status == statusMethodNotAllowed || response.status == statusNotImplemented)
    {
        m_session.publicMethods.clear(); // what it listed it does not know
        m_keeper.missed();
    }
}

/// Whether a SETUP began the session, its requester knowing of none.
bool SessionChannel::isUnknown(const aoi::Request &request) const
{
    const bool setsUp = request.messageId == AOI_MSG_RTSP_SETUP && request.transport && request.transport->method;
    return setsUp && request.sessionId.empty() && m_session.setups == 1 && !m_session.id.empty();
}

/// Where its requester is told that the SETUP has failed, the server is not to hold the session until its time-out: it
/// may have no other for the next attempt. Nobody waits for the answer.
/// @param url  that was set up
void SessionChannel::endUnknown(const aoi::Request &setup, const std::string &url)
{
    aoi::Request request;
    request.messageId = AOI_MSG_RTSP_TEARDOWN;
    request.sessionId = std::exchange(m_session.id, {});
    request.url = url;
    if (rtsp::beginsWith(setup.authorization, "Basic ")) // a Digest is that of SETUP
        request.authorization = setup.authorization;
    m_session.setups = 0;
    submitOwn(std::move(request));
}

} // namespace zr::dispatch
