#include <algorithm>

#include "commands.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds atLeisure{1000};
constexpr double silenceOfFault = 10;
constexpr double playsOnFor = 1; // seconds, for all to see that the session outlives the relation

void playFor(Course &course, std::optional<double> seconds)
{
    const auto begin = Course::Clock::now();
    while (!course.over() && (!seconds || Course::Clock::now() - begin < inMilliseconds(*seconds)))
    {
        course.step(seconds ? std::min(inMilliseconds(*seconds), atLeisure) : atLeisure);
        if (!course.over() && course.media().silent >= silenceOfFault)
        {
            course.stop(Failure(ExitCode::NoMedia, "playing", 0, "media stopped"));
        }
    }
}

void run(Course &course, const TvOptions &options, Report &report)
{
    course.begin();
    const std::string wall = options.wall.strIP + ":" + std::to_string(options.wall.usPort);
    course.session().setUpToTv(options.course.protocol, options.wall);
    report.event("relation", "the server sends to " + wall + " as well", {{"to", wall}});
    playFor(course, options.duration);
    course.session().tearDownToTv();
    report.event("relation_ended", "ended the relation to " + wall, {{"to", wall}});
    playFor(course, playsOnFor);
    course.end();
}

} // namespace

void tvCommand(const CommonOptions &common, const TvOptions &options, Report &report)
{
    const Interrupt interrupt(&report);
    const TerminalMode deaf(TerminalMode::Kind::Deaf);
    Plugin plugin(common.plugin);
    Course course(plugin, interrupt, common.source, options.course, report);
    run(course, options, report);
}

} // namespace zr::host
