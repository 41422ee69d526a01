// Drives many sessions through the plug-in and the embedded platform, and says what they cost.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "client_session.h"

namespace {

using client::Clock;
using client::Failures;
using client::Meter;
using client::Options;
using client::Session;
using Json = nlohmann::ordered_json;
using Sessions = std::vector<std::unique_ptr<Session>>;

constexpr char about[] =
    "Sessions with an RTSP server on 127.0.0.1 through the plug-in: connect, DESCRIBE, SETUP, PLAY, TEARDOWN. The last\n"
    "line is JSON; CPU is a session's (rtt: a round trip's) in microseconds, the end of the library included. Exit code\n"
    "0: all were ok.\n"
    "  seq    N sessions, one after the other, on one thread\n"
    "  conc   N sessions, C at a time, on C threads: a request blocks its caller\n"
    "  hold   N sessions, opened C at a time, kept alive by the plug-in's timers for K ticks of T ms, then ended\n"
    "  rtt    N round trips on one session, PAUSE and PLAY in turn\n"
    "  churn  at most N sessions open and close, C at a time, while PLAYERS others receive media of /stream\n";

/// Descriptors that are nobody's session.
constexpr rlim_t reservedDescriptors = 64;

void needDescriptors(const Options &options)
{
    constexpr rlim_t ofMediaPort = 4;
    const rlim_t one = options.udp ? 1 + ofMediaPort : 1;
    const bool churns = options.mode == "churn";
    rlim_t needed = reservedDescriptors + one * (options.mode == "hold" ? options.n : options.inFlight);
    if (churns)
        needed += (1 + ofMediaPort) * options.players + options.rate; // connections that linger for an answer
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < needed)
        throw std::runtime_error("this needs " + std::to_string(needed) + " descriptors, the limit is " +
                                 std::to_string(limit.rlim_max) + "; raise it (ulimit -Hn)");
}

/// Runs a work for each number below n, so many at a time, and notes what it throws.
/// @return how often it threw nothing
unsigned forEach(unsigned n, unsigned atATime, Failures &failures, const std::function<void(unsigned)> &work)
{
    std::atomic<unsigned> next{0}, good{0};
    const auto run = [&] {
        for (unsigned i = 0; (i = next++) < n;)
        {
            try
            {
                work(i);
                ++good;
            }
            catch (const std::exception &failed)
            {
                failures.note(failed.what());
            }
        }
    };
    if (atATime == 1)
    {
        run();
        return good;
    }
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::min(n, atATime); ++i)
        threads.emplace_back(run);
    for (std::thread &thread : threads)
        thread.join();
    return good;
}

/// Asked for where most are there.
class ThreadCount
{
public:
    void look()
    {
        if (!m_looked.exchange(true))
            m_threads = client::ofProcess("Threads:");
    }
    long threads() const { return m_threads; }

private:
    std::atomic<bool> m_looked{false};
    std::atomic<long> m_threads{0};
};

void addCost(Json &json, const Meter::Spent &spent, unsigned of)
{
    const double each = std::max(of, 1U);
    json["wall_s"] = spent.seconds;
    json["per_s"] = of / spent.seconds;
    json["user_us"] = spent.userUs / each;
    json["sys_us"] = spent.sysUs / each;
    json["cpu_us"] = spent.cpuUs() / each;
}

void addProcess(Json &json, long threads)
{
    rusage all{};
    getrusage(RUSAGE_SELF, &all);
    json["maxrss_kb"] = all.ru_maxrss;
    json["threads"] = threads;
}

/// Opens sessions of one kind side by side; those that could not be opened are missing.
Sessions openAll(const Options &options, unsigned n, Failures &failures,
                 const std::function<std::unique_ptr<Session>()> &make)
{
    Sessions sessions(n);
    forEach(n, options.inFlight, failures, [&](unsigned i) {
        auto session = make();
        session->open();
        sessions[i] = std::move(session);
    });
    return sessions;
}

/// Ends those that are there, and have not been lost.
unsigned endAll(const Options &options, Sessions &sessions, Failures &failures)
{
    return forEach(static_cast<unsigned>(sessions.size()), options.inFlight, failures, [&](unsigned i) {
        const std::unique_ptr<Session> session = std::move(sessions[i]);
        if (session == nullptr)
            throw std::runtime_error("of these sessions was not opened");
        session->end();
    });
}

