/// @file
/// Host names to addresses, away from the I/O thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <ace/INET_Addr.h>

namespace zr::dispatch {

struct Resolved
{
    std::vector<ACE_INET_Addr> addresses; ///< in the order in which they are to be tried
    std::string error;                    ///< why there is none
};

/// A numeric IPv4 or IPv6 address; none when it is not numeric. Never blocks.
Resolved resolveNumeric(const std::string &host, uint16_t port);

/// Looks names up on threads of its own: a few at most, started when there is something to do and ended when not, so
/// that a name server that is silent for one name does not hold up all others.
class Resolver
{
public:
    /// Called on a resolver thread.
    using Done = std::function<void(Resolved)>;

    Resolver();
    ~Resolver();
    Resolver(const Resolver &) = delete;
    Resolver &operator=(const Resolver &) = delete;

    /// Any thread; never blocks. When too many wait already, the answer (an error) comes from inside.
    void resolve(std::string host, uint16_t port, const Done &done);
    /// Drops what waits and waits for what runs. The system's look-up cannot be cancelled: one that is still under way
    /// then is left to itself and its answer dropped.
    void stop(std::chrono::milliseconds patience);

private:
    struct State;
    const std::shared_ptr<State> m_state; ///< shared with the threads, which may outlive this
};

} // namespace zr::dispatch
