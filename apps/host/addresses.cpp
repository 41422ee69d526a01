#include "addresses.h"

#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "failure.h"
#include "interrupt.h"

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

Failure notFound(const std::string &host, const std::string &why)
{
    return {ExitCode::Unreachable, "finding " + host, 0, "no address for it: " + why,
            "check the name and this machine's name server, or give the device's address"};
}

Failure noWay(const std::string &host, const std::string &why)
{
    return {ExitCode::Unreachable, "finding a way to " + host, 0, "there is none: " + why,
            "check that this machine is connected, and its gateway"};
}

/// Why nobody was reached.
Failure notConnected(const std::string &step, int error, std::chrono::seconds waited)
{
    if (error == ECONNREFUSED)
    {
        return {ExitCode::Unreachable, step, 0, "nobody listens there: the connection is refused",
                "check the port, and that RTSP is enabled on the device"};
    }
    const std::string why = std::system_category().message(error);
    return {ExitCode::Unreachable, step, 0,
            error == ETIMEDOUT      ? "nothing came back within " + std::to_string(waited.count()) + " s"
            : error == EHOSTUNREACH ? "nobody has this address: " + why
                                    : why,
            "check that the device is on, its address, and firewalls and routes on the way"};
}

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo *)>;

Addresses lookUp(const std::string &host, uint16_t port, int flags, int &unresolved)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_DGRAM;
    wanted.ai_flags = flags;
    addrinfo *raw = nullptr;
    unresolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &raw);
    return {unresolved == 0 ? raw : nullptr, freeaddrinfo};
}

/// What a look-up comes to. Nothing ends one that has begun: its thread is left alone.
struct LookUp
{
    std::mutex mutex; ///< guards what follows
    std::condition_variable changed;
    Addresses found{nullptr, freeaddrinfo};
    int unresolved = 0;
    bool over = false;
    bool givenUp = false;
};

Addresses resolve(const std::string &host, uint16_t port, int &unresolved, const Interrupt &interrupt)
{
    constexpr std::chrono::seconds longest{30}; // three name servers, asked twice for 5 s
    Addresses numeric = lookUp(host, port, AI_NUMERICHOST, unresolved);
    if (numeric)
    {
        return numeric;
    }
    const auto look = std::make_shared<LookUp>();
    std::thread([look, host, port] {
        int why = 0;
        Addresses found = lookUp(host, port, 0, why);
        const std::scoped_lock lock(look->mutex);
        look->found = std::move(found);
        look->unresolved = why;
        look->over = true;
        look->changed.notify_all();
    }).detach();
    const Interrupt::Wait wait(interrupt, "the address of " + host, longest, [look] {
        const std::scoped_lock lock(look->mutex);
        look->givenUp = true;
        look->changed.notify_all();
    });
    std::unique_lock lock(look->mutex);
    look->changed.wait(lock, [&] { return look->over || look->givenUp; });
    unresolved = look->over ? look->unresolved : EAI_INTR;
    return std::move(look->found);
}

/// @throws Failure  for a name that cannot be resolved
Addresses resolved(const std::string &host, uint16_t port, const Interrupt &interrupt)
{
    int unresolved = 0;
    Addresses found = resolve(host, port, unresolved, interrupt);
    if (unresolved == EAI_INTR)
    {
        throw interrupt.failure("finding " + host, "interrupted before it was found");
    }
    if (!found)
    {
        throw notFound(host, gai_strerror(unresolved));
    }
    return found;
}

/// Connects over TCP. @return 0; else why not, as errno: ECANCELED when the program is to end
int connectError(const addrinfo &server, std::chrono::milliseconds longest, const Interrupt &interrupt)
{
    const Socket probe(SOCK_STREAM | SOCK_NONBLOCK);
    if (connect(probe.handle(), server.ai_addr, server.ai_addrlen) == 0)
    {
        return 0;
    }
    int error = errno;
    pollfd ready[] = {{probe.handle(), POLLOUT, 0}, {interrupt.handle(), POLLIN, 0}};
    if (error == EINPROGRESS)
    {
        error = ETIMEDOUT;
        if (poll(ready, 2, static_cast<int>(longest.count())) != 0 && interrupt.asked())
        {
            error = ECANCELED;
        }
        else if (ready[0].revents != 0)
        {
            socklen_t length = sizeof error;
            getsockopt(probe.handle(), SOL_SOCKET, SO_ERROR, &error, &length);
        }
    }
    return error;
}

} // namespace

std::string localAddressTowards(const std::string &host, uint16_t port, const Interrupt &interrupt)
{
    const Addresses server = resolved(host, port, interrupt);
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

std::vector<std::string> addressesOf(const std::string &host, const Interrupt &interrupt)
{
    const Addresses server = resolved(host, 0, interrupt);
    std::vector<std::string> found;
    for (const addrinfo *one = server.get(); one != nullptr; one = one->ai_next)
    {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(one->ai_addr)->sin_addr, text, sizeof text);
        found.emplace_back(text);
    }
    return found;
}

double timeToConnect(const std::string &host, uint16_t port, std::chrono::seconds longest, const Interrupt &interrupt)
{
    const Addresses server = resolved(host, port, interrupt);
    const std::string step = "connecting to port " + std::to_string(port);
    const Interrupt::Wait wait(interrupt, "a connection to port " + std::to_string(port), longest, [] {});
    const int error = connectError(*server, longest, interrupt);
    const double seconds = wait.sinceBegin().count();
    if (error == ECANCELED)
    {
        throw interrupt.failure(step, "interrupted before there was a connection");
    }
    if (error != 0)
    {
        throw notConnected(step, error, longest);
    }
    return seconds;
}

bool refusesConnections(const std::string &host, uint16_t port, const Interrupt &interrupt)
{
    constexpr std::chrono::milliseconds moment{300};
    int unresolved = 0;
    const Addresses server = resolve(host, port, unresolved, interrupt);
    return server && connectError(*server, moment, interrupt) == ECONNREFUSED;
}

} // namespace zr::host
