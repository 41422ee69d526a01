#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <sys/resource.h>

#include "attempts.h"
#include "commands.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds atLeisure{1000};
constexpr milliseconds summaryEvery{2000};
constexpr milliseconds answersWithin{3000}; // when all are to end

enum State : size_t
{
    Connecting,
    Alive,
    Silent,
    Lost,
    states
};

/// One stream: its thread runs session after session and tells here how it is.
class Stream : private Report
{
public:
    /// @param source, report  outlive it
    /// @param number  from 1, for a URL may come more than once
    Stream(size_t number, const Source &source, Report &report)
        : m_number(number)
        , m_source(source)
        , m_report(report)
    {
    }

    /// Runs until it is over for good; throws nothing.
    /// @return false when it is over because what is told cannot be printed
    bool run(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options);

    // any thread
    State state() const { return m_state; }
    uint64_t packets() const { return m_packets; }
    uint64_t lost() const { return m_lost; }

private:
    void runAll(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options);
    Ending runOnce(Plugin &plugin, const Interrupt &interrupt, const CourseOptions &options);
    void count(const Media &media, const Media &before);

    // of a course's events those that change the stream's state are told, with its number and URL
    void event(const std::string &name, const std::string &text, const Fields &fields) override;
    void status(const Status &) override {}
    void failure(const Failure &what) override;

    const size_t m_number;
    const Source &m_source;
    Report &m_report;
    std::string m_toldLoss; ///< why it was lost, as it was told; empty: it is not lost
    bool m_told = false;    ///< what ended the latest session was told when it happened
    std::atomic<State> m_state{Connecting};
    std::atomic<uint64_t> m_packets{0}; ///< of all its sessions
    std::atomic<uint64_t> m_lost{0};
};

void Stream::event(const std::string &name, const std::string &text, const Fields &fields)
{
    struct Change
    {
        const char *name;
        State state;
    };
    static constexpr std::array<Change, 4> changes = {
        {{"media", Alive}, {"silent", Silent}, {"notice", Lost}, {"failed", Lost}}};
    const auto *change =
        std::find_if(changes.begin(), changes.end(), [&](const Change &one) { return name == one.name; });
    if (change == changes.end())
    {
        return;
    }
    m_state = change->state;
    m_told = m_told || change->state == Lost;
    // a device that is away is not told anew with each attempt
    const std::string loss = change->state == Lost ? text : "";
    if (loss.empty() || loss != m_toldLoss)
    {
        Fields told{{"stream", m_number}, {"url", m_source.url.text}};
        if (fields.is_object())
        {
            told.update(fields);
        }
        m_report.event(name, "[" + std::to_string(m_number) + "] " + m_source.url.text + ": " + text, told);
    }
    m_toldLoss = loss;
}

void Stream::failure(const Failure &what)
{
    event("failed", what.what(), {{"code", what.code()}});
}

void Stream::count(const Media &media, const Media &before)
{
    m_packets += media.packets - before.packets;
    m_lost += media.lost - std::min(media.lost, before.lost);
}

Ending Stream::runOnce(Plugin &plugin, const Interrupt &interrupt, const CourseOptions &options)
{
    m_told = false;
    return attempt(plugin, interrupt, m_source, options, *this, [this](Course &course) {
        course.begin();
        while (!course.over())
        {
            const Media before = course.media();
            course.step(atLeisure);
            count(course.media(), before);
        }
        course.end();
    });
}

bool Stream::run(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options)
{
    try
    {
        runAll(plugin, interrupt, options);
        return true;
    }
    catch (const Failure &)
    {
        return false;
    }
}

/// @throws Failure  when it cannot be printed
void Stream::runAll(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options)
{
    try
    {
        makeAttempts(options.reconnect ? Again::Always : Again::Never, interrupt, *this,
                     [&] { return runOnce(plugin, interrupt, options.course); });
    }
    catch (const Failure &failed)
    {
        if (failed.exit() == ExitCode::Output)
        {
            throw;
        }
        if (!m_told && !interrupt.asked())
        {
            failure(failed);
        }
    }
    catch (const std::exception &failed)
    {
        failure(Failure(ExitCode::Internal, "running", 0, failed.what()));
    }
}

/// All streams, a thread each.
class Watch
{
public:
    Watch(const CommonOptions &common, const WatchOptions &options, Report &report)
        : m_options(options)
        , m_report(report)
        , m_plugin(common.plugin)
    {
        for (const Source &source : options.sources)
        {
            m_streams.push_back(std::make_unique<Stream>(m_streams.size() + 1, source, report));
        }
    }

