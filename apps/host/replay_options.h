/// @file
/// What the command line says of a replay alone.
#pragma once

#include <CLI/CLI.hpp>

#include "course.h"

namespace zr::host {

/// One thread. Outlives the parsing of what it was added to.
class ReplayOptions
{
public:
    /// @param playback  receives the range as requests carry it; outlives the parsing
    void add(CLI::App &app, Playback &playback);
    /// Makes it a replay. Its range then falls where it plays backwards, whichever of its ends was named first.
    /// @throws Failure  of wrong usage
    void apply(CourseOptions &course) const;

private:
    ZrOnvifReplay m_replay{};
};

} // namespace zr::host
