#include "engine_fixture.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <utility>

#include <ace/SOCK_Connector.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include "zr_cc_rt.h"

namespace zr::test {

namespace {

ACE_INET_Addr addressOf(const ACE_SOCK_Acceptor &listener)
{
    ACE_INET_Addr address;
    EXPECT_EQ(listener.get_local_addr(address), 0);
    return address;
}

ACE_SOCK_Acceptor listenWith(int backlog)
{
    return {ACE_INET_Addr(u_short{0}, ACE_UINT32{INADDR_LOOPBACK}), 0, PF_INET, backlog};
}

std::string cseqOf(const std::string &request)
{
    const size_t begin = request.find("\r\nCSeq: ") + 8;
    return request.substr(begin, request.find("\r\n", begin) - begin);
}

/// @return whether the connection stays
bool play(BIO *stream, const Step &step, const std::string &request)
{
    EXPECT_TRUE(step.method.empty() || step.method == request.substr(0, request.find(' '))) << request;
    for (std::string piece : step.pieces)
    {
        size_t mark = 0;
        while ((mark = piece.find("{cseq}")) != std::string::npos)
            piece.replace(mark, 6, cseqOf(request));
        if (BIO_write(stream, piece.data(), static_cast<int>(piece.size())) <= 0)
            return false;
        if (step.pieces.size() > 1) // so that the pieces arrive as pieces
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const linger reset = {1, 0};
    if (step.after == After::Reset)
        setsockopt(static_cast<int>(BIO_get_fd(stream, nullptr)), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    if (step.after == After::CloseGet)
        shutdown(static_cast<int>(BIO_get_fd(stream, nullptr)), SHUT_WR);
    return step.after != After::Close && step.after != After::Reset;
}

bool begins(const std::string &text, const char *prefix)
{
    return text.rfind(prefix, 0) == 0;
}

/// The body of a tunnel's POST.
struct Body
{
    bool open = false;
    bool counts = false; ///< it ends where it is announced to
    size_t left = 0;
    std::string coded;

    void take(const std::string &bytes, std::string &plain)
    {
        EXPECT_TRUE(!counts || bytes.size() <= left) << "more than is announced";
        left -= std::min(left, bytes.size());
        coded += bytes;
        for (; coded.size() >= 4; coded.erase(0, 4))
        {
            std::array<unsigned char, 3> three;
            EXPECT_EQ(EVP_DecodeBlock(three.data(), reinterpret_cast<const unsigned char *>(coded.data()), 4), 3);
            plain.append(three.begin(), three.end() - std::count(coded.begin(), coded.begin() + 4, '='));
        }
    }
    bool ended() const { return open && counts && left == 0; }
};

bool saidGoodbye(BIO *stream)
{
    const SSL *ssl = nullptr;
    BIO_get_ssl(stream, &ssl);
    return ssl && SSL_is_init_finished(ssl) && (SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN) != 0;
}

std::mutex portMutex; // guards the port that is open
std::pair<ZR_ULONG, std::weak_ptr<media::Port>> openPort;

} // namespace

ScriptedServer::ScriptedServer(std::vector<Script> scripts, std::shared_ptr<SSL_CTX> tls)
    : m_scripts(std::move(scripts))
    , m_tls(std::move(tls))
    , m_listener(listenWith(16))
{
    EXPECT_EQ(pipe(m_stop), 0);
    m_thread = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer()
{
    close(m_stop[1]);
    m_thread.join();
    close(m_stop[0]);
    m_listener.close();
}

uint16_t ScriptedServer::port() const
{
    return addressOf(m_listener).get_port_number();
}

std::string ScriptedServer::url(const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port()) + "/live";
}

/// Whether the socket has something before the test ends.
bool ScriptedServer::readable(int socket) const
{
    std::array<pollfd, 2> waits = {pollfd{socket, POLLIN, 0}, pollfd{m_stop[0], POLLIN, 0}};
    return poll(waits.data(), waits.size(), -1) > 0 && waits[1].revents == 0;
}

void ScriptedServer::run()
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr); // this thread writes plainly
    for (size_t number = 0; readable(m_listener.get_handle()); ++number)
    {
        Stream stream = accept();
        serve(stream.get(), number < m_scripts.size() ? m_scripts[number] : Script());
        stream.reset(); // it has ended once its client can see it
        m_ends.add(number);
    }
}

ScriptedServer::Stream ScriptedServer::accept() const
{
    if (!readable(m_listener.get_handle()))
        return Stream(BIO_new(BIO_s_null()));
    const int socket = accept4(m_listener.get_handle(), nullptr, nullptr, SOCK_CLOEXEC);
    const int one = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    BIO *const plain = BIO_new_socket(socket, BIO_CLOSE);
    Stream stream(m_tls ? BIO_push(BIO_new_ssl(m_tls.get(), 0), plain) : plain);
    BIO_do_handshake(stream.get()); // what comes of it shows in what follows
    return stream;
}

void ScriptedServer::serve(BIO *stream, const Script &script)
{
    auto step = script.begin();
    std::string buffer;
    std::string head; // of the next POST, while a frame may be in two
    std::string request;
    Stream post; // of a tunnel
    Body body;
    BIO *in = stream;
    while (BIO_pending(in) > 0 || readable(static_cast<int>(BIO_get_fd(in, nullptr))))
    {
        std::array<char, 4096> bytes;
        const int size = BIO_read(in, bytes.data(), static_cast<int>(bytes.size()));
        if (saidGoodbye(in))
            requests.add("close_notify");
        if (size <= 0)
            return;
        const std::string came(bytes.data(), static_cast<size_t>(size));
        if (body.open)
            body.take(came, buffer);
        else
            (post ? head : buffer).append(came);
        while (takeRequest(post && !body.open ? head : buffer, request))
        {
            const bool answer = begins(request, "RTSP/"); // to a request of the script's
            const After after = answer || step == script.end() ? After::Stay : step->after;
            const bool ofPost = begins(request, "POST ");
            if (!answer && step != script.end() && !play(ofPost ? in : stream, *step++, request))
            {
                if (!ofPost || !post)
                    return;
                post.reset();
                in = stream;
                continue;
            }
            if (ofPost)
            {
                const size_t length = std::stoul(request.substr(request.find("\r\nContent-Length: ") + 18));
                body = {true, after == After::ClosePost, length, {}};
                if (after == After::NextPost)
                    body.open = false;
                else
                    body.take(std::exchange(post ? head : buffer, {}), buffer);
            }
            else if (after == After::ClosePost)
            {
                post.reset();
                body = {};
                in = stream;
            }
            if (after == After::NextPost || (begins(request, "GET ") && after == After::Stay))
            {
                head.clear();
                post.reset();
                post = accept();
                in = post.get();
            }
        }
        if (body.ended())
        {
            post.reset();
            post = accept();
            in = post.get();
            body = {};
        }
    }
}

bool ScriptedServer::takeRequest(std::string &buffer, std::string &request)
{
    while (buffer.size() >= 4 && buffer.front() == '$')
    {
        const size_t size = 4U + static_cast<unsigned char>(buffer[2]) * 256U + static_cast<unsigned char>(buffer[3]);
        if (buffer.size() < size)
            return false;
        frames.add(buffer.substr(0, size));
        buffer.erase(0, size);
    }
    const size_t end = buffer.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    request = buffer.substr(0, end + 4);
    buffer.erase(0, end + 4);
    requests.add(request);
    return true;
}

uint16_t refusedPort()
{
    ACE_SOCK_Acceptor listener = listenWith(1);
    const uint16_t port = addressOf(listener).get_port_number();
    listener.close();
    return port;
}

uint16_t silentPort(bool full)
{
    const ACE_INET_Addr address = addressOf(listenWith(full ? 0 : 16));
    for (int filler = 0; full && filler < 4; ++filler)
    {
        ACE_SOCK_Stream waiting;
        ACE_SOCK_Connector(waiting, address, &ACE_Time_Value::zero);
    }
    return address.get_port_number();
}

ZR_ULONG Recorder::AOIMsgPro(tagAOIMsg *message)
{
    if (inside)
        inside();
    Received received;
    received.messageId = message->stHeader.ulMsgID;
    received.kind = message->stHeader.ulMsgKind;
    received.destination = message->stHeader.ulDstID;
    CAOIIETool::getAOIIEErrcode(message, received.error);
    CAOIIETool::getAOIIESessionID(message, received.session);
    CAOIIETool::getAOIIESDP(message, received.sdp);
    CAOIIETool::getAOIIEContentBase(message, received.base);
    CAOIIETool::getAOIIERange(message, received.range);
    CAOIIETool::getAOIIEQuitReason(message, received.reason);
    CAOIIETool::getAOIIESAction(message, received.action);
    messages.add(received);
    return 0;
}

std::shared_ptr<RecordingPort> RecordingPort::open(ZR_ULONG aoiPort)
{
    auto port = std::make_shared<RecordingPort>();
    const std::lock_guard<std::mutex> lock(portMutex);
    openPort = {aoiPort, port};
    return port;
}

Client::Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const std::string &host, uint16_t port)
    : url("rtsp://" + host + ":" + std::to_string(port) + "/live")
    , m_dispatcher(dispatcher)
    , m_id(id)
    , m_ua("ua" + std::to_string(id))
{
    EXPECT_EQ(CRouteMgr::addUAAddr(m_ua, "camera", host, port), 0U);
    EXPECT_EQ(dispatcher.registerAOIMsgProc(id, &recorder), 0U);
}

