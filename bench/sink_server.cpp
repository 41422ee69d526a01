// An RTSP server that answers everything at once and counts what it saw, so that a client that cheats is found out.
// One thread.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unordered_map>
#include <vector>

#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "sink_session.h"

namespace {

using sink::Clock;

constexpr char usage[] =
    "usage: sink_server [--port P] [--auth USER:PASSWORD] [--basic] [--timeout S] [--media-every MS [--media-size B]\n"
    "                   [--media-rate KBIT] [--media-frames N]]\n"
    "  Answers RTSP on 127.0.0.1 at once: OPTIONS, DESCRIBE, SETUP (interleaved, UDP), PLAY, PAUSE, GET_PARAMETER,\n"
    "  SET_PARAMETER, TEARDOWN. Prints \"listening PORT\", and what it saw as a line of JSON at SIGUSR1, and at SIGTERM\n"
    "  and SIGINT, which end it.\n"
    "  --port P             0, the default: one that is free\n"
    "  --auth USER:PASSWORD these are asked for, by Digest or, with --basic, Basic\n"
    "  --timeout S          ends a session that it does not hear of for so many seconds (60)\n"
    "  --media-every MS     sends each session that plays an RTP packet so often, unless its URL has /still in it\n"
    "  --media-size B       of B bytes, its header included (172)\n"
    "  --media-rate KBIT    as many at once as make that rate: a video's frame, every fiftieth a key frame\n"
    "  --media-frames N     and no more after so many\n";

int checked(int result, const char *what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// @param port  0: receives the one that the system chose
int boundSocket(int type, uint16_t &port)
{
    const int fd = checked(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(port);
    socklen_t size = sizeof address;
    checked(bind(fd, reinterpret_cast<const sockaddr *>(&address), size), "bind");
    checked(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), "getsockname");
    port = ntohs(address.sin_port);
    return fd;
}

int timerOf(long milliseconds)
{
    const int fd = checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
    const timespec period = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    const itimerspec times = {period, period};
    checked(timerfd_settime(fd, 0, &times, nullptr), "timerfd_settime");
    return fd;
}

/// @return how often it has expired
uint64_t expirations(int timer)
{
    uint64_t count = 0;
    return read(timer, &count, sizeof count) == sizeof count ? count : 0;
}

class Server
{
public:
    explicit Server(const sink::Options &options);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    void run();

private:
    struct Peer
    {
        Peer(const sink::Options &options, sink::Counts &counts, uint64_t number)
            : session(options, counts, number)
        {
        }
        sink::Session session;
        std::string in, out;
        bool wantsOutput = false;
        size_t place = SIZE_MAX; ///< among those that stream
    };

    void watch(int fd, uint32_t events, int operation = EPOLL_CTL_ADD) const;
    void acceptAll();
    void readable(int fd, Peer &peer);
    bool flush(int fd, Peer &peer);
    void streamOrNot(int fd, Peer &peer);
    void stopStreaming(Peer &peer);
    void drop(int fd);
    void expireAll();
    void sendMedia();
    void sendFrame(int fd, Peer &peer);
    bool sendDatagram(Peer &peer) const;
    void print() const { std::printf("%s\n", m_counts.json().c_str()), std::fflush(stdout); }

    static constexpr long mediaTickMs = 5;

    const sink::Options m_options;
    sink::Counts m_counts;
    int m_epoll = -1, m_listener = -1, m_signals = -1, m_seconds = -1, m_mediaTimer = -1, m_rtp = -1;
    uint16_t m_rtpPort = 0;
    std::unordered_map<int, std::unique_ptr<Peer>> m_peers;
    std::vector<int> m_streaming;
    size_t m_nextStreaming = 0;
    uint64_t m_owed = 0; ///< frames times --media-every
};

Server::Server(const sink::Options &options)
    : m_options(options)
    , m_epoll(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int which : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&signals, which);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_signals = checked(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd");
    uint16_t port = options.port;
    m_listener = boundSocket(SOCK_STREAM, port);
    checked(listen(m_listener, SOMAXCONN), "listen");
    m_rtp = boundSocket(SOCK_DGRAM, m_rtpPort);
    m_seconds = timerOf(1000);
    for (const int fd : {m_listener, m_signals, m_seconds})
        watch(fd, EPOLLIN);
    if (options.mediaEvery != 0)
    {
        m_mediaTimer = timerOf(mediaTickMs);
        watch(m_mediaTimer, EPOLLIN);
    }
    std::printf("listening %u\n", port);
    std::fflush(stdout);
}

Server::~Server()
{
    for (const auto &entry : m_peers)
        close(entry.first);
    for (const int fd : {m_listener, m_signals, m_seconds, m_mediaTimer, m_rtp, m_epoll})
    {
        if (fd >= 0)
            close(fd);
    }
}

void Server::watch(int fd, uint32_t events, int operation) const
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    checked(epoll_ctl(m_epoll, operation, fd, &event), "epoll_ctl");
}

void Server::run()
{
    std::vector<epoll_event> events(512);
    for (;;)
    {
        const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i)
        {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == m_listener)
                acceptAll();
            else if (fd == m_seconds)
                expireAll();
            else if (fd == m_mediaTimer)
                sendMedia();
            else if (fd == m_signals)
            {
                signalfd_siginfo signal{};
                if (read(m_signals, &signal, sizeof signal) != sizeof signal)
                    continue;
                print();
                if (signal.ssi_signo != SIGUSR1)
                    return;
            }
            else if (const auto found = m_peers.find(fd); found != m_peers.end())
                readable(fd, *found->second);
        }
    }
}

