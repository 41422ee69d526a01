#include "hostile_server.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace bench {

const Manner soundManner = {"/sound", "alone"};
const std::vector<Manner> hostileManners = {
    {"/media", "media as fast as it goes"},
    {"/channel", "frames of a channel that was not asked for"},
    {"/requests", "requests of its own, without end"},
    {"/answers", "answers to nothing, without end"},
    {"/header", "an answer whose headers never end"},
    {"/lines", "a description of 10,000 lines"},
    {"/byte", "a byte each 5 ms"},
    {"/silent", "no answer, and hangs up after 3 s"},
    {"/reset", "a reset for an answer"},
};

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto packetEvery = 10ms;
constexpr auto silence = 3s;
constexpr size_t blockSize = 65536;

std::string frame(char channel, size_t payload)
{
    std::string packet = {'\x80', '\x60', 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    packet.append(payload, 'x');
    return std::string("$") + channel + static_cast<char>(packet.size() >> 8U) + static_cast<char>(packet.size()) +
           packet;
}

std::string description(size_t lines)
{
    std::string text = "v=0\r\ns=-\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n";
    for (size_t i = 0; i < lines; ++i)
        text += "a=x-" + std::to_string(i) + ":something that nobody asked for\r\n";
    return text;
}

class Connection
{
public:
    explicit Connection(int socket)
        : m_socket(socket)
    {
    }
    ~Connection() { close(m_socket); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void serve()
    {
        while (m_open)
        {
            pollfd readable = {m_socket, POLLIN, 0};
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_due - Clock::now());
            const int timeout = m_playing ? static_cast<int>(std::max(left, 0ms).count()) : -1;
            if (poll(&readable, 1, timeout) > 0)
                receive();
            if (m_open && m_playing && Clock::now() >= m_due)
            {
                send(frame(0, 100));
                m_due += packetEvery;
            }
        }
    }

private:
    void receive()
    {
        char bytes[4096];
        const ssize_t size = recv(m_socket, bytes, sizeof bytes, 0);
        if (size <= 0)
        {
            m_open = false;
            return;
        }
        m_received.append(bytes, static_cast<size_t>(size));
        for (size_t end = m_received.find("\r\n\r\n"); end != std::string::npos && m_open;
             end = m_received.find("\r\n\r\n"))
        {
            const std::string head = m_received.substr(0, end + 2);
            m_received.erase(0, end + 4);
            if (head[0] != '$' && head.rfind("RTSP/", 0) != 0)
                answer(head);
        }
    }

    static std::string valueOf(const std::string &head, const std::string &name)
    {
        const size_t begin = head.find("\r\n" + name + ": ");
        if (begin == std::string::npos)
            return {};
        const size_t value = begin + name.size() + 4;
        return head.substr(value, head.find("\r\n", value) - value);
    }

    void answer(const std::string &head)
    {
        const std::string method = head.substr(0, head.find(' '));
        const auto is = [&head](const char *path) { return head.find(path) < head.find(" RTSP/"); };
        if (method == "DESCRIBE" && misdescribe(is))
            return;
        std::string text = "RTSP/1.0 200 OK\r\nCSeq: " + valueOf(head, "CSeq") + "\r\n";
        std::string body;
        if (method == "DESCRIBE")
            body = description(is("/lines") ? 10000 : 0);
        if (method == "SETUP")
            text += "Transport: " + valueOf(head, "Transport") + "\r\n";
        if (method != "DESCRIBE")
            text += "Session: 4711\r\n";
        else
            text += "Content-Type: application/sdp\r\n";
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        is("/byte") ? sendSlowly(text) : send(text);
        if (method == "PLAY" && !flood(is))
        {
            m_playing = true;
            m_due = Clock::now();
        }
        m_playing = m_playing && method != "PAUSE";
    }

    template <typename Is>
    bool misdescribe(const Is &is)
    {
        if (is("/silent"))
        {
            std::this_thread::sleep_for(silence);
            m_open = false;
        }
        else if (is("/reset"))
        {
            const linger now = {1, 0};
            setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
            m_open = false;
        }
        else if (is("/header"))
        {
            send("RTSP/1.0 200 OK\r\nX: ");
            sendForEver("aaaaaaaaaaaaaaaa");
        }
        else
            return false;
        return true;
    }

    template <typename Is>
    bool flood(const Is &is)
    {
        if (is("/media"))
            sendForEver(frame(0, 1400));
        else if (is("/channel"))
            sendForEver(frame(9, 100));
        else if (is("/requests"))
            sendForEver("OPTIONS * RTSP/1.0\r\nCSeq: 7\r\n\r\n");
        else if (is("/answers"))
            sendForEver("RTSP/1.0 200 OK\r\nCSeq: 4000000\r\n\r\n");
        else
            return false;
        return true;
    }

    void send(const std::string &bytes)
    {
        for (size_t sent = 0; sent < bytes.size() && m_open;)
        {
            const ssize_t size = ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            m_open = size > 0;
            sent += m_open ? static_cast<size_t>(size) : 0;
        }
    }

    void sendSlowly(const std::string &bytes)
    {
        for (size_t i = 0; i < bytes.size() && m_open; ++i)
        {
            send(bytes.substr(i, 1));
            std::this_thread::sleep_for(5ms);
        }
    }

    void sendForEver(const std::string &bytes)
    {
        std::string block;
        while (block.size() < blockSize)
            block += bytes;
        while (m_open)
            send(block);
    }

    const int m_socket;
    bool m_open = true;
    bool m_playing = false;
    Clock::time_point m_due;
    std::string m_received;
};

[[noreturn]] void serve(int listener)
{
    while (true)
    {
        const int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            _exit(1);
        const int one = 1;
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::thread([socket] { Connection(socket).serve(); }).detach();
    }
}

} // namespace

ServerProcess::ServerProcess()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener, 128) != 0 || getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("a server cannot listen on loopback");
    m_port = ntohs(address.sin_port);
    const pid_t parent = getpid();
    m_process = fork();
    if (m_process == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) // else it is gone already
            serve(listener);
        _exit(0);
    }
    close(listener);
    if (m_process < 0)
        throw std::runtime_error("a server's process cannot be made");
}

ServerProcess::~ServerProcess()
{
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
}

} // namespace bench
