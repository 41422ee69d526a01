#include <algorithm>
#include <cmath>
#include <cstdio>

#include "commands.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds atLeisure{1000};
constexpr double statusEvery = 1; // seconds

// A recording's length and its packets' timestamps agree to within some pictures.
constexpr double closeToEnd = 0.5, silenceCloseToEnd = 1;
constexpr double nearEnd = 2, silenceAtEnd = 3;
constexpr double silenceOfFault = 10;

class Download
{
public:
    Download(Course &course, const DownloadOptions &options, Report &report)
        : m_course(course)
        , m_file(options.course.record)
        , m_mayStop(!options.course.playback.to.empty())
        , m_report(report)
    {
    }

    void run(const Interrupt &interrupt)
    {
        m_course.begin();
        m_length = m_course.length();
        while (!m_course.over())
        {
            m_course.step(atLeisure);
            judge();
            tellStatus();
        }
        if (interrupt.asked())
        {
            m_course.stop(Failure(ExitCode::Interrupted, "downloading", 0, "interrupted, " + soFar()));
        }
        m_course.end();
        m_report.event("downloaded", "downloaded " + length(m_course.media().covered) + ": " + m_file,
                       {{"file", m_file}, {"seconds", m_course.media().covered}});
    }

private:
    void judge();
    void tellStatus();

    static std::string length(double seconds)
    {
        char text[40];
        std::snprintf(text, sizeof text, "%.1f s", seconds);
        return text;
    }

    std::string soFar() const
    {
        return m_file + " holds " + length(m_course.media().covered) + (m_length ? " of " + length(*m_length) : "");
    }

    Course &m_course;
    const std::string m_file;
    const bool m_mayStop; ///< an end was asked for: whatever comes behind it is too much
    Report &m_report;
    std::optional<double> m_length; ///< seconds
    double m_nextStatus = statusEvery;
};

void Download::judge()
{
    const Media &media = m_course.media();
    if (m_course.over())
    {
        return;
    }
    const double missing = m_length ? *m_length - media.covered : 0;
    const bool passed = m_mayStop && m_length && missing <= 0;
    const bool close = m_length && missing <= closeToEnd && media.silent >= silenceCloseToEnd;
    const bool ended = missing <= nearEnd && media.silent >= silenceAtEnd;
    if (passed || close || ended)
    {
        m_report.event("end_of_stream", "the end was reached", nullptr);
        m_course.stop();
    }
    else if (media.silent >= silenceOfFault)
    {
        m_course.stop(Failure(ExitCode::NoMedia, "downloading", 0, "media stopped: " + soFar()));
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
    now.text = length(media.covered) + (m_length ? " of " + length(*m_length) : "");
    now.fields = {{"seconds", media.covered}};
    if (m_length && *m_length > 0)
    {
        now.done = std::min(media.covered / *m_length, 1.0);
        now.text += "  " + std::to_string(std::lround(*now.done * 100)) + " %";
        now.fields.update({{"length", *m_length}, {"done", *now.done}});
    }
    now.text += "  " + amount(media.bytes) + "  " + std::to_string(std::lround(media.kilobitsPerSecond)) + " kbit/s" +
                (media.lost == 0 ? "" : "  lost " + std::to_string(media.lost));
    now.fields.update({{"bytes", media.bytes}, {"kbit_per_s", media.kilobitsPerSecond}, {"lost", media.lost}});
    m_report.status(now);
}

} // namespace

void downloadCommand(const CommonOptions &common, const DownloadOptions &options, Report &report)
{
    const Interrupt interrupt;
    Plugin plugin(common.plugin);
    Course course(plugin, interrupt, common.source, options.course, report);
    Download(course, options, report).run(interrupt);
}

} // namespace zr::host
