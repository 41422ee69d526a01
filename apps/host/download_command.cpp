#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "continuation.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds atLeisure{1000};
constexpr double statusEvery = 1; // seconds

// A recording's length and its packets' timestamps agree to within some pictures.
constexpr double closeToEnd = 0.5, silenceCloseToEnd = 1;
constexpr double nearEnd = 2, silenceAtEnd = 3;
constexpr double silenceOfFault = 10;

// What is fetched twice for the seam: a server may begin at the key frame before.
constexpr double keyFramesApart = 10;

class Download
{
public:
    /// @param continuation  of a file that is there; null: from the beginning
    Download(Course &course, const DownloadOptions &options, Continuation *continuation, Report &report)
        : m_course(course)
        , m_file(options.course.record)
        , m_mayStop(!options.course.playback.to.empty())
        , m_continuation(continuation)
        , m_before(continuation != nullptr ? continuation->there() : 0)
        , m_report(report)
    {
    }

    void run(const Interrupt &interrupt);

private:
    void fetch(const Interrupt &interrupt);
    void judge();
    void tellStatus();

    /// Seconds of the recording that the file holds.
    double held() const { return m_before + m_course.media().covered; }

    static std::string length(double seconds)
    {
        char text[40];
        std::snprintf(text, sizeof text, "%.1f s", seconds);
        return text;
    }

    std::string soFar() const
    {
        return (m_course.description().live() ? "the stream is live and has no end, " : "") + m_file + " holds " +
               length(held()) + (m_length ? " of " + length(m_before + *m_length) : "");
    }

    std::string nextStep() const
    {
        return m_course.description().live() ? "play URL --record FILE --duration SECONDS, for so much of a live stream"
               : m_length                    ? "the same command with --continue, for the rest"
                                             : "the same command with --continue, if it is a recording: no end is told";
    }

    Course &m_course;
    const std::string m_file;
    const bool m_mayStop; ///< an end was asked for: whatever comes behind it is too much
    Continuation *const m_continuation;
    const double m_before; ///< seconds that were there
    Report &m_report;
    std::optional<double> m_length; ///< seconds of what is fetched
    double m_nextStatus = statusEvery;
};

void Download::run(const Interrupt &interrupt)
{
    std::optional<Failure> failed;
    try
    {
        fetch(interrupt);
    }
    catch (const Failure &failure)
    {
        failed = failure;
    }
    if (!failed && m_course.whole())
    {
        const double there = m_continuation->held();
        m_report.event("downloaded", m_file + " is already whole, " + length(there) + ": nothing was fetched",
                       {{"file", m_file}, {"seconds", there}});
        return;
    }
    double held = m_course.media().covered;
    if (m_continuation != nullptr) // also of what was cut once more
    {
        try
        {
            held = m_continuation->join();
        }
        catch (const Failure &notJoined)
        {
            if (!failed)
            {
                throw;
            }
            m_report.event("not_joined", notJoined.what(), nullptr);
        }
    }
    if (failed)
    {
        throw Failure(*failed);
    }
    m_report.event("downloaded", "downloaded " + length(held) + ": " + m_file, {{"file", m_file}, {"seconds", held}});
}

void Download::fetch(const Interrupt &interrupt)
{
    m_course.begin();
    if (m_course.whole())
    {
        return;
    }
    m_length = m_course.length();
    if (m_course.description().live() && !m_length)
    {
        m_report.event("endless", "the stream is live and has no end: it is recorded until Ctrl-C", nullptr);
    }
    while (!m_course.over())
    {
        m_course.step(atLeisure);
        judge();
        tellStatus();
    }
    if (interrupt.asked())
    {
        m_course.stop(interrupt.failure("downloading", "interrupted, " + soFar(), nextStep()));
    }
    m_course.end();
}

void Download::judge()
{
    const Media &media = m_course.media();
    if (m_course.over())
    {
        return;
    }
    const double missing = m_length ? *m_length - media.covered : 0;
    const bool passed = m_mayStop && m_length && missing <= (m_continuation != nullptr ? -keyFramesApart : 0);
    const bool close = m_length && missing <= closeToEnd && media.silent >= silenceCloseToEnd;
    const bool ended = missing <= nearEnd && media.silent >= silenceAtEnd;
    if (passed || close || ended)
    {
        m_report.event("end_of_stream", "the end was reached", nullptr);
        m_course.stop();
    }
    else if (media.silent >= silenceOfFault)
    {
        m_course.stop(Failure(ExitCode::NoMedia, "downloading", 0, "media stopped: " + soFar(), nextStep()));
    }
}

void Download::tellStatus()
{
    const Media &media = m_course.media();
    if (m_course.over() || media.seconds < m_nextStatus)
    {
        return;
    }
    m_nextStatus = std::floor(media.seconds) + statusEvery;
    Status now;
    now.name = "progress";
    now.lines = true;
    const auto shown = [](double seconds) { return positionShown({seconds, false}); };
    now.text = shown(held());
    now.fields = {{"seconds", held()}};
    std::string left;
    if (m_length && m_before + *m_length > 0)
    {
        const double whole = m_before + *m_length;
        now.done = std::min(held() / whole, 1.0);
        now.text += " of " + shown(whole) + "  " + std::to_string(std::lround(*now.done * 100)) + " %";
        now.fields.update({{"length", whole}, {"done", *now.done}});
        if (media.covered > 0)
        {
            const double wait = std::max(whole - held(), 0.0) * media.seconds / media.covered;
            left = "  left " + shown(std::ceil(wait));
            now.fields["left"] = wait;
        }
    }
    now.text += left + "  " + amount(media.bytes) + "  " + std::to_string(std::lround(media.kilobitsPerSecond)) +
                " kbit/s" + (media.lost == 0 ? "" : "  lost " + std::to_string(media.lost));
    now.fields.update({{"bytes", media.bytes}, {"kbit_per_s", media.kilobitsPerSecond}, {"lost", media.lost}});
    m_report.status(now);
}

} // namespace

void downloadCommand(const CommonOptions &common, const DownloadOptions &options, Report &report)
{
    const Interrupt interrupt(&report);
    const TerminalMode deaf(TerminalMode::Kind::Deaf); // what is typed would smear the progress bar
    std::optional<Continuation> continuation;
    std::error_code ignored;
    if (options.resume && std::filesystem::exists(options.course.record, ignored))
    {
        continuation.emplace(options.course, report);
    }
    Plugin plugin(common.plugin);
    Course course(plugin, interrupt, common.source, continuation ? continuation->options() : options.course, report);
    Download(course, options, continuation ? &*continuation : nullptr, report).run(interrupt);
}

} // namespace zr::host
