#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "commands.h"
#include "speed.h"

namespace zr::host {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds firstMediaWithin{5000};
constexpr milliseconds pollEvery{50};
constexpr milliseconds statusEvery{1000};
constexpr double silenceOfRecording = 2; // seconds without media when its end is due
constexpr double silenceOfFault = 10;    // and whenever else
constexpr ZR_ULONG pictureWithinMs = 10000;

milliseconds inMilliseconds(double seconds)
{
    return milliseconds(std::llround(std::min(seconds, 1e9) * 1000));
}

double inSeconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::optional<double> plainSeconds(const std::string &text)
{
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return text.empty() || *end != '\0' ? std::nullopt : std::optional<double>(value);
}

std::string amount(uint64_t bytes)
{
    char text[32];
    const double value = static_cast<double>(bytes);
    std::snprintf(text, sizeof text, bytes < 1000000 ? "%.1f kB" : "%.1f MB", value / (bytes < 1000000 ? 1e3 : 1e6));
    return text;
}

const char *meaning(ZR_ULONG notice)
{
    switch (notice)
    {
    case ZR_RTSP_NOTICE_END_OF_STREAM:
        return "the end of the stream was reached";
    case ZR_RTSP_NOTICE_SERVER_RESOURCES:
        return "the server needs its resources";
    case ZR_RTSP_NOTICE_SILENT:
        return "neither media nor answers come any more";
    case ZR_RTSP_NOTICE_CONNECTION_LOST:
    case ZR_RTSP_NOTICE_ONVIF_LOST:
        return "the connection was lost";
    default:
        return "the server ended the session";
    }
}

class Play
{
public:
    Play(const CommonOptions &common, const PlayOptions &options, Report &report)
        : m_options(options)
        , m_report(report)
        , m_plugin(common.plugin)
        , m_session(m_plugin, common.source, m_mailbox)
    {
    }

    void run()
    {
        open();
        start();
        awaitMedia();
        takePicture();
        receive();
        finish();
    }

private:
    void open();
    void start();
    void awaitMedia();
    void takePicture();
    void receive();
    void finish();

    void pauseOnce();
    void tick();
    void onNotice(ZR_ULONG notice);
    void stopUnlessInterrupted();
    std::optional<double> expectedSeconds() const;
    double secondsOfMedia() const { return inSeconds(Clock::now() - m_begin) - m_pausedSeconds; }

    const PlayOptions &m_options;
    Report &m_report;
    Mailbox m_mailbox;
    Plugin m_plugin;
    Session m_session;
    Description m_description;

