// The floor of what a client costs whose requests block their caller while a loop does the network: an epoll loop on a
// thread of its own, an order handed to it, an answer handed back, and nothing else.

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client_program.h"
#include "rtsp_text.h"

namespace {

using client::Options;

/// A caller sends one request at a time; keep-alives may be on their way before it, whose answers nobody waits for.
struct Connection
{
    // between caller and loop
    std::mutex mutex; ///< guards answer, lost and wanted
    std::condition_variable changed;
    std::string answer;
    bool wanted = false; ///< somebody waits for the answer
    bool lost = false;
    std::atomic<unsigned> keptAlive{0};

    // the loop's own
    int fd = -1;
    std::string in, out;
    unsigned keepAlives = 0;          ///< not answered yet
    bool ends = false;                ///< with the next answer
    std::shared_ptr<Connection> self; ///< while it is open
};

enum class Kind
{
    Request,
    KeepAlive,
    Last, ///< the connection ends with its answer
    Close
};

struct Order
{
    std::shared_ptr<Connection> connection;
    Kind kind;
    std::string bytes;
};

int checked(int result, const char *what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

class Loop : public client::ClientLibrary
{
public:
    explicit Loop(const Options &options)
        : m_options(options)
        , m_epoll(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))
        , m_wake(checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd"))
    {
        epoll_event event{EPOLLIN, {nullptr}};
        checked(epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_wake, &event), "epoll_ctl");
        m_thread = std::thread([this] { run(); });
    }
    ~Loop() override
    {
        post({nullptr, Kind::Close, {}});
        m_thread.join();
        close(m_wake);
        close(m_epoll);
    }
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    std::unique_ptr<client::ClientSession> session(bool held) override;

    /// Any thread. An order without a connection ends the loop, when all connections have.
    void post(Order order)
    {
        bool wakes = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            wakes = m_orders.empty();
            m_orders.push_back(std::move(order));
        }
        const uint64_t one = 1;
        if (wakes && write(m_wake, &one, sizeof one) != sizeof one)
            std::abort(); // a loop that cannot be woken
    }

private:
    void run()
    {
        std::vector<epoll_event> events(256);
        while (!m_ends || m_open != 0)
        {
            const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i)
            {
                const epoll_event &event = events[static_cast<size_t>(i)];
                if (event.data.ptr == nullptr)
                    takeOrders();
                else
                    happened(*static_cast<Connection *>(event.data.ptr), event.events);
            }
        }
    }

    void takeOrders()
    {
        uint64_t count = 0;
        if (read(m_wake, &count, sizeof count) != sizeof count)
            return;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_taken.swap(m_orders);
        }
        for (Order &order : m_taken)
        {
            if (order.connection == nullptr)
                m_ends = true;
            else
                take(order);
        }
        m_taken.clear();
    }

    void take(Order &order)
    {
        Connection &connection = *order.connection;
        if (order.kind == Kind::Close)
            end(connection);
        else if (connection.fd >= 0 || connect(order.connection))
        {
            connection.keepAlives += order.kind == Kind::KeepAlive ? 1 : 0;
            connection.ends = order.kind == Kind::Last;
            connection.out += order.bytes;
            flush(connection);
        }
    }

    bool connect(const std::shared_ptr<Connection> &connection)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_options.port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connection->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        connection->self = connection;
        ++m_open;
        epoll_event event{EPOLLIN | EPOLLOUT | EPOLLET, {connection.get()}};
        const bool begun =
            connection->fd >= 0 &&
            (::connect(connection->fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
             errno == EINPROGRESS) &&
            epoll_ctl(m_epoll, EPOLL_CTL_ADD, connection->fd, &event) == 0;
        if (!begun)
            end(*connection);
        return begun;
    }

    void happened(Connection &connection, uint32_t events)
    {
        if (connection.self == nullptr)
            return;
        const auto stays = connection.self; // through its end
        if ((events & EPOLLOUT) != 0 && !connection.out.empty())
            flush(connection);
        while (connection.fd >= 0 && (events & ~EPOLLOUT) != 0)
        {
            char buffer[8192];
            const ssize_t size = recv(connection.fd, buffer, sizeof buffer, 0);
            if (size == 0 || (size < 0 && errno != EAGAIN))
                end(connection);
            if (size <= 0)
                return;
            connection.in.append(buffer, static_cast<size_t>(size));
            takeAnswers(connection);
            if (static_cast<size_t>(size) < sizeof buffer)
                return;
        }
    }

    void flush(Connection &connection)
    {
        const ssize_t size = send(connection.fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
        if (size > 0)
            connection.out.erase(0, static_cast<size_t>(size));
        else if (errno != EAGAIN && errno != ENOTCONN)
            end(connection);
    }

    void takeAnswers(Connection &connection)
    {
        for (size_t head = 0; (head = connection.in.find("\r\n\r\n")) != std::string::npos;)
        {
            const std::string_view length =
                text::behind(std::string_view(connection.in).substr(0, head + 2), "Content-Length: ", "\r");
            const size_t whole = head + 4 + std::strtoul(length.empty() ? "0" : length.data(), nullptr, 10);
            if (connection.in.size() < whole)
                return;
            if (connection.keepAlives != 0)
            {
                --connection.keepAlives;
                ++connection.keptAlive;
            }
            else if (connection.ends)
            {
                end(connection);
                return;
            }
            else if (whole == connection.in.size())
                handBack(connection, std::move(connection.in));
            else
                handBack(connection, connection.in.substr(0, whole));
            connection.in.erase(0, whole);
        }
    }

    static void handBack(Connection &connection, std::string answer)
    {
        {
            const std::lock_guard<std::mutex> lock(connection.mutex);
            connection.answer = std::move(answer);
            connection.wanted = false;
        }
        connection.changed.notify_one();
    }

    void end(Connection &connection)
    {
        if (connection.self == nullptr)
            return;
        const auto stays = std::move(connection.self);
        if (connection.fd >= 0)
            close(connection.fd);
        connection.fd = -1;
        --m_open;
        {
            const std::lock_guard<std::mutex> lock(connection.mutex);
            connection.lost = true;
        }
        connection.changed.notify_one();
    }

    const Options &m_options;
    const int m_epoll, m_wake;
    std::mutex m_mutex; ///< guards m_orders
    std::vector<Order> m_orders;
    // the loop's own
    std::vector<Order> m_taken;
    unsigned m_open = 0;
    bool m_ends = false;
    std::thread m_thread;
};

