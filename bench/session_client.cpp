// Drives many sessions through the plug-in and the embedded platform, and says what they cost.

#include <algorithm>
#include <atomic>
#include <iterator>
#include <optional>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "plugin_session.h"

namespace {

using client::Clock;
using client::Failures;
using client::Json;
using client::Meter;
using client::Options;
using client::PluginSession;
using client::Sessions;
using Players = std::vector<std::unique_ptr<PluginSession>>;

constexpr char about[] =
    "Sessions with an RTSP server on 127.0.0.1 through the plug-in, which keeps them alive by its own timers. Beside\n"
    "the modes of all clients it has\n"
    "  churn  at most N sessions open and close, C at a time, while PLAYERS others receive media of /stream\n";

class Plugin : public client::ClientLibrary
{
public:
    explicit Plugin(const Options &options)
        : m_options(options)
    {
    }
    std::unique_ptr<client::ClientSession> session(bool held) override
    {
        return std::make_unique<PluginSession>(m_options, m_options.path, false, held ? m_options.tickMs : 0);
    }

private:
    const Options &m_options;
    const bench::Library m_library;
};

/// Looks every now and then how long ago the players' last packets arrived, until it is stopped.
class GapWatch
{
public:
    explicit GapWatch(const Players &players)
        : m_thread([this, &players] {
            while (!m_stop)
            {
                for (const auto &player : players)
                {
                    const ZR_ULONG ago = player != nullptr ? player->statistics().ulLastArrivalMs : 0;
                    m_worst = std::max(m_worst, ago == 0xFFFFFFFF ? 0 : ago);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        })
    {
    }
    /// @return the longest time without a packet of one of them that was seen, in milliseconds
    ZR_ULONG stop()
    {
        m_stop = true;
        m_thread.join();
        return m_worst;
    }

private:
    std::atomic<bool> m_stop{false};
    ZR_ULONG m_worst = 0;
    std::thread m_thread;
};

struct ChurnOptions
{
    unsigned players = 1000, rate = 1000, seconds = 30;
};

struct Paced
{
    unsigned begun = 0, ok = 0;
    Meter::Spent spent{};
};

/// Opens and closes sessions, each not before its time.
Paced openAndClose(const Options &options, const ChurnOptions &churn, Failures &failures)
{
    const Meter meter;
    const auto begin = Clock::now();
    std::atomic<unsigned> begun{0};
    std::atomic<unsigned> unneeded{0}; // those that are late
    const auto n = static_cast<unsigned>(std::min(uint64_t{options.n}, uint64_t{churn.rate} * churn.seconds));
    const unsigned good = client::forEach(n, options.inFlight, failures, [&](unsigned i) {
        const auto due = begin + std::chrono::nanoseconds(uint64_t{i} * 1000000000U / churn.rate);
        std::this_thread::sleep_until(due);
        if (Clock::now() - begin >= std::chrono::seconds(churn.seconds))
        {
            ++unneeded;
            return;
        }
        ++begun;
        PluginSession session(options, options.path, false);
        session.open();
        session.end();
    });
    return {begun, good - unneeded, meter.spent()};
}

Json runChurn(const Options &options, const ChurnOptions &churn, Failures &failures)
{
    constexpr rlim_t interleaved = 1, ofMediaPort = 4;
    // rate: connections that linger for an answer
    client::needDescriptors((options.udp ? interleaved + ofMediaPort : interleaved) * options.inFlight +
                            (interleaved + ofMediaPort) * churn.players + churn.rate);
    auto library = std::make_optional<bench::Library>();
    Players players(churn.players);
    client::forEach(churn.players, options.inFlight, failures, [&](unsigned i) {
        auto player = std::make_unique<PluginSession>(options, "/stream", true);
        player->open();
        players[i] = std::move(player);
    });
    std::this_thread::sleep_for(std::chrono::seconds(1)); // until the first packets are there
    GapWatch gaps(players);
    const Paced paced = openAndClose(options, churn, failures);
    const ZR_ULONG worstGap = gaps.stop();
    const long threads = client::ofProcess("Threads:");
    client::forEach(churn.players, options.inFlight, failures, [&](unsigned i) {
        if (players[i] != nullptr)
            players[i]->pause();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // what was sent before
    uint64_t packets = 0;
    uint64_t missing = 0;
    for (const auto &player : players)
    {
        const ZrMediaStatistics statistics = player != nullptr ? player->statistics() : ZrMediaStatistics{};
        packets += statistics.ullPackets;
        missing += statistics.ullLost;
    }
    Sessions ended(std::make_move_iterator(players.begin()), std::make_move_iterator(players.end()));
    const unsigned stayed = client::endAll(options.inFlight, ended, failures);
    library.reset();
    Json json = {{"n", paced.begun}, {"ok", paced.ok}};
    client::addCost(json, paced.spent, paced.ok);
    client::addProcess(json, threads);
    json["host_threads"] = options.inFlight;
    json["rate_asked"] = churn.rate;
    json["players"] = churn.players;
    json["players_ok"] = stayed;
    json["media_packets"] = packets;
    json["media_lost"] = missing;
    json["media_worst_gap_ms"] = worstGap;
    return json;
}

} // namespace

int main(int argc, char **argv)
{
    ChurnOptions churn;
    unsigned logLevel = ZR_LOG_ERROR;
    client::Program program;
    program.name = "zr_rtsp";
    program.about = about;
    program.start = [&](const Options &options) {
        ZR_LogSetLevel(static_cast<tagZrLogLevel>(logLevel));
        return std::make_unique<Plugin>(options);
    };
    program.keepAlives = client::KeepAlives::ByItself;
    program.udp = true;
    bool playersStayed = true;
    program.modes["churn"] = [&](const Options &options, Failures &failures) {
        ZR_LogSetLevel(static_cast<tagZrLogLevel>(logLevel));
        Json json = runChurn(options, churn, failures);
        playersStayed = json["players_ok"] == json["players"];
        return json;
    };
    program.addOptions = [&](CLI::App &app) {
        app.add_option("--players", churn.players)->check(CLI::PositiveNumber)->capture_default_str();
        app.add_option("--rate", churn.rate, "sessions a second that churn begins at most")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        app.add_option("--seconds", churn.seconds, "churn ends then, however far it came")->capture_default_str();
        app.add_option("--log-level", logLevel, "5: no line at all")->check(CLI::Range(1, 5))->capture_default_str();
    };
    const int code = client::run(argc, argv, program);
    return playersStayed ? code : 1;
}
