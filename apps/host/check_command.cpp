#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "addresses.h"
#include "check_page.h"
#include "check_table.h"
#include "commands.h"
#include "course.h"
#include "notices.h"
#include "speed.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;
using Clock = Course::Clock;

constexpr milliseconds connectWithin{5000};
constexpr milliseconds answerWithin{3000};
constexpr milliseconds mediaWithin{5000};
constexpr milliseconds pollEvery{20};
constexpr const char *deviceLog = "look for other clients of the device, and into its own log";
constexpr double watchedFor = 5; // seconds
constexpr ZR_ULONG stoppedAfterMs = 2500;
constexpr double bearableLoss = 0.01; // of the packets
constexpr ZR_ULONG pictureWithinMs = 5000;

double since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string inMs(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, seconds < 0.01 ? "%.1f ms" : "%.0f ms", seconds * 1000);
    return text;
}

Fields took(double seconds)
{
    return {{"seconds", seconds}};
}

/// Notes when a course came to which of its steps.
class Progress : public Report
{
public:
    void event(const std::string &name, const std::string &, const Fields &fields) override
    {
        if (name == "described") // of a session that was opened anew as well
        {
            m_tracks.clear();
        }
        if (name == "set_up")
        {
            m_tracks += (m_tracks.empty() ? "" : ", ") + fields.value("media", "");
        }
        m_times.emplace_back(name, Clock::now());
    }
    void status(const Status &) override {}
    void failure(const Failure &) override {}

    /// The last time that it happened.
    std::optional<Clock::time_point> when(const std::string &name) const
    {
        const auto found =
            std::find_if(m_times.rbegin(), m_times.rend(), [&](const auto &one) { return one.first == name; });
        return found == m_times.rend() ? std::nullopt : std::optional<Clock::time_point>(found->second);
    }
    const std::string &tracks() const { return m_tracks; }

private:
    std::vector<std::pair<std::string, Clock::time_point>> m_times;
    std::string m_tracks; ///< that were set up
};

/// The steps, one after another. What goes wrong with one is a row of the table; an interrupt is thrown.
class Check
{
public:
    Check(const CommonOptions &common, const CheckOptions &options, Report &report)
        : m_common(common)
        , m_options(options)
        , m_source(common.source)
        , m_plugin(common.plugin)
        , m_table(report)
        , m_report(report)
    {
    }

    /// @throws Failure  that of the first step without which nothing plays
    void run();

private:
    bool reachable();
    bool described();
    bool describedBy(Session &session, const std::string &step, bool given, std::optional<Failure> &failure);
    void tellTls(const Session &session, const std::optional<Failure> &failure);
    void tellOptions(const Session &session);
    void tellTracks(const Description &description);
    bool tryTransport(tagProtocol protocol, bool more);
    bool tellStart(const std::string &name, const Progress &progress, const std::optional<Failure> &failure,
                   Clock::time_point begin);
    void tryRest(Course &course);
    bool tryPackets(Course &course);
    void takePicture(const Course &course, Session &session);
    void tryKeepAlive(const Session &session);
    void tryPause(Course &course);
    void tryPlaces(Course &course);
    void tryPlaying(Course &course, const std::string &step, const std::string &text,
                    const std::function<void()> &begin);
    void end(Course &course);
    void skip(std::initializer_list<const char *> steps, const std::string &why);
    void stopIfAsked() const;
    void sleep(milliseconds time) const;
    void conclude();

    const CommonOptions &m_common;
    const CheckOptions &m_options;
    const Source &m_source;
    const Interrupt m_interrupt;
    Plugin m_plugin;
    CheckTable m_table;
    Report &m_report;
    std::optional<Failure> m_transportFailure; ///< the first one
    std::string m_picture;                     ///< PNG
};

void Check::stopIfAsked() const
{
    if (m_interrupt.asked())
    {
        throw Failure(ExitCode::Interrupted, "checking", 0, "interrupted");
    }
}

void Check::sleep(milliseconds time) const
{
    m_interrupt.sleep(time);
    stopIfAsked();
}

void Check::skip(std::initializer_list<const char *> steps, const std::string &why)
{
    for (const char *step : steps)
    {
        m_table.skipped(step, why);
    }
}

bool Check::reachable()
{
    const Url &url = m_source.url;
    std::string step = "name";
    try
    {
        std::string found;
        for (const std::string &address : addressesOf(url.host))
        {
            found += (found.empty() ? "" : ", ") + address;
        }
        m_table.ok(step, url.host + (found == url.host ? "" : " is " + found), {{"addresses", found}});
        step = "TCP";
        const double seconds = timeToConnect(url.host, url.port, connectWithin);
        m_table.ok(step, "port " + std::to_string(url.port) + " answers in " + inMs(seconds), took(seconds));
    }
    catch (const Failure &failed)
    {
        m_table.failed(step, failed, true);
        return false;
    }
    stopIfAsked();
    return true;
}

