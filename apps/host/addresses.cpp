#include "addresses.h"

#include <cerrno>
#include <memory>
#include <system_error>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "failure.h"

namespace zr::host {
namespace {

class Socket
{
public:
    explicit Socket(int type)
        : m_handle(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
    }
    ~Socket()
    {
        if (m_handle >= 0)
        {
            close(m_handle);
        }
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int handle() const { return m_handle; }

private:
    int m_handle;
};

Failure noWay(const std::string &host, const std::string &why)
{
    return {ExitCode::Unreachable, "finding " + host, 0, why,
            "check the host's name, and that this machine is connected"};
}

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo *)>;

Addresses resolve(const std::string &host, uint16_t port, int &unresolved)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_DGRAM;
    addrinfo *raw = nullptr;
    unresolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &raw);
    return {unresolved == 0 ? raw : nullptr, freeaddrinfo};
}

/// @throws Failure  for a name that cannot be resolved
Addresses resolved(const std::string &host, uint16_t port)
{
    int unresolved = 0;
    Addresses found = resolve(host, port, unresolved);
    if (!found)
    {
        throw noWay(host, gai_strerror(unresolved));
    }
    return found;
}

/// Connects over TCP. @return 0; else why not, as errno
int connectError(const addrinfo &server, std::chrono::milliseconds longest)
{
    const Socket probe(SOCK_STREAM | SOCK_NONBLOCK);
    if (connect(probe.handle(), server.ai_addr, server.ai_addrlen) == 0)
    {
        return 0;
    }
    int error = errno;
    pollfd ready{probe.handle(), POLLOUT, 0};
    if (error == EINPROGRESS)
    {
        error = ETIMEDOUT;
        if (poll(&ready, 1, static_cast<int>(longest.count())) > 0)
        {
            socklen_t length = sizeof error;
            getsockopt(probe.handle(), SOL_SOCKET, SO_ERROR, &error, &length);
        }
    }
    return error;
}

} // namespace

std::string localAddressTowards(const std::string &host, uint16_t port)
{
    const Addresses server = resolved(host, port);
    // connecting a datagram socket sends nothing: it only asks the system for the way
    const Socket probe(SOCK_DGRAM);
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (connect(probe.handle(), server->ai_addr, server->ai_addrlen) != 0 ||
        getsockname(probe.handle(), reinterpret_cast<sockaddr *>(&local), &length) != 0)
    {
        throw noWay(host, std::system_category().message(errno));
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
    return text;
}

std::string interfaceOf(const std::string &address)
{
    in_addr wanted{};
    ifaddrs *raw = nullptr;
    if (inet_pton(AF_INET, address.c_str(), &wanted) != 1 || getifaddrs(&raw) != 0)
    {
        return "";
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> all(raw, freeifaddrs);
    for (const ifaddrs *one = raw; one != nullptr; one = one->ifa_next)
    {
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET &&
            reinterpret_cast<const sockaddr_in *>(one->ifa_addr)->sin_addr.s_addr == wanted.s_addr)
        {
            return one->ifa_name;
        }
    }
    return "";
}

std::vector<std::string> addressesOf(const std::string &host)
{
    const Addresses server = resolved(host, 0);
    std::vector<std::string> found;
    for (const addrinfo *one = server.get(); one != nullptr; one = one->ai_next)
    {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(one->ai_addr)->sin_addr, text, sizeof text);
        found.emplace_back(text);
    }
    return found;
}

double timeToConnect(const std::string &host, uint16_t port, std::chrono::milliseconds longest)
{
    const Addresses server = resolved(host, port);
    const auto begin = std::chrono::steady_clock::now();
    const int error = connectError(*server, longest);
    if (error != 0)
    {
        const bool refused = error == ECONNREFUSED;
        const std::string advice = refused ? "check the port, and that RTSP is enabled on the device"
                                           : "check that the device is on, and firewalls and routes on the way";
        throw Failure(ExitCode::Unreachable, "connecting to port " + std::to_string(port), 0,
                      refused ? "nobody listens there: the connection is refused"
                              : std::system_category().message(error),
                      advice);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

bool refusesConnections(const std::string &host, uint16_t port)
{
    constexpr std::chrono::milliseconds moment{300};
    int unresolved = 0;
    const Addresses server = resolve(host, port, unresolved);
    return server && connectError(*server, moment) == ECONNREFUSED;
}

} // namespace zr::host
