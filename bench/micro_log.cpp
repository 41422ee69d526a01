// What a line of the log costs.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include "log.h"
#include "micro_session.h"
#include "zr_platform.h"

namespace {

/// @param level  the lowest that is written
void logLine(benchmark::State &state, tagZrLogLevel level)
{
    // stderr, as far as this goes, is a file that drops what is written
    const int stderrBefore = dup(STDERR_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    ZR_LogSetLevel(level);
    ZR_ULONG port = 0;
    while (state.KeepRunning())
        RTSP_LOG(INFO, 0, "[%s] successful setup the MediaCtrl relation of port %u, SID is : %s",
                 "CRtspMediaCtrl::setup", ++port, "6B8B4567");
    ZR_LogSetLevel(micro::LOG_OFF);
    dup2(stderrBefore, STDERR_FILENO);
    close(nowhere);
    close(stderrBefore);
}
BENCHMARK_CAPTURE(logLine, off, micro::LOG_OFF);
BENCHMARK_CAPTURE(logLine, below_level, ZR_LOG_WARNING);
BENCHMARK_CAPTURE(logLine, written, ZR_LOG_INFO);

} // namespace