    ~Watch()
    {
        m_interrupt.ask();
        for (std::thread &thread : m_threads)
        {
            thread.join();
        }
    }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    /// Returns when the time is over, the program is to end, or no stream is left.
    void run();
    /// Asks all to end.
    /// @return false when some did not within some seconds
    bool end();

private:
    void start();
    void tellSummary();
    size_t count(State state) const;

    const WatchOptions &m_options;
    Report &m_report;
    Interrupt m_interrupt;
    Plugin m_plugin;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::vector<std::thread> m_threads;
    std::mutex m_mutex; ///< guards m_running
    std::condition_variable m_ended;
    size_t m_running = 0;
    uint64_t m_packetsBefore = 0;
    Course::Clock::time_point m_lastSummary;
};

size_t Watch::count(State state) const
{
    size_t found = 0;
    for (const auto &stream : m_streams)
    {
        found += stream->state() == state ? 1 : 0;
    }
    return found;
}

void Watch::start()
{
    // each session takes some descriptors: its connection and its media port
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0)
    {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    m_lastSummary = Course::Clock::now();
    for (const auto &stream : m_streams)
    {
        const std::scoped_lock lock(m_mutex);
        m_threads.emplace_back([this, one = stream.get()] {
            if (!one->run(m_plugin, m_interrupt, m_options))
            {
                m_interrupt.ask(); // the end is to be printed as well: that tells why
            }
            const std::scoped_lock ending(m_mutex);
            --m_running;
            m_ended.notify_all();
        });
        ++m_running;
    }
}

void Watch::tellSummary()
{
    const auto now = Course::Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_lastSummary).count();
    uint64_t packets = 0;
    uint64_t lost = 0;
    for (const auto &stream : m_streams)
    {
        packets += stream->packets();
        lost += stream->lost();
    }
    const long rate = std::lround(static_cast<double>(packets - m_packetsBefore) / std::max(seconds, 1e-3));
    m_packetsBefore = packets;
    m_lastSummary = now;
    const size_t connecting = count(Connecting);
    m_report.status({"summary",
                     std::to_string(count(Alive)) + " alive, " + std::to_string(count(Silent)) + " silent, " +
                         std::to_string(count(Lost)) + " lost, " +
                         (connecting == 0 ? "" : std::to_string(connecting) + " connecting, ") + std::to_string(rate) +
                         " packets/s, " + std::to_string(lost) + " packets lost",
                     {{"alive", count(Alive)},
                      {"silent", count(Silent)},
                      {"lost", count(Lost)},
                      {"connecting", connecting},
                      {"packets_per_s", rate},
                      {"packets_lost", lost}},
                     true});
}

void Watch::run()
{
    start();
    const auto end = Course::Clock::now() + inMilliseconds(m_options.duration.value_or(1e9));
    while (!m_interrupt.asked() && Course::Clock::now() < end)
    {
        const auto left = std::chrono::ceil<milliseconds>(end - Course::Clock::now());
        m_interrupt.sleep(std::min(summaryEvery, left));
        tellSummary();
        const std::scoped_lock lock(m_mutex);
        if (m_running == 0)
        {
            break;
        }
    }
    const size_t alive = count(Alive);
    m_report.event("watched", std::to_string(alive) + " of " + std::to_string(m_streams.size()) + " streams are alive",
                   {{"alive", alive}, {"streams", m_streams.size()}});
    if (alive != m_streams.size())
    {
        throw Failure(ExitCode::Lost, "watching", 0, "not every stream was alive at the end");
    }
}

bool Watch::end()
{
    m_interrupt.ask();
    std::unique_lock lock(m_mutex);
    return m_ended.wait_for(lock, answersWithin, [this] { return m_running == 0; });
}

} // namespace

void watchCommand(const CommonOptions &common, const WatchOptions &options, Report &report)
{
    Watch watch(common, options, report);
    std::optional<Failure> failed;
    try
    {
        watch.run();
    }
    catch (const Failure &failure)
    {
        failed = failure;
    }
    if (!watch.end())
    {
        // somebody waits for a server that does not answer, for 25 s at most: that ends with the process
        if (failed)
        {
            report.failure(*failed);
        }
        std::_Exit(static_cast<int>(failed ? failed->exit() : ExitCode::Ok));
    }
    if (failed)
    {
        throw Failure(*failed);
    }
}

} // namespace zr::host