    Clock::time_point m_begin;   ///< of media
    Clock::time_point m_resumed; ///< when the server last agreed to play
    double m_pausedSeconds = 0;
    bool m_pauseDone = false;
    bool m_over = false;
    uint64_t m_lastBytes = 0;
    Clock::time_point m_lastTick;
    std::optional<Failure> m_failure; ///< what is told at the end, after the session was closed in good order
};

void Play::stopUnlessInterrupted()
{
    if (m_mailbox.interrupted())
    {
        throw Failure(ExitCode::Interrupted, "playing", 0, "interrupted before media arrived");
    }
}

void Play::open()
{
    m_description = m_session.describe();
    m_report.event("described", "described: " + summary(m_description), {{"range", m_description.range}});
    stopUnlessInterrupted();
    const char *transport = m_options.protocol == PROTOCOL_TCP ? "TCP" : "UDP";
    for (const TrackUrl &track : m_session.tracks())
    {
        m_session.setUp(track, m_options.protocol);
        m_report.event("set_up", "set up " + track.media + " over " + transport,
                       {{"media", track.media}, {"transport", transport}});
        stopUnlessInterrupted();
    }
}

void Play::start()
{
    if (!m_options.record.empty())
    {
        m_session.record(m_options.record);
    }
    m_session.play(m_options.playback);
    m_resumed = Clock::now();
    std::string text = "playing";
    text += m_options.playback.from.empty() ? "" : " from " + m_options.playback.from;
    text += m_options.playback.to.empty() ? "" : " to " + m_options.playback.to;
    text += m_options.speed.empty() ? "" : " at speed " + m_options.speed;
    m_report.event("playing", text, nullptr);
}

void Play::awaitMedia()
{
    while (m_session.statistics().ullPackets == 0)
    {
        if (const auto notice = m_mailbox.wait(pollEvery))
        {
            throw Failure(ExitCode::NoMedia, "playing", *notice, meaning(*notice));
        }
        stopUnlessInterrupted();
        if (Clock::now() - m_resumed > firstMediaWithin)
        {
            throw Failure(ExitCode::NoMedia, "playing", 0, "no media arrived within 5 s",
                          m_options.protocol == PROTOCOL_TCP ? "check that the stream plays elsewhere"
                                                             : "--tcp, since a firewall or a router may keep UDP away");
        }
    }
    m_begin = m_lastTick = Clock::now();
    m_report.event("media", "media arrives", nullptr);
}

void Play::takePicture()
{
    if (m_options.snapshot.empty())
    {
        return;
    }
    try
    {
        m_session.snapshot(m_options.snapshot, pictureWithinMs);
        m_report.event("snapshot", "wrote the picture " + m_options.snapshot, {{"file", m_options.snapshot}});
    }
    catch (const Failure &failed)
    {
        m_failure = failed;
    }
}

std::optional<double> Play::expectedSeconds() const
{
    const Playback &playback = m_options.playback;
    const double from = plainSeconds(playback.from).value_or(0);
    const auto to = playback.to.empty() ? m_description.length() : plainSeconds(playback.to);
    if (!to)
    {
        return std::nullopt;
    }
    return std::fabs(*to - from) / std::fabs(speedFactor(playback.speedCode));
}

void Play::onNotice(ZR_ULONG notice)
{
    m_over = true;
    m_report.event("notice", meaning(notice), {{"code", notice}});
    if (notice != ZR_RTSP_NOTICE_END_OF_STREAM)
    {
        m_failure.emplace(ExitCode::NoMedia, "playing", notice, meaning(notice));
    }
}

void Play::tick()
{
    const auto now = Clock::now();
    const ZrMediaStatistics statistics = m_session.statistics();
    const double elapsed = std::max(inSeconds(now - m_lastTick), 1e-3);
    const double kilobits = static_cast<double>(statistics.ullBytes - m_lastBytes) * 8 / 1000 / elapsed;
    m_report.progress({"playing", secondsOfMedia(), kilobits, statistics.ullPackets, statistics.ullLost});
    m_lastBytes = statistics.ullBytes;
    m_lastTick = now;

    const double silent = std::min(statistics.ulLastArrivalMs / 1000.0, inSeconds(now - m_resumed));
    const auto expected = expectedSeconds();
    if (silent >= silenceOfRecording && expected && secondsOfMedia() >= *expected - 1)
    {
        m_over = true;
        m_report.event("end_of_stream", "the recording ended", nullptr);
    }
    else if (silent >= silenceOfFault)
    {
        m_over = true;
        m_failure.emplace(ExitCode::NoMedia, "playing", 0, "media stopped, nothing came for 10 s");
    }
}

void Play::pauseOnce()
{
    m_pauseDone = true;
    m_session.pause();
    m_report.event("paused", "paused", nullptr);
    const auto begin = Clock::now();
    const auto end = begin + inMilliseconds(m_options.pauseFor);
    while (!m_over && !m_mailbox.interrupted() && Clock::now() < end)
    {
        if (const auto notice = m_mailbox.wait(std::chrono::ceil<milliseconds>(end - Clock::now())))
        {
            onNotice(*notice);
        }
    }
    if (!m_over && !m_mailbox.interrupted())
    {
        m_session.play({"", "", m_options.playback.speedCode});
        m_report.event("playing", "playing on", nullptr);
    }
    m_resumed = m_lastTick = Clock::now();
    m_pausedSeconds += inSeconds(m_resumed - begin);
}

void Play::receive()
{
    while (!m_over && !m_mailbox.interrupted())
    {
        const double now = secondsOfMedia();
        if (m_options.duration && now >= *m_options.duration)
        {
            return;
        }
        if (m_options.pauseAt && !m_pauseDone && now >= *m_options.pauseAt)
        {
            pauseOnce();
            continue;
        }
        auto longest = std::chrono::ceil<milliseconds>(m_lastTick + statusEvery - Clock::now());
        for (const auto &moment : {m_options.duration, m_pauseDone ? std::nullopt : m_options.pauseAt})
        {
            longest = std::min(longest, moment ? inMilliseconds(*moment - now) + milliseconds(1) : longest);
        }
        if (const auto notice = m_mailbox.wait(longest))
        {
            onNotice(*notice);
        }
        if (Clock::now() >= m_lastTick + statusEvery)
        {
            tick();
        }
    }
}

void Play::finish()
{
    if (!m_options.record.empty())
    {
        m_session.endRecording();
        m_report.event("recorded", "recorded " + m_options.record, {{"file", m_options.record}});
    }
    const ZrMediaStatistics statistics = m_session.statistics();
    m_session.end();
    m_report.event("received",
                   "received " + std::to_string(statistics.ullPackets) + " packets, " + amount(statistics.ullBytes) +
                       ", lost " + std::to_string(statistics.ullLost),
                   {{"packets", statistics.ullPackets},
                    {"bytes", statistics.ullBytes},
                    {"lost", statistics.ullLost},
                    {"jitter_us", statistics.ulJitterUs},
                    {"seconds", secondsOfMedia()}});
    m_report.event("ended", "ended the session", nullptr);
    if (m_failure)
    {
        throw Failure(*m_failure);
    }
}

} // namespace

void playCommand(const CommonOptions &common, const PlayOptions &options, Report &report)
{
    Play(common, options, report).run();
}

} // namespace zr::host
