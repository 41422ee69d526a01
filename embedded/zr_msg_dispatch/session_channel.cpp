#include "session_channel.h"

#include <utility>

#include "platform_log.h"
#include "result_codes.h"
#include "rtsp_text.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

/// A server may make us write so many lines a connection.
constexpr unsigned mostNotes = 20;
/// And end its session so many times.
constexpr unsigned mostAnnouncements = 20;

} // namespace

SessionChannel::SessionChannel(const ChannelServices &services, RegistrationPtr registration,
                               std::function<void()> finished)
    : m_services(services)
    , m_registration(std::move(registration))
    , m_finished(std::move(finished))
    , m_exchanges(services.settings)
    , m_timer(services.loop, [this] { onTimer(); })
    , m_linger(services.loop, [this] { finish(); })
    , m_keeper(services.loop, services.settings, [this] { keepAlive(); })
{
}

SessionChannel::~SessionChannel()
{
    dropConnection();
}

std::string SessionChannel::name() const
{
    return "session " + std::to_string(m_registration->id) + " with " + farSide();
}

/// By the name under which the connection is opened.
std::string SessionChannel::farSide() const
{
    return hostAndPort({m_target.address.host, m_target.address.port});
}

// ---- requests

void SessionChannel::submit(AcceptedPtr accepted)
{
    if (m_life != Life::Open)
        return;
    if (m_registration->givenUp && !isDroppable(accepted->request.messageId))
    {
        refuse(*accepted, statusServiceUnavailable, givenUp);
        return;
    }
    if (isKeepAlive(accepted->request.messageId) && m_exchanges.hasKeepAlive(accepted->own))
        return;
    if (!prepareConnection(*accepted))
    {
        if (!isDroppable(accepted->request.messageId))
            refuse(*accepted, statusServiceUnavailable, "there is no connection");
        return;
    }
    m_exchanges.push(std::move(accepted));
    pump();
}

void SessionChannel::pump()
{
    const auto now = SteadyClock::now();
    while (m_connection && m_connection->up())
    {
        const AcceptedPtr accepted = m_exchanges.next(now);
        if (!accepted)
            break;
        send(accepted);
    }
    startTimer();
}

void SessionChannel::send(const AcceptedPtr &accepted)
{
    const aoi::Request &request = accepted->request;
    std::string_view authorization = request.authorization;
    if (!authorization.empty() && !maySeeCredentials(authorization))
    {
        ZR_PLATFORM_LOG(WARNING, 0, Dispatch, "%s: credentials for %s are not sent there", name().c_str(),
                        m_session.challengedBy.empty() ? "another server" : m_session.challengedBy.c_str());
        authorization = {};
    }
    const auto orders = m_registration->orders->current();
    if (authenticates(*orders))
        authorization = {};
    std::string url = wireUrl(request, m_session);
    if (m_redirect && url == m_redirect->from)
        url = m_redirect->to;
    if (rtsp::beginsWith(url, "rtsps:") && !m_target.secure)
    {
        refuse(*accepted, statusServiceUnavailable, "its URL asks for TLS, the session has none");
        return;
    }
    const std::string &userAgent = m_services.settings.userAgent;
    std::string bytes = accepted->own && isKeepAlive(request.messageId)
                            ? writeKeepAlive(m_session, authorization, m_cseq + 1, userAgent)
                            : writeRequest(request, {url, authorization}, m_cseq + 1, m_session, userAgent);
    if (bytes.empty())
    {
        refuse(*accepted, statusBadRequest, "its URL or transport cannot be written");
        return;
    }
    if (!isDroppable(request.messageId))
        m_registration->refusal.set({});
    const unsigned challenge = addOrders(bytes, *orders);
    m_exchanges.sent({accepted, request.messageId, ++m_cseq, std::move(url), SteadyClock::now(), challenge});
    m_keeper.sent(request.messageId, authorization);
    if (m_port && request.messageId == AOI_MSG_RTSP_PLAY)
        m_port->playing();
    m_connection->write(bytes);
}

