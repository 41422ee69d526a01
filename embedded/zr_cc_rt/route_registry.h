/// @file
/// Routes as the dispatcher looks them up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zr::route {

struct Address
{
    std::string host;
    uint16_t port = 0;

    bool operator==(const Address &other) const { return host == other.host && port == other.port; }
    bool operator!=(const Address &other) const { return !(*this == other); }
};

/// The addresses under which a UA pair is registered, each once.
struct Found
{
    std::optional<Address> first; ///< the route, when there are no others
    std::vector<Address> others;  ///< then there is no route, for nobody knows which
};
/// Any thread.
Found find(const std::string &srcUaId, const std::string &dstUaId);

} // namespace zr::route