void Check::tellTls(const Session &session, const std::optional<Failure> &failure)
{
    const std::string version = session.facts().szTls;
    if (m_source.url.text.rfind("rtsps:", 0) != 0)
    {
        return;
    }
    if (version.empty())
    {
        m_table.failed("TLS", *failure, true);
        return;
    }
    m_table.ok("TLS",
               version + (m_common.insecure ? ", certificate not verified (--insecure)" : ", certificate verified"),
               {{"version", version}, {"verified", !m_common.insecure}});
}

void Check::tellOptions(const Session &session)
{
    const auto begin = Clock::now();
    const auto facts = session.ask(answerWithin);
    stopIfAsked();
    if (!facts)
    {
        m_table.failed("OPTIONS", Failure(ExitCode::Unreachable, "options", 0, "no answer came within 3 s", deviceLog),
                       false);
    }
    else if (facts->ulCheckStatus >= 300)
    {
        m_table.failed("OPTIONS", requestFailed("options", facts->ulCheckStatus), false);
    }
    else
    {
        const std::string methods = facts->szMethods;
        m_table.ok("OPTIONS", methods.empty() ? "answered, without a list of methods" : methods,
                   {{"methods", methods}, {"server", facts->szServer}, {"seconds", since(begin)}});
    }
}

/// @param given    with the credentials, when there are any
/// @param failure  receives why not
bool Check::describedBy(Session &session, const std::string &step, bool given, std::optional<Failure> &failure)
{
    const auto begin = Clock::now();
    const bool more = !given && !m_source.credentials.user.empty(); // they are tried next
    try
    {
        session.describe();
    }
    catch (const Failure &failed)
    {
        failure.emplace(failed);
    }
    const double seconds = since(begin);
    if (!given)
    {
        tellTls(session, failure);
        if (m_table.failure())
        {
            m_table.skipped("DESCRIBE", "it needs TLS");
            return false;
        }
        if (!failure || failure->exit() != ExitCode::Unreachable)
        {
            tellOptions(session);
        }
    }
    if (!failure)
    {
        m_table.ok(step, "answered in " + inMs(seconds) + (more ? ", also without credentials" : ""), took(seconds));
    }
    else if (more && failure->exit() == ExitCode::Credentials)
    {
        m_table.ok(step, "the server asks for credentials, as it should", took(seconds));
    }
    else
    {
        m_table.failed(step, *failure, !more);
    }
    stopIfAsked();
    return !failure;
}

bool Check::described()
{
    const bool given = !m_source.credentials.user.empty();
    Source plain = m_source;
    plain.credentials = {};
    std::optional<Description> description;
    for (const Source *source : {const_cast<const Source *>(&plain), &m_source})
    {
        if (source == &m_source && (!given || m_table.failure()))
        {
            break;
        }
        Mailbox mailbox(m_interrupt);
        Session session(m_plugin, *source, mailbox);
        std::optional<Failure> failure;
        const bool anonymous = source == &plain;
        if (describedBy(session, anonymous ? given ? "DESCRIBE, nobody" : "DESCRIBE" : "DESCRIBE, user", !anonymous,
                        failure))
        {
            description = session.description();
        }
    }
    if (m_table.failure() || !description)
    {
        return false;
    }
    tellTracks(*description);
    return true;
}

void Check::tellTracks(const Description &description)
{
    std::string text;
    for (const Track &track : description.tracks)
    {
        text += (text.empty() ? "" : "; ") + track.media + " " + details(track);
    }
    m_table.ok("tracks", text, {{"range", description.range}});
}

/// @return whether media came
bool Check::tellStart(const std::string &name, const Progress &progress, const std::optional<Failure> &failure,
                      Clock::time_point begin)
{
    struct Step
    {
        const char *name;
        const char *event;
    };
    static constexpr Step steps[] = {{" SETUP", "set_up"}, {" PLAY", "playing"}, {" media", "media"}};
    auto last = progress.when("described").value_or(begin);
    bool broken = false;
    for (const Step &step : steps)
    {
        // what came behind it says that a step was done: one track may be set up and the other refused
        const auto reached = progress.when(step.event);
        const bool setUp = std::string(step.event) == "set_up";
        const bool done =
            reached && (!setUp || !failure || progress.when("playing") || failure->step().rfind("setup", 0) != 0);
        if (broken)
        {
            m_table.skipped(name + step.name, "it needs the step before");
        }
        else if (!done)
        {
            broken = true;
            m_table.failed(name + step.name, *failure, false);
        }
        else
        {
            const double seconds = std::chrono::duration<double>(*reached - last).count();
            m_table.ok(name + step.name,
                       (setUp                 ? progress.tracks() + " in "
                        : step.name[1] == 'm' ? "the first packet came after "
                                              : "answered in ") +
                           inMs(seconds),
                       took(seconds));
            last = *reached;
        }
    }
    return !broken;
}