void Server::acceptAll()
{
    for (;;)
    {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EMFILE || errno == ENFILE))
            throw std::runtime_error("no descriptors are left; raise the limit (ulimit -n)");
        if (fd < 0)
            return;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        m_peers[fd] = std::make_unique<Peer>(m_options, m_counts, ++m_counts.connections);
        m_counts.connectionsPeak = std::max(m_counts.connectionsPeak, ++m_counts.connectionsOpen);
        watch(fd, EPOLLIN);
    }
}

/// Or writable, or gone.
void Server::readable(int fd, Peer &peer)
{
    char buffer[16384];
    const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR))
    {
        drop(fd);
        return;
    }
    if (size > 0)
        peer.in.append(buffer, static_cast<size_t>(size));
    if (!peer.session.take(peer.in, peer.out, m_rtpPort) || !flush(fd, peer))
        drop(fd);
    else
        streamOrNot(fd, peer);
}

bool Server::flush(int fd, Peer &peer)
{
    while (!peer.out.empty())
    {
        const ssize_t size = send(fd, peer.out.data(), peer.out.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EAGAIN)
            return false;
        if (size < 0)
            break;
        peer.out.erase(0, static_cast<size_t>(size));
    }
    if (peer.wantsOutput == peer.out.empty())
    {
        peer.wantsOutput = !peer.out.empty();
        watch(fd, EPOLLIN | (peer.wantsOutput ? EPOLLOUT : 0U), EPOLL_CTL_MOD);
    }
    return true;
}

void Server::streamOrNot(int fd, Peer &peer)
{
    const bool streams = peer.place != SIZE_MAX;
    if (streams == peer.session.streams())
        return;
    if (streams)
    {
        stopStreaming(peer);
        return;
    }
    peer.place = m_streaming.size();
    m_streaming.push_back(fd);
}

void Server::stopStreaming(Peer &peer)
{
    const int last = m_streaming.back();
    m_streaming[peer.place] = last;
    m_peers.at(last)->place = peer.place;
    m_streaming.pop_back();
    peer.place = SIZE_MAX;
}

void Server::drop(int fd)
{
    Peer &peer = *m_peers.at(fd);
    if (peer.place != SIZE_MAX)
        stopStreaming(peer);
    m_peers.erase(fd);
    close(fd);
    --m_counts.connectionsOpen;
}

void Server::expireAll()
{
    expirations(m_seconds);
    std::vector<int> over;
    for (const auto &[fd, peer] : m_peers)
    {
        if (peer->session.expire(Clock::now()))
            over.push_back(fd);
    }
    for (const int fd : over)
        drop(fd);
}

