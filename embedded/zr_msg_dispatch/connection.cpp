#include "connection.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "http_tunnel.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

/// What one wake-up reads at most, so that no server starves the others.
constexpr size_t readBudget = 32768;
/// What was sent is kept in front of what waits, up to here.
constexpr size_t maxSentKept = 65536;

/// A flag that is raised in this scope.
class Raised
{
public:
    explicit Raised(bool &flag)
        : m_flag(flag)
    {
        m_flag = true;
    }
    ~Raised() { m_flag = false; }
    Raised(const Raised &) = delete;
    Raised &operator=(const Raised &) = delete;

private:
    bool &m_flag;
};

rtsp::Limits limitsOf(const Settings &settings)
{
    rtsp::Limits limits;
    limits.body = settings.maxBody;
    return limits;
}

} // namespace

Connection::Connection(IoLoop &loop, const Settings &settings, Owner &owner, Security security, ZR_ULONG session,
                       std::unique_ptr<TunnelPlan> tunnel)
    : m_loop(loop)
    , m_settings(settings)
    , m_owner(&owner)
    , m_security(std::move(security))
    , m_tunnel(tunnel ? std::make_unique<HttpTunnel>(*this, std::move(*tunnel)) : nullptr)
    , m_tap(session)
    , m_parser(limitsOf(settings))
    , m_timer(loop, [this] { onTimer(); })
{
}

std::string Connection::systemText(int error)
{
    return std::generic_category().message(error);
}

Connection::~Connection()
{
    closeSocket();
}

void Connection::closeSocket()
{
    if (m_stream.get_handle() == ACE_INVALID_HANDLE)
        return;
    m_loop.forget(m_stream.get_handle());
    m_stream.close();
}

void Connection::happened(uint32_t events)
{
    const auto stays = shared_from_this(); // its owner may let it go
    if (m_state == State::Connecting)
    {
        finishConnect();
        return;
    }
    if ((events & EPOLLOUT) != 0 && hasSocket())
        send();
    if ((events & ~uint32_t{EPOLLOUT}) != 0 && hasSocket())
        read();
}

void Connection::read()
{
    std::array<char, readBudget> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const ssize_t size = m_stream.recv(buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size == 0)
        takeEnd();
    else if (size > 0 && m_tls)
        takeSecured({buffer.data(), static_cast<size_t>(size)});
    else if (size > 0)
        take({buffer.data(), static_cast<size_t>(size)});
    else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        fail(failureOf(errno));
}

void Connection::take(std::string_view bytes)
{
    if (m_reader)
    {
        m_reader->arrived(*this, bytes);
        return;
    }
    m_parser.keepRaw(m_tap.raw());
    m_parser.lend(bytes.data(), bytes.size());
    {
        const Raised gathering(m_gathering);
        watchMessageTime(parse());
    }
    if (hasSocket()) // a new one, it may be
        flush();
    if (std::exchange(m_resting, false) && m_state == State::Up)
    {
        m_parser.rest();
        m_out.shrink_to_fit();
    }
}

void Connection::takeSecured(std::string_view bytes)
{
    std::string plain;
    const TlsStream::State state = m_tls->receive(bytes, plain);
    if (state == TlsStream::State::Failed)
    {
        fail(m_tls->problem());
        return;
    }
    if (!queueSecured()) // the handshake's own
        return;
    if (m_state == State::Securing && state != TlsStream::State::Handshaking)
        becomeUp();
    if (m_state == State::Opening || m_state == State::Up)
        take(plain);
    if (hasSocket() && state == TlsStream::State::Ended)
        takeEnd();
}

/// Messages know their own ends, so a server that leaves out the close_notify can cut off nothing unseen.
void Connection::takeEnd()
{
    const bool orderly = m_state == State::Up && !m_parser.midMessage();
    if (m_state == State::Securing)
        fail("the server closed the connection within the TLS handshake");
    else if (m_state == State::Opening)
        fail("the server closed the connection instead of opening the HTTP tunnel");
    else
        fail(orderly ? "the server closed the connection" : "the server closed the connection within a message",
             orderly);
}

