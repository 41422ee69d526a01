#include "course.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

#include "addresses.h"
#include "notices.h"
#include "speed.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds firstMediaWithin{5000};
constexpr milliseconds firstUdpWithin{3000}; // where TCP may follow
constexpr milliseconds pollEvery{50};
constexpr milliseconds lookEvery{500};
constexpr double rateOver = 0.9;         // seconds
constexpr milliseconds stoppedFor{1500}; // without a look: the program itself was, as by Ctrl-Z
constexpr double probeAfter = 1;         // seconds without a packet over UDP
constexpr double probeAgainAfter = 5;
constexpr unsigned tracksOverUdp = 2; // a media port's pairs of sockets

double inSeconds(Course::Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::string placeShown(const std::string &asked)
{
    const auto position = parsePosition(asked);
    return position && position->clock ? positionShown(*position) : asked;
}

std::string wholeSeconds(double seconds)
{
    return std::to_string(std::lround(seconds)) + " s";
}

} // namespace

std::string amount(uint64_t bytes)
{
    char text[32];
    const double value = static_cast<double>(bytes);
    std::snprintf(text, sizeof text, bytes < 1000000 ? "%.1f kB" : "%.1f MB", value / (bytes < 1000000 ? 1e3 : 1e6));
    return text;
}

milliseconds inMilliseconds(double seconds)
{
    return milliseconds(std::llround(std::min(seconds, 1e9) * 1000));
}

Course::Course(Plugin &plugin, const Interrupt &interrupt, const Source &source, const CourseOptions &options,
               Report &report)
    : m_plugin(plugin)
    , m_interrupt(interrupt)
    , m_source(source)
    , m_options(options)
    , m_report(report)
    , m_mailbox(interrupt)
    , m_protocol(options.protocol)
    , m_playback(options.playback)
{
    makeSession();
}

void Course::makeSession()
{
    m_session.emplace(m_plugin, m_source, m_mailbox);
    if (m_options.replay)
    {
        m_session->replay(*m_options.replay);
    }
}

void Course::begin()
{
    for (bool again = true; again;)
    {
        try
        {
            open();
            if (!m_whole)
            {
                start();
                awaitMedia();
            }
            again = false;
        }
        catch (const Failure &failed)
        {
            openAnew(failed);
        }
    }
}

const char *Course::transport() const
{
    return m_options.multicast ? "multicast" : m_protocol == PROTOCOL_TCP ? "TCP" : "UDP";
}

bool Course::mayFallBack() const
{
    return m_options.fallBack && !m_options.multicast && !m_source.tunnelled() && m_protocol == m_options.protocol;
}

// An object has one session: what only another one can avoid takes a new object.
void Course::openAnew(const Failure &failed)
{
    constexpr ZR_ULONG unsupportedTransport = 461;
    const bool refused = failed.code() == unsupportedTransport;
    const bool silent = failed.exit() == ExitCode::NoMedia && m_protocol == PROTOCOL_UDP;
    if (m_interrupt.asked() || !mayFallBack() || (!refused && !silent))
    {
        throw Failure(failed);
    }
    const std::string reason = refused ? "the server does not offer " + std::string(transport()) : failed.meaning();
    m_protocol = m_protocol == PROTOCOL_TCP ? PROTOCOL_UDP : PROTOCOL_TCP;
    m_report.event("opening_anew", reason + ": opening a new session over " + transport(), {{"code", failed.code()}});
    makeSession();
}

void Course::stopIfInterrupted()
{
    if (m_interrupt.asked())
    {
        throw m_interrupt.failure("playing", "interrupted before media arrived");
    }
}

void Course::open()
{
    m_description = m_session->describe();
    m_report.event("described", "described: " + summary(m_description), {{"range", m_description.range}});
    stopIfInterrupted();
    requireWithin();
    passOver();
    if (m_whole)
    {
        return;
    }
    if (m_options.multicast)
    {
        m_session->askForMulticast();
    }
    const std::vector<TrackUrl> tracks = m_session->tracks(m_options.metadata);
    if (m_options.metadata && (tracks.empty() || tracks.back().media != "metadata"))
    {
        m_report.warning("not_set_up",
                         "metadata is left out: the description has no track of ONVIF metadata that is not compressed",
                         {{"media", "metadata"}});
    }
    unsigned number = 0;
    for (const TrackUrl &track : tracks)
    {
        if (m_protocol == PROTOCOL_UDP && !m_options.multicast && number++ == tracksOverUdp)
        {
            m_report.warning("not_set_up",
                             track.media + " is left out: over UDP there is room for two tracks; try --tcp",
                             {{"media", track.media}});
            break;
        }
        m_session->setUp(track, m_protocol, m_options.playback);
        m_report.event("set_up", "set up " + track.media + " over " + transport(),
                       {{"media", track.media}, {"transport", transport()}});
        stopIfInterrupted();
    }
}

