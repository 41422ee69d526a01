// Receives media through the plug-in and a media port a stream, or through a loop that only calls recv, and says what a
// packet costs.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "media_program.h"
#include "session.h"

namespace {

using media::Options;

class Ports : public media::Receiver
{
public:
    explicit Ports(const Options &options)
        : m_options(options)
    {
        ZR_LogSetLevel(ZR_LOG_ERROR);
        m_library.emplace();
    }
    void add() override
    {
        const auto number = static_cast<unsigned>(m_sessions.size());
        bench::Session &session =
            m_sessions.emplace_back(bench::Source{"127.0.0.1", m_options.port, "/stream"}, "127.0.0.1");
        session.setUp(m_options.udp ? PROTOCOL_UDP : PROTOCOL_TCP);
        if (!m_options.recordings.empty())
            bench::Library::require("recording",
                                    ZR_MediaPortRecord(session.portId(), m_options.recording(number).c_str()));
        bench::Library::require("play", session.control().play("", ""));
    }
    uint64_t packets() override
    {
        uint64_t sum = 0;
        for (const bench::Session &session : m_sessions)
            sum += session.statistics().ullPackets;
        return sum;
    }
    void endRecordings() override
    {
        for (const bench::Session &session : m_sessions)
            bench::Library::require("the end of a recording", ZR_MediaPortRecord(session.portId(), nullptr));
    }

private:
    const Options &m_options;
    std::optional<bench::Library> m_library;
    std::deque<bench::Session> m_sessions;
};

int checked(int result, const char *what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

/// A thread that waits for sockets, and reads and counts what there is.
class BareLoop : public media::Receiver
{
public:
    explicit BareLoop(const Options &options)
        : m_options(options)
        , m_epoll(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))
        , m_end(checked(eventfd(0, EFD_CLOEXEC), "eventfd"))
    {
        if (!options.recordings.empty())
            throw std::runtime_error("it records nothing");
        watch(m_end, nullptr);
        m_thread = std::thread([this] { run(); });
    }
    ~BareLoop() override
    {
        if (eventfd_write(m_end, 1) == 0)
            m_thread.join();
        for (const Stream &stream : m_streams)
        {
            if (m_options.udp)
                close(stream.fd);
        }
        close(m_end);
        close(m_epoll);
    }
    BareLoop(const BareLoop &) = delete;
    BareLoop &operator=(const BareLoop &) = delete;

    void add() override
    {
        Stream &stream = m_streams.emplace_back(m_options);
        uint16_t port = 0;
        if (m_options.udp)
            stream.fd = datagramSocket(port);
        stream.session.play(port);
        if (!m_options.udp)
            stream.fd = stream.session.connection();
        watch(stream.fd, &stream);
    }
    uint64_t packets() override { return m_packets; }
    void endRecordings() override {}

private:
    struct Stream
    {
        explicit Stream(const Options &options)
            : session(options)
        {
        }
        media::PlainSession session;
        int fd = -1;
        size_t ahead = 0; ///< bytes until the next interleaved frame begins
        std::vector<uint8_t> head;
    };

    static int datagramSocket(uint16_t &port)
    {
        const int fd = checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
        const int room = 2 * 1024 * 1024; // as a media port's
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        checked(bind(fd, reinterpret_cast<const sockaddr *>(&address), size), "bind");
        checked(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), "getsockname");
        port = ntohs(address.sin_port);
        return fd;
    }

    void watch(int fd, Stream *stream) const
    {
        epoll_event event{EPOLLIN, {stream}};
        checked(epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    }

    void run()
    {
        std::vector<uint8_t> buffer(65536);
        std::vector<epoll_event> events(64);
        for (;;)
        {
            const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i)
            {
                const epoll_event &event = events[static_cast<size_t>(i)];
                if (event.data.ptr == nullptr)
                    return;
                Stream &stream = *static_cast<Stream *>(event.data.ptr);
                m_options.udp ? readDatagrams(stream.fd, buffer) : readFrames(stream, buffer);
            }
        }
    }

    void readDatagrams(int fd, std::vector<uint8_t> &buffer)
    {
        uint64_t packets = 0;
        while (recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0)
            ++packets;
        m_packets += packets;
    }

    void readFrames(Stream &stream, std::vector<uint8_t> &buffer)
    {
        constexpr size_t headSize = 4;
        const ssize_t size = recv(stream.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size == 0)
            checked(epoll_ctl(m_epoll, EPOLL_CTL_DEL, stream.fd, nullptr), "epoll_ctl");
        size_t at = 0;
        uint64_t packets = 0;
        while (size > 0 && at < static_cast<size_t>(size))
        {
            const size_t left = static_cast<size_t>(size) - at;
            const size_t passed = std::min(left, stream.ahead);
            at += passed;
            stream.ahead -= passed;
            while (stream.ahead == 0 && at < static_cast<size_t>(size) && stream.head.size() < headSize)
                stream.head.push_back(buffer[at++]);
            if (stream.head.size() < headSize)
                continue;
            stream.ahead = static_cast<size_t>(stream.head[2] << 8U | stream.head[3]);
            stream.head.clear();
            ++packets; // with its head: the next loop waits for its bytes
        }
        m_packets += packets;
    }

    const Options &m_options;
    const int m_epoll, m_end;
    std::deque<Stream> m_streams;
    std::atomic<uint64_t> m_packets{0};
    std::thread m_thread;
};

} // namespace

int main(int argc, char **argv)
{
    return media::run(argc, argv,
                      {{"port", [](const Options &options) { return std::make_unique<Ports>(options); }},
                       {"bare", [](const Options &options) { return std::make_unique<BareLoop>(options); }}});
}