/// Neither a host that the requester's host was not, nor another than the one that challenged. Whoever a session was
/// redirected to may challenge as well: it sees nothing that another has seen before.
bool SessionChannel::maySeeCredentials(std::string_view authorization)
{
    const bool elsewhere = !(m_target.address == m_asked.address);
    if (m_session.challengedBy.empty() ? elsewhere : m_session.challengedBy != farSide())
        return false;
    const size_t what = std::hash<std::string_view>()(authorization);
    const size_t where = std::hash<std::string>()(farSide());
    if (elsewhere && m_session.authorized == what && m_session.authorizedAt != where)
        return false;
    m_session.authorized = what;
    m_session.authorizedAt = where;
    return true;
}

// ---- what comes in

void SessionChannel::connected()
{
    m_wasUp = true;
    m_registration->connection.set({});
    m_registration->facts.change([this](Facts &facts) { facts.tls = m_connection->tlsVersion(); });
    ZR_PLATFORM_LOG(DEBUG, 0, Dispatch, "%s: connected", name().c_str());
    if (m_life == Life::Lingering)
        flushTeardowns();
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
    const std::optional<Exchange> exchange = m_exchanges.match(response);
    if (!exchange)
    {
        const std::string *cseq = response.find("CSeq");
        if (mayNote())
            ZR_PLATFORM_LOG(WARNING, codeProtocol, Dispatch, "%s: an answer %d with CSeq %s belongs to no request",
                            name().c_str(), response.status, cseq ? rtsp::quoted(*cseq).c_str() : "none");
        return;
    }
    if (m_life == Life::Lingering)
    {
        if (!isTeardown(exchange->messageId))
            return;
        if (exchange->accepted && authenticate(*exchange, response) == Authentication::Again)
            flushTeardowns();
        else
            finish();
        return;
    }
    m_answered = true;
    m_doubted = m_doubted && !isSuccess(response);
    if (isKeepAlive(exchange->messageId) || exchange->messageId == AOI_MSG_RTSP_PLAY)
        m_connection->rest();
    if (exchange->accepted && follow(*exchange, response))
        return;
    if (exchange->accepted && authenticate(*exchange, response) != Authentication::None)
        ; // nobody is to hear of the answer
    else if (exchange->accepted && exchange->accepted->own)
        takeOwnAnswer(*exchange, response);
    else if (exchange->accepted)
        answer(*exchange, response);
    else if (mayNote())
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "%s: the answer to %s (CSeq %u) came too late and is dropped",
                        name().c_str(), methodOf(exchange->messageId), exchange->cseq);
    pump();
}

/// What an answer says of its server and session, once it is mapped.
void SessionChannel::noteFacts(const Exchange &exchange, const rtsp::Message &response)
{
    m_keeper.watch(m_session);
    if (response.status == statusUnauthorized) // by the name under which the connection is opened again
        m_session.challengedBy = farSide();
    m_registration->facts.change([&](Facts &facts) {
        if (const std::string *server = response.find("Server"))
            facts.server = *server;
        facts.methods = m_session.publicMethods;
        facts.timeoutSeconds = m_session.id.empty() ? 0 : m_session.timeoutSeconds;
        if (!exchange.accepted->own)
            return;
        ++facts.checksAnswered;
        facts.checkStatus = response.status;
    });
}

void SessionChannel::answer(const Exchange &exchange, const rtsp::Message &response)
{
    const aoi::Request &request = exchange.accepted->request;
    if (const auto told = m_port ? m_port->replayTimes() : std::nullopt)
        m_session.position.follow(*told);
    const Mapped mapped = mapResponse(request, exchange.url, response, m_session, m_connection->ends());
    m_tornDown = isTeardown(request.messageId) && isSuccess(response);
    if (!mapped.problem.empty())
        ZR_PLATFORM_LOG(WARNING, mapped.answer.errorCode.value_or(0), Dispatch, "%s: answer %d to %s: %s",
                        name().c_str(), response.status, methodOf(request.messageId), mapped.problem.c_str());
    if (mapped.track)
        setUpTrack(mapped);
    if (m_port && request.messageId == AOI_MSG_RTSP_PLAY && isSuccess(response))
        m_port->played();
    if (mapped.answer.errorCode && !isDroppable(request.messageId)) // before whoever waits is told
        m_registration->refusal.set(
            {*mapped.answer.errorCode, mapped.problem.empty() ? response.reason : mapped.problem});
    if (mapped.answer.errorCode && isSuccess(response) && isUnknown(request))
        endUnknown(request, exchange.url);
    noteFacts(exchange, response); // before whoever waits is told
    noteDescription(request.messageId, response);
    deliver(mapped.answer);
}

