#include "addresses.h"

#include <cerrno>
#include <memory>
#include <system_error>

#include <arpa/inet.h>
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

} // namespace

std::string localAddressTowards(const std::string &host, uint16_t port)
{
    int unresolved = 0;
    const Addresses server = resolve(host, port, unresolved);
    if (!server)
    {
        throw noWay(host, gai_strerror(unresolved));
    }
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

bool refusesConnections(const std::string &host, uint16_t port)
{
    constexpr int momentMs = 300;
    int error = 0;
    const Addresses server = resolve(host, port, error);
    const Socket probe(SOCK_STREAM | SOCK_NONBLOCK);
    if (!server || connect(probe.handle(), server->ai_addr, server->ai_addrlen) == 0)
    {
        return false;
    }
    error = errno;
    pollfd ready{probe.handle(), POLLOUT, 0};
    if (error == EINPROGRESS && poll(&ready, 1, momentMs) > 0)
    {
        socklen_t length = sizeof error;
        getsockopt(probe.handle(), SOL_SOCKET, SO_ERROR, &error, &length);
    }
    return error == ECONNREFUSED;
}

} // namespace zr::host
