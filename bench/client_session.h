/// @file
/// One session of the session client, through the plug-in's interfaces, and what the process spends.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include <sys/resource.h>

#include "session.h"

namespace client {

using Clock = std::chrono::steady_clock;

struct Options
{
    ZR_USHORT port = 0;
    std::string mode, path = "/still", user, password;
    unsigned n = 0;
    unsigned inFlight = 16;
    unsigned ticks = 6, tickMs = 10000; ///< hold
    unsigned setups = 1;
    bool udp = false;
    unsigned players = 1000, rate = 1000, seconds = 30; ///< churn
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

/// A number of /proc/self/status, such as "Threads:" or, in KiB, "VmRSS:".
long ofProcess(const std::string &key);

/// Connect, DESCRIBE, SETUP, PLAY, and in the end TEARDOWN.
class Session : private CIMediaCtrlObserver
{
public:
    /// @param keepAliveMs  0: an "onvif" session, whose keep-alives are its own affair, and whose credentials the
    ///                     plug-in knows; else one that the plug-in keeps alive so often, and whose challenges are
    ///                     answered below it (an "onvif" session takes no interval)
    Session(const Options &options, const std::string &path, bool receives, unsigned keepAliveMs = 0);

    /// Opens it and lets it play. Throws what failed.
    void open();
    void pause() { example::Library::require("pause", m_session.extended<CIMediaCtrlEx>().pause()); }
    void play() { example::Library::require("play", m_session.control().play("", "")); }
    /// Throws when the server or its connection ended the session before.
    void end();

    /// Looks whether the position that the answers to keep-alives tell is another: one was answered then.
    bool keptAlive();
    /// When that was last, or when it began to play.
    Clock::time_point lastHeard() const { return m_lastHeard; }
    bool lost() const { return m_notice != 0; }
    ZrMediaStatistics statistics() const { return m_session.statistics(); }

private:
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t) override { m_notice = *code; }
    void setUpByDescription();

    const Options &m_options;
    const unsigned m_keepAliveMs;
    std::atomic<ZR_ULONG> m_notice{0};
    std::string m_position;
    Clock::time_point m_lastHeard;
    example::Session m_session;
};

} // namespace client
