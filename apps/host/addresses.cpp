#include "addresses.h"

#include <cerrno>
#include <memory>
#include <system_error>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "failure.h"

namespace zr::host {
namespace {

class Socket
{
public:
    Socket()
        : m_handle(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
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

} // namespace

std::string localAddressTowards(const std::string &host, uint16_t port)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_DGRAM;
    addrinfo *raw = nullptr;
    const int unresolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &raw);
    if (unresolved != 0)
    {
        throw noWay(host, gai_strerror(unresolved));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> server(raw, freeaddrinfo);

    // connecting a datagram socket sends nothing: it only asks the system for the way
    const Socket probe;
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

} // namespace zr::host