void Course::start()
{
    if (!m_options.record.empty())
    {
        m_session->record(m_options.record, m_options.segments);
        m_recording = m_options.record;
    }
    m_session->play(m_playback);
    m_resumed = Clock::now();
    std::string text = "playing";
    text += m_playback.from.empty() ? "" : " from " + placeShown(m_playback.from);
    text += m_playback.to.empty() ? "" : " to " + placeShown(m_playback.to);
    text += m_options.speed.empty() ? "" : " at speed " + m_options.speed;
    m_report.event("playing", text, nullptr);
}

Failure Course::nothingArrived(milliseconds within) const
{
    const bool udp = m_protocol == PROTOCOL_UDP;
    const std::string over = m_options.multicast ? " over multicast" : udp && mayFallBack() ? " over UDP" : "";
    const auto end = parseSpan(m_description.range).end;
    return {ExitCode::NoMedia, "playing", 0,
            "no media arrived" + over + " within " + std::to_string(within.count() / 1000) + " s",
            backwardsFromBegin()
                ? "--from TIME, where it is to begin backwards" + (end ? ", such as --from " + positionText(*end) : "")
            : m_options.multicast ? "--udp or --tcp, since a switch or router may not carry the group here"
            : udp                 ? "--tcp, since a firewall or a router may keep UDP away"
                                  : "check that the stream plays elsewhere"};
}

void Course::awaitMedia()
{
    std::optional<ZR_ULONG> notice;
    const bool udp = m_protocol == PROTOCOL_UDP;
    const milliseconds longest = udp && mayFallBack() ? firstUdpWithin : firstMediaWithin;
    while (m_session->statistics().ullPackets == 0)
    {
        if (notice)
        {
            m_notice = notice;
            throw Failure(ExitCode::Lost, "playing", 0, noticeText(*notice));
        }
        stopIfInterrupted();
        if (Clock::now() - m_resumed > longest)
        {
            throw nothingArrived(longest);
        }
        notice = m_mailbox.wait(pollEvery);
    }
    m_begin = m_lastRate = m_lastLook = Clock::now();
    m_report.event("media", "media arrives", withTime());
    if (notice) // which came right behind the first packet
    {
        take(*notice);
    }
}

void Course::stop(const std::optional<Failure> &failure)
{
    m_over = true;
    if (failure)
    {
        m_failure.emplace(*failure);
    }
}

void Course::take(ZR_ULONG notice)
{
    m_notice = notice;
    m_report.event("notice", noticeText(notice), {{"code", notice}});
    stop(notice == ZR_RTSP_NOTICE_END_OF_STREAM
             ? std::nullopt
             : std::optional<Failure>(std::in_place, ExitCode::Lost, "playing", 0, noticeText(notice)));
}

void Course::step(milliseconds longest)
{
    const auto untilLook = std::chrono::ceil<milliseconds>(m_lastLook + lookEvery - Clock::now());
    if (const auto notice = m_mailbox.wait(std::min(longest, std::max(untilLook, milliseconds(1)))))
    {
        take(*notice);
    }
    if (!m_over && Clock::now() >= m_lastLook + lookEvery)
    {
        measure();
        lookForSilence();
    }
}

double Course::secondsOfMedia() const
{
    return m_begin ? inSeconds(m_paused.value_or(Clock::now()) - *m_begin) - m_pausedSeconds : 0;
}

void Course::measure()
{
    tellFiles();
    lookAfterRecording();
    const auto now = Clock::now();
    const bool stopped = now - std::exchange(m_lastLook, now) >= stoppedFor;
    const ZrMediaStatistics statistics = m_session->statistics();
    m_media.packets = statistics.ullPackets;
    m_media.bytes = statistics.ullBytes;
    m_media.lost = statistics.ullLost;
    m_media.reordered = m_session->reordered();
    m_media.frames = statistics.ullFrames;
    m_media.covered = static_cast<double>(statistics.ullMediaMs) / 1000;
    const double sinceRate = inSeconds(now - m_lastRate.value_or(now));
    if (stopped) // what came meanwhile is still to be read, all at once
    {
        m_lastRate.reset();
    }
    else if (m_paused || !m_lastRate || sinceRate >= rateOver)
    {
        const auto bits = static_cast<double>(m_media.bytes - m_rateBytes) * 8;
        m_media.kilobitsPerSecond = m_paused ? 0 : m_lastRate ? bits / 1000 / sinceRate : m_media.kilobitsPerSecond;
        m_rateBytes = m_media.bytes;
        m_lastRate = now;
    }
    m_media.silent = m_paused ? 0 : std::min(statistics.ulLastArrivalMs / 1000.0, inSeconds(now - m_resumed));
    m_media.seconds = secondsOfMedia();
    m_media.jitterMs = statistics.ulJitterUs / 1000.0;
}

