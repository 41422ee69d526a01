// What the host orders for a session: answers to challenges, headers of its own, and that nobody waits any longer.

#include <string_view>

#include "digest.h"
#include "platform_log.h"
#include "result_codes.h"
#include "session_channel.h"

namespace zr::dispatch {

/// Whether a request goes out with the host's credentials. No other server than the session's own may see them, also
/// where a redirect leads.
bool SessionChannel::authenticates(const Orders &orders) const
{
    return orders.credentials && m_authenticator.challenge() != 0 && m_target.address == m_asked.address;
}

/// Whether a password may go out as it is.
bool SessionChannel::mayShow(const Credentials &credentials) const
{
    return credentials.mayShow || m_connection->secure();
}

/// Adds to the bytes of a request.
/// @return the number of the challenge that it answers now
unsigned SessionChannel::addOrders(std::string &bytes, const Orders &orders)
{
    if (!orders.credentials && orders.headers.empty())
        return 0;
    std::string_view line = bytes;
    const std::string_view method = line.substr(0, line.find(' '));
    line.remove_prefix(method.size() + 1);
    const std::string_view uri = line.substr(0, line.find(' '));
    const util::SecretText value(authenticates(orders) ? m_authenticator.authorization(*orders.credentials, method, uri,
                                                                                       mayShow(*orders.credentials))
                                                       : std::string());
    const std::string lines = orders.linesFor(method);
    constexpr std::string_view name = "Authorization: ";
    constexpr std::string_view end = "\r\n";
    bytes.resize(bytes.size() - end.size()); // the blank line comes last
    // so that it is not moved, which would leave a copy
    bytes.reserve(bytes.size() + name.size() + value.text().size() + lines.size() + 2 * end.size());
    if (!value.text().empty())
        bytes.append(name).append(value.text()).append(end);
    bytes.append(lines).append(end);
    return value.text().empty() ? 0 : m_authenticator.challenge();
}

SessionChannel::Authentication SessionChannel::authenticate(const Exchange &exchange, const rtsp::Message &response)
{
    const auto orders = m_registration->orders->current();
    if (response.status != statusUnauthorized || !orders->credentials)
        return Authentication::None;
    const AcceptedPtr &accepted = exchange.accepted;
    const bool elsewhere = !(m_target.address == m_asked.address);
    std::string problem = "another server, where it was redirected to, asks for credentials, and is not given these";
    const auto verdict = elsewhere ? Authenticator::Verdict::Refused
                                   : m_authenticator.take(response, {exchange.challenge, accepted->answered},
                                                          mayShow(*orders->credentials), problem);
    switch (verdict)
    {
    case Authenticator::Verdict::Answer:
        ++accepted->answered;
        accepted->repeated = false; // it is another one now
        m_exchanges.again(accepted);
        return Authentication::Again;
    case Authenticator::Verdict::Refused:
        if (accepted->own)
            return Authentication::None;
        ZR_PLATFORM_LOG(WARNING, statusUnauthorized, Dispatch, "%s: %s fails: %s", name().c_str(),
                        methodOf(exchange.messageId), problem.c_str());
        if (!isDroppable(exchange.messageId))
            m_registration->refusal.set({elsewhere ? statusForbidden : statusUnauthorized, problem});
        deliver(failureAnswer(accepted->request, statusForbidden)); // 401 is for one who has other credentials
        return Authentication::Refused;
    case Authenticator::Verdict::Unusable:
        break;
    }
    if (mayNote())
        ZR_PLATFORM_LOG(WARNING, statusUnauthorized, Dispatch, "%s: the host's credentials are of no use for %s",
                        name().c_str(), problem.c_str());
    return Authentication::None;
}

void SessionChannel::giveUp()
{
    if (m_life != Life::Open)
        return;
    for (const AcceptedPtr &accepted : m_exchanges.giveUp())
        refuse(*accepted, statusServiceUnavailable, givenUp);
    pump(); // a TEARDOWN may have waited behind
}

} // namespace zr::dispatch
