// What "check" tries of the media: transports, packets, and how a session can be steered.

#include "check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "notices.h"
#include "speed.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;
using Clock = Course::Clock;

constexpr milliseconds mediaWithin{5000};
constexpr milliseconds pollEvery{20};
constexpr double watchedFor = 10; // seconds
constexpr ZR_ULONG stoppedAfterMs = 2500;
constexpr double bearableLoss = 0.01; // of the packets
constexpr ZR_ULONG pictureWithinMs = 5000;
constexpr double answerSeconds = std::chrono::duration<double>(answerWithin).count();

/// Of a header.
std::optional<double> number(const std::string &text)
{
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return end != text.c_str() && std::isfinite(value) ? std::optional<double>(value) : std::nullopt;
}

} // namespace

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
bool Check::tryTransport(const CourseOptions &options, bool more)
{
    Progress progress;
    std::optional<Failure> failure;
    const auto begin = Clock::now();
    Course course(m_plugin, m_interrupt, m_source, options, progress);
    const std::string name = course.transport() + std::string(":");
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
        skip({"keep-alive", "PAUSE", "play on", "seek", "Scale"}, "the session is over");
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
    const auto length = course.length();
    const double enough = std::min(watchedFor, length ? *length / 2 : watchedFor); // some is left for what follows
    while (since(begin) < enough && !course.over())
    {
        course.step(pollEvery * 5);
    }
    stopIfAsked();
    const double seconds = since(begin);
    const ZrMediaStatistics now = course.session().statistics();
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
                       Failure(ExitCode::NoMedia, "packets", 0,
                               "media stopped after " + std::to_string(now.ullPackets - before.ullPackets) + " packets",
                               deviceLog),
                       true);
    }
    else
    {
        tellPackets(before, now, seconds);
    }
    return !ended;
}

void Check::tellPackets(const ZrMediaStatistics &before, const ZrMediaStatistics &now, double seconds)
{
    const uint64_t packets = now.ullPackets - before.ullPackets;
    const uint64_t lost = now.ullLost - std::min(now.ullLost, before.ullLost);
    const double rate = static_cast<double>(now.ullBytes - before.ullBytes) * 8 / 1000 / seconds;
    const double jitter = now.ulJitterUs / 1000.0;
    char text[160];
    std::snprintf(text, sizeof text, "%llu in %.1f s, %.0f kbit/s, jitter %.1f ms",
                  static_cast<unsigned long long>(packets), seconds, rate, jitter);
    m_table.ok("packets", text,
               {{"packets", packets}, {"kbit_per_s", rate}, {"jitter_ms", jitter}, {"seconds", seconds}});
    const double part = static_cast<double>(lost) / static_cast<double>(std::max<uint64_t>(packets + lost, 1));
    std::snprintf(text, sizeof text, "%llu of %llu packets, %.2f %%", static_cast<unsigned long long>(lost),
                  static_cast<unsigned long long>(packets) + lost, part * 100);
    if (part > bearableLoss)
    {
        m_table.failed("loss",
                       Failure(ExitCode::NoMedia, "loss", 0, text,
                               "check the network for what is overloaded; --tcp loses nothing, but comes late"),
                       false);
    }
    else
    {
        m_table.ok("loss", text, {{"lost", lost}, {"part", part}});
    }
}