/// One session from its beginning to its end.
/// @param more  what is tried once alone is tried with it, if media comes
bool Check::tryTransport(tagProtocol protocol, bool more)
{
    const std::string name = protocol == PROTOCOL_TCP ? "TCP:" : "UDP:";
    CourseOptions options;
    options.protocol = protocol;
    Progress progress;
    std::optional<Failure> failure;
    const auto begin = Clock::now();
    Course course(m_plugin, m_interrupt, m_source, options, progress);
    try
    {
        course.begin();
    }
    catch (const Failure &failed)
    {
        failure.emplace(failed);
    }
    stopIfAsked();
    const bool plays = tellStart(name, progress, failure, begin);
    if (!plays && !m_transportFailure)
    {
        m_transportFailure.emplace(failure->exit(), name + " " + failure->step(), failure->code(), failure->meaning(),
                                   failure->advice());
    }
    if (plays && more)
    {
        tryRest(course);
    }
    if (plays)
    {
        end(course);
    }
    return plays;
}

void Check::tryRest(Course &course)
{
    if (!tryPackets(course))
    {
        skip({"keep-alive", "PAUSE", "play on", "seek", "speed"}, "the session is over");
        return;
    }
    takePicture(course, course.session());
    tryKeepAlive(course.session());
    tryPause(course);
    tryPlaces(course);
}

bool Check::tryPackets(Course &course)
{
    const auto begin = Clock::now();
    const ZrMediaStatistics before = course.session().statistics();
    while (since(begin) < watchedFor && !course.over())
    {
        course.step(pollEvery * 5);
    }
    stopIfAsked();
    const double seconds = since(begin);
    const ZrMediaStatistics now = course.session().statistics();
    const uint64_t packets = now.ullPackets - before.ullPackets;
    const uint64_t lost = now.ullLost - std::min(now.ullLost, before.ullLost);
    const double rate = static_cast<double>(now.ullBytes - before.ullBytes) * 8 / 1000 / seconds;
    const double jitter = now.ulJitterUs / 1000.0;
    char text[160];
    std::snprintf(text, sizeof text, "%llu in %.0f s, %.0f kbit/s, lost %llu, jitter %.1f ms",
                  static_cast<unsigned long long>(packets), seconds, rate, static_cast<unsigned long long>(lost),
                  jitter);
    const bool ended = course.notice() == ZR_RTSP_NOTICE_END_OF_STREAM; // a short recording
    if (course.over() && !ended)
    {
        m_table.failed("packets",
                       Failure(ExitCode::Lost, "packets", 0,
                               course.notice() ? noticeText(*course.notice()) : "the server is gone", deviceLog),
                       true);
        return false;
    }
    if (now.ulLastArrivalMs > stoppedAfterMs && !ended)
    {
        m_table.failed("packets",
                       Failure(ExitCode::NoMedia, "packets", 0, std::string("media stopped: ") + text, deviceLog),
                       true);
    }
    else if (static_cast<double>(lost) > bearableLoss * static_cast<double>(packets + lost))
    {
        m_table.failed("packets",
                       Failure(ExitCode::NoMedia, "packets", 0, text,
                               "check the network for what is overloaded; --tcp loses nothing, but comes late"),
                       false);
    }
    else
    {
        m_table.ok(
            "packets", text,
            {{"packets", packets}, {"kbit_per_s", rate}, {"lost", lost}, {"jitter_ms", jitter}, {"seconds", seconds}});
    }
    return !ended;
}

