#include "client_program.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace client {

namespace {

constexpr char about[] =
    "The last line is JSON; CPU is a session's (rtt: a round trip's) in microseconds, the end of the library included.\n"
    "Exit code 0: all were ok.\n"
    "  seq    N sessions, one after the other, on one thread\n"
    "  conc   N sessions, C at a time, on C threads: a request blocks its caller\n"
    "  hold   N sessions, opened C at a time, kept alive for K ticks of T ms, then ended\n"
    "  rtt    N round trips on one session, PAUSE and PLAY in turn\n";

/// Descriptors of a session.
constexpr rlim_t interleavedSession = 1, udpSession = 5;

double microseconds(const timeval &from, const timeval &to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) * 1e6 + static_cast<double>(to.tv_usec - from.tv_usec);
}

/// Asked for where most are there.
class ThreadCount
{
public:
    void look()
    {
        if (!m_looked.exchange(true))
            m_threads = ofProcess("Threads:");
    }
    long threads() const { return m_threads; }

private:
    std::atomic<bool> m_looked{false};
    std::atomic<long> m_threads{0};
};

Json inTurn(const Program &program, const Options &options, Failures &failures)
{
    const unsigned atATime = options.mode == "seq" ? 1 : options.inFlight;
    auto library = program.start(options);
    ThreadCount count;
    const Meter meter;
    const unsigned ok = forEach(options.n, atATime, failures, [&](unsigned i) {
        const auto session = library->session(false);
        session->open();
        if (i >= options.n / 2)
            count.look();
        session->end();
    });
    library.reset(); // which waits for answers to TEARDOWNs
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, meter.spent(), ok);
    addProcess(json, count.threads());
    json["host_threads"] = std::min(atATime, options.n);
    return json;
}

Json roundTrips(const Program &program, const Options &options, Failures &failures)
{
    const auto library = program.start(options);
    const auto session = library->session(false);
    session->open();
    std::vector<double> times;
    times.reserve(options.n);
    bool pauses = true;
    const Meter meter;
    const unsigned ok = forEach(options.n, 1, failures, [&](unsigned) {
        const auto begin = Clock::now();
        pauses ? session->pause() : session->play();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        pauses = !pauses;
    });
    const Meter::Spent spent = meter.spent();
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, spent, ok);
    addProcess(json, ofProcess("Threads:"));
    session->end();
    std::sort(times.begin(), times.end());
    json["p50_us"] = times.empty() ? 0 : times[times.size() / 2];
    json["p99_us"] = times.empty() ? 0 : times[times.size() * 99 / 100];
    return json;
}

/// Keeps the sessions until the time is over; those that were not heard of any more are ended, and failures.
/// @return the keep-alives that were answered meanwhile
unsigned long keep(const Program &program, const Options &options, Sessions &sessions, Failures &failures)
{
    const auto tick = std::chrono::milliseconds(options.tickMs);
    // more often than they are sent, so that none is missed
    const auto step = std::max<Clock::duration>(tick / 2, std::chrono::milliseconds(50));
    const auto end = Clock::now() + options.ticks * tick;
    auto nextBurst = Clock::now();
    std::vector<Clock::time_point> heard(sessions.size(), nextBurst);
    unsigned long answered = 0;
    while (Clock::now() < end)
    {
        if (program.keepAlives == KeepAlives::InBursts && Clock::now() >= nextBurst)
        {
            nextBurst += tick;
            forEach(static_cast<unsigned>(sessions.size()), 1, failures, [&](unsigned i) {
                if (sessions[i] != nullptr)
                    sessions[i]->keepAlive();
            });
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(step, end - Clock::now()));
        for (size_t i = 0; i < sessions.size(); ++i)
        {
            if (sessions[i] == nullptr || !sessions[i]->keptAlive())
                continue;
            heard[i] = Clock::now();
            ++answered;
        }
    }
    // one is sent in each tick; it, and a step of looking, may be on their way
    const auto silent = Clock::now() - 2 * tick - step - std::chrono::seconds(2);
    for (size_t i = 0; i < sessions.size() && program.keepAlives != KeepAlives::None; ++i)
    {
        if (sessions[i] == nullptr || heard[i] >= silent)
            continue;
        failures.note("a session's keep-alives were not answered any more");
        sessions[i].reset();
    }
    return answered;
}

