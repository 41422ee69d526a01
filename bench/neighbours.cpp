// What hostile sessions cost their neighbours in the same process: round trips, openings and media of sound sessions,
// measured alone and beside them.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "hostile_server.h"
#include "session.h"
#include "zr_platform.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr unsigned neighbours = 8;
constexpr double boundMs = 100; ///< beyond what is measured alone

double timed(const std::function<void()> &work)
{
    const auto begin = Clock::now();
    work();
    return Milliseconds(Clock::now() - begin).count();
}

struct Times
{
    std::vector<double> values;

    double worst() const { return values.empty() ? 0 : *std::max_element(values.begin(), values.end()); }
    double median()
    {
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::nth_element(values.begin(), middle, values.end());
        return values.empty() ? 0 : *middle;
    }
};

/// What sound sessions meet, in milliseconds.
struct Measured
{
    Times roundTrips, openings, gaps;
};

struct Place
{
    uint16_t port;
    std::string path;
    bench::Source source() const { return {"127.0.0.1", port, path}; }
};

/// Times from one packet of a playing session to the next.
void watchMedia(const Place &place, const std::atomic<bool> &over, Times &gaps)
{
    bench::Session session(place.source(), "127.0.0.1");
    session.setUp(PROTOCOL_TCP);
    bench::Library::require("play", session.control().play("", ""));
    auto last = Clock::now();
    for (uint64_t packets = 0; !over;)
    {
        std::this_thread::sleep_for(1ms);
        const uint64_t now = session.statistics().ullPackets;
        if (now == packets)
            continue;
        if (packets != 0)
            gaps.values.push_back(Milliseconds(Clock::now() - last).count());
        packets = now;
        last = Clock::now();
    }
    gaps.values.push_back(Milliseconds(Clock::now() - last).count()); // it may have stopped altogether
}

Measured measure(const Place &place, std::chrono::seconds time)
{
    Measured measured;
    std::atomic<bool> over{false};
    std::thread media([&] { watchMedia(place, over, measured.gaps); });
    {
        bench::Session steered(place.source(), "127.0.0.1", nullptr, bench::Session::Media::None);
        steered.setUp(PROTOCOL_TCP);
        auto &playback = steered.extended<CIMediaCtrlEx>();
        for (const auto end = Clock::now() + time; Clock::now() < end; std::this_thread::sleep_for(10ms))
        {
            measured.roundTrips.values.push_back(
                timed([&] { bench::Library::require("play", steered.control().play("", "")); }));
            measured.roundTrips.values.push_back(timed([&] { bench::Library::require("pause", playback.pause()); }));
            measured.openings.values.push_back(timed([&] {
                bench::Session opened(place.source(), "127.0.0.1", nullptr, bench::Session::Media::None);
                opened.setUp(PROTOCOL_TCP);
                bench::Library::require("play", opened.control().play("", ""));
            }));
        }
    }
    over = true;
    media.join();
    return measured;
}

/// A host that does not give up: it opens a session, plays, deletes it, and begins again.
void besiege(const Place &place, const std::atomic<bool> &over)
{
    while (!over)
    {
        try
        {
            bench::Session session(place.source(), "127.0.0.1");
            session.setUp(PROTOCOL_TCP);
            bench::Library::require("play", session.control().play("", ""));
            for (int i = 0; i < 10 && !over; ++i)
                std::this_thread::sleep_for(100ms);
        }
        catch (const std::exception &)
        {
            std::this_thread::sleep_for(10ms); // which is what such a server is for
        }
    }
}

Measured measureBeside(const Place &sound, const Place &hostile, std::chrono::seconds time)
{
    std::atomic<bool> over{false};
    std::vector<std::thread> besieging;
    for (unsigned i = 0; i < neighbours; ++i)
        besieging.emplace_back([&] { besiege(hostile, over); });
    std::this_thread::sleep_for(500ms);
    Measured measured = measure(sound, time);
    over = true;
    for (std::thread &thread : besieging)
        thread.join();
    return measured;
}

void print(const std::string &name, Measured &measured)
{
    std::printf("%-44s %8.2f %8.2f %8.2f %8.2f %8.2f %8.2f\n", name.c_str(), measured.roundTrips.median(),
                measured.roundTrips.worst(), measured.openings.median(), measured.openings.worst(),
                measured.gaps.median(), measured.gaps.worst());
    std::fflush(stdout);
}

int run(std::chrono::seconds time, uint16_t soundPort, uint16_t hostilePort)
{
    const Place sound = {soundPort, bench::soundManner.path};
    std::printf("milliseconds, beside %u hostile sessions; %lld s a row\n", neighbours,
                static_cast<long long>(time.count()));
    std::printf("%-44s %17s %17s %17s\n%-44s %8s %8s %8s %8s %8s %8s\n", "", "request", "opening", "media gap", "",
                "median", "worst", "median", "worst", "median", "worst");
    Measured alone = measure(sound, time);
    print(bench::soundManner.name, alone);
    int exceeded = 0;
    for (const bench::Manner &manner : bench::hostileManners)
    {
        Measured beside = measureBeside(sound, {hostilePort, manner.path}, time);
        print(manner.name, beside);
        exceeded += beside.roundTrips.worst() > alone.roundTrips.worst() + boundMs ||
                    beside.openings.worst() > alone.openings.worst() + boundMs ||
                    beside.gaps.worst() > alone.gaps.worst() + boundMs;
    }
    Measured again = measure(sound, time);
    print(bench::soundManner.name, again);
    std::printf("%d of %zu rows are more than %.0f ms worse than alone\n", exceeded, bench::hostileManners.size(),
                boundMs);
    return exceeded == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    const long seconds = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    if (seconds < 1)
    {
        std::fprintf(
            stderr,
            "usage: %s SECONDS\n"
            "  For so long each: sound sessions alone, and beside hostile ones of each kind. Exit code 1 when\n"
            "  a request, an opening or a packet took 100 ms more beside them than alone.\n",
            argv[0]);
        return 2;
    }
    ZR_LogSetFile("/dev/null"); // hostile servers make much to warn of
    int code = 1;
    try
    {
        // processes of their own, made before there are threads
        const bench::ServerProcess sound, hostile;
        const int ran = bench::run([&] { code = run(std::chrono::seconds(seconds), sound.port(), hostile.port()); });
        return ran != 0 ? ran : code;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s\n", failed.what());
        return 1;
    }
}