/// @return whether a message or frame has ended
bool Connection::parse()
{
    bool progressed = false;
    while (m_state == State::Up)
    {
        switch (m_parser.next())
        {
        case rtsp::Parser::Event::NeedMore:
            return progressed;
        case rtsp::Parser::Event::Message:
            m_tap.received();
            if (!m_tunnel || m_tunnel->carries(m_parser.message()))
                m_owner->received(m_parser.message());
            break;
        case rtsp::Parser::Event::HttpAnswer:
            m_tap.received();
            m_tunnel->judgePost(m_parser.message());
            break;
        case rtsp::Parser::Event::Frame:
            m_tap.frameReceived(m_parser.frame().size);
            m_owner->received(m_parser.frame());
            break;
        case rtsp::Parser::Event::Error:
            m_tap.received(ZR_TRACE_BROKEN);
            fail(m_parser.error());
            return progressed;
        }
        progressed = true;
    }
    return progressed;
}

/// The timer is left alone while media flows: it looks when it fires whether its message is still the one that began.
void Connection::watchMessageTime(bool progressed)
{
    if (m_state != State::Up)
        return;
    const bool wasMidMessage = m_midMessage && !progressed;
    m_midMessage = m_parser.midMessage();
    if (!m_midMessage || wasMidMessage)
        return;
    m_messageBegun = SteadyClock::now();
    if (!m_timer.armed())
        m_timer.start(m_settings.messageTimeout);
}

void Connection::onTimer()
{
    const auto stays = shared_from_this();
    m_loop.post([stays] { /* the timer's callback is a part of it */ });
    if (m_state == State::Connecting)
    {
        if (m_stream.get_handle() != ACE_INVALID_HANDLE)
            m_lastFailure = "no connection in time";
        abandonAttempt();
        tryNextAddress();
        return;
    }
    if (m_state == State::Securing)
        fail("no TLS handshake in time");
    if (m_state == State::Opening)
        fail("the server opens no HTTP tunnel in time");
    if (m_state != State::Up || !m_midMessage)
        return;
    const auto age = std::chrono::duration_cast<milliseconds>(SteadyClock::now() - m_messageBegun);
    if (age < m_settings.messageTimeout)
    {
        m_timer.start(m_settings.messageTimeout - age + milliseconds(1));
        return;
    }
    fail("a message was not complete " + std::to_string(m_settings.messageTimeout.count()) +
         " ms after its first byte");
}

bool Connection::hasRoom(size_t size, size_t limit) const
{
    return (m_tunnel ? m_tunnel->unsent() : unsent()) + size <= limit;
}

void Connection::write(std::string_view bytes)
{
    if (m_state != State::Up)
        return;
    if (!hasRoom(bytes.size(), m_settings.maxOutgoing))
        failLater("the server leaves more than " + std::to_string(m_settings.maxOutgoing) + " bytes unread");
    else
    {
        m_tap.sent(bytes);
        queue(bytes);
    }
}

bool Connection::writeFrame(uint8_t channel, std::string_view payload)
{
    if (m_state != State::Up || m_finishWriting || payload.size() > UINT16_MAX ||
        !hasRoom(payload.size(), m_settings.maxOutgoingMedia))
        return false;
    const std::array<char, 4> header = {'$', static_cast<char>(channel), static_cast<char>(payload.size() >> 8U),
                                        static_cast<char>(payload.size() & 0xFFU)};
    m_tap.frameSent(payload.size());
    queue(std::string(header.data(), header.size()).append(payload));
    return true;
}

void Connection::queue(std::string_view bytes)
{
    if (m_tunnel)
        m_tunnel->send(bytes);
    else
        sendPlain(bytes);
}