void Check::takePicture(const Course &course, Session &session)
{
    if (m_options.html.empty() || course.description().first("video") == nullptr)
    {
        return;
    }
    std::string folder = (std::filesystem::temp_directory_path() / "zr_rtsp_check.XXXXXX").string();
    try
    {
        if (mkdtemp(folder.data()) == nullptr)
        {
            throw Failure(ExitCode::Output, "taking the picture", 0, "there is no room for it in " + folder);
        }
        const std::string file = folder + "/picture.png";
        session.snapshot(file, pictureWithinMs);
        std::ifstream in(file, std::ios::binary);
        m_picture.assign(std::istreambuf_iterator<char>(in), {});
        m_table.ok("picture", "decoded");
    }
    catch (const Failure &failed)
    {
        m_table.failed("picture", failed, false);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    stopIfAsked();
}

void Check::tryKeepAlive(const Session &session)
{
    const auto begin = Clock::now();
    const auto facts = session.ask(answerWithin);
    stopIfAsked();
    const std::string ends = "a silent session ends after " + std::to_string(session.facts().ulTimeout) + " s";
    if (!facts)
    {
        m_table.failed(
            "keep-alive",
            Failure(ExitCode::Unreachable, "keep-alive", 0, "no answer came within 3 s, and " + ends, deviceLog),
            false);
    }
    else if (facts->ulCheckStatus >= 300)
    {
        m_table.failed("keep-alive", requestFailed("keep-alive", facts->ulCheckStatus), false);
    }
    else
    {
        m_table.ok("keep-alive", "answered in " + inMs(since(begin)) + "; " + ends,
                   {{"session_timeout", facts->ulTimeout}});
    }
}

/// Does what makes media come again, and waits for it.
void Check::tryPlaying(Course &course, const std::string &step, const std::string &text,
                       const std::function<void()> &begin)
{
    try
    {
        begin();
        const auto answered = Clock::now();
        const uint64_t before = course.session().statistics().ullPackets;
        while (course.session().statistics().ullPackets == before)
        {
            if (since(answered) > std::chrono::duration<double>(mediaWithin).count())
            {
                throw Failure(ExitCode::NoMedia, step, 0, "the server agreed, but no media came within 5 s", deviceLog);
            }
            sleep(pollEvery);
        }
        m_table.ok(step, text + ", media after " + inMs(since(answered)), took(since(answered)));
    }
    catch (const Failure &failed)
    {
        stopIfAsked();
        m_table.failed(step, failed, false);
    }
}

void Check::tryPause(Course &course)
{
    constexpr milliseconds onTheWay{300};
    constexpr milliseconds quiet{700};
    try
    {
        course.pause();
    }
    catch (const Failure &failed)
    {
        stopIfAsked();
        m_table.failed("PAUSE", failed, false);
        m_table.skipped("play on", "it needs the step before");
        return;
    }
    sleep(onTheWay);
    const uint64_t before = course.session().statistics().ullPackets;
    sleep(quiet);
    const uint64_t still = course.session().statistics().ullPackets - before;
    if (still == 0)
    {
        m_table.ok("PAUSE", "media stopped");
    }
    else
    {
        m_table.failed("PAUSE",
                       Failure(ExitCode::Refused, "pause", 0, "the server agreed, but media goes on",
                               "do without it: live streams of many devices do not pause"),
                       false);
    }
    tryPlaying(course, "play on", "playing", [&] { course.playOn(); });
}

void Check::tryPlaces(Course &course)
{
    const Span span = parseSpan(course.description().range);
    if (!span.begin || !span.end || span.end->seconds <= span.begin->seconds)
    {
        skip({"seek", "speed"}, "the stream is live");
        return;
    }
    Position middle = *span.begin;
    middle.seconds += (span.end->seconds - span.begin->seconds) / 2;
    Playback playback{positionText(middle), positionText(*span.end), std::nullopt, std::nullopt};
    tryPlaying(course, "seek", "to " + positionShown(middle), [&] { course.seek(playback); });
    playback.from = positionText(*span.begin);
    playback.speedCode = speedCode("2");
    tryPlaying(course, "speed", "Scale 2 from the beginning", [&] { course.seek(playback); });
}

void Check::end(Course &course)
{
    const char *step = course.options().protocol == PROTOCOL_TCP ? "TCP: TEARDOWN" : "UDP: TEARDOWN";
    try
    {
        course.end();
        m_table.ok(step, "sent");
    }
    catch (const Failure &failed)
    {
        m_table.failed(step, failed, false);
    }
}

void Check::conclude()
{
    const auto &failure = m_table.failure();
    const std::string steps = m_table.failedSteps();
    const std::string verdict = (failure ? "the stream does not play" : "the stream plays") +
                                (steps.empty() ? std::string() : "; failed: " + steps);
    if (!m_options.html.empty())
    {
        writePage(m_options.html, m_source, m_table, verdict, m_picture);
    }
    m_report.event("checked", verdict, {{"plays", !failure.has_value()}, {"failed", steps}});
    if (failure)
    {
        throw Failure(*failure);
    }
}

void Check::run()
{
    constexpr const char *needs = "it needs a step that failed";
    if (!reachable())
    {
        skip({"DESCRIBE", "SETUP", "PLAY"}, needs);
    }
    else if (!described())
    {
        skip({"SETUP", "PLAY"}, needs);
    }
    else
    {
        const bool udp = tryTransport(PROTOCOL_UDP, true);
        const bool tcp = tryTransport(PROTOCOL_TCP, !udp);
        if (!udp && !tcp)
        {
            m_table.needed(*m_transportFailure);
        }
    }
    conclude();
}

} // namespace

void checkCommand(const CommonOptions &common, const CheckOptions &options, Report &report)
{
    Check(common, options, report).run();
}

} // namespace zr::host
