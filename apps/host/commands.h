/// @file
/// The program's commands. Each runs one session from its beginning to its end and throws a Failure for what goes
/// wrong; the session has ended when it returns or throws.
#pragma once

#include "options.h"
#include "report.h"

namespace zr::host {

void describeCommand(const CommonOptions &options, Report &report);
void playCommand(const CommonOptions &common, const PlayOptions &options, Report &report);

/// The codecs of a description's tracks, such as "H264 video, PCMU audio".
std::string summary(const Description &description);

} // namespace zr::host
