/// @file
/// The program's commands. Each runs its sessions from their beginning to their end and throws a Failure for what goes
/// wrong; they have ended when it returns or throws.
#pragma once

#include "options.h"
#include "report.h"
#include "trace.h"

namespace zr::host {

void describeCommand(const CommonOptions &options, const DescribeOptions &own, Report &report);
void checkCommand(const CommonOptions &common, const CheckOptions &options, Report &report, Trace &trace);
void playCommand(const CommonOptions &common, const PlayOptions &options, Report &report);
void downloadCommand(const CommonOptions &common, const DownloadOptions &options, Report &report);
void tvCommand(const CommonOptions &common, const TvOptions &options, Report &report);
/// Lists them.
void camerasCommand(const CamerasOptions &options, Report &report);
/// Ends the process itself when a server does not answer at the end.
void watchCommand(const CommonOptions &common, const WatchOptions &options, Report &report);

} // namespace zr::host