/// Who wants it as it came asks before there is something to play: no session carries it on.
void SessionChannel::noteDescription(ZR_ULONG messageId, const rtsp::Message &response)
{
    if (messageId == AOI_MSG_RTSP_DESCRIBE && isSuccess(response))
        m_registration->description.set(std::make_shared<const std::string>(response.body));
    else if (messageId == AOI_MSG_RTSP_SETUP && isSuccess(response))
        m_registration->description.set(nullptr);
}

void SessionChannel::setUpTrack(const Mapped &mapped)
{
    m_interleaved = m_interleaved || mapped.track->interleaved;
    m_port = media::findByAoiPort(m_registration->id);
    if (!m_port)
        return; // a host that only controls
    media::InterleavedWriter writer;
    if (mapped.track->interleaved)
    {
        writer = [jobs = m_services.loop.jobs(), budget = std::make_shared<std::atomic<size_t>>(0),
                  limit = m_services.settings.maxOutgoingMedia, connection = std::weak_ptr<Connection>(m_connection)](
                     uint8_t channel, const void *data, size_t size) {
            if (*budget + size > limit) // nobody comes to it
                return false;
            *budget += size;
            std::string payload(static_cast<const char *>(data), size);
            return jobs->post([budget, connection, channel, payload = std::move(payload)] {
                *budget -= payload.size();
                if (const auto open = connection.lock())
                    open->writeFrame(channel, payload);
            });
        };
    }
    m_port->setUpTrack(mapped.trackNumber, *mapped.track, std::move(writer));
}

void SessionChannel::answerServer(const rtsp::Message &request)
{
    if (m_life != Life::Open)
        return; // shut down for writing
    const ServerRequest judged = judgeServerRequest(request);
    if (mayNote())
        ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: the server's %s%s%s is answered %d", name().c_str(),
                        rtsp::quoted(request.method).c_str(), judged.says.empty() ? "" : " ", judged.says.c_str(),
                        judged.status);
    m_connection->write(rtsp::writeResponse(request, judged.status, judged.headers));
    if (judged.quitReason)
        announce(*judged.quitReason);
}

void SessionChannel::lost(const std::string &reason, bool orderly)
{
    // a tunnel shows by the first answer that it is one
    const bool worked = m_wasUp && (m_answered || !m_connection->tunnelled());
    const Problem problem{worked ? ZR_ULONG{ZR_CONNECTION_BROKEN} : m_connection->problem(), reason};
    const std::shared_ptr<Connection> closed = std::move(m_connection);
    const bool ended = orderly || closed->cutOff();
    m_doubted = m_doubted || !orderly;
    if (ended && askAgain(*closed))
        return;
    if (m_life != Life::Open)
    {
        finish();
        return;
    }
    const bool quiet = ended && !m_exchanges.awaited() && (m_tornDown || !m_interleaved);
    const bool goesOn = quiet && !m_tornDown && m_session.setups > 0;
    const bool wanted = m_tornDown || m_exchanges.hasTeardown();
    if (quiet)
        ZR_PLATFORM_LOG(INFO, 0, Dispatch, "%s: %s", name().c_str(), reason.c_str());
    else
        ZR_PLATFORM_LOG(WARNING, codeConnection, Dispatch, "%s: %s: %s", name().c_str(),
                        m_wasUp ? "the connection is lost" : "no connection", reason.c_str());
    if (!quiet) // before whoever waits is told
        m_registration->connection.set(problem);
    const bool missed = m_exchanges.hasKeepAlive(true);
    failAll(reason);
    m_mayReconnect = goesOn;
    if (goesOn && (missed || m_doubted))
        m_keeper.missed();
    if (goesOn)
        return;
    if (m_interleaved)
        closePort();
    const bool unexpected = m_session.played && !wanted;
    const aoi::Answer loss = lossNotice();
    resetSession();
    if (!quiet) // what it was redirected to may be no longer there
    {
        m_target = m_asked;
        m_redirect.reset();
    }
    if (unexpected)
        deliver(loss);
}

