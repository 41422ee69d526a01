#include "attempts.h"

#include "notices.h"

namespace zr::host {
namespace {

bool isFollowed(const Ending &ending, Again again, bool played)
{
    if (again == Again::Never || (again == Again::OncePlayed && !played))
    {
        return false;
    }
    return ending.failure ? mayPass(*ending.failure) : ending.notice.has_value();
}

} // namespace

void makeAttempts(Again again, const Interrupt &interrupt, Report &report, const std::function<Ending()> &attempt)
{
    Backoff backoff;
    bool played = false;
    while (true)
    {
        const Ending ending = attempt();
        played = played || ending.seconds > 0;
        if (!interrupt.asked() && isFollowed(ending, again, played))
        {
            if (ending.failure && !ending.notice)
            {
                report.event("failed", ending.failure->what(), {{"code", ending.failure->code()}});
            }
            const auto pause = backoff.next(ending.seconds);
            report.event("reconnecting", "connecting again in " + std::to_string(pause.count()) + " s",
                         {{"seconds", pause.count()}});
            if (interrupt.sleep(pause))
            {
                continue;
            }
        }
        if (ending.failure)
        {
            throw Failure(*ending.failure);
        }
        return;
    }
}

Ending attempt(Plugin &plugin, const Interrupt &interrupt, const Source &source, const CourseOptions &options,
               Report &report, const std::function<void(Course &)> &run)
{
    Ending ending;
    try
    {
        Course course(plugin, interrupt, source, options, report);
        try
        {
            run(course);
        }
        catch (const Failure &failed)
        {
            ending.failure = failed;
        }
        ending.notice = course.notice();
        ending.seconds = course.secondsOfMedia();
    }
    catch (const Failure &failed)
    {
        ending.failure = failed;
    }
    return ending;
}

} // namespace zr::host