/// A few sessions a tick, in turn, so that each has its frame once in --media-every.
void Server::sendMedia()
{
    m_owed += expirations(m_mediaTimer) * static_cast<uint64_t>(mediaTickMs) * m_streaming.size();
    // one that was held up does not send more than a round at once
    m_owed = std::min<uint64_t>(m_owed, m_streaming.size() * m_options.mediaEvery);
    for (; m_owed >= m_options.mediaEvery && !m_streaming.empty(); m_owed -= m_options.mediaEvery)
    {
        m_nextStreaming = (m_nextStreaming + 1) % m_streaming.size();
        const int fd = m_streaming[m_nextStreaming];
        Peer &peer = *m_peers.at(fd);
        sendFrame(fd, peer);
        streamOrNot(fd, peer); // that may have been its last
    }
}

bool Server::sendDatagram(Peer &peer) const
{
    const sockaddr_in to = loopback(peer.session.track().to);
    const std::string_view packet = peer.session.nextPacket();
    return sendto(m_rtp, packet.data(), packet.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to),
                  sizeof to) > 0;
}

void Server::sendFrame(int fd, Peer &peer)
{
    const unsigned packets = m_options.packetsOfFrame();
    if (!peer.session.track().interleaved)
    {
        for (unsigned i = 0; i < packets; ++i)
            ++(sendDatagram(peer) ? m_counts.rtpSent : m_counts.rtpSkipped);
        return;
    }
    if (!peer.out.empty()) // no packet is made, so that what is missing on the far side was lost there
    {
        m_counts.rtpSkipped += packets;
        return;
    }
    for (unsigned i = 0; i < packets; ++i)
        peer.out.append(peer.session.nextPacket());
    m_counts.rtpSent += packets;
    flush(fd, peer); // one that is gone is dropped when it is read
}

unsigned number(const std::string &text, unsigned most)
{
    char *end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value > most)
        throw std::invalid_argument(text + " is no number up to " + std::to_string(most));
    return static_cast<unsigned>(value);
}

sink::Options optionsOf(int argc, char **argv)
{
    const option known[] = {{"port", required_argument, nullptr, 'p'},
                            {"auth", required_argument, nullptr, 'a'},
                            {"basic", no_argument, nullptr, 'b'},
                            {"timeout", required_argument, nullptr, 't'},
                            {"media-every", required_argument, nullptr, 'm'},
                            {"media-size", required_argument, nullptr, 's'},
                            {"media-rate", required_argument, nullptr, 'r'},
                            {"media-frames", required_argument, nullptr, 'f'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    sink::Options options;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    for (int which = 0; (which = getopt_long(argc, argv, "", known, nullptr)) != -1;)
    {
        const std::string value = optarg != nullptr ? optarg : "";
        if (which == 'p')
            options.port = static_cast<uint16_t>(number(value, 65535));
        else if (which == 'a' && value.find(':') != std::string::npos)
        {
            options.user = value.substr(0, value.find(':'));
            options.password = value.substr(value.find(':') + 1);
        }
        else if (which == 'b')
            options.basic = true;
        else if (which == 't')
            options.timeout = number(value, 1000000);
        else if (which == 'm')
            options.mediaEvery = number(value, 1000000);
        else if (which == 's')
            options.mediaSize = std::clamp(number(value, 65000), 16U, 65000U);
        else if (which == 'r')
            options.mediaRate = std::max(1U, number(value, 100000));
        else if (which == 'f')
            options.mediaFrames = number(value, 1000000);
        else
        {
            std::fputs(usage, which == 'h' ? stdout : stderr);
            std::exit(which == 'h' ? 0 : 2); // NOLINT(concurrency-mt-unsafe): there is one thread
        }
    }
    return options;
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        const sink::Options options = optionsOf(argc, argv);
        raiseDescriptorLimit();
        Server(options).run();
        return 0;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "sink_server: %s\n", failed.what());
        return 1;
    }
}
