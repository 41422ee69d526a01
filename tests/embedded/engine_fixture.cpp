#include "engine_fixture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "zr_cc_rt.h"

namespace zr::test {

namespace {

int listenOn(uint16_t &port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto *const plain = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bind(listener, plain, size), 0);
    EXPECT_EQ(getsockname(listener, plain, &size), 0);
    port = ntohs(address.sin_port);
    return listener;
}

std::string headerOf(const std::string &request, const std::string &name)
{
    const size_t at = request.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return {};
    const size_t begin = at + name.size() + 4;
    return request.substr(begin, request.find("\r\n", begin) - begin);
}

std::mutex portsMutex; // guards the port that is open
ZR_ULONG openId = 0;
std::weak_ptr<media::Port> openPort;

} // namespace

ScriptedServer::ScriptedServer(std::vector<Script> scripts, std::shared_ptr<SSL_CTX> tls)
    : m_scripts(std::move(scripts))
    , m_tls(std::move(tls))
    , m_listener(listenOn(m_port))
{
    EXPECT_EQ(listen(m_listener, 16), 0);
    EXPECT_EQ(pipe(m_stop), 0);
    m_thread = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer()
{
    close(m_stop[1]);
    m_thread.join();
    close(m_stop[0]);
    close(m_listener);
}

/// Whether the socket has something before the test ends.
static bool readable(int socket, int stop)
{
    std::array<pollfd, 2> waits = {pollfd{socket, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
    return poll(waits.data(), waits.size(), -1) > 0 && waits[1].revents == 0;
}

ServerStream::ServerStream(int socket, SSL_CTX *tls)
    : m_socket(socket)
    , m_tls(tls ? SSL_new(tls) : nullptr, SSL_free)
{
    const int one = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (m_tls)
    {
        SSL_set_fd(m_tls.get(), socket);
        SSL_accept(m_tls.get()); // what comes of it shows in what follows
    }
}

ServerStream::~ServerStream()
{
    close(m_socket);
}

bool ServerStream::readable(int stop) const
{
    return (m_tls && SSL_pending(m_tls.get()) > 0) || test::readable(m_socket, stop);
}

ssize_t ServerStream::read(char *bytes, size_t size) const
{
    return m_tls ? SSL_read(m_tls.get(), bytes, static_cast<int>(size)) : recv(m_socket, bytes, size, 0);
}

bool ServerStream::write(const std::string &bytes) const
{
    if (m_tls)
        return SSL_write(m_tls.get(), bytes.data(), static_cast<int>(bytes.size())) > 0;
    return send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
}

bool ServerStream::saidGoodbye() const
{
    return m_tls && SSL_is_init_finished(m_tls.get()) && (SSL_get_shutdown(m_tls.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
}

void ServerStream::end(After how) const
{
    const linger reset = {1, 0};
    if (how == After::Reset)
        setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    else if (m_tls)
        SSL_shutdown(m_tls.get());
}

void ScriptedServer::run()
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr); // this thread's TLS writes plainly
    for (size_t number = 0; readable(m_listener, m_stop[0]); ++number)
    {
        const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        serve(ServerStream(socket, m_tls.get()), number < m_scripts.size() ? m_scripts[number] : Script());
        m_signal.change([this] { ++m_ended; });
    }
}

void ScriptedServer::serve(const ServerStream &stream, const Script &script)
{
    auto step = script.begin();
    std::string buffer;
    std::string request;
    while (stream.readable(m_stop[0]))
    {
        std::array<char, 4096> bytes;
        const ssize_t size = stream.read(bytes.data(), bytes.size());
        if (stream.saidGoodbye())
            m_signal.change([this] { m_requests.emplace_back("close_notify"); });
        if (size <= 0)
            return;
        buffer.append(bytes.data(), static_cast<size_t>(size));
        while (takeRequest(buffer, request))
        {
            const bool answer = request.rfind("RTSP/", 0) == 0; // to a request of the script's
            if (!answer && step != script.end() && !play(stream, *step++, request))
                return;
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
        m_signal.change([&] { m_frames.append(buffer, 0, size); });
        buffer.erase(0, size);
    }
    const size_t end = buffer.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    request = buffer.substr(0, end + 4);
    buffer.erase(0, end + 4);
    m_signal.change([&] { m_requests.push_back(request); });
    return true;
}

bool ScriptedServer::play(const ServerStream &stream, const Step &step, const std::string &request)
{
    if (!step.method.empty())
    {
        EXPECT_EQ(request.substr(0, request.find(' ')), step.method);
    }
    for (std::string piece : step.pieces)
    {
        size_t mark = 0;
        while ((mark = piece.find("{cseq}")) != std::string::npos)
            piece.replace(mark, 6, headerOf(request, "CSeq"));
        if (!stream.write(piece))
            return false;
        if (step.pieces.size() > 1) // so that the pieces arrive as pieces
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (step.after != After::Stay)
        stream.end(step.after);
    return step.after == After::Stay;
}

std::vector<std::string> ScriptedServer::requests(size_t count)
{
    std::vector<std::string> copy;
    m_signal.wait([&] {
        copy = m_requests;
        return copy.size() >= count;
    });
    return copy;
}

bool ScriptedServer::ended(size_t connections)
{
    return m_signal.wait([&] { return m_ended >= connections; });
}

std::string ScriptedServer::frames(size_t size)
{
    std::string copy;
    m_signal.wait([&] {
        copy = m_frames;
        return copy.size() >= size;
    });
    return copy;
}

uint16_t refusedPort()
{
    uint16_t port = 0;
    close(listenOn(port));
    return port;
}

uint16_t silentPort(bool full)
{
    uint16_t port = 0;
    const int listener = listenOn(port);
    EXPECT_EQ(listen(listener, full ? 0 : 16), 0);
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    auto *const plain = reinterpret_cast<sockaddr *>(&address);
    getsockname(listener, plain, &size);
    for (int filler = 0; full && filler < 4; ++filler)
    {
        const int waiting = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_TRUE(connect(waiting, plain, size) == 0 || errno == EINPROGRESS);
    }
    return port;
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
    tagAOIIEQuitReason reason = {};
    if (CAOIIETool::getAOIIEQuitReason(message, reason) == 0)
        received.reason = reason;
    tagAOIIERtspActionType action = {};
    if (CAOIIETool::getAOIIESAction(message, action) == 0)
        received.action = action;
    m_signal.change([&] { m_messages.push_back(received); });
    return 0;
}

std::vector<Received> Recorder::messages(size_t count, std::chrono::milliseconds limit)
{
    std::vector<Received> copy;
    m_signal.wait(
        [&] {
            copy = m_messages;
            return copy.size() >= count;
        },
        limit);
    return copy;
}

std::shared_ptr<RecordingPort> RecordingPort::open(ZR_ULONG aoiPort)
{
    auto port = std::make_shared<RecordingPort>();
    const std::lock_guard<std::mutex> lock(portsMutex);
    openId = aoiPort;
    openPort = port;
    return port;
}

void RecordingPort::note(std::string event)
{
    m_signal.change([&] { m_events.push_back(std::move(event)); });
}

void RecordingPort::setUpTrack(unsigned number, const media::TrackTransport &transport, media::InterleavedWriter writer)
{
    m_signal.change([&] { m_writer = std::move(writer); });
    note("track " + std::to_string(number) + " channels " + std::to_string(transport.rtpChannel) + "-" +
         std::to_string(transport.rtcpChannel));
}

void RecordingPort::interleavedFrame(uint8_t channel, const uint8_t *data, size_t size)
{
    note("frame " + std::to_string(channel) + " " + std::string(reinterpret_cast<const char *>(data), size));
}

void RecordingPort::connectionClosed()
{
    note("closed");
}

std::vector<std::string> RecordingPort::events(size_t count)
{
    std::vector<std::string> copy;
    m_signal.wait([&] {
        copy = m_events;
        return copy.size() >= count;
    });
    return copy;
}

media::InterleavedWriter RecordingPort::writer()
{
    media::InterleavedWriter copy;
    m_signal.wait([&] {
        copy = m_writer;
        return copy != nullptr;
    });
    return copy;
}

Client::Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const std::string &host, uint16_t port)
    : url("rtsp://" + host + ":" + std::to_string(port) + "/live")
    , m_dispatcher(dispatcher)
    , m_id(id)
    , m_host(host)
    , m_port(port)
{
    EXPECT_EQ(CRouteMgr::addUAAddr("ua" + std::to_string(id), "camera", host, port), 0U);
    EXPECT_EQ(dispatcher.registerAOIMsgProc(id, &recorder), 0U);
    m_registered = true;
}

Client::~Client()
{
    if (m_registered)
        unregister();
    CRouteMgr::deleteUAAddr("ua" + std::to_string(m_id), "camera");
}

ZR_ULONG Client::unregister()
{
    m_registered = false;
    return m_dispatcher.unregisterAOIMsgProc(m_id);
}

aoi::MessagePtr Client::create(ZR_ULONG messageId) const
{
    constexpr ZR_ULONG nobody = 0xFFFFFFFF;
    aoi::MessagePtr message(CAOIIETool::mallocAOIMsg(2048));
    tagMDPMsgHeader header = {};
    CAOIIETool::genAOIMsgHeader(messageId, m_id, nobody, header);
    MDP_CreatReqMsgHeader(&header, message.get());
    CAOIIETool::addAOIIEURL(url, message.get());
    CAOIIETool::addAOIIESrcUaID("ua" + std::to_string(m_id), message.get(), 1);
    CAOIIETool::addAOIIEDstUaID("camera", message.get(), 1);
    return message;
}

ZR_ULONG Client::describe(const std::string &authorization)
{
    aoi::MessagePtr message = create(AOI_MSG_RTSP_DESCRIBE);
    CAOIIETool::addAOIIEUserAgent(message.get());
    CAOIIETool::addAOIIEAccept(message.get());
    CAOIIETool::addAOIIEAuth(authorization, message.get());
    return m_dispatcher.sendAOIMsg(message.get());
}

ZR_ULONG Client::setup(const std::string &session, tagProtocol protocol)
{
    aoi::MessagePtr message = create(AOI_MSG_RTSP_SETUP);
    EXPECT_EQ(CAOIIETool::addAOIIETransport("127.0.0.1", 5000, protocol, BROADCASTMETHOD_NONE, message.get(), 0), 0U);
    if (!session.empty())
        CAOIIETool::addAOIIESessionID(session, message.get());
    return m_dispatcher.sendAOIMsg(message.get());
}

ZR_ULONG Client::send(ZR_ULONG messageId, const std::string &session)
{
    aoi::MessagePtr message = create(messageId);
    CAOIIETool::addAOIIESessionID(session, message.get());
    return m_dispatcher.sendAOIMsg(message.get());
}

std::string ok(const std::string &headers, const std::string &body)
{
    return "RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\n" + headers +
           (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
}

const std::string describeAnswer = ok("Content-Type: application/sdp\r\n",
                                      "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track1\r\n");
const std::string setupAnswer = ok("Session: S1;timeout=60\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");

dispatch::Settings quickSettings()
{
    dispatch::Settings settings;
    settings.userAgent = "test";
    return settings;
}

} // namespace zr::test

std::shared_ptr<zr::media::Port> zr::media::findByAoiPort(ZR_ULONG aoiPortId)
{
    const std::lock_guard<std::mutex> lock(zr::test::portsMutex);
    return aoiPortId == zr::test::openId ? zr::test::openPort.lock() : nullptr;
}
