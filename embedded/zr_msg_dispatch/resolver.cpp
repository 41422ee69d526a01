#include "resolver.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

constexpr unsigned mostThreads = 4;
constexpr size_t mostWaiting = 256;
constexpr size_t mostAddresses = 8;

Resolved lookUp(const std::string &host, uint16_t port, int flags)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo *list = nullptr;
    Resolved resolved;
    const int failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (failure != 0)
    {
        resolved.error = gai_strerror(failure);
        return resolved;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    for (const addrinfo *entry = list; entry && resolved.addresses.size() < mostAddresses; entry = entry->ai_next)
    {
        if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6)
            continue;
        sockaddr_storage address = {};
        std::memcpy(&address, entry->ai_addr, entry->ai_addrlen);
        resolved.addresses.emplace_back(reinterpret_cast<const sockaddr_in *>(&address),
                                        static_cast<int>(entry->ai_addrlen));
    }
    if (resolved.addresses.empty())
        resolved.error = "no address of the Internet";
    return resolved;
}

} // namespace

Resolved resolveNumeric(const std::string &host, uint16_t port)
{
    sockaddr_in address = {};
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) // as most are: no need for the resolver's ways
    {
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        Resolved resolved;
        resolved.addresses.emplace_back(&address, static_cast<int>(sizeof(address)));
        return resolved;
    }
    return lookUp(host, port, AI_NUMERICHOST);
}

struct Resolver::State
{
    struct Query
    {
        std::string host;
        uint16_t port = 0;
        Done done;
    };

    std::mutex mutex; ///< guards all below; nothing is called under it
    std::condition_variable idle;
    std::deque<Query> waiting;
    unsigned threads = 0;
    bool stopped = false;

    /// A thread's life: as long as queries wait.
    static void work(const std::shared_ptr<State> &state);
};

void Resolver::State::work(const std::shared_ptr<State> &state)
{
    std::unique_lock<std::mutex> lock(state->mutex);
    while (!state->waiting.empty())
    {
        const Query query = std::move(state->waiting.front());
        state->waiting.pop_front();
        lock.unlock();
        Resolved resolved = lookUp(query.host, query.port, 0);
        lock.lock();
        if (state->stopped)
            break;
        lock.unlock();
        query.done(std::move(resolved));
        lock.lock();
    }
    --state->threads;
    state->idle.notify_all();
}

Resolver::Resolver()
    : m_state(std::make_shared<State>())
{
}

Resolver::~Resolver()
{
    stop(std::chrono::milliseconds::zero());
}

void Resolver::resolve(std::string host, uint16_t port, const Done &done)
{
    std::string refusal;
    {
        const std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->stopped)
            return;
        if (m_state->waiting.size() >= mostWaiting)
        {
            refusal = "too many names wait to be resolved";
        }
        else
        {
            m_state->waiting.push_back({std::move(host), port, done});
            if (m_state->threads == mostThreads)
                return;
            try
            {
                quietThread([state = m_state] { State::work(state); }).detach();
                ++m_state->threads;
                return;
            }
            catch (const std::system_error &error)
            {
                if (m_state->threads > 0)
                    return; // those that run will come to it
                m_state->waiting.pop_back();
                refusal = error.what();
            }
        }
    }
    done({{}, refusal});
}

void Resolver::stop(std::chrono::milliseconds patience)
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->stopped = true;
    m_state->waiting.clear();
    if (!m_state->idle.wait_for(lock, patience, [this] { return m_state->threads == 0; }) && patience.count() > 0)
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "%u look-ups of names are left to end by themselves",
                        m_state->threads);
}

} // namespace zr::dispatch
