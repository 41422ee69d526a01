#include "http_tunnel.h"

#include <algorithm>
#include <array>
#include <utility>

#include <openssl/evp.h>

#include "digest.h"
#include "result_codes.h"
#include "rtsp_text.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

constexpr std::string_view tunnelledType = "application/x-rtsp-tunnelled";
/// What a POST announces; a multiple of 4, so that it ends between two quanta of Base64.
constexpr size_t bodyLength = 32768;
/// There are servers that keep no more of a cookie than 23 characters.
constexpr size_t cookieBytes = 11;

void appendBase64(std::string &out, std::string_view bytes)
{
    const size_t begin = out.size();
    out.resize(begin + 4 * ((bytes.size() + 2) / 3) + 1); // with the zero that is written, too
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()) + begin,
                    reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
    out.pop_back();
}

std::string statusOf(const rtsp::Message &answer)
{
    return std::to_string(answer.status) + (answer.reason.empty() ? "" : " " + rtsp::quoted(answer.reason));
}

/// Why a 200 opens no tunnel; empty: it does.
std::string problemOf(const rtsp::Message &answer)
{
    const std::string *type = answer.find("Content-Type");
    if (!type || !rtsp::sameText(rtsp::trimmed(std::string_view(*type).substr(0, type->find(';'))), tunnelledType))
        return "its answer is " + (type ? "of type " + rtsp::quoted(*type) : "of no type") + ", as of a web page";
    // to who asks by HTTP/1.0 (RFC 9112, 6.1)
    if (const std::string *coding = answer.find("Transfer-Encoding"); coding && !rtsp::sameText(*coding, "identity"))
        return "its answer is coded (" + rtsp::quoted(*coding) + "), by a proxy perhaps";
    return {};
}

/// RTSP's answer to what has no CSeq, by a server that knows no POST.
bool refusesPost(const rtsp::Message &answer)
{
    return (answer.status == 400 || answer.status == 405 || answer.status == 501) && !answer.find("CSeq");
}

} // namespace

HttpTunnel::HttpTunnel(Connection &get, TunnelPlan plan)
    : m_get(get)
    , m_plan(std::move(plan))
    , m_problem(ZR_CONNECTION_NONE)
    , m_pause(get.m_loop, [this] {
        m_mayGoOn = true;
        sendBody();
    })
{
}

HttpTunnel::~HttpTunnel()
{
    close();
}

void HttpTunnel::close()
{
    m_pause.stop();
    m_posting = m_started = false;
    if (m_post)
        m_post->close();
    m_post.reset();
}

bool HttpTunnel::mayShow() const
{
    return m_plan.credentials->mayShow || m_get.secure();
}

/// A request's head; with the answer to what the server has challenged with.
std::string HttpTunnel::head(const char *method, std::string_view headers)
{
    const util::SecretText authorization(
        m_plan.credentials ? m_authenticator.authorization(*m_plan.credentials, method, m_plan.path, mayShow())
                           : std::string());
    const std::string &agent = m_get.m_settings.userAgent;
    std::string text;
    text.reserve(m_plan.path.size() + m_plan.host.size() + agent.size() + headers.size() + authorization.text().size() +
                 256); // so that no copy of a secret is left
    text.append(method).append(" ").append(m_plan.path).append(" HTTP/1.0\r\nHost: ").append(m_plan.host);
    if (!agent.empty())
        text.append("\r\nUser-Agent: ").append(agent);
    text.append("\r\nx-sessioncookie: ").append(m_cookie).append("\r\n").append(headers);
    text.append("Pragma: no-cache\r\nCache-Control: no-cache\r\n");
    if (!authorization.text().empty())
        text.append("Authorization: ").append(authorization.text()).append("\r\n");
    return text.append("\r\n");
}

// ---- the GET

void HttpTunnel::begin()
{
    m_problem = ZR_CONNECTION_NO_TUNNEL;
    m_cookie = util::randomHex(cookieBytes);
    if (m_cookie.empty())
    {
        m_get.failLater("there is no randomness for the HTTP tunnel's cookie");
        return;
    }
    m_getAnswer = HttpHead();
    m_getAttempt.challenge = m_authenticator.challenge();
    m_get.readBy(this);
    m_get.sendHead(head("GET", std::string("Accept: ").append(tunnelledType).append("\r\n")));
}

void HttpTunnel::arrived(const Connection &on, std::string_view bytes)
{
    const bool ofGet = &on == &m_get;
    if (!ofGet && m_postAnswered)
        return; // what a body may say is of no interest
    HttpHead &answer = ofGet ? m_getAnswer : m_postAnswer;
    const HttpHead::State state = answer.take(bytes);
    if (state == HttpHead::State::NeedMore)
        return;
    const bool whole = state == HttpHead::State::Whole;
    (ofGet ? m_get : *m_post).m_tap.heard(whole ? ZR_TRACE_RECEIVED : ZR_TRACE_BROKEN, answer.text());
    if (!whole && ofGet)
        m_get.fail("the server opens no HTTP tunnel: " + answer.problem());
    else if (!whole)
        m_get.failLater("the answer to the HTTP tunnel's POST cannot be read: " + answer.problem());
    else if (ofGet)
        judgeGet(bytes);
    else
        judgePost(answer.message());
}

/// @param rest  what came behind its head
void HttpTunnel::judgeGet(std::string_view rest)
{
    const rtsp::Message &answer = m_getAnswer.message();
    std::string problem;
    if (answer.status == statusUnauthorized)
    {
        if (takeChallenge(answer, m_getAttempt, problem))
        {
            m_get.reconnect(); // many servers end this one
            return;
        }
        m_problem = ZR_CONNECTION_TUNNEL_CREDENTIALS;
    }
    if (answer.status != statusOk)
        problem = statusOf(answer) + (problem.empty() ? "" : ", ") + problem;
    else
        problem = problemOf(answer);
    if (!problem.empty())
    {
        m_get.fail("the server opens no HTTP tunnel: " + problem);
        return;
    }
    openPost();
    m_get.tunnelOpened(rest);
}

