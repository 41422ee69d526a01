/// @file
/// A server in a process of its own whose streams are sound, or hostile in one way each.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// What a neighbour's server does; the paths of its URLs tell them apart.
struct Manner
{
    std::string path;
    std::string name;
};

/// One that answers at once and sends a packet each 10 ms.
extern const Manner soundManner;
extern const std::vector<Manner> hostileManners;

/// Started before the caller has threads; ends with the caller, or with this.
class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    uint16_t port() const { return m_port; }

private:
    int m_process = -1;
    uint16_t m_port = 0;
};

} // namespace bench