Json hold(const Program &program, const Options &options, Failures &failures)
{
    auto library = program.start(options);
    const long before = ofProcess("VmRSS:");
    const Meter whole;
    Sessions sessions = openAll(options.n, options.inFlight, failures, [&] { return library->session(true); });
    const Meter::Spent opening = whole.spent();
    const long opened = ofProcess("VmRSS:");
    const Meter idle;
    const unsigned long keepAlives = keep(program, options, sessions, failures);
    const Meter::Spent kept = idle.spent();
    const long threads = ofProcess("Threads:");
    const Meter end;
    const unsigned ok = endAll(options.inFlight, sessions, failures);
    library.reset();
    const Meter::Spent ending = end.spent();
    Json json = {{"n", options.n}, {"ok", ok}};
    addCost(json, whole.spent(), ok);
    addProcess(json, threads);
    json["host_threads"] = std::min(options.inFlight, options.n);
    json["open_s"] = opening.seconds;
    json["open_cpu_us"] = opening.cpuUs() / options.n;
    json["end_cpu_us"] = ending.cpuUs() / options.n;
    json["rss_kb_per_session"] = static_cast<double>(opened - before) / options.n;
    json["idle_cpu_ms_per_s"] = kept.cpuUs() / 1000 / kept.seconds;
    json["keepalives"] = keepAlives;
    json["cpu_us_per_keepalive"] = kept.cpuUs() / static_cast<double>(std::max(keepAlives, 1UL));
    return json;
}

Json runMode(const Program &program, const Options &options, Failures &failures)
{
    if (const auto own = program.modes.find(options.mode); own != program.modes.end())
        return own->second(options, failures);
    const rlim_t sessions = options.mode == "hold" ? options.n : options.inFlight;
    needDescriptors(sessions * (options.udp ? udpSession : interleavedSession));
    const auto mode = options.mode == "hold" ? hold : options.mode == "rtt" ? roundTrips : inTurn;
    return mode(program, options, failures);
}

/// Reads the command line; ends the process where that asks for help or is wrong.
Options optionsOf(int argc, char **argv, const Program &program)
{
    Options options;
    std::string credentials;
    CLI::App app{program.about + about};
    std::vector<std::string> modes = {"seq", "conc", "hold", "rtt"};
    for (const auto &own : program.modes)
        modes.push_back(own.first);
    app.add_option("--port", options.port)->required();
    app.add_option("--mode", options.mode)->required()->check(CLI::IsMember(modes));
    app.add_option("-n", options.n, "sessions, or round trips")->required()->check(CLI::PositiveNumber);
    app.add_option("-c", options.inFlight, "at a time")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--ticks", options.ticks)->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--tick-ms", options.tickMs, "the interval of the keep-alives as well, in steps of 800")
        ->check(CLI::Range(800, 10000000))
        ->capture_default_str();
    app.add_option("--auth", credentials, "USER:PASSWORD");
    app.add_option("--setups", options.setups, "tracks")->check(CLI::Range(1, 2))->capture_default_str();
    if (program.udp)
        app.add_flag("--udp", options.udp, "RTP over UDP, with a media port a session; else interleaved");
    app.add_option("--path", options.path, "of the URL; the sink server sends /still no media")->capture_default_str();
    program.addOptions(app);
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
    return options;
}

} // namespace

void Failures::print() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto &[what, times] : m_times)
        std::fprintf(stderr, "%lu times: %s\n", times, what.c_str());
}

Meter::Spent Meter::spent() const
{
    rusage now{};
    getrusage(RUSAGE_SELF, &now);
    return {std::chrono::duration<double>(Clock::now() - m_since).count(), microseconds(m_begin.ru_utime, now.ru_utime),
            microseconds(m_begin.ru_stime, now.ru_stime)};
}

void needDescriptors(rlim_t count)
{
    constexpr rlim_t nobodys = 64;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < count + nobodys)
        throw std::runtime_error("this needs " + std::to_string(count + nobodys) + " descriptors, the limit is " +
                                 std::to_string(limit.rlim_max) + "; raise it (ulimit -Hn)");
}

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

Sessions openAll(unsigned n, unsigned atATime, Failures &failures,
                 const std::function<std::unique_ptr<ClientSession>()> &make)
{
    Sessions sessions(n);
    forEach(n, atATime, failures, [&](unsigned i) {
        auto session = make();
        session->open();
        sessions[i] = std::move(session);
    });
    return sessions;
}

unsigned endAll(unsigned atATime, Sessions &sessions, Failures &failures)
{
    return forEach(static_cast<unsigned>(sessions.size()), atATime, failures, [&](unsigned i) {
        const auto session = std::move(sessions[i]);
        if (session == nullptr)
            throw std::runtime_error("of these sessions was not opened, or lost");
        session->end();
    });
}

long ofProcess(const std::string &key)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.compare(0, key.size(), key) == 0)
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
    return 0;
}

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

int run(int argc, char **argv, const Program &program)
{
    try
    {
        const Options options = optionsOf(argc, argv, program);
        Failures failures;
        Json json = {{"client", program.name}, {"mode", options.mode}};
        json.update(runMode(program, options, failures));
        failures.print();
        std::printf("%s\n", json.dump().c_str());
        return json["ok"] == json["n"] ? 0 : 1;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s: %s\n", program.name.c_str(), failed.what());
        return 1;
    }
}

} // namespace client
