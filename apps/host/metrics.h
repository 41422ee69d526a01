/// @file
/// Streams as metrics for Prometheus.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "watch_stream.h"

namespace zr::host {

/// Serves them over HTTP at /metrics, in the Prometheus text format, for as long as it exists.
class Metrics
{
public:
    using Facts = std::function<std::vector<StreamFacts>()>;

    /// @param address  IP:PORT to listen on
    /// @param facts    called on threads of its own
    /// @throws Failure  when it cannot listen there, or the program was built without the library for it
    Metrics(const std::string &address, Facts facts);
    ~Metrics();
    Metrics(const Metrics &) = delete;
    Metrics &operator=(const Metrics &) = delete;

    /// Where it listens.
    const std::string &url() const { return m_url; }

private:
    struct Means;
    std::unique_ptr<Means> m_means;
    std::string m_url;
};

} // namespace zr::host
