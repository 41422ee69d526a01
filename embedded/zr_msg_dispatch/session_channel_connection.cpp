// Where a session's connection leads: by its route and URL, and by redirects.

#include <utility>

#include "platform_log.h"
#include "rtsp_text.h"
#include "session_channel.h"
#include "wire_trace.h"

namespace zr::dispatch {

namespace {

bool isRedirect(const rtsp::Message &response)
{
    return response.status == 301 || response.status == 302 || response.status == 303 || response.status == 307;
}

} // namespace

bool SessionChannel::Target::operator==(const Target &other) const
{
    return address == other.address && secure == other.secure && certificateHost == other.certificateHost;
}

/// Opens the connection when this request may. @return whether there is one
bool SessionChannel::prepareConnection(const Accepted &accepted)
{
    if (accepted.target)
    {
        const auto url = askedUrl(accepted.request, m_session);
        const bool secure = url && url->secure;
        const Target target{*accepted.target, secure, secure ? url->host : std::string()};
        if (leadsElsewhere(accepted, target))
        {
            if (m_connection)
                failAll("the route leads elsewhere now");
            dropConnection();
            if (m_interleaved)
                closePort();
            resetSession();
            m_redirect.reset();
            m_asked = target;
            m_target = target;
        }
    }
    if (m_connection)
        return true;
    if (!accepted.target && !m_mayReconnect)
        return false;
    openConnection(accepted);
    return true;
}

/// A DESCRIBE asks anew; a SETUP follows a description, whose server may write rtsp (or an inner host) where it was
/// asked by rtsps: that stays as secure as it was.
bool SessionChannel::leadsElsewhere(const Accepted &accepted, const Target &target) const
{
    if (accepted.request.messageId != AOI_MSG_RTSP_DESCRIBE && (m_target.secure || !target.secure))
        return target.address != m_asked.address;
    const bool redirected = m_redirect && wireUrl(accepted.request, m_session) != m_redirect->from;
    return redirected || !(target == m_asked);
}

/// Asks again where a redirect of DESCRIBE leads (RFC 2326, 11.3).
/// @return false when it does not: the answer is the requester's
bool SessionChannel::follow(const Exchange &exchange, const rtsp::Message &response)
{
    constexpr unsigned mostRedirects = 3;
    if (exchange.messageId != AOI_MSG_RTSP_DESCRIBE || !isRedirect(response))
        return false;
    const AcceptedPtr &accepted = exchange.accepted;
    const auto target = redirectTarget(exchange.url, response);
    const auto url = target ? parseUrl(*target) : std::nullopt;
    const char *const obstacle = !url                                   ? "it leads nowhere, or out of TLS"
                                 : accepted->redirects == mostRedirects ? "too many came one after the other"
                                 : m_session.setups > 0                 ? "a session is set up"
                                                                        : nullptr;
    const std::string *const header = response.find("Location");
    const std::string location = rtsp::quoted(header ? *header : "");
    if (obstacle)
    {
        ZR_PLATFORM_LOG(WARNING, static_cast<ZR_ULONG>(response.status), Dispatch,
                        "%s: the redirect %d to %s is not followed: %s", name().c_str(), response.status,
                        location.c_str(), obstacle);
        return false;
    }
    ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: redirected (%d) to %s", name().c_str(), response.status, location.c_str());
    ++accepted->redirects;
    accepted->answered = 0;
    m_redirect = Redirect{wireUrl(accepted->request, m_session), url->withoutCredentials};
    m_exchanges.restart(accepted);
    leadTo(*url, *accepted);
    pump();
    return true;
}

void SessionChannel::leadTo(const Url &url, const Accepted &accepted)
{
    const Target target{{url.host, url.port}, url.secure, url.secure ? url.host : std::string()};
    if (target == m_target)
        return;
    dropConnection();
    resetSession();
    m_target = target;
    openConnection(accepted);
}

/// A server that closes after each answer, as in HTTP, may do so when the next request is under way already: it goes
/// out again, once, on a connection of its own. So it does within a session over UDP, which no connection ends (RFC
/// 2326, 1.1), when it does no harm, or was not read. Should a reset have been a restart, its answer will tell.
/// @return false when it may not, or the server has answered nothing on the connection
bool SessionChannel::askAgain(const Connection &closed)
{
    const bool ends = m_exchanges.hasTeardown();
    const bool within = m_session.setups > 0 || ends;
    const bool unread = closed.cutOff();
    const bool wanted =
        (m_life == Life::Open && m_exchanges.awaited()) || (unread && (ends || m_exchanges.hasKeepAlive(true)));
    if (!m_answered || !wanted || (!within && m_life != Life::Open))
        return false;
    if ((within && (m_interleaved || closed.tunnelled() || m_tornDown)) || !m_exchanges.repeatable(within && !unread))
        return false;
    ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: the server closed the connection instead of answering, it is asked again",
                    name().c_str());
    openConnection(*m_exchanges.repeat());
    return true;
}

