#include <algorithm>
#include <cmath>
#include <cstdio>

#include "attempts.h"
#include "commands.h"
#include "controls.h"
#include "output_file.h"
#include "show.h"
#include "speed.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr double statusEvery = 1;          // seconds
constexpr double silenceOfRecording = 2;   // seconds without media when its end is due
constexpr double silenceOfLastFrame = 0.4; // the same, when that was told by its first packet
constexpr ZR_ULONG pictureWithinMs = 10000;
constexpr milliseconds atLeisure{1000};
constexpr milliseconds betweenPictures{80};

/// As many of a line's parts, which stand two blanks apart, as the terminal has room for beside its tail.
std::string fitted(std::string line, const std::string &tail)
{
    constexpr const char *apart = "  ";
    const size_t columns = terminalSize().columns - 1;
    for (size_t end = line.rfind(apart); line.size() + tail.size() > columns && end != std::string::npos;
         end = line.rfind(apart))
    {
        line.erase(end);
    }
    return line + tail;
}

/// Without the day, where that is the other's, too.
std::string endShown(const Position &end, const Position &place)
{
    constexpr size_t day = 11; // of positionShown, with the blank behind it
    const std::string text = positionShown(end);
    const bool sameDay = end.clock && text.compare(0, day, positionShown(place), 0, day) == 0;
    return sameDay ? text.substr(day) : text;
}

/// What a session is seen and steered by.
struct Stage
{
    Screen *screen = nullptr; ///< of a preview
    PictureText *text = nullptr;
    TerminalMode *terminal = nullptr; ///< where keys are typed
};

/// One session of the play command; those before it have already played for some seconds.
class Play
{
public:
    Play(Course &course, Interrupt &interrupt, const PlayOptions &options, Report &report, const Stage &stage,
         double before)
        : m_course(course)
        , m_interrupt(interrupt)
        , m_options(options)
        , m_report(report)
        , m_stage(stage)
        , m_before(before)
    {
    }

    void run()
    {
        m_course.begin();
        takePicture();
        try
        {
            playToEnd();
        }
        catch (const Failure &failed) // what arrived is kept all the same
        {
            m_course.stop(failed);
        }
        if (m_pictureFailure)
        {
            m_course.stop(m_pictureFailure);
        }
        m_course.end();
    }

private:
    void playToEnd();
    void takePicture();
    void pauseWhenDue();
    void judge();
    void tellStatus();
    milliseconds untilNextMoment() const;

    double seconds() const { return m_before + m_course.secondsOfMedia(); }
    bool durationIsOver() const { return m_options.duration && seconds() >= *m_options.duration; }
    bool pauseIsAhead() const { return m_options.pauseAt && !m_pauseDone && m_before == 0; }

    Course &m_course;
    Interrupt &m_interrupt;
    const PlayOptions &m_options;
    Report &m_report;
    const Stage &m_stage;
    const double m_before;
    bool m_pauseDone = false;
    std::optional<Course::Clock::time_point> m_playOn; ///< when the pause that was asked for ends
    double m_nextStatus = statusEvery;
    std::optional<Failure> m_pictureFailure;
};

void Play::takePicture()
{
    if (m_options.snapshot.empty() || m_before > 0)
    {
        return;
    }
    try
    {
        m_course.session().snapshot(m_options.snapshot, pictureWithinMs);
        m_report.event("snapshot", "wrote the picture " + m_options.snapshot, {{"file", m_options.snapshot}});
    }
    catch (const Failure &failed)
    {
        m_pictureFailure = failed;
    }
}

void Play::playToEnd()
{
    std::optional<Controls> controls;
    std::optional<Show> show;
    if (m_stage.terminal != nullptr)
    {
        controls.emplace(m_course, m_interrupt, *m_stage.terminal, m_report);
    }
    if (m_stage.screen != nullptr)
    {
        show.emplace(m_course, m_interrupt, m_report, *m_stage.screen, *m_stage.text);
    }
    else if (m_options.window)
    {
        show.emplace(m_course, m_interrupt, m_report);
    }
    while (!m_course.over() && !durationIsOver())
    {
        pauseWhenDue();
        m_course.step(untilNextMoment());
        if (controls)
        {
            controls->serve();
        }
        if (show)
        {
            show->serve();
        }
        judge();
        tellStatus();
    }
}

void Play::pauseWhenDue()
{
    if (pauseIsAhead() && seconds() >= *m_options.pauseAt && !m_course.paused())
    {
        m_pauseDone = true;
        m_course.pause();
        m_playOn = Course::Clock::now() + inMilliseconds(m_options.pauseFor);
    }
    if (m_playOn && (!m_course.paused() || Course::Clock::now() >= *m_playOn))
    {
        m_playOn.reset();
        if (m_course.paused())
        {
            m_course.playOn();
        }
    }
}