Json inTurn(const Options &options, Failures &failures)
{
    const unsigned atATime = options.mode == "seq" ? 1 : options.inFlight;
    auto library = std::make_optional<example::Library>();
    ThreadCount count;
    const Meter meter;
    const unsigned ok = forEach(options.n, atATime, failures, [&](unsigned i) {
        Session session(options, options.path, false);
        session.open();
        if (i >= options.n / 2)
            count.look();
        session.end();
    });
    library.reset(); // which waits for answers to TEARDOWNs
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, meter.spent(), ok);
    addProcess(json, count.threads());
    json["host_threads"] = std::min(atATime, options.n);
    return json;
}

Json roundTrips(const Options &options, Failures &failures)
{
    const example::Library library;
    Session session(options, options.path, false);
    session.open();
    std::vector<double> times;
    times.reserve(options.n);
    bool pauses = true;
    const Meter meter;
    const unsigned ok = forEach(options.n, 1, failures, [&](unsigned) {
        const auto begin = Clock::now();
        pauses ? session.pause() : session.play();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        pauses = !pauses;
    });
    const Meter::Spent spent = meter.spent();
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, spent, ok);
    addProcess(json, client::ofProcess("Threads:"));
    session.end();
    std::sort(times.begin(), times.end());
    json["p50_us"] = times.empty() ? 0 : times[times.size() / 2];
    json["p99_us"] = times.empty() ? 0 : times[times.size() * 99 / 100];
    return json;
}

/// Keeps the sessions until the time is over.
/// @return the keep-alives that were answered meanwhile
unsigned long keep(const Options &options, Sessions &sessions, Clock::time_point end)
{
    // more often than they are sent, so that none is missed
    const auto step = std::chrono::milliseconds(std::clamp(options.tickMs / 2, 50U, 1000U));
    unsigned long answered = 0;
    while (Clock::now() < end)
    {
        std::this_thread::sleep_for(std::min<Clock::duration>(step, end - Clock::now()));
        for (const auto &session : sessions)
            answered += session != nullptr && session->keptAlive() ? 1 : 0;
    }
    return answered;
}

Json hold(const Options &options, Failures &failures)
{
    auto library = std::make_optional<example::Library>();
    const long before = client::ofProcess("VmRSS:");
    const Meter whole;
    Sessions sessions = openAll(options, options.n, failures, [&] {
        return std::make_unique<Session>(options, options.path, false, options.tickMs);
    });
    const double openSeconds = whole.spent().seconds;
    const long opened = client::ofProcess("VmRSS:");
    const Meter idle;
    const auto time = std::chrono::milliseconds(uint64_t{options.ticks} * options.tickMs);
    const unsigned long keepAlives = keep(options, sessions, Clock::now() + time);
    const Meter::Spent kept = idle.spent();
    const long threads = client::ofProcess("Threads:");
    // one is sent in each tick; it, and a step of looking, may be on their way
    const auto silent = Clock::now() - std::chrono::milliseconds(2ULL * options.tickMs) - std::chrono::seconds(2);
    for (auto &session : sessions)
    {
        if (session != nullptr && session->lastHeard() < silent)
        {
            failures.note("a session's keep-alives were not answered any more");
            session.reset();
        }
    }
    const unsigned ok = endAll(options, sessions, failures);
    library.reset();
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, whole.spent(), ok);
    addProcess(json, threads);
    json["host_threads"] = std::min(options.inFlight, options.n);
    json["open_s"] = openSeconds;
    json["rss_kb_per_session"] = static_cast<double>(opened - before) / options.n;
    json["idle_cpu_ms_per_s"] = kept.cpuUs() / 1000 / kept.seconds;
    json["keepalives"] = keepAlives;
    json["cpu_us_per_keepalive"] = kept.cpuUs() / static_cast<double>(std::max(keepAlives, 1UL));
    return json;
}

