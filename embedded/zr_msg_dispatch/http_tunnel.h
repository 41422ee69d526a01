/// @file
/// RTSP tunnelled in HTTP, for networks that let nothing else through: what the server says is the answer to a GET,
/// what it is told the body of a POST, in Base64, on a second connection or on the GET's. No standard but the field's
/// own has it; the ONVIF Streaming Specification calls it RTP/RTSP/HTTP/TCP.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "authenticator.h"
#include "connection.h"
#include "http_head.h"
#include "io_loop.h"

namespace zr::dispatch {

/// The tunnel of one connection, which is that of its GET. On the loop's turn.
///
/// Servers disagree on the length that a POST announces. To most it says nothing and the body has no end; for some, and
/// for proxies that take it at its word, the POST is over then, and another one with the same cookie goes on. So the
/// body pauses there, for the server to show which it is.
///
/// A POST that is answered 401 goes out once more, with the answer to the challenge and all of its body: on another
/// connection, for many servers end this one; where the GET's carries it, the GET goes first, again.
class HttpTunnel final : private Connection::Owner, private Connection::Reader
{
public:
    /// @param get  owns the tunnel; used from begin() on
    HttpTunnel(Connection &get, TunnelPlan plan);
    ~HttpTunnel();

    /// The GET's connection is there: asks for the tunnel. Connection::tunnelOpened or its end follows.
    void begin();
    /// Sends a whole message or frame, or keeps it until it can be sent.
    void send(std::string_view bytes);
    /// What the server has not taken yet, in bytes.
    size_t unsent() const;
    bool overOne() const { return m_plan.oneConnection; }
    /// An answer of HTTP on the GET's connection, which carries the POST as well.
    void judgePost(const rtsp::Message &answer);
    /// RTSP has come, which shows that there is a tunnel.
    /// @return false: it is how a server says that the GET's connection carries no POST, and the tunnel fails over it
    bool carries(const rtsp::Message &message);
    /// The reason for which the GET's connection is lost, with what may help against it.
    std::string explained(const std::string &reason);
    /// Ends the POST's connection, without more ado.
    void close();
    /// Why there is no tunnel, as a tagZrConnectionProblem; ZR_CONNECTION_NONE before begin().
    ZR_ULONG problem() const { return m_problem; }

private:
    // of the POST's connection
    void connected() override;
    void received(rtsp::Message &) override {}
    void received(const rtsp::Frame &) override {}
    void lost(const std::string &reason, bool orderly) override;

    void arrived(const Connection &on, std::string_view bytes) override;
    void judgeGet(std::string_view rest);
    bool takeChallenge(const rtsp::Message &answer, Authenticator::Attempt &attempt, std::string &problem);
    bool mayShow() const;
    void openPost();
    void startPost();
    void acceptPost();
    void forgetSent();
    void endPost();
    void repeatPost();
    Connection *carrier() const { return overOne() ? &m_get : m_post.get(); }
    void sendBody();
    std::string head(const char *method, std::string_view headers);

    Connection &m_get;
    const TunnelPlan m_plan;
    std::string m_cookie;
    Authenticator m_authenticator;
    Authenticator::Attempt m_getAttempt;
    Authenticator::Attempt m_postAttempt;
    HttpHead m_getAnswer;
    ZR_ULONG m_problem;

    bool m_talks = false;               ///< RTSP has come
    std::shared_ptr<Connection> m_post; ///< null: none is needed yet, or the GET's is
    HttpHead m_postAnswer;
    bool m_posting = false; ///< a POST is asked for
    bool m_started = false; ///< its head is sent
    bool m_postAnswered = false;
    bool m_accepted = false; ///< the POST: it is answered so, or RTSP has come since
    std::string m_body;      ///< Base64 that is not sent yet; behind what may have to be sent again
    size_t m_sent = 0;       ///< of it
    size_t m_bodyLeft = 0;   ///< of what the POST has announced
    bool m_mayGoOn = false;  ///< all of that is sent, and the server has not ended the POST
    bool m_endless = false;  ///< the server does not count
    LoopTimer m_pause;
};

} // namespace zr::dispatch
