// Many sessions that open, seek, pause, die and come back, for as long as is asked; and what they leave behind.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include "session.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto longestSilence = 3s; // of a busy device, after PLAY

/// Of all arenas; a sanitizer, which has its own, counts nothing.
long heapKibibytes()
{
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
}

/// What the process holds on to.
struct Holding
{
    long heap = 0;      ///< KiB that are allocated
    long kibibytes = 0; ///< resident: that, its gaps, and as much of the threads' stacks as was ever used
    long descriptors = 0;
    long threads = 0;

    static Holding now()
    {
        Holding holding;
        holding.heap = heapKibibytes();
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);)
        {
            if (line.rfind("VmRSS:", 0) == 0)
                holding.kibibytes = std::strtol(line.c_str() + 6, nullptr, 10);
            if (line.rfind("Threads:", 0) == 0)
                holding.threads = std::strtol(line.c_str() + 8, nullptr, 10);
        }
        for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
            ++holding.descriptors;
        return holding;
    }
};

/// A device; one that is killed on purpose now and then may lose sessions, another may not.
struct Target
{
    bench::Source source;
    bool mortal;
};

struct Tally
{
    std::atomic<unsigned long> opened{0}, requests{0}, lostOnPurpose{0}, refusedOnPurpose{0}, packets{0};
    std::mutex mutex;
    std::map<std::string, unsigned long> faults; ///< what happened that must not
    void fault(const std::string &what)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++faults[what];
    }
};

/// Lets the workers run, or has all of them come to rest.
class Gate
{
public:
    explicit Gate(unsigned workers)
        : m_workers(workers)
    {
    }

    /// @return false: it is over
    bool pass()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open || m_over; });
        --m_waiting;
        return !m_over;
    }
    void open(bool open)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = open;
        m_changed.notify_all();
    }
    void rest()
    {
        open(false);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_waiting == m_workers; });
    }
    void end()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_over = true;
        m_changed.notify_all();
    }
    bool isOpen() const { return m_open; }

private:
    const unsigned m_workers;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned m_waiting = 0;
    std::atomic<bool> m_open{true};
    bool m_over = false;
};

class Watcher : public CIMediaCtrlObserver
{
public:
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t) override { m_code = *code; }
    /// What ended the session; the end of a recording is none of it.
    ZR_ULONG loss() const { return m_code == ZR_RTSP_NOTICE_END_OF_STREAM ? 0 : m_code.load(); }
    bool ended() const { return m_code != 0; }

private:
    std::atomic<ZR_ULONG> m_code{0};
};

class Worker
{
public:
    Worker(const std::vector<Target> &targets, Gate &gate, Tally &tally, unsigned seed)
        : m_targets(targets)
        , m_gate(gate)
        , m_tally(tally)
        , m_random(seed)
    {
    }

    void run()
    {
        while (m_gate.pass())
            oneSession(m_targets[pick(m_targets.size())]);
    }

private:
    size_t pick(size_t below) { return std::uniform_int_distribution<size_t>(0, below - 1)(m_random); }

    void oneSession(const Target &target)
    {
        Watcher watcher;
        try
        {
            bench::Session session(target.source, "127.0.0.1", &watcher);
            const bool tcp = pick(2) == 0;
            session.setUp(tcp ? PROTOCOL_TCP : PROTOCOL_UDP);
            const auto begin = Clock::now();
            bench::Library::require("play", session.control().play("", ""));
            ++m_tally.opened;
            live(session, watcher, mayBeSought(target.source.path, tcp));
            m_tally.packets += session.statistics().ullPackets;
            const auto played = Clock::now() - begin;
            if (session.statistics().ullPackets == 0 && played > longestSilence && !watcher.ended() && !target.mortal)
                m_tally.fault("a session without media over " + std::string(tcp ? "TCP " : "UDP ") +
                              target.source.path + " for " + std::to_string(played / 1s) + " s");
            if (pick(3) != 0) // the others are ended by their deletion
                session.control().tearDown();
        }
        catch (const std::exception &failed)
        {
            if (target.mortal || watcher.ended())
                ++m_tally.refusedOnPurpose;
            else
                m_tally.fault(failed.what());
        }
        if (watcher.loss() != 0 && target.mortal)
            ++m_tally.lostOnPurpose;
        else if (watcher.loss() != 0)
            m_tally.fault("lost: " + std::to_string(watcher.loss()));
        if (target.mortal)
            std::this_thread::sleep_for(std::chrono::milliseconds(pick(500)));
    }