Client::Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const ScriptedServer &server)
    : Client(dispatcher, id, "127.0.0.1", server.port())
{
}

Client::~Client()
{
    if (m_registered)
        unregister();
    CRouteMgr::deleteUAAddr(m_ua, "camera");
}

ZR_ULONG Client::unregister()
{
    m_registered = false;
    return m_dispatcher.unregisterAOIMsgProc(m_id);
}

void Client::reroute(uint16_t port) const
{
    CRouteMgr::deleteUAAddr(m_ua, "camera");
    EXPECT_EQ(CRouteMgr::addUAAddr(m_ua, "camera", "127.0.0.1", port), 0U);
}

ZR_ULONG Client::send(ZR_ULONG messageId)
{
    constexpr ZR_ULONG nobody = 0xFFFFFFFF;
    const aoi::MessagePtr owned(CAOIIETool::mallocAOIMsg(2048));
    tagMDPMsg *const message = owned.get();
    tagMDPMsgHeader header = {};
    CAOIIETool::genAOIMsgHeader(messageId, m_id, nobody, header);
    MDP_CreatReqMsgHeader(&header, message);
    CAOIIETool::addAOIIEURL(url, message);
    CAOIIETool::addAOIIESrcUaID(m_ua, message, 1);
    CAOIIETool::addAOIIEDstUaID("camera", message, 0);
    if (messageId == AOI_MSG_RTSP_DESCRIBE)
    {
        CAOIIETool::addAOIIEUserAgent(message);
        CAOIIETool::addAOIIEAccept(message);
        CAOIIETool::addAOIIEAuth(authorization, message);
    }
    else if (messageId == AOI_MSG_RTSP_SETUP)
        CAOIIETool::addAOIIETransport("127.0.0.1", 5000, protocol, BROADCASTMETHOD_NONE, message, 0);
    else
        CAOIIETool::addAOIIESessionID(session, message);
    return m_dispatcher.sendAOIMsg(message);
}

Received Client::ask(ZR_ULONG messageId)
{
    const size_t before = recorder.messages(0).size();
    EXPECT_EQ(send(messageId), 0U);
    const auto all = recorder.messages(before + 1);
    EXPECT_GT(all.size(), before) << "no answer to " << std::hex << messageId;
    return all.size() > before ? all[before] : Received();
}

std::string ok(const std::string &headers, const std::string &body)
{
    return "RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\n" + headers +
           (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
}

const std::string describeAnswer = ok("Content-Type: application/sdp\r\n",
                                      "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track1\r\n");
const std::string setupAnswer = ok("Session: S1;timeout=60\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
const std::string udpSetupAnswer =
    ok("Session: S1;timeout=10\r\nTransport: RTP/AVP;unicast;client_port=5000-5001;server_port=6000-6001\r\n");
const std::string sessionAnswer = ok("Session: S1\r\n");

} // namespace zr::test

std::shared_ptr<zr::media::Port> zr::media::findByAoiPort(ZR_ULONG aoiPortId)
{
    const std::lock_guard<std::mutex> lock(zr::test::portMutex);
    return aoiPortId == zr::test::openPort.first ? zr::test::openPort.second.lock() : nullptr;
}
