/// @file
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zr::host {

class Interrupt;

// What takes its time ends when the program is interrupted, with that as the Failure.

/// The address of this machine from which a server is reached, IPv4 and numeric: where its media can be received.
/// @param host  a name or an address; resolving a name may take seconds
/// @throws Failure  Unreachable, for a name that cannot be resolved or an address without a way to it
std::string localAddressTowards(const std::string &host, uint16_t port, const Interrupt &interrupt);

/// The name of the interface with this numeric address; empty when there is none.
std::string interfaceOf(const std::string &address);

/// A server's addresses, IPv4 and numeric.
/// @throws Failure  as localAddressTowards
std::vector<std::string> addressesOf(const std::string &host, const Interrupt &interrupt);

/// Connects to a server's port once, and closes.
/// @return the seconds that it took
/// @throws Failure  Unreachable, with the cause
double timeToConnect(const std::string &host, uint16_t port, std::chrono::seconds longest, const Interrupt &interrupt);

/// Whether nobody listens at a server's port any more: a connection is refused. What is not known within a moment
/// counts as listening.
bool refusesConnections(const std::string &host, uint16_t port, const Interrupt &interrupt);

} // namespace zr::host