milliseconds Play::untilNextMoment() const
{
    milliseconds longest = m_stage.screen != nullptr ? betweenPictures : atLeisure;
    for (const auto &moment : {m_options.duration, pauseIsAhead() ? m_options.pauseAt : std::nullopt})
    {
        longest = std::min(longest, moment ? inMilliseconds(*moment - seconds()) + milliseconds(1) : longest);
    }
    return m_playOn ? std::min(longest, std::chrono::ceil<milliseconds>(*m_playOn - Course::Clock::now())) : longest;
}

void Play::judge()
{
    const Media &media = m_course.media();
    if (m_course.over())
    {
        return;
    }
    if ((media.silent >= silenceOfRecording && m_course.mayHaveEnded()) ||
        (media.silent >= silenceOfLastFrame && m_course.toldEnd(ZR_REPLAY_TERMINAL)))
    {
        m_report.event("end_of_stream",
                       m_course.atBegin() ? "the recording's begin was reached" : "the recording ended",
                       m_course.withTime());
        m_course.stop();
    }
    else if (media.silent >= 2 * m_options.course.silence)
    {
        const long silent = std::lround(2 * m_options.course.silence);
        m_course.stop(Failure(ExitCode::NoMedia, "playing", 0,
                              "media stopped, nothing came for " + std::to_string(silent) + " s"));
    }
}

void Play::tellStatus()
{
    const Media &media = m_course.media();
    const bool steered = m_stage.terminal != nullptr;
    if (m_course.over() || (media.seconds < m_nextStatus && !steered))
    {
        return;
    }
    m_nextStatus = std::floor(media.seconds) + statusEvery;
    const char *state = m_course.paused() ? "paused" : media.silent >= m_options.course.silence ? "silent" : "playing";
    const auto position = m_course.position();
    const Span span = m_course.span();
    const double rate = m_course.paused() ? 0 : media.kilobitsPerSecond; // also before the next look
    const auto speed = m_course.playback().speedCode;
    const std::string place = !position
                                  ? positionShown({media.seconds, false})
                                  : positionShown(*position) + (span.end ? "/" + endShown(*span.end, *position) : "");
    char text[200];
    const bool pictures = m_course.description().first("video") != nullptr;
    std::snprintf(text, sizeof text, "%s  %s  %s  %.0f kbit/s  %llu %s  lost %llu  jitter %.1f ms", state,
                  place.c_str(), speedText(speed).c_str(), rate,
                  static_cast<unsigned long long>(pictures ? media.frames : media.packets),
                  pictures ? "frames" : "packets", static_cast<unsigned long long>(media.lost), media.jitterMs);
    const std::string tail = std::string(m_course.recording().empty() ? "" : "  rec") + (steered ? "  ? keys" : "");
    m_report.status({"progress", steered ? fitted(text, tail) : text + tail,
                     m_course.withTime({{"seconds", media.seconds},
                                        {"state", state},
                                        {"position", position ? Fields(position->seconds) : Fields(nullptr)},
                                        {"speed", speedFactor(speed)},
                                        {"kbit_per_s", rate},
                                        {"frames", media.frames},
                                        {"packets", media.packets},
                                        {"lost", media.lost},
                                        {"reordered", media.reordered},
                                        {"jitter_ms", media.jitterMs}})});
}

} // namespace

void playCommand(const CommonOptions &common, const PlayOptions &options, Report &printed)
{
    const bool steered = Controls::wanted(common.json);
    if (options.preview && (!steered || !Screen::possible()))
    {
        throw wrongUsage("--preview draws in a terminal: stdin and stdout must be one, and --json be left away");
    }
    if (options.window)
    {
        Show::requireDisplay();
    }
    std::optional<PictureText> text;
    std::optional<Screen> screen; // prints when the terminal has its usual screen again
    if (options.preview)
    {
        text.emplace();
        screen.emplace(printed);
    }
    Report &report = screen ? static_cast<Report &>(*screen) : printed;
    Interrupt interrupt(&report);
    Plugin plugin(common.plugin);
    std::optional<TerminalMode> terminal;
    if (steered)
    {
        terminal.emplace(TerminalMode::Kind::Keys, options.preview);
    }
    const Stage stage{screen ? &*screen : nullptr, text ? &*text : nullptr, terminal ? &*terminal : nullptr};
    double seconds = 0;
    int number = 1; // of the session among those that had media
    makeAttempts(options.reconnect ? Again::OncePlayed : Again::Never, interrupt, report, [&] {
        CourseOptions own = options.course;
        if (!own.record.empty()) // each session has its own
        {
            own.record = numbered(own.record, number, common.force);
        }
        Ending ending = attempt(plugin, interrupt, common.source, own, report, [&](Course &course) {
            Play(course, interrupt, options, report, stage, seconds).run();
        });
        seconds += ending.seconds;
        number += ending.seconds > 0 ? 1 : 0;
        return ending;
    });
}

} // namespace zr::host
