#include "watch_stream.h"

#include <algorithm>
#include <array>

#include "masking.h"

namespace zr::host {
namespace {

constexpr std::chrono::milliseconds atLeisure{1000};

} // namespace

const char *word(StreamState state)
{
    switch (state)
    {
    case StreamState::Connecting:
        return "connecting";
    case StreamState::Alive:
        return "alive";
    case StreamState::Silent:
        return "silent";
    case StreamState::Lost:
        return "lost";
    case StreamState::Failed:
        return "failed";
    }
    return "";
}

const std::string &knownAs(const StreamFacts &stream)
{
    return stream.name.empty() ? stream.url : stream.name;
}

Stream::Stream(size_t number, const Source &source, Report &report)
    : m_source(source)
    , m_report(report)
{
    m_facts.number = number;
    m_facts.url = shown(source.url.text);
    m_facts.name = source.name;
    m_facts.since = std::chrono::system_clock::now();
}

void Stream::event(const std::string &name, const std::string &text, const Fields &fields)
{
    struct Change
    {
        const char *name;
        StreamState state;
    };
    static constexpr std::array<Change, 4> changes = {{{"media", StreamState::Alive},
                                                       {"silent", StreamState::Silent},
                                                       {"notice", StreamState::Lost},
                                                       {"failed", StreamState::Lost}}};
    const auto *change =
        std::find_if(changes.begin(), changes.end(), [&](const Change &one) { return name == one.name; });
    if (change == changes.end())
    {
        return;
    }
    m_wasAlive = m_wasAlive || change->state == StreamState::Alive;
    enter(change->state == StreamState::Lost && !m_wasAlive ? StreamState::Failed : change->state, text);
    m_told = m_told || change->state == StreamState::Lost;
    // a device that is away is not told anew with each attempt
    const std::string loss = change->state == StreamState::Lost ? text : "";
    if (loss.empty() || loss != m_toldLoss)
    {
        Fields told{{"stream", m_facts.number}, {"url", m_source.url.text}, {"name", m_source.name}};
        if (fields.is_object())
        {
            told.update(fields);
        }
        m_report.event(name, "[" + std::to_string(m_facts.number) + "] " + knownAs(m_facts) + ": " + text, told);
    }
    m_toldLoss = loss;
}

void Stream::failure(const Failure &what)
{
    event("failed", what.what(), {{"code", what.code()}});
}

void Stream::enter(StreamState state, const std::string &reason)
{
    const std::scoped_lock lock(m_mutex);
    if (state != m_facts.state)
    {
        m_facts.since = std::chrono::system_clock::now();
    }
    const bool alive = state == StreamState::Alive;
    m_facts.state = state;
    m_facts.reason = alive ? "" : shown(reason);
    m_facts.kilobitsPerSecond = alive ? m_facts.kilobitsPerSecond : 0;
}

void Stream::count(const Media &media, const Media &before)
{
    const std::scoped_lock lock(m_mutex);
    m_facts.packets += media.packets - before.packets;
    m_facts.bytes += media.bytes - before.bytes;
    m_facts.lost += media.lost - std::min(media.lost, before.lost);
    m_facts.kilobitsPerSecond = m_facts.state == StreamState::Alive ? media.kilobitsPerSecond : 0;
    m_facts.jitterMs = media.jitterMs;
}

StreamFacts Stream::facts() const
{
    const std::scoped_lock lock(m_mutex);
    return m_facts;
}

Ending Stream::runOnce(Plugin &plugin, const Interrupt &interrupt, const CourseOptions &options)
{
    m_told = false;
    return attempt(plugin, interrupt, m_source, options, *this, [this](Course &course) {
        course.begin();
        {
            const std::scoped_lock lock(m_mutex);
            ++m_facts.sessions;
        }
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
    if (m_source.failure)
    {
        return failure(*m_source.failure);
    }
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

} // namespace zr::host
