// How a connection comes about: its addresses one after the other, TLS, and the tunnel in HTTP where it has one.

#include "connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "http_tunnel.h"

namespace zr::dispatch {

namespace {

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
    startTimerOfConnecting();
    takeSecured({});
}

void Connection::startTimerOfConnecting()
{
    m_timer.start(std::chrono::duration_cast<milliseconds>(m_connectDeadline - SteadyClock::now()));
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
    m_state = m_tunnel ? State::Opening : State::Up;
    m_tap.connected(m_ends.peerAddress, m_ends.peerPort, tlsVersion());
    if (m_tunnel)
    {
        startTimerOfConnecting();
        m_tunnel->begin();
    }
    else
        m_owner->connected();
}

// ---- of a tunnel

void Connection::sendHead(std::string_view head)
{
    m_tap.sent(head);
    sendPlain(head);
}

/// From now on it is RTSP that comes.
/// @param rest  what has come of it
void Connection::tunnelOpened(std::string_view rest)
{
    if (m_state != State::Opening)
        return;
    m_timer.stop();
    m_reader = nullptr;
    if (m_tunnel->overOne())
        m_parser.takeHttp();
    m_state = State::Up;
    m_owner->connected();
    if (m_state == State::Up && !rest.empty())
        take(rest);
}

/// Begins anew with the server that it is connected to; within the same time, unless it was up.
void Connection::reconnect()
{
    if (m_state == State::Up)
        m_connectDeadline = SteadyClock::now() + m_settings.connectTimeout;
    ACE_INET_Addr address; // as noted: the socket does not know it any more where the server has reset it
    const bool known = !m_ends.peerAddress.empty() && address.set(m_ends.peerPort, m_ends.peerAddress.c_str()) == 0;
    m_tap.closed("to ask again, with credentials");
    abandonAttempt();
    m_tls.reset();
    m_ends = Ends();
    m_out.clear();
    m_outSent = 0;
    m_wantsOutput = false;
    m_parser.restart();
    m_midMessage = false;
    m_lastFailure = "the connection is lost";
    m_state = State::Connecting;
    if (known)
        m_addresses.push_back(address);
    tryNextAddress();
}

} // namespace zr::dispatch
