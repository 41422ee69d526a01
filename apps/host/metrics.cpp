#include "metrics.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <prometheus/client_metric.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

namespace zr::host {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

using Value = double (*)(const StreamFacts &);

struct Kind
{
    const char *name;
    const char *help;
    MetricType type;
    Value value;
};

double inSeconds(std::chrono::system_clock::time_point time)
{
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

const Kind kinds[] = {
    {"zr_rtsp_stream_up", "Whether media arrives.", MetricType::Gauge,
     [](const StreamFacts &one) { return one.state == StreamState::Alive ? 1.0 : 0.0; }},
    {"zr_rtsp_stream_state_since_seconds", "When the stream's state last changed, in seconds since 1970.",
     MetricType::Gauge, [](const StreamFacts &one) { return inSeconds(one.since); }},
    {"zr_rtsp_stream_bits_per_second", "Rate of the RTP packets at the moment.", MetricType::Gauge,
     [](const StreamFacts &one) { return one.kilobitsPerSecond * 1000; }},
    {"zr_rtsp_stream_jitter_seconds", "Interarrival jitter of the worst track (RFC 3550).", MetricType::Gauge,
     [](const StreamFacts &one) { return one.jitterMs / 1000; }},
    {"zr_rtsp_stream_packets_total", "RTP packets received.", MetricType::Counter,
     [](const StreamFacts &one) { return static_cast<double>(one.packets); }},
    {"zr_rtsp_stream_bytes_total", "Their bytes, RTP headers included.", MetricType::Counter,
     [](const StreamFacts &one) { return static_cast<double>(one.bytes); }},
    {"zr_rtsp_stream_packets_lost_total", "RTP packets missing by their sequence numbers.", MetricType::Counter,
     [](const StreamFacts &one) { return static_cast<double>(one.lost); }},
    {"zr_rtsp_stream_sessions_total", "Sessions that had media.", MetricType::Counter,
     [](const StreamFacts &one) { return static_cast<double>(one.sessions); }},
};

/// The format is UTF-8, which a URL that was typed may not be.
std::string label(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    return text;
}

std::vector<ClientMetric::Label> labelsOf(const StreamFacts &stream)
{
    std::vector<ClientMetric::Label> labels = {{"stream", std::to_string(stream.number)}, {"url", label(stream.url)}};
    if (!stream.name.empty())
    {
        labels.push_back({"name", label(stream.name)});
    }
    return labels;
}

ClientMetric metricOf(const StreamFacts &stream, const Kind &kind)
{
    ClientMetric metric;
    metric.label = labelsOf(stream);
    (kind.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = kind.value(stream);
    return metric;
}

/// One of value 1 of each stream's states, so that a state can be asked for by its name.
MetricFamily statesOf(const std::vector<StreamFacts> &streams)
{
    MetricFamily family;
    family.name = "zr_rtsp_stream_state";
    family.help = "1 for the state that the stream is in.";
    family.type = MetricType::Gauge;
    for (const StreamFacts &stream : streams)
    {
        for (const StreamState state : allStates)
        {
            ClientMetric metric;
            metric.label = labelsOf(stream);
            metric.label.push_back({"state", word(state)});
            metric.gauge.value = stream.state == state ? 1 : 0;
            family.metric.push_back(metric);
        }
    }
    return family;
}

class Collector : public prometheus::Collectable
{
public:
    explicit Collector(Metrics::Facts facts)
        : m_facts(std::move(facts))
    {
    }

    std::vector<MetricFamily> Collect() const override
    {
        const std::vector<StreamFacts> streams = m_facts();
        std::vector<MetricFamily> families = {statesOf(streams)};
        for (const Kind &kind : kinds)
        {
            MetricFamily family;
            family.name = kind.name;
            family.help = kind.help;
            family.type = kind.type;
            for (const StreamFacts &stream : streams)
            {
                family.metric.push_back(metricOf(stream, kind));
            }
            families.push_back(std::move(family));
        }
        return families;
    }

private:
    const Metrics::Facts m_facts;
};

} // namespace

struct Metrics::Means
{
    std::shared_ptr<Collector> collector;
    std::unique_ptr<prometheus::Exposer> exposer; ///< ends first: it calls the collector
};

Metrics::Metrics(const std::string &address, Facts facts)
    : m_means(std::make_unique<Means>())
{
    m_means->collector = std::make_shared<Collector>(std::move(facts));
    try
    {
        m_means->exposer = std::make_unique<prometheus::Exposer>(address, 1);
        m_means->exposer->RegisterCollectable(m_means->collector);
    }
    catch (const std::exception &) // it only says that it does not start
    {
        throw Failure(ExitCode::Output, "serving metrics", 0, "nothing can listen on " + address,
                      "another port, which is free, at an address of this machine");
    }
    const std::vector<int> ports = m_means->exposer->GetListeningPorts();
    m_url = "http://" + address.substr(0, address.rfind(':')) + ":" +
            (ports.empty() ? address.substr(address.rfind(':') + 1) : std::to_string(ports.front())) + "/metrics";
}

Metrics::~Metrics() = default;

} // namespace zr::host
