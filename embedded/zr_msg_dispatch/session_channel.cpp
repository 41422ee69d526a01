#include "session_channel.h"

#include <algorithm>
#include <utility>

#include "platform_log.h"
#include "result_codes.h"
#include "rtsp_text.h"

namespace zr::dispatch
{

namespace
{

/// A server may make us write so many lines a connection.
constexpr unsigned mostNotes = 20;
/// So many late answers are still recognised.
constexpr size_t mostUnanswered = 32;
constexpr uint32_t largestCseq = 0xFFFFFFFF;

bool isUnauthorized(const rtsp::Message &response)
{
    return response.status == 401;
}

bool isSuccess(const rtsp::Message &response)
{
    return response.status >= 200 && response.status < 300;
}

} // namespace

SessionChannel::SessionChannel(const ChannelServices &services, RegistrationPtr registration,
                               std::function<void()> finished)
    : m_services(services)
    , m_registration(std::move(registration))
    , m_finished(std::move(finished))
    , m_timer(services.loop, [this] { onTimer(); })
    , m_linger(services.loop, [this] { finish(); })
{
}

SessionChannel::~SessionChannel()
{
    dropConnection();
}

std::string SessionChannel::name() const
{
    return "session " + std::to_string(m_registration->id) + " with " + hostAndPort({m_target.host, m_target.port});
}

// ---- requests

void SessionChannel::submit(AcceptedPtr accepted)
{
    if (m_life != Life::Open)
        return;
    const auto url = parseUrl(wireUrl(accepted->request, m_session));
    if (url && url->secure)
    {
        refuse(*accepted, statusServiceUnavailable, "TLS (rtsps) is not there yet");
        return;
    }
    if (isKeepAlive(accepted->request.messageId) && keepAliveWaits())
        return;
    if (!prepareConnection(*accepted))
    {
        if (!isDroppable(accepted->request.messageId))
            refuse(*accepted, statusServiceUnavailable, "there is no connection");
        return;
    }
    m_queue.push_back(std::move(accepted));
    pump();
}

/// Opens the connection when this request may. @return whether there is one
bool SessionChannel::prepareConnection(const Accepted &accepted)
{
    if (accepted.target && (accepted.target->host != m_target.host || accepted.target->port != m_target.port))
    {
        if (m_connection)
            failAll("the route leads elsewhere now");
        dropConnection();
        resetSession();
        m_target = *accepted.target;
    }
    if (m_connection)
        return true;
    if (!accepted.target && !m_mayReconnect)
        return false;
    openConnection();
    return true;
}

void SessionChannel::openConnection()
{
    m_mayReconnect = false;
    m_notes = 0;
    Connection::Owner &owner = *this;
    m_connection = std::make_shared<Connection>(m_services.loop, m_services.settings, owner);
    Resolved numeric = resolveNumeric(m_target.host, m_target.port);
    const bool known = !numeric.addresses.empty();
    m_connection->open(std::move(numeric.addresses));
    if (known)
        return;
    // neither side keeps the other alive: the answer is for this connection, if it still waits
    m_services.resolver.resolve(
        m_target.host, m_target.port,
        [jobs = m_services.loop.jobs(), waiting = std::weak_ptr<Connection>(m_connection)](Resolved names)
        {
            jobs->post(
                [waiting, names = std::move(names)]
                {
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
    m_inFlight.clear();
}

bool SessionChannel::keepAliveWaits() const
{
    return std::any_of(m_queue.begin(), m_queue.end(),
                       [](const AcceptedPtr &accepted) { return isKeepAlive(accepted->request.messageId); }) ||
           std::any_of(m_inFlight.begin(), m_inFlight.end(),
                       [](const Exchange &exchange) { return exchange.accepted && isKeepAlive(exchange.messageId); });
}

/// Whether the next request must wait: for the answer of the one before, but for a keep-alive's only a while.
bool SessionChannel::wireBusy() const
{
    const auto now = Clock::now();
    return std::any_of(m_inFlight.begin(), m_inFlight.end(),
                       [this, now](const Exchange &exchange)
                       {
                           const bool heldLongEnough = isKeepAlive(exchange.messageId) &&
                                                       now - exchange.sent >= m_services.settings.keepAliveHold;
                           return exchange.accepted && !heldLongEnough;
                       });
}

void SessionChannel::pump()
{
    while (m_connection && m_connection->up() && !m_queue.empty() && !wireBusy())
    {
        const AcceptedPtr accepted = std::move(m_queue.front());
        m_queue.pop_front();
        send(accepted);
    }
    startTimer();
}

void SessionChannel::send(AcceptedPtr accepted)
{
    aoi::Request request = accepted->request;
    const std::string farSide = hostAndPort({m_target.host, m_target.port});
    if (!request.authorization.empty() && !m_session.challengedBy.empty() && m_session.challengedBy != farSide)
    {
        ZR_PLATFORM_LOG(WARNING, 0, Dispatch, "%s: credentials for %s are not sent there", name().c_str(),
                        m_session.challengedBy.c_str());
        request.authorization.clear();
    }
    const std::string bytes = writeRequest(request, m_cseq + 1, m_session, m_services.settings.userAgent);
    if (bytes.empty())
    {
        refuse(*accepted, statusBadRequest, "its URL or transport cannot be written");
        return;
    }
    m_inFlight.push_back({accepted, request.messageId, ++m_cseq, wireUrl(request, m_session), Clock::now()});
    m_connection->write(bytes);
}

// ---- what comes in

void SessionChannel::connected()
{
    ZR_PLATFORM_LOG(DEBUG, 0, Dispatch, "%s: connected", name().c_str());
    if (m_life == Life::Lingering)
        flushTeardown();
    else
        pump();
}

void SessionChannel::received(rtsp::Message &message)
{
    if (!message.response)
        answerServer(message);
    else if (message.status >= 200) // 1xx only says that the answer takes its time
        takeResponse(message);
}

void SessionChannel::received(const rtsp::Frame &frame)
{
    if (m_port && m_life == Life::Open)
        m_port->interleavedFrame(frame.channel, frame.data, frame.size);
}

void SessionChannel::takeResponse(const rtsp::Message &response)
{
    const auto found = match(response);
    if (found == m_inFlight.end())
    {
        const std::string *cseq = response.find("CSeq");
        if (mayNote())
            ZR_PLATFORM_LOG(WARNING, codeProtocol, Dispatch, "%s: an answer %d with CSeq %s belongs to no request",
                            name().c_str(), response.status, cseq ? rtsp::quoted(*cseq).c_str() : "none");
        return;
    }
    const Exchange exchange = *found;
    m_inFlight.erase(found);
    if (!exchange.accepted)
    {
        if (mayNote())
            ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch,
                            "%s: the answer to %s (CSeq %u) came too late and is dropped", name().c_str(),
                            methodOf(exchange.messageId), exchange.cseq);
    }
    else if (m_life == Life::Open)
    {
        answer(exchange, response);
    }
    else if (isTeardown(exchange.messageId))
    {
        finish();
        return;
    }
    pump();
}

/// By CSeq; without one, answers come in the order of the requests. What a server passed over it will not answer any
/// more, so that is forgotten when its requester has given up.
std::deque<SessionChannel::Exchange>::iterator SessionChannel::match(const rtsp::Message &response)
{
    const std::string *cseq = response.find("CSeq");
    if (!cseq)
        return m_inFlight.begin();
    const auto number = rtsp::parseNumber(rtsp::trimmed(*cseq), largestCseq);
    const auto sameCseq = [number](const Exchange &exchange) { return number && exchange.cseq == *number; };
    if (std::none_of(m_inFlight.begin(), m_inFlight.end(), sameCseq))
        return m_inFlight.end();
    while (!m_inFlight.front().accepted && !sameCseq(m_inFlight.front()))
        m_inFlight.pop_front();
    return std::find_if(m_inFlight.begin(), m_inFlight.end(), sameCseq);
}

void SessionChannel::answer(const Exchange &exchange, const rtsp::Message &response)
{
    const aoi::Request &request = exchange.accepted->request;
    const Mapped mapped = mapResponse(request, exchange.url, response, m_session, m_connection->ends());
    if (isUnauthorized(response)) // by the name under which the connection is opened again
        m_session.challengedBy = hostAndPort({m_target.host, m_target.port});
    if (request.messageId == AOI_MSG_RTSP_PLAY && isSuccess(response))
        m_session.played = true;
    if (!mapped.problem.empty())
        ZR_PLATFORM_LOG(WARNING, mapped.answer.errorCode.value_or(0), Dispatch, "%s: answer %d to %s: %s",
                        name().c_str(), response.status, methodOf(request.messageId), mapped.problem.c_str());
    if (mapped.track)
        setUpTrack(mapped);
    deliver(mapped.answer);
}

void SessionChannel::setUpTrack(const Mapped &mapped)
{
    m_interleaved = m_interleaved || mapped.track->interleaved;
    if (!m_port)
        m_port = media::findByAoiPort(m_registration->id);
    if (!m_port)
        return; // a host that only controls
    media::InterleavedWriter writer;
    if (mapped.track->interleaved)
    {
        writer = [jobs = m_services.loop.jobs(), budget = std::make_shared<std::atomic<size_t>>(0),
                  limit = m_services.settings.maxOutgoingMedia,
                  connection = std::weak_ptr<Connection>(m_connection)](uint8_t channel, const void *data, size_t size)
        {
            if (*budget + size > limit) // the I/O thread does not come to it
                return false;
            *budget += size;
            std::string payload(static_cast<const char *>(data), size);
            return jobs->post(
                [budget, connection, channel, payload = std::move(payload)]
                {
                    *budget -= payload.size();
                    if (const auto open = connection.lock())
                        open->writeFrame(channel, payload);
                });
        };
    }
    m_port->setUpTrack(mapped.trackNumber, *mapped.track, std::move(writer));
}

/// A server's own request. What it says to the session is not handed up yet.
void SessionChannel::answerServer(const rtsp::Message &request)
{
    if (m_life != Life::Open)
        return; // shut down for writing
    static const std::string understood = "OPTIONS, GET_PARAMETER, SET_PARAMETER, ANNOUNCE, REDIRECT";
    const std::vector<std::string_view> methods = rtsp::split(understood, ',');
    const bool known = std::find(methods.begin(), methods.end(), request.method) != methods.end();
    if (mayNote())
        ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: the server's %s is answered %d", name().c_str(),
                        rtsp::quoted(request.method).c_str(), known ? statusOk : statusNotImplemented);
    m_connection->write(rtsp::writeResponse(
        request, known ? statusOk : statusNotImplemented,
        request.method == "OPTIONS" ? std::vector<rtsp::Header>{{"Public", understood}} : std::vector<rtsp::Header>()));
}

void SessionChannel::lost(const std::string &reason, bool orderly)
{
    const bool waited =
        !m_queue.empty() || std::any_of(m_inFlight.begin(), m_inFlight.end(),
                                        [](const Exchange &exchange) { return exchange.accepted != nullptr; });
    m_connection.reset();
    if (m_life != Life::Open)
    {
        finish();
        return;
    }
    const bool quiet = orderly && !waited && !m_interleaved;
    const bool goesOn = quiet && m_session.setups > 0;
    if (quiet)
        ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: %s; the next request opens it again", name().c_str(), reason.c_str());
    else
        ZR_PLATFORM_LOG(WARNING, codeConnection, Dispatch, "%s: connection lost: %s", name().c_str(), reason.c_str());
    failAll(reason);
    m_mayReconnect = goesOn;
    if (goesOn)
        return;
    if (m_interleaved && m_port)
        m_port->connectionClosed();
    if (m_session.played)
        notifyLost();
    resetSession();
}

/// What a lost session agreed on is void; who challenged stays known, for the credentials' sake.
void SessionChannel::resetSession()
{
    std::string challenger = std::move(m_session.challengedBy);
    m_session = Session();
    m_session.challengedBy = std::move(challenger);
    m_interleaved = false;
}

// ---- what goes up

void SessionChannel::deliver(const aoi::Answer &answer)
{
    aoi::MessagePtr message = aoi::writeAnswer(answer);
    if (message)
        m_services.delivery.deliver(m_registration, std::move(message));
    else
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "%s: no memory for an answer", name().c_str());
}

void SessionChannel::refuse(const Accepted &accepted, ZR_ULONG status, const std::string &why)
{
    ZR_PLATFORM_LOG(WARNING, status, Dispatch, "%s: %s fails with %u: %s", name().c_str(),
                    methodOf(accepted.request.messageId), status, why.c_str());
    deliver(failureAnswer(accepted.request, status));
}

void SessionChannel::failAll(const std::string &why)
{
    std::deque<Exchange> inFlight;
    std::deque<AcceptedPtr> queue;
    inFlight.swap(m_inFlight);
    queue.swap(m_queue);
    for (const Exchange &exchange : inFlight)
    {
        if (exchange.accepted)
            refuse(*exchange.accepted, statusServiceUnavailable, why);
    }
    for (const AcceptedPtr &accepted : queue)
        refuse(*accepted, statusServiceUnavailable, why);
}

void SessionChannel::notifyLost()
{
    constexpr ZR_ULONG sessionLost = 1;
    aoi::Answer notice;
    notice.messageId = AOI_MSG_INTERNAL_NOTIFY_RTSP;
    notice.destinationId = m_registration->id;
    notice.sessionId = m_session.id;
    notice.action = sessionLost;
    deliver(notice);
}

bool SessionChannel::mayNote()
{
    if (++m_notes == mostNotes)
        ZR_PLATFORM_LOG(WARNING, codeProtocol, Dispatch, "%s: further oddities of this server are not logged",
                        name().c_str());
    return m_notes < mostNotes;
}

// ---- time

void SessionChannel::startTimer()
{
    if (m_life != Life::Open)
        return;
    auto earliest = Clock::time_point::max();
    for (const AcceptedPtr &accepted : m_queue)
        earliest = std::min(earliest, accepted->deadline);
    for (const Exchange &exchange : m_inFlight)
    {
        if (!exchange.accepted)
            continue;
        earliest = std::min(earliest, exchange.accepted->deadline);
        if (isKeepAlive(exchange.messageId) && !m_queue.empty())
            earliest = std::min(earliest, exchange.sent + m_services.settings.keepAliveHold);
    }
    if (earliest == Clock::time_point::max() || (m_timer.armed() && m_timerDue <= earliest))
        return; // one that fires early is cheaper than one that is moved for every request
    m_timerDue = earliest;
    m_timer.start(std::chrono::ceil<milliseconds>(earliest - Clock::now()));
}

void SessionChannel::onTimer()
{
    const auto now = Clock::now();
    for (Exchange &exchange : m_inFlight)
    {
        if (!exchange.accepted || exchange.accepted->deadline > now)
            continue;
        exchange.accepted.reset();
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "%s: no answer to %s (CSeq %u) in time", name().c_str(),
                        methodOf(exchange.messageId), exchange.cseq);
    }
    while (!m_queue.empty() && m_queue.front()->deadline <= now)
    {
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "%s: %s waited too long and is never sent", name().c_str(),
                        methodOf(m_queue.front()->request.messageId));
        m_queue.pop_front();
    }
    while (m_inFlight.size() > mostUnanswered && !m_inFlight.front().accepted)
        m_inFlight.pop_front();
    pump();
}