// The plug-in counts answers to its keep-alive as signs of life, and an idle UDP session may do without its connection:
// whether media and server are still there is seen here.
void Course::lookForSilence()
{
    if (m_silent && m_media.silent < m_options.silence)
    {
        m_silent = false;
        m_report.event("media", "media arrives again", nullptr);
    }
    else if (!m_silent && m_media.silent >= m_options.silence)
    {
        m_silent = true;
        m_report.event("silent", "no media for " + wholeSeconds(m_options.silence),
                       withTime({{"seconds", m_media.silent}}));
    }
    if (m_media.silent < probeAfter)
    {
        m_nextProbe = probeAfter;
    }
    else if (m_media.silent >= m_nextProbe && m_protocol == PROTOCOL_UDP)
    {
        m_nextProbe = m_media.silent + probeAgainAfter;
        if (refusesConnections(m_source.url.host, m_source.url.port, m_interrupt))
        {
            stop(Failure(ExitCode::Lost, "playing", 0,
                         "the server is gone: media stopped, and connections are refused"));
        }
    }
}

void Course::pause()
{
    m_session->pause();
    m_paused = Clock::now();
    m_report.event("paused", "paused", withTime());
}

void Course::playOn()
{
    m_session->play({"", "", m_playback.speedCode, std::nullopt});
    endPause();
    m_report.event("playing", "playing on", withTime());
}

void Course::endPause()
{
    m_resumed = m_lastLook = Clock::now();
    m_lastRate = m_lastLook;
    m_rateBytes = m_session->statistics().ullBytes;
    if (m_paused)
    {
        m_pausedSeconds += inSeconds(m_resumed - *m_paused);
        m_paused.reset();
    }
}

void Course::seek(const Playback &playback)
{
    const auto discontinuities = m_session->replayed().value_or(ZrReplayFacts{}).ullDiscontinuities;
    m_session->seek(playback);
    endPause();
    m_playback = playback;
    m_playbackSince = secondsOfMedia();
    m_discontinuitiesBefore = discontinuities;
}

void Course::record(const std::string &file)
{
    m_session->record(file, m_options.segments);
    m_recording = file;
    m_report.event("recording", "recording into " + file, {{"file", file}});
}

void Course::endRecording()
{
    const std::string file = std::exchange(m_recording, {});
    m_session->endRecording();
    tellFiles();
    m_report.event("recorded", "recorded " + file, {{"file", file}});
}

/// What cannot be written any more does not wait for the end to be told.
void Course::lookAfterRecording()
{
    const ZR_ULONG code = m_over || m_recording.empty() ? 0 : m_session->recordingProblem();
    if (code == 0)
    {
        return;
    }
    if (m_recording == m_options.record)
    {
        return stop(notWritten("recording", m_recording, code));
    }
    try // one that was asked for meanwhile: the stream plays on
    {
        endRecording();
    }
    catch (const Failure &failed)
    {
        m_report.event("not_recorded", failed.what(), nullptr);
    }
}

/// Of a recording in one file nothing is told but its beginning and its end.
void Course::tellFiles()
{
    constexpr std::array<const char *, 4> ends = {"ended", "length", "size", "changed"};
    for (const RecordedFile &file : m_session->recordedFiles())
    {
        const ZrRecordingFile &facts = file.facts;
        if (facts.ulNumber == 1 && facts.ulEnd == ZR_RECORDING_ENDED)
        {
            continue;
        }
        const double seconds = static_cast<double>(facts.ullMediaMs) / 1000;
        char length[32];
        std::snprintf(length, sizeof length, "%.1f s", seconds);
        m_report.event(
            "recorded_file",
            "wrote " + file.name + ", " + length +
                (facts.ulEnd == ZR_RECORDING_CHANGED ? "; what came then is coded otherwise, or of other tracks" : ""),
            {{"file", file.name},
             {"number", facts.ulNumber},
             {"end", ends.at(facts.ulEnd)},
             {"seconds", seconds},
             {"begin", static_cast<double>(facts.ullUnixUs) / 1e6},
             {"clock", facts.ulSenderClock != 0 ? "sender" : "receiver"}});
    }
}

void Course::endRecordingAtEnd()
{
    if (m_recording.empty())
    {
        return;
    }
    const std::string file = m_recording;
    try
    {
        endRecording();
    }
    catch (const Failure &failed) // a session that was lost at once has nothing to record: that is not the cause
    {
        if (m_failure && m_failure->meaning() != failed.meaning())
        {
            m_report.event("not_recorded", failed.what(), {{"file", file}});
        }
        m_failure.emplace(m_failure.value_or(failed));
    }
}

void Course::end()
{
    measure();
    const ZrMediaStatistics statistics = m_session->statistics();
    endRecordingAtEnd();
    if (m_options.replay)
    {
        tellReplay();
    }
    m_session->end();
    m_report.event("received",
                   "received " + counted(statistics.ullPackets, "packet", "packets") + ", " +
                       amount(statistics.ullBytes) + ", lost " + std::to_string(statistics.ullLost),
                   {{"packets", statistics.ullPackets},
                    {"bytes", statistics.ullBytes},
                    {"lost", statistics.ullLost},
                    {"jitter_us", statistics.ulJitterUs},
                    {"seconds", m_media.seconds}});
    m_report.event("ended", "ended the session", nullptr);
    if (m_failure)
    {
        throw Failure(*m_failure);
    }
}

} // namespace zr::host