    /// The demo device's library may lock itself up when it seeks what it sends over TCP.
    static bool mayBeSought(const std::string &path, bool tcp) { return path == "/vod" ? !tcp : path == "/sink"; }

    void live(bench::Session &session, const Watcher &watcher, bool seeks)
    {
        auto &playback = session.extended<CIMediaCtrlEx>();
        for (size_t steps = 1 + pick(6); steps > 0 && m_gate.isOpen() && !watcher.ended(); --steps)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(300 + pick(2500)));
            if (watcher.ended())
                break;
            ++m_tally.requests;
            switch (pick(4))
            {
            case 0:
                bench::Library::require("pause", playback.pause());
                bench::Library::require("playing on", session.control().play("", ""));
                break;
            case 1: // not so far that the recording, of 24 s, ends
                if (seeks)
                    bench::Library::require("seeking", playback.dragPlay(std::to_string(pick(6)), "", 11));
                break;
            default:
                break;
            }
        }
    }

    const std::vector<Target> &m_targets;
    Gate &m_gate;
    Tally &m_tally;
    std::mt19937 m_random;
};

void print(const char *when, const Holding &holding)
{
    std::printf("%-30s %8ld KiB allocated %8ld KiB resident %6ld descriptors %5ld threads\n", when, holding.heap,
                holding.kibibytes, holding.descriptors, holding.threads);
    std::fflush(stdout);
}

/// All sessions are ended, and what is freed is given back.
Holding atRest(Gate &gate)
{
    gate.rest();
    std::this_thread::sleep_for(6s); // answers to TEARDOWNs, and connections that linger for them
    malloc_trim(0);
    return Holding::now();
}

int soak(const std::vector<Target> &targets, unsigned sessions, std::chrono::seconds time)
{
    Gate gate(sessions);
    Tally tally;
    std::vector<Worker> workers;
    workers.reserve(sessions);
    std::vector<std::thread> threads;
    threads.reserve(sessions);
    for (unsigned i = 0; i < sessions; ++i)
        workers.emplace_back(targets, gate, tally, i);
    for (Worker &worker : workers)
        threads.emplace_back([&worker] { worker.run(); });

    const auto begin = Clock::now();
    std::this_thread::sleep_for(std::min<std::chrono::seconds>(60s, time / 2));
    const Holding early = atRest(gate);
    print("at rest after the first part:", early);
    gate.open(true);
    while (Clock::now() - begin < time)
    {
        std::this_thread::sleep_for(std::min<Clock::duration>(60s, begin + time - Clock::now()));
        print("busy:", Holding::now());
    }
    const Holding late = atRest(gate);
    print("at rest at the end:", late);
    gate.end();
    for (std::thread &thread : threads)
        thread.join();

    std::printf(
        "%lu sessions, %lu steps, %lu packets; of devices that are killed or faulty: %lu sessions lost, %lu refused\n",
        tally.opened.load(), tally.requests.load(), tally.packets.load(), tally.lostOnPurpose.load(),
        tally.refusedOnPurpose.load());
    for (const auto &[what, times] : tally.faults)
        std::printf("FAULT %lu times: %s\n", times, what.c_str());
    const bool sanitized = late.heap == 0; // which keeps what was freed for a while, and counts leaks by itself
    const bool grown = late.descriptors > early.descriptors || late.threads > early.threads ||
                       late.heap > early.heap + early.heap / 10 ||
                       (!sanitized && late.kibibytes > early.kibibytes + early.kibibytes / 5);
    if (grown)
        std::printf("FAULT: the process has grown\n");
    return grown || !tally.faults.empty() ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 6 || (argc - 3) % 3 != 0)
    {
        std::fprintf(stderr,
                     "usage: %s SESSIONS SECONDS PORT PATH stays|dies [PORT PATH stays|dies ...]\n"
                     "  devices listen on 127.0.0.1; what dies may lose its sessions\n",
                     argv[0]);
        return 2;
    }
    std::vector<Target> targets;
    for (int i = 3; i < argc; i += 3)
        targets.push_back({{"127.0.0.1", static_cast<ZR_USHORT>(std::stoul(argv[i])), argv[i + 1]},
                           std::string(argv[i + 2]) == "dies"});
    int code = 1;
    const int ran = bench::run([&] {
        code = soak(targets, static_cast<unsigned>(std::stoul(argv[1])), std::chrono::seconds(std::stoul(argv[2])));
    });
    return ran != 0 ? ran : code;
}
