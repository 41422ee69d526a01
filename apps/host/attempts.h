/// @file
/// Beginning a session again after it was lost.
#pragma once

#include <functional>
#include <optional>

#include "course.h"

namespace zr::host {

/// What became of a session.
struct Ending
{
    std::optional<Failure> failure;
    std::optional<ZR_ULONG> notice; ///< the plug-in's, when one ended it
    double seconds = 0;             ///< of media
};

enum class Again
{
    Never,
    OncePlayed, ///< a first attempt that fails is told at once
    Always
};

/// Makes attempts, each with an object of its own, until one ends that is not to be followed by another: it ended as it
/// should, or with what another attempt will not mend, or the program is to end.
/// @param attempt  runs one session and does not throw for what goes wrong with it
/// @throws Failure  that of the last attempt
void makeAttempts(Again again, const Interrupt &interrupt, Report &report, const std::function<Ending()> &attempt);

/// One attempt: what goes wrong with the session is its ending.
/// @param run  begins, plays and ends it
Ending attempt(Plugin &plugin, const Interrupt &interrupt, const Source &source, const CourseOptions &options,
               Report &report, const std::function<void(Course &)> &run);

} // namespace zr::host