// ---- the end

void SessionChannel::end()
{
    if (m_life != Life::Open)
        return;
    m_life = Life::Lingering;
    m_timer.stop();
    if (m_port)
        m_port->connectionClosed();
    m_port.reset();
    m_queue.erase(std::remove_if(m_queue.begin(), m_queue.end(),
                                 [](const AcceptedPtr &accepted) { return !isTeardown(accepted->request.messageId); }),
                  m_queue.end());
    const bool onTheWire = std::any_of(m_inFlight.begin(), m_inFlight.end(),
                                       [](const Exchange &exchange) { return isTeardown(exchange.messageId); });
    if (!m_connection || (m_queue.empty() && !onTheWire))
    {
        finish();
        return;
    }
    m_linger.start(m_services.settings.linger);
    if (m_connection->up())
        flushTeardown();
}

/// Whatever is outstanding: nobody waits for that any more.
void SessionChannel::flushTeardown()
{
    while (!m_queue.empty())
    {
        const AcceptedPtr accepted = std::move(m_queue.front());
        m_queue.pop_front();
        send(accepted);
    }
    m_connection->finishWriting();
}

void SessionChannel::abort()
{
    m_life = Life::Lingering;
    finish();
}

void SessionChannel::finish()
{
    if (m_life == Life::Over)
        return;
    m_life = Life::Over;
    m_timer.stop();
    m_linger.stop();
    if (m_port)
        m_port->connectionClosed();
    m_port.reset();
    m_queue.clear();
    dropConnection();
    m_finished();
}

} // namespace zr::dispatch