/// Where a tunnel is taken: where RTSP is, but for those servers whose RTSP has a port of its own.
uint16_t SessionChannel::tunnelPort(const Orders &orders) const
{
    if (orders.tunnelPort != 0 && m_target.address == m_asked.address)
        return orders.tunnelPort;
    const uint16_t port = m_target.address.port;
    return port == 554 ? 80 : port == 322 ? 443 : port;
}

std::unique_ptr<TunnelPlan> SessionChannel::planTunnel(const Accepted &cause, const Orders &orders, uint16_t port) const
{
    auto plan = std::make_unique<TunnelPlan>();
    const std::string wired = wireUrl(cause.request, m_session);
    const std::string &url = m_redirect && wired == m_redirect->from ? m_redirect->to : wired;
    const size_t authority = url.find("://");
    const size_t path = authority == std::string::npos ? authority : rtsp::firstOf("/?", url, authority + 3);
    plan->path = path < url.size() ? url.substr(path, url.find('#', path) - path) : "/";
    if (plan->path.front() == '?')
        plan->path.insert(0, 1, '/');
    plan->host = hostAndPort({m_target.address.host, port});
    plan->oneConnection = orders.tunnel == ZR_TUNNEL_HTTP_ONE;
    if (m_target.address == m_asked.address)
        plan->credentials = orders.credentials;
    return plan;
}

/// @param cause  the request that needs it
void SessionChannel::openConnection(const Accepted &cause)
{
    m_mayReconnect = false;
    m_notes = 0;
    m_announced = 0;
    m_wasUp = false;
    m_answered = false;
    Connection::Owner &owner = *this;
    const auto orders = m_registration->orders->current();
    const uint16_t port = orders->tunnelled() ? tunnelPort(*orders) : m_target.address.port;
    m_connection = std::make_shared<Connection>(
        m_services.loop, m_services.settings, owner,
        m_target.secure ? Security{m_services.tls, m_target.certificateHost} : Security(), m_registration->id,
        orders->tunnelled() ? planTunnel(cause, *orders, port) : nullptr);
    Resolved numeric = resolveNumeric(m_target.address.host, port);
    const bool known = !numeric.addresses.empty();
    m_connection->open(std::move(numeric.addresses));
    if (known)
        return;
    // neither side keeps the other alive: the answer is for this connection, if it still waits
    m_services.resolver.resolve(
        m_target.address.host, port,
        [jobs = m_services.loop.jobs(), waiting = std::weak_ptr<Connection>(m_connection)](Resolved names) {
            jobs->post([waiting, names = std::move(names)] {
                if (const auto connection = waiting.lock())
                    connection->takeAddresses(names.addresses, names.error);
            });
        });
}

void SessionChannel::dropConnection()
{
    if (m_connection)
        m_connection->close();
    m_connection.reset();
}

} // namespace zr::dispatch