void Check::takePicture(const Course &course, Session &session)
{
    if (m_options.html.empty() || course.description().first("video") == nullptr)
    {
        return;
    }
    std::error_code noFolder;
    const auto temporary = std::filesystem::temp_directory_path(noFolder);
    std::string folder = (temporary / "zr_rtsp_check.XXXXXX").string();
    const bool made = !noFolder && mkdtemp(folder.data()) != nullptr;
    try
    {
        if (!made)
        {
            throw Failure(ExitCode::Output, "taking the picture", 0,
                          "no folder for it can be made in " + (noFolder ? "the temporary one" : temporary.string()),
                          "check TMPDIR");
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
    if (made)
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    stopIfAsked();
}

void Check::tryKeepAlive(const Session &session)
{
    const auto begin = Clock::now();
    const std::string ends = "a silent session ends after " + std::to_string(session.facts().ulTimeout) + " s";
    if (const auto facts = ask(session, "keep-alive", ", and " + ends, false))
    {
        m_table.ok("keep-alive", "answered in " + inMs(since(begin)) + "; " + ends,
                   {{"session_timeout", facts->ulTimeout}});
    }
}

/// Does what makes media come again, and waits for it.
/// @param seen  what the server's answer says beside it; throws a Failure where that is not what was asked for
void Check::tryPlaying(Course &course, const std::string &step, const std::string &text,
                       const std::function<void()> &begin, const std::function<std::string()> &seen)
{
    try
    {
        m_trace.forget("PLAY");
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
        const double seconds = since(answered);
        m_table.ok(step, "media came " + inMs(seconds) + " after asking " + text + (seen ? "; " + seen() : ""),
                   took(seconds));
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
    tryPlaying(course, "play on", "to play on", [&] { course.playOn(); });
}

/// What the trace has of it, as soon as that is there.
/// @return nothing when it did not come in time
std::optional<Trace::Answer> Check::answerTo(const std::string &method, Clock::time_point asked) const
{
    constexpr int firstFinal = 200; // what is below says that there is more to come
    auto answer = m_trace.answerTo(method);
    while ((!answer || answer->status < firstFinal) && since(asked) < answerSeconds)
    {
        sleep(pollEvery);
        answer = m_trace.answerTo(method);
    }
    return answer && answer->status >= firstFinal ? answer : std::nullopt;
}

std::string Check::placeAnswered(const Position &asked, double tolerance) const
{
    const auto answer = answerTo("PLAY", Clock::now());
    if (!answer || answer->range.empty())
    {
        return "the answer has no Range: where it plays from is not known";
    }
    const auto begin = parseSpan(answer->range).begin;
    if (!begin || begin->clock != asked.clock)
    {
        return "the answer's Range, " + answer->range + ", does not tell the place";
    }
    if (std::fabs(begin->seconds - asked.seconds) > tolerance)
    {
        throw Failure(ExitCode::Refused, "seek", 0,
                      "the server agreed, but plays from elsewhere: asked for " + positionShown(asked) +
                          ", it answers Range " + answer->range,
                      "play URL --from TIME --trace, with other times, shows what it answers");
    }
    return "its answer says from " + positionShown(*begin);
}

std::string Check::scaleAnswered(double asked) const
{
    const auto answer = answerTo("PLAY", Clock::now());
    if (!answer || answer->scale.empty())
    {
        return "the answer has no Scale: how fast it plays is not known";
    }
    constexpr double same = 0.01; // servers print it with few digits
    const auto scale = number(answer->scale);
    const auto isAsked = [asked](double factor) { return std::fabs(factor - asked) <= same; };
    if (!scale)
    {
        return "the answer's Scale, " + answer->scale + ", is no number";
    }
    if (isAsked(*scale))
    {
        return "its answer says Scale " + answer->scale;
    }
    if (isAsked(*scale * number(answer->speed).value_or(1)))
    {
        return "its answer says Scale " + answer->scale + " and Speed " + answer->speed + ": all pictures, sent faster";
    }
    throw Failure(ExitCode::Refused, "Scale", 0,
                  "the server agreed, but plays at another speed: it answers Scale " + answer->scale,
                  "play URL --speed 4, or 0.5: servers have speeds of their own choice");
}

void Check::tryPlaces(Course &course)
{
    const Span span = parseSpan(course.description().range);
    if (!span.begin || !span.end || span.end->seconds <= span.begin->seconds)
    {
        skip({"seek", "Scale"}, "the stream is live");
        return;
    }
    // By now it plays in the first half: from there to here is a quarter of the recording at least, so that what comes
    // is told from what a server plays that stayed where it was. Servers begin at a key frame, and devices that save
    // room have one in some ten seconds.
    constexpr double part = 0.75;
    constexpr double betweenKeyFrames = 10;
    const double length = span.end->seconds - span.begin->seconds;
    Position place = *span.begin;
    place.seconds += length * part;
    Playback playback{positionText(place), positionText(*span.end), std::nullopt, std::nullopt};
    tryPlaying(
        course, "seek", "for " + positionShown(place), [&] { course.seek(playback); },
        [&] { return placeAnswered(place, std::min(betweenKeyFrames, length / 8)); });
    playback.from = positionText(*span.begin);
    playback.speedCode = speedCode("2");
    tryPlaying(
        course, "Scale", "for speed 2, from the beginning", [&] { course.seek(playback); },
        [&] { return scaleAnswered(speedFactor(playback.speedCode)); });
}

void Check::end(Course &course)
{
    const std::string step = course.transport() + std::string(": TEARDOWN");
    try
    {
        const auto begin = Clock::now();
        m_trace.forget("TEARDOWN");
        course.end();
        const auto answer = answerTo("TEARDOWN", begin);
        if (!answer)
        {
            throw Failure(ExitCode::Unreachable, step, 0, "no answer came within 3 s", deviceLog);
        }
        if (answer->status >= 300)
        {
            throw requestFailed(step, static_cast<ZR_ULONG>(answer->status));
        }
        m_table.ok(step, "answered in " + inMs(since(begin)), took(since(begin)));
    }
    catch (const Failure &failed)
    {
        m_table.failed(step, failed, false);
    }
}

} // namespace zr::host