class Session : public client::ClientSession
{
public:
    Session(Loop &loop, const Options &options)
        : m_loop(loop)
        , m_options(options)
    {
    }
    ~Session() override
    {
        if (!m_ended)
            m_loop.post({m_connection, Kind::Close, {}});
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void open() override
    {
        const std::string url = m_options.url();
        std::string answer = ask("DESCRIBE", url, "Accept: application/sdp\r\n");
        if (statusOf(answer) == 401 && !m_options.user.empty())
        {
            m_realm = text::behind(answer, "realm=\"", "\"");
            m_nonce = text::behind(answer, "nonce=\"", "\"");
            m_ha1 = text::md5(m_options.user + ':' + m_realm + ':' + m_options.password);
            answer = ask("DESCRIBE", url, "Accept: application/sdp\r\n");
        }
        require("DESCRIBE", answer);
        for (unsigned track = 0; track < m_options.setups; ++track)
        {
            const std::string channels = std::to_string(2 * track) + '-' + std::to_string(2 * track + 1);
            const std::string setUp = ask("SETUP", text::controlUrl(answer, url, track),
                                          "Transport: RTP/AVP/TCP;unicast;interleaved=" + channels + "\r\n");
            require("SETUP", setUp);
            m_id = text::behind(setUp, "Session: ", ";\r");
        }
        play();
    }
    void pause() override { require("PAUSE", ask("PAUSE", m_options.url(), {})); }
    void play() override { require("PLAY", ask("PLAY", m_options.url(), "Range: npt=0.000-\r\n")); }
    void keepAlive() override { m_loop.post({m_connection, Kind::KeepAlive, request("OPTIONS", m_options.url(), {})}); }
    bool keptAlive() override { return m_connection->keptAlive.exchange(0) != 0; }
    void end() override
    {
        {
            const std::lock_guard<std::mutex> lock(m_connection->mutex);
            if (m_connection->lost)
                throw std::runtime_error("lost");
        }
        m_loop.post({m_connection, Kind::Last, request("TEARDOWN", m_options.url(), {})});
        m_ended = true;
    }

private:
    static long statusOf(const std::string &answer)
    {
        constexpr size_t place = sizeof "RTSP/1.0";
        return answer.size() > place ? std::strtol(answer.c_str() + place, nullptr, 10) : 0;
    }
    static void require(const char *method, const std::string &answer)
    {
        if (statusOf(answer) != 200)
            throw std::runtime_error(std::string(method) + " was refused with " + std::to_string(statusOf(answer)));
    }

    std::string request(const char *method, const std::string &url, std::string_view headers)
    {
        std::string bytes;
        bytes.reserve(512);
        bytes.append(method).append(" ").append(url).append(" RTSP/1.0\r\nCSeq: ").append(std::to_string(++m_cseq));
        bytes.append("\r\nUser-Agent: baseline\r\n").append(headers);
        if (!m_id.empty())
            bytes.append("Session: ").append(m_id).append("\r\n");
        if (!m_ha1.empty())
        {
            bytes.append("Authorization: Digest username=\"").append(m_options.user);
            bytes.append("\", realm=\"").append(m_realm).append("\", nonce=\"").append(m_nonce);
            bytes.append("\", uri=\"").append(url).append("\", response=\"");
            bytes.append(text::digestResponse(m_ha1, m_nonce, method, url)).append("\"\r\n");
        }
        return bytes.append("\r\n");
    }

    std::string ask(const char *method, const std::string &url, std::string_view headers)
    {
        {
            const std::lock_guard<std::mutex> lock(m_connection->mutex);
            m_connection->wanted = true;
        }
        m_loop.post({m_connection, Kind::Request, request(method, url, headers)});
        std::unique_lock<std::mutex> lock(m_connection->mutex);
        m_connection->changed.wait(lock, [this] { return !m_connection->wanted || m_connection->lost; });
        if (m_connection->wanted)
            throw std::runtime_error(std::string(method) + ": the connection was lost");
        return std::move(m_connection->answer);
    }

    Loop &m_loop;
    const Options &m_options;
    const std::shared_ptr<Connection> m_connection = std::make_shared<Connection>();
    std::string m_id, m_realm, m_nonce, m_ha1;
    unsigned m_cseq = 0;
    bool m_ended = false;
};

std::unique_ptr<client::ClientSession> Loop::session(bool /*held*/)
{
    return std::make_unique<Session>(*this, m_options);
}

} // namespace

int main(int argc, char **argv)
{
    client::Program program;
    program.name = "baseline";
    program.about =
        "Sessions with an RTSP server on 127.0.0.1 through an epoll loop and the hand-over between it and its\n"
        "callers, and nothing else.\n";
    program.start = [](const Options &options) { return std::make_unique<Loop>(options); };
    return client::run(argc, argv, program);
}
