#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <poll.h>
#include <sys/resource.h>

#include "commands.h"
#include "controls.h"
#include "metrics.h"
#include "screen.h"
#include "watch_stream.h"
#include "watch_table.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds summaryEvery{2000};
constexpr milliseconds tableEvery{500};
constexpr milliseconds answersWithin{3000}; // when all are to end

/// All streams, a thread each.
class Watch
{
public:
    /// @param screen  where the streams stand as a table; null: none
    Watch(const CommonOptions &common, const WatchOptions &options, Report &report, Screen *screen)
        : m_options(options)
        , m_json(common.json)
        , m_report(report)
        , m_screen(screen)
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
    /// @param keys  what is typed at the table; null: nothing
    void run(TypedKeys *keys);
    /// Asks all to end.
    /// @return false when some did not within some seconds
    bool end();

private:
    void start();
    void wait(TypedKeys *keys, milliseconds longest);
    void act(Key key);
    void tellSummary();
    std::vector<StreamFacts> facts() const;
    size_t alive() const;

    const WatchOptions &m_options;
    const bool m_json;
    Report &m_report;
    Screen *const m_screen;
    size_t m_first = 0; ///< of the streams in the table
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

std::vector<StreamFacts> Watch::facts() const
{
    std::vector<StreamFacts> all;
    all.reserve(m_streams.size());
    for (const auto &stream : m_streams)
    {
        all.push_back(stream->facts());
    }
    return all;
}

size_t countOf(const std::vector<StreamFacts> &streams, StreamState state)
{
    return static_cast<size_t>(
        std::count_if(streams.begin(), streams.end(), [state](const StreamFacts &one) { return one.state == state; }));
}

/// A footer: whatever is too long, it tells how to leave.
std::string withKeys(const std::string &text, size_t streams)
{
    const TerminalSize room = Screen::bodySize();
    const std::string keys = streams >= room.rows ? "  up/down, page keys, q quit" : "  q quit";
    const size_t left = room.columns - std::min(room.columns, keys.size());
    std::string line = cut(text, left);
    return line.append(left - std::min(left, line.size()), ' ') + keys;
}

size_t Watch::alive() const
{
    return countOf(facts(), StreamState::Alive);
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
    const std::vector<StreamFacts> streams = facts();
    const auto now = Course::Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_lastSummary).count();
    uint64_t packets = 0;
    uint64_t lost = 0;
    double rate = 0;
    for (const StreamFacts &stream : streams)
    {
        packets += stream.packets;
        lost += stream.lost;
        rate += stream.kilobitsPerSecond;
        if (m_json)
        {
            m_report.status({"stream", std::string(word(stream.state)) + " " + stream.url, streamFields(stream)});
        }
    }
    if (m_screen != nullptr)
    {
        const TerminalSize room = Screen::bodySize();
        m_first = std::min(m_first, streams.size() - std::min(streams.size(), room.rows - 1));
        m_screen->body(streamTable(streams, m_first, room));
    }
    const long packetRate = std::lround(static_cast<double>(packets - m_packetsBefore) / std::max(seconds, 1e-3));
    m_packetsBefore = packets;
    m_lastSummary = now;
    std::string text;
    Fields fields;
    for (const StreamState state :
         {StreamState::Alive, StreamState::Silent, StreamState::Lost, StreamState::Failed, StreamState::Connecting})
    {
        const size_t count = countOf(streams, state);
        text += count > 0 || state == StreamState::Alive ? std::to_string(count) + " " + word(state) + ", " : "";
        fields[word(state)] = count;
    }
    text += std::to_string(packetRate) + " packets/s, " + counted(lost, "packet", "packets") + " lost";
    fields.update({{"packets_per_s", packetRate}, {"kbit_per_s", rate}, {"packets_lost", lost}});
    m_report.status({"summary", m_screen != nullptr ? withKeys(text, streams.size()) : text, fields, true});
}

void Watch::act(Key key)
{
    const size_t page = m_screen != nullptr ? std::max<size_t>(Screen::bodySize().rows, 2) - 1 : 1;
    const size_t step = key == Key::Up || key == Key::Down ? 1 : page;
    switch (key)
    {
    case Key::Quit:
        return m_interrupt.ask();
    case Key::Down:
    case Key::FarBack: // page down
        m_first += step;
        break;
    case Key::Up:
    case Key::FarForward:
        m_first -= std::min(m_first, step);
        break;
    default:
        break;
    }
}

/// Until the time is over, the program is to end, or something is typed.
void Watch::wait(TypedKeys *keys, milliseconds longest)
{
    std::array<pollfd, 2> ready{
        {{m_interrupt.handle(), POLLIN, 0}, {keys != nullptr ? keys->handle() : -1, POLLIN, 0}}};
    poll(ready.data(), ready.size(), static_cast<int>(longest.count()));
    for (const Key key : keys != nullptr ? keys->take() : std::vector<Key>{})
    {
        act(key);
    }
}

void Watch::run(TypedKeys *keys)
{
    std::optional<Metrics> metrics;
    if (!m_options.metrics.empty())
    {
        metrics.emplace(m_options.metrics, [this] { return facts(); });
        m_report.event("metrics", "serving metrics at " + metrics->url(), {{"url", metrics->url()}});
    }
    start();
    const auto end = Course::Clock::now() + inMilliseconds(m_options.duration.value_or(1e9));
    while (!m_interrupt.asked() && Course::Clock::now() < end)
    {
        const auto left = std::chrono::ceil<milliseconds>(end - Course::Clock::now());
        wait(keys, std::min(m_screen != nullptr ? tableEvery : summaryEvery, left));
        tellSummary();
        const std::scoped_lock lock(m_mutex);
        if (m_running == 0)
        {
            break;
        }
    }
    const size_t atEnd = alive();
    m_report.event("watched",
                   std::to_string(atEnd) + " of " + counted(m_streams.size(), "stream", "streams") +
                       (atEnd == 1 ? " is" : " are") + " alive",
                   {{"alive", atEnd}, {"streams", m_streams.size()}});
    const size_t connecting = countOf(facts(), StreamState::Connecting);
    if (connecting > 0 && m_interrupt.asked())
    {
        throw m_interrupt.failure("watching", "interrupted while " + counted(connecting, "stream was", "streams were") +
                                                  " connecting");
    }
    if (atEnd != m_streams.size())
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

void watchCommand(const CommonOptions &common, const WatchOptions &options, Report &printed)
{
    std::optional<Screen> screen; // prints when the terminal has its usual screen again
    if (Controls::wanted(common.json) && Screen::possible())
    {
        screen.emplace(printed);
    }
    Report &report = screen ? static_cast<Report &>(*screen) : printed;
    Watch watch(common, options, report, screen ? &*screen : nullptr);
    std::optional<Failure> failed;
    bool ended = false;
    {
        std::optional<TerminalMode> terminal;
        std::optional<TypedKeys> keys;
        if (screen)
        {
            keys.emplace(terminal.emplace(TerminalMode::Kind::Keys, true));
        }
        try
        {
            watch.run(keys ? &*keys : nullptr);
        }
        catch (const Failure &failure)
        {
            failed = failure;
        }
        ended = watch.end();
    }
    if (screen)
    {
        screen->leave();
    }
    if (!ended)
    {
        // somebody waits for a server that does not answer, for 25 s at most: that ends with the process
        if (failed)
        {
            printed.failure(*failed);
        }
        std::_Exit(static_cast<int>(failed ? failed->exit() : ExitCode::Ok));
    }
    if (failed)
    {
        throw Failure(*failed);
    }
}

} // namespace zr::host