/// On this connection, whatever it belongs to.
void Connection::sendPlain(std::string_view bytes)
{
    if (m_tls)
    {
        m_tls->send(bytes);
        queueSecured();
        return;
    }
    m_out.append(bytes);
    flush();
}

/// @return false when the connection has failed over it
bool Connection::queueSecured()
{
    m_out.append(m_tls->takeOutgoing());
    if (unsent() <= 2 * m_settings.maxOutgoing)
        flush();
    else // it makes TLS itself answer without end
        failLater("the server leaves too much unread");
    return m_state != State::Failing;
}

void Connection::finishWriting()
{
    if (m_tunnel)
        return; // there are servers for which the end of the POST is that of the session
    m_finishWriting = true;
    if (m_state != State::Up)
        return;
    if (m_tls)
    {
        m_tls->end();
        queueSecured();
        return;
    }
    flush();
}

/// Sends what waits, unless more is about to come, or the socket is full.
void Connection::flush()
{
    if (!m_gathering && !m_wantsOutput)
        send();
}

void Connection::send()
{
    while (m_outSent < m_out.size())
    {
        const ssize_t size =
            m_stream.send(m_out.data() + m_outSent, m_out.size() - m_outSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size >= 0)
        {
            m_outSent += static_cast<size_t>(size);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            break;
        failLater(failureOf(errno));
        return;
    }
    if (m_outSent == m_out.size() || m_outSent > maxSentKept)
    {
        m_out.erase(0, m_outSent);
        m_outSent = 0;
    }
    wantOutput(!m_out.empty());
    if (m_out.empty() && m_finishWriting)
        m_stream.close_writer();
}

void Connection::wantOutput(bool wanted)
{
    if (wanted == m_wantsOutput)
        return;
    m_wantsOutput = wanted;
    m_loop.change(m_stream.get_handle(), wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

/// @param error  of sending or receiving; a reset is both of these, to who has seen the other side close before
std::string Connection::failureOf(int error)
{
    m_cutOff = (error == ECONNRESET || error == EPIPE) && m_state == State::Up && !m_parser.midMessage();
    return systemText(error);
}

/// A far end that has closed acknowledges nothing that comes later.
bool Connection::hasUnacknowledged() const
{
    int bytes = 0;
    return unsent() > 0 || (ioctl(m_stream.get_handle(), SIOCOUTQ, &bytes) == 0 && bytes > 0);
}

void Connection::fail(const std::string &reason, bool orderly)
{
    Owner *const owner = m_owner;
    const std::string told = m_tunnel ? m_tunnel->explained(reason) : reason;
    m_cutOff = m_cutOff || (orderly && hasUnacknowledged());
    end(told);
    if (owner)
        owner->lost(told, orderly);
}

ZR_ULONG Connection::problem() const
{
    if (m_tunnel && m_tunnel->problem() != ZR_CONNECTION_NONE)
        return m_tunnel->problem();
    return m_tls ? m_tls->problemCode() : ZR_ULONG{ZR_CONNECTION_FAILED};
}

void Connection::failLater(const std::string &reason)
{
    m_state = State::Failing;
    m_loop.post([self = shared_from_this(), reason] {
        if (self->m_state == State::Failing)
            self->fail(reason);
    });
}

/// The close_notify, or alert, of a connection that is closed without more ado, if the socket takes it.
void Connection::sayGoodbye()
{
    if (!m_tls || !m_out.empty())
        return;
    m_tls->end();
    const std::string last = m_tls->takeOutgoing();
    if (!last.empty())
        m_stream.send(last.data(), last.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Connection::end(const std::string &reason)
{
    if (m_state == State::Closed)
        return;
    m_tap.closed(reason);
    if (hasSocket())
        sayGoodbye();
    m_state = State::Closed;
    m_owner = nullptr;
    if (m_tunnel)
        m_tunnel->close();
    m_timer.stop();
    closeSocket();
}

} // namespace zr::dispatch