/// Looks every now and then how long ago the players' last packets arrived, until it is stopped.
class GapWatch
{
public:
    explicit GapWatch(const Sessions &players)
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

struct Paced
{
    unsigned begun = 0, ok = 0;
    Meter::Spent spent{};
};

/// Opens and closes sessions, each not before its time.
Paced openAndClose(const Options &options, Failures &failures)
{
    const Meter meter;
    const auto begin = Clock::now();
    std::atomic<unsigned> begun{0};
    std::atomic<unsigned> unneeded{0}; // those that are late
    const auto n = static_cast<unsigned>(std::min(uint64_t{options.n}, uint64_t{options.rate} * options.seconds));
    const unsigned good = forEach(n, options.inFlight, failures, [&](unsigned i) {
        const auto due = begin + std::chrono::nanoseconds(uint64_t{i} * 1000000000U / options.rate);
        std::this_thread::sleep_until(due);
        if (Clock::now() - begin >= std::chrono::seconds(options.seconds))
        {
            ++unneeded;
            return;
        }
        ++begun;
        Session session(options, options.path, false);
        session.open();
        session.end();
    });
    return {begun, good - unneeded, meter.spent()};
}

Json churn(const Options &options, Failures &failures)
{
    auto library = std::make_optional<example::Library>();
    Sessions players = openAll(options, options.players, failures,
                               [&] { return std::make_unique<Session>(options, "/stream", true); });
    std::this_thread::sleep_for(std::chrono::seconds(1)); // until the first packets are there
    GapWatch gaps(players);
    const Paced paced = openAndClose(options, failures);
    const ZR_ULONG worstGap = gaps.stop();
    const long threads = client::ofProcess("Threads:");
    forEach(options.players, options.inFlight, failures, [&](unsigned i) {
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
    const unsigned stayed = endAll(options, players, failures);
    library.reset();
    Json json = {{"n", paced.begun}, {"ok", paced.ok}};
    addCost(json, paced.spent, paced.ok);
    addProcess(json, threads);
    json["host_threads"] = options.inFlight;
    json["rate_asked"] = options.rate;
    json["players"] = options.players;
    json["players_ok"] = stayed;
    json["media_packets"] = packets;
    json["media_lost"] = missing;
    json["media_worst_gap_ms"] = worstGap;
    return json;
}

/// Reads the command line; ends the process where that asks for help or is wrong.
Options optionsOf(int argc, char **argv)
{
    Options options;
    std::string credentials;
    unsigned logLevel = ZR_LOG_ERROR;
    CLI::App app{about};
    app.add_option("--port", options.port)->required();
    app.add_option("--mode", options.mode)->required()->check(CLI::IsMember({"seq", "conc", "hold", "rtt", "churn"}));
    app.add_option("-n", options.n, "sessions, or round trips")->required()->check(CLI::PositiveNumber);
    app.add_option("-c", options.inFlight, "at a time")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--ticks", options.ticks)->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--tick-ms", options.tickMs, "the interval of the keep-alives as well, in steps of 800")
        ->check(CLI::Range(800, 10000000))
        ->capture_default_str();
    app.add_option("--players", options.players)->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--rate", options.rate, "sessions a second that churn begins at most")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "churn ends then, however far it came")->capture_default_str();
    app.add_option("--auth", credentials, "USER:PASSWORD");
    app.add_option("--setups", options.setups, "tracks")->check(CLI::Range(1, 2))->capture_default_str();
    app.add_flag("--udp", options.udp, "RTP over UDP, with a media port a session; else interleaved");
    app.add_option("--path", options.path, "of the URL; the sink server sends /still no media")->capture_default_str();
    app.add_option("--log-level", logLevel)->check(CLI::Range(1, 4))->capture_default_str();
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError &wrong)
    {
        std::exit(app.exit(wrong) == 0 ? 0 : 2); // NOLINT(concurrency-mt-unsafe): there is one thread yet
    }
    options.user = credentials.substr(0, credentials.find(':'));
    options.password = credentials.substr(std::min(credentials.size(), options.user.size() + 1));
    ZR_LogSetLevel(static_cast<tagZrLogLevel>(logLevel));
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        const Options options = optionsOf(argc, argv);
        const std::map<std::string, Json (*)(const Options &, Failures &)> modes = {
            {"seq", inTurn}, {"conc", inTurn}, {"hold", hold}, {"rtt", roundTrips}, {"churn", churn}};
        needDescriptors(options);
        Failures failures;
        Json json = {{"client", "zr_rtsp"}, {"mode", options.mode}};
        json.update(modes.at(options.mode)(options, failures));
        failures.print();
        std::printf("%s\n", json.dump().c_str());
        const bool playersStayed = options.mode != "churn" || json["players_ok"] == json["players"];
        return json["ok"] == json["n"] && playersStayed ? 0 : 1;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "session_client: %s\n", failed.what());
        return 1;
    }
}