/// @param problem  receives why not to ask again
bool HttpTunnel::takeChallenge(const rtsp::Message &answer, Authenticator::Attempt &attempt, std::string &problem)
{
    if (!m_plan.credentials)
    {
        problem = "and there are no credentials for it";
        return false;
    }
    if (m_authenticator.take(answer, attempt, mayShow(), problem) != Authenticator::Verdict::Answer)
        return false;
    ++attempt.answered;
    return true;
}

// ---- the POST

void HttpTunnel::openPost()
{
    m_posting = true;
    m_postAnswer = HttpHead();
    m_postAnswered = false;
    m_accepted = false;
    m_sent = 0;
    m_bodyLeft = bodyLength;
    m_mayGoOn = false;
    if (overOne())
    {
        startPost();
        return;
    }
    ACE_INET_Addr address;
    if (m_get.m_stream.get_remote_addr(address) != 0)
    {
        m_get.failLater("the HTTP tunnel's server is gone");
        return;
    }
    Connection::Owner &owner = *this;
    m_post = std::make_shared<Connection>(m_get.m_loop, m_get.m_settings, owner, m_get.m_security,
                                          m_get.m_tap.session(), nullptr);
    m_post->readBy(this);
    m_post->open({address});
}

void HttpTunnel::connected()
{
    startPost();
}

void HttpTunnel::startPost()
{
    m_postAttempt.challenge = m_authenticator.challenge();
    m_started = true;
    carrier()->sendHead(head("POST", "Content-Type: " + std::string(tunnelledType) + "\r\nContent-Length: " +
                                         std::to_string(bodyLength) + "\r\nExpires: Sun, 9 Jan 1972 00:00:00 GMT\r\n"));
    sendBody();
}

size_t HttpTunnel::unsent() const
{
    return m_body.size() - m_sent + (carrier() ? carrier()->unsent() : 0);
}

void HttpTunnel::send(std::string_view bytes)
{
    appendBase64(m_body, bytes);
    if (m_posting)
        sendBody();
    else
        openPost();
}

void HttpTunnel::sendBody()
{
    if (!m_started || !carrier()->hasSocket())
        return;
    const size_t waiting = m_body.size() - m_sent;
    m_endless = m_endless || (m_mayGoOn && waiting > 0);
    const size_t size = m_endless ? waiting : std::min(m_bodyLeft, waiting);
    if (size == 0)
        return;
    carrier()->sendPlain(std::string_view(m_body).substr(m_sent, size));
    m_sent += size;
    if (m_accepted || !m_plan.credentials || m_endless)
        forgetSent();
    if (m_endless)
        return;
    m_bodyLeft -= size;
    if (m_bodyLeft == 0)
        m_pause.start(m_get.m_settings.tunnelPause);
}

void HttpTunnel::judgePost(const rtsp::Message &answer)
{
    if (answer.status < 200) // it takes its time
        return;
    m_postAnswered = true;
    std::string problem;
    if (answer.status == statusUnauthorized)
    {
        if (!m_accepted && !m_endless && takeChallenge(answer, m_postAttempt, problem))
        {
            repeatPost();
            return;
        }
        m_problem = ZR_CONNECTION_TUNNEL_CREDENTIALS;
    }
    if (answer.status >= 300)
        m_get.failLater("the server refuses the HTTP tunnel's POST: " + statusOf(answer) +
                        (problem.empty() ? "" : ", " + problem));
    else if (m_posting)
        acceptPost();
}

void HttpTunnel::acceptPost()
{
    m_accepted = true;
    forgetSent();
    if (m_bodyLeft == 0 && !m_endless)
        endPost();
}

void HttpTunnel::forgetSent()
{
    m_body.erase(0, std::exchange(m_sent, 0));
}

/// It was all that was announced: what is left goes with the next one.
void HttpTunnel::endPost()
{
    forgetSent();
    close();
    if (!m_body.empty())
        openPost();
}

/// With the answer to its challenge, and all of its body.
void HttpTunnel::repeatPost()
{
    close();
    if (overOne())
        m_get.reconnect();
    else
        openPost();
}

void HttpTunnel::lost(const std::string &reason, bool)
{
    if (m_get.m_state == Connection::State::Failing)
        return; // for what the POST was answered, most likely: the first cause counts
    if (m_bodyLeft == 0 && !m_endless && m_post->unsent() == 0)
    {
        endPost();
        return;
    }
    std::string told = "the HTTP tunnel's POST: " + reason;
    if (!m_talks)
    {
        m_problem = ZR_CONNECTION_TUNNEL_CONNECTIONS;
        told += "; where no second connection comes through, the tunnel may do with one";
    }
    m_get.failLater(told);
}

bool HttpTunnel::carries(const rtsp::Message &message)
{
    if (overOne() && !m_talks && refusesPost(message))
    {
        m_get.failLater("the server refuses the HTTP tunnel's POST on the GET's connection: " + statusOf(message));
        return false;
    }
    m_talks = true;
    m_accepted = m_posting;
    forgetSent();
    return true;
}

std::string HttpTunnel::explained(const std::string &reason)
{
    if (!overOne() || !m_posting || m_talks || m_problem != ZR_CONNECTION_NO_TUNNEL)
        return reason;
    m_problem = ZR_CONNECTION_TUNNEL_CONNECTIONS;
    return reason + "; perhaps it takes the tunnel's POST on a second connection only";
}

} // namespace zr::dispatch
