/// @file
/// What the clients share, so that they are measured alike: command line, modes, JSON. Each brings its sessions.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <nlohmann/json_fwd.hpp>

namespace CLI {
class App;
}

namespace client {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

struct Options
{
    uint16_t port = 0;
    std::string mode, path = "/still", user, password;
    unsigned n = 0;
    unsigned inFlight = 16;
    unsigned ticks = 6, tickMs = 10000; ///< hold
    unsigned setups = 1;
    bool udp = false;

    /// Of what is asked for, without credentials.
    std::string url() const { return "rtsp://127.0.0.1:" + std::to_string(port) + path; }
};

/// What failed, and how often. Any thread.
class Failures
{
public:
    void note(const std::string &what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_times[what];
    }
    void print() const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, unsigned long> m_times;
};

/// CPU and time since it was made.
class Meter
{
public:
    Meter() { getrusage(RUSAGE_SELF, &m_begin); }
    struct Spent
    {
        double seconds, userUs, sysUs;
        double cpuUs() const { return userUs + sysUs; }
    };
    Spent spent() const;

private:
    rusage m_begin{};
    const Clock::time_point m_since = Clock::now();
};

/// One session, used by one thread at a time. Its operations block as the client does, and throw what failed.
class ClientSession
{
public:
    virtual ~ClientSession() = default;
    /// Connects, and sends DESCRIBE, SETUP and PLAY.
    virtual void open() = 0;
    virtual void pause() = 0;
    virtual void play() = 0;
    /// Sends TEARDOWN and closes; throws as well when the session was lost before.
    virtual void end() = 0;
    /// Sends a keep-alive; where the answer is not awaited, keptAlive tells of it.
    virtual void keepAlive() {}
    /// @return whether a keep-alive was answered since it was last asked
    virtual bool keptAlive() { return false; }
};

/// The client's library while it is started. Its end waits for answers to TEARDOWNs.
class ClientLibrary
{
public:
    virtual ~ClientLibrary() = default;
    /// Any thread.
    /// @param held  the session is kept alive for --ticks times --tick-ms
    virtual std::unique_ptr<ClientSession> session(bool held) = 0;
};

/// A library that is started and ended by its derived class, and whose sessions are all of one kind.
template <typename Session>
class LibraryOf : public ClientLibrary
{
public:
    explicit LibraryOf(const Options &options)
        : m_options(options)
    {
    }
    std::unique_ptr<ClientSession> session(bool /*held*/) override { return std::make_unique<Session>(m_options); }

private:
    const Options &m_options;
};

using Sessions = std::vector<std::unique_ptr<ClientSession>>;

/// Who sends the keep-alives of sessions that are held.
enum class KeepAlives
{
    ByItself, ///< the library's timers
    InBursts, ///< the program, for all sessions at the beginning of each tick
    None
};

struct Program
{
    std::string name, about;
    std::function<std::unique_ptr<ClientLibrary>(const Options &)> start;
    KeepAlives keepAlives = KeepAlives::InBursts;
    bool udp = false; ///< knows RTP over UDP
    /// Modes that only this client has, beside seq, conc, hold and rtt; their JSON has "n" and "ok".
    std::map<std::string, std::function<Json(const Options &, Failures &)>> modes = {};
    std::function<void(CLI::App &)> addOptions = [](CLI::App &) {};
};

/// Reads the command line, runs the mode, prints the JSON.
/// @return the program's exit code
int run(int argc, char **argv, const Program &program);

// for modes that only one client has

/// Throws when the process may not have so many descriptors, and some that are nobody's session.
void needDescriptors(rlim_t count);
/// Runs a work for each number below n, so many at a time, and notes what it throws.
/// @return how often it threw nothing
unsigned forEach(unsigned n, unsigned atATime, Failures &failures, const std::function<void(unsigned)> &work);
/// Opens sessions of one kind side by side; those that could not be opened are missing.
Sessions openAll(unsigned n, unsigned atATime, Failures &failures,
                 const std::function<std::unique_ptr<ClientSession>()> &make);
/// Ends those that are there, and have not been lost.
unsigned endAll(unsigned atATime, Sessions &sessions, Failures &failures);
/// A number of /proc/self/status, such as "Threads:" or, in KiB, "VmRSS:".
long ofProcess(const std::string &key);
void addCost(Json &json, const Meter::Spent &spent, unsigned of);
void addProcess(Json &json, long threads);

} // namespace client
