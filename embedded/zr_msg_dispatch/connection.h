/// @file
/// One connection to a server, TCP or TLS over it: connecting, bytes in through the parser, bytes out, its limits.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include "io_loop.h"
#include "mapping.h"
#include "rtsp_message.h"
#include "settings.h"
#include "tls_stream.h"
#include "wire_trace.h"

namespace zr::dispatch {

struct Credentials;
class HttpTunnel;

/// How a connection is tunnelled in HTTP.
struct TunnelPlan
{
    std::string path;                               ///< of the URL, with its query
    std::string host;                               ///< with its port, as in a URL
    bool oneConnection = false;                     ///< the GET's carries the POST, too
    std::shared_ptr<const Credentials> credentials; ///< for HTTP's own challenges; null: none
};

/// Everything here happens on the loop's turn. Held by shared pointers, which may be let go
/// from inside a callback.
class Connection final : private IoLoop::Watcher, public std::enable_shared_from_this<Connection>
{
public:
    /// Who uses the connection. Callbacks come from the loop or from a job, never after close, and never from inside
    /// one of the operations below but for connected(), which may come from inside open and takeAddresses.
    class Owner
    {
    public:
        /// Once more, where a tunnel had to be opened anew: nothing that was written is lost, but it was not up
        /// meanwhile.
        virtual void connected() = 0;
        virtual void received(rtsp::Message &message) = 0;
        virtual void received(const rtsp::Frame &frame) = 0;
        /// The connection is closed already, and calls nothing more.
        /// @param orderly  the server closed it between messages
        virtual void lost(const std::string &reason, bool orderly) = 0;

    protected:
        ~Owner() = default;
    };

    /// @param session  whose it is, for who traces: the identifier of the session's object
    /// @param tunnel   null: it is not tunnelled
    Connection(IoLoop &loop, const Settings &settings, Owner &owner, Security security, ZR_ULONG session,
               std::unique_ptr<TunnelPlan> tunnel);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    /// Tries addresses one after the other: these, or those of takeAddresses when there are none yet. connected() or
    /// lost() follows, within the connect time (the TLS handshake and the answer to a tunnel's GET included).
    void open(std::vector<ACE_INET_Addr> addresses);
    /// The addresses, once they are known. Without effect when the connection does not wait for them any more.
    /// @param error  why there are none
    void takeAddresses(std::vector<ACE_INET_Addr> addresses, const std::string &error);
    bool up() const { return m_state == State::Up; }
    bool secure() const { return m_security.context != nullptr; }
    bool tunnelled() const { return m_tunnel != nullptr; }
    /// Why it was lost, as a tagZrConnectionProblem; within lost().
    ZR_ULONG problem() const;
    /// Whether the far end has not acted on what was sent last, between messages: not all had arrived when it closed,
    /// or it reset the connection, by which TCP shows that something was left unread (RFC 1122, 4.2.2.13). Within
    /// lost().
    bool cutOff() const { return m_cutOff; }
    /// The TLS version, once connected; empty without TLS.
    std::string tlsVersion() const { return m_tls ? m_tls->version() : ""; }
    /// Far end; valid once connected.
    const Ends &ends() const { return m_ends; }

    /// Sends, or queues what the socket does not take now. A server that leaves too much unread is lost() for it.
    void write(std::string_view bytes);
    /// Sends an interleaved frame (RFC 2326, 10.12). @return false: dropped, because the connection is congested
    bool writeFrame(uint8_t channel, std::string_view payload);
    /// The server will be silent for a while: gives back memory, once what was read has been acted on.
    void rest() { m_resting = true; }
    /// Shuts down for writing once all is sent; goes on reading.
    void finishWriting();
    /// Ends it at once, without lost(). Idempotent.
    void close() { end("from here"); }

private:
    enum class State
    {
        Idle,
        Connecting,
        Securing, ///< the TLS handshake runs
        Opening,  ///< the tunnel is asked for
        Up,
        Failing, ///< lost() is on its way as a job
        Closed
    };

    friend class HttpTunnel; // which reads and writes what is HTTP, by way of what follows
    /// Takes what comes in, in place of the parser.
    class Reader
    {
    public:
        virtual void arrived(const Connection &on, std::string_view bytes) = 0;

    protected:
        ~Reader() = default;
    };
    void readBy(Reader *reader) { m_reader = reader; }
    void sendHead(std::string_view head);
    void sendPlain(std::string_view bytes);
    void tunnelOpened(std::string_view rest);
    void reconnect();

    void happened(uint32_t events) override;
    void read();
    void tryNextAddress();
    bool beginConnect(const ACE_INET_Addr &address);
    void finishConnect();
    bool notePeer();
    void beginTls();
    void becomeUp();
    void startTimerOfConnecting();
    void abandonAttempt();
    void closeSocket();
    void end(const std::string &reason);
    void take(std::string_view bytes);
    void takeSecured(std::string_view bytes);
    void takeEnd();
    bool parse();
    void watchMessageTime(bool progressed);
    void onTimer();
    bool hasSocket() const { return m_state >= State::Securing && m_state <= State::Up; }
    size_t unsent() const { return m_out.size() - m_outSent; }
    bool hasRoom(size_t size, size_t limit) const;
    bool hasUnacknowledged() const;
    void queue(std::string_view bytes);
    bool queueSecured();
    void sayGoodbye();
    void flush();
    void send();
    void wantOutput(bool wanted);
    void fail(const std::string &reason, bool orderly = false);
    void failLater(const std::string &reason);
    static std::string systemText(int error);
    std::string failureOf(int error);

    IoLoop &m_loop;
    const Settings &m_settings;
    Owner *m_owner;
    const Security m_security;
    std::unique_ptr<TlsStream> m_tls;
    std::unique_ptr<HttpTunnel> m_tunnel; ///< none: it is not tunnelled
    Reader *m_reader = nullptr;           ///< none: the parser reads
    State m_state = State::Idle;
    ACE_SOCK_Stream m_stream;
    Ends m_ends;

    std::vector<ACE_INET_Addr> m_addresses; ///< still to be tried, the next one last
    std::string m_lastFailure;
    SteadyClock::time_point m_connectDeadline;

    WireTap m_tap;
    rtsp::Parser m_parser;
    std::string m_out; ///< not taken by the socket yet, from m_outSent on
    size_t m_outSent = 0;
    bool m_wantsOutput = false;
    bool m_finishWriting = false;
    bool m_cutOff = false;
    bool m_resting = false;
    bool m_gathering = false; ///< what was read is being acted on; the answers go out together

    bool m_midMessage = false;
    SteadyClock::time_point m_messageBegun;
    LoopTimer m_timer; ///< of the connecting attempt, then of the message that has begun
};

} // namespace zr::dispatch