/// What a lost session agreed on is void; who challenged stays known, for the credentials' sake, and what was
/// described.
void SessionChannel::resetSession()
{
    Session next;
    next.challengedBy = std::move(m_session.challengedBy);
    next.authorized = m_session.authorized;
    next.authorizedAt = m_session.authorizedAt;
    next.groups = std::move(m_session.groups);
    m_session = std::move(next);
    m_keeper.stop();
    m_authenticator.reset();
    m_interleaved = false;
    m_tornDown = false;
    m_doubted = false;
    m_registration->facts.change([](Facts &facts) { facts.timeoutSeconds = 0; });
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
    if (accepted.own)
        return; // the next one comes by itself
    ZR_PLATFORM_LOG(WARNING, status, Dispatch, "%s: %s fails with %u: %s", name().c_str(),
                    methodOf(accepted.request.messageId), status, why.c_str());
    m_registration->refusal.set({}); // it was not the server's
    deliver(failureAnswer(accepted.request, status));
}

void SessionChannel::failAll(const std::string &why)
{
    for (const AcceptedPtr &accepted : m_exchanges.takeAll())
        refuse(*accepted, statusServiceUnavailable, why);
}

/// A message of its own accord, to the session's object.
aoi::Answer SessionChannel::notice(ZR_ULONG messageId) const
{
    aoi::Answer made;
    made.messageId = messageId;
    made.destinationId = m_registration->id;
    made.sessionId = m_session.id;
    return made;
}

aoi::Answer SessionChannel::lossNotice() const
{
    constexpr ZR_ULONG sessionLost = 1;
    aoi::Answer loss = notice(AOI_MSG_INTERNAL_NOTIFY_RTSP);
    loss.action = sessionLost;
    return loss;
}

/// The server ends the session. One that is not set up has no end.
void SessionChannel::announce(ZR_ULONG quitReason)
{
    if (m_session.id.empty() || ++m_announced > mostAnnouncements)
        return;
    aoi::Answer ended = notice(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE);
    ended.quitReason = quitReason;
    deliver(ended);
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
    const auto now = SteadyClock::now();
    const auto due = m_exchanges.due(now);
    if (!due || (m_timer.armed() && m_timerDue <= *due))
        return; // one that fires early is cheaper than one that is moved for every request
    m_timerDue = *due;
    m_timer.start(std::chrono::ceil<milliseconds>(*due - now));
}

void SessionChannel::onTimer()
{
    for (const std::string &line : m_exchanges.expire(SteadyClock::now()))
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "%s: %s", name().c_str(), line.c_str());
    pump();
}

// ---- the end

void SessionChannel::end()
{
    if (m_life != Life::Open)
        return;
    m_life = Life::Lingering;
    m_timer.stop();
    m_keeper.stop();
    closePort();
    if (!m_connection || !m_exchanges.hasTeardown())
    {
        finish();
        return;
    }
    m_linger.start(m_services.settings.linger);
    if (m_connection->up())
        flushTeardowns();
}

/// Whatever is outstanding: nobody waits for that any more.
void SessionChannel::flushTeardowns()
{
    for (const AcceptedPtr &accepted : m_exchanges.takeTeardowns())
        send(accepted);
    if (!m_registration->orders->current()->credentials) // one may have to be sent again
        m_connection->finishWriting();
}

void SessionChannel::closePort()
{
    if (m_port)
        m_port->connectionClosed();
    m_port.reset();
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
    m_keeper.stop();
    closePort();
    m_exchanges.takeAll();
    dropConnection();
    m_finished();
}

} // namespace zr::dispatch
