/// @file
/// What --help says besides the options.
#pragma once

namespace zr::host {

/// Each begins with an empty line.
struct CommandHelp
{
    const char *notes; ///< in --help-all only
    const char *examples;
};

extern const CommandHelp generalHelp;
extern const CommandHelp describeHelp;
extern const CommandHelp checkHelp;
extern const CommandHelp playHelp;
extern const CommandHelp replayHelp;
extern const CommandHelp downloadHelp;
extern const CommandHelp tvHelp;
extern const CommandHelp watchHelp;
extern const CommandHelp camerasHelp;

} // namespace zr::host
