#include "connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

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

std::string systemText(int error)
{
    return std::generic_category().message(error);
}

rtsp::Limits limitsOf(const Settings &settings)
{
    rtsp::Limits limits;
    limits.body = settings.maxBody;
    return limits;
}

void setOption(int handle, int level, int name, int value)
{
    setsockopt(handle, level, name, &value, sizeof(value));
}

/// A far side that lost its power says nothing: the system is to notice within half a minute.
void tune(int handle)
{
    setOption(handle, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(handle, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(handle, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    setOption(handle, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    setOption(handle, IPPROTO_TCP, TCP_KEEPCNT, 4);
    setOption(handle, IPPROTO_TCP, TCP_USER_TIMEOUT, 30000);
}

} // namespace

Connection::Connection(IoLoop &loop, const Settings &settings, Owner &owner, Security security, ZR_ULONG session)
    : m_loop(loop)
    , m_settings(settings)
    , m_owner(&owner)
    , m_security(std::move(security))
    , m_tap(session)
    , m_parser(limitsOf(settings))
    , m_timer(loop, [this] { onTimer(); })
{
}

Connection::~Connection()
{
    closeSocket();
}

void Connection::open(std::vector<ACE_INET_Addr> addresses)
{
    m_state = State::Connecting;
    m_connectDeadline = SteadyClock::now() + m_settings.connectTimeout;
    m_lastFailure = "its name is not resolved in time";
    if (addresses.empty())
        m_timer.start(m_settings.connectTimeout);
    else
        takeAddresses(std::move(addresses), {});
}

void Connection::takeAddresses(std::vector<ACE_INET_Addr> addresses, const std::string &error)
{
    if (m_state != State::Connecting)
        return;
    m_timer.stop();
    if (!error.empty())
        m_lastFailure = "its name is not resolved: " + error;
    m_addresses = std::move(addresses);
    std::reverse(m_addresses.begin(), m_addresses.end());
    tryNextAddress();
}

void Connection::tryNextAddress()
{
    while (!m_addresses.empty())
    {
        const ACE_INET_Addr address = m_addresses.back();
        const auto remaining = std::chrono::duration_cast<milliseconds>(m_connectDeadline - SteadyClock::now());
        // a silent first address is not to use up the time of those behind it
        const milliseconds share = remaining / static_cast<int>(m_addresses.size());
        m_addresses.pop_back();
        if (!beginConnect(address))
            continue;
        if (m_ends.peerAddress.empty())
            m_timer.start(share);
        else
            becomeUp();
        return;
    }
    failLater(m_lastFailure);
}

bool Connection::beginConnect(const ACE_INET_Addr &address)
{
    const int handle = socket(address.get_type(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    m_stream.set_handle(handle);
    if (handle != ACE_INVALID_HANDLE)
        tune(handle);
    const bool begun =
        handle != ACE_INVALID_HANDLE && (connect(handle, static_cast<const sockaddr *>(address.get_addr()),
                                                 static_cast<socklen_t>(address.get_size())) == 0 ||
                                         errno == EINPROGRESS);
    // a server on this machine has often accepted by now
    if (begun && m_loop.watch(handle, *this, !secure() && notePeer() ? EPOLLIN : EPOLLOUT))
        return true;
    m_lastFailure = systemText(errno);
    m_ends = Ends();
    closeSocket();
    return false;
}

void Connection::abandonAttempt()
{
    m_timer.stop();
    closeSocket();
}

void Connection::closeSocket()
{
    if (m_stream.get_handle() == ACE_INVALID_HANDLE)
        return;
    m_loop.forget(m_stream.get_handle());
    m_stream.close();
}

void Connection::finishConnect()
{
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(m_stream.get_handle(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        error = errno;
    if (error != 0)
    {
        m_lastFailure = systemText(error);
        abandonAttempt();
        tryNextAddress();
        return;
    }
    m_timer.stop();
    m_loop.change(m_stream.get_handle(), EPOLLIN);
    if (secure())
        beginTls();
    else
        becomeUp();
}

void Connection::beginTls()
{
    m_state = State::Securing;
    m_tls = TlsStream::create(m_security);
    if (!m_tls)
    {
        failLater("no TLS session can be made for " + m_security.host);
        return;
    }
    m_timer.start(std::chrono::duration_cast<milliseconds>(m_connectDeadline - SteadyClock::now()));
    takeSecured({});
}

/// @return false when there is none: it is not connected
bool Connection::notePeer()
{
    ACE_INET_Addr peer;
    std::array<char, INET6_ADDRSTRLEN> text = {};
    if (m_stream.get_remote_addr(peer) != 0 || !peer.get_host_addr(text.data(), static_cast<int>(text.size())))
        return false;
    m_ends.peerAddress = text.data();
    m_ends.peerPort = peer.get_port_number();
    return true;
}

void Connection::becomeUp()
{
    m_timer.stop();
    if (m_ends.peerAddress.empty())
        notePeer();
    std::vector<ACE_INET_Addr>().swap(m_addresses);
    m_state = State::Up;
    m_tap.connected(m_ends.peerAddress, m_ends.peerPort, tlsVersion());
    m_owner->connected();
}

void Connection::happened(uint32_t events)
{
    const auto stays = shared_from_this(); // its owner may let it go
    if (m_state == State::Connecting)
    {
        finishConnect();
        return;
    }
    if ((events & EPOLLOUT) != 0 && (m_state == State::Up || m_state == State::Securing))
        send();
    if ((events & ~uint32_t{EPOLLOUT}) != 0 && (m_state == State::Up || m_state == State::Securing))
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
        fail(systemText(errno));
}

void Connection::take(std::string_view bytes)
{
    m_parser.keepRaw(m_tap.raw());
    m_parser.lend(bytes.data(), bytes.size());
    {
        const Raised gathering(m_gathering);
        watchMessageTime(parse());
    }
    if (m_state == State::Up)
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
    if (m_state == State::Up)
        take(plain);
    if (m_state == State::Up && state == TlsStream::State::Ended)
        takeEnd();
}

/// Messages know their own ends, so a server that leaves out the close_notify can cut off nothing unseen.
void Connection::takeEnd()
{
    const bool orderly = m_state == State::Up && !m_parser.midMessage();
    if (m_state == State::Securing)
        fail("the server closed the connection within the TLS handshake");
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
            m_owner->received(m_parser.message());
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
    if (hasRoom(0, 2 * m_settings.maxOutgoing))
        flush();
    else // it makes TLS itself answer without end
        failLater("the server leaves too much unread");
    return m_state != State::Failing;
}

void Connection::finishWriting()
{
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
        failLater(systemText(errno));
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

void Connection::fail(const std::string &reason, bool orderly)
{
    Owner *const owner = m_owner;
    end(reason);
    if (owner)
        owner->lost(reason, orderly);
}

ZR_ULONG Connection::problem() const
{
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
    if (m_state == State::Up || m_state == State::Securing)
        sayGoodbye();
    m_state = State::Closed;
    m_owner = nullptr;
    m_timer.stop();
    closeSocket();
}

} // namespace zr::dispatch
