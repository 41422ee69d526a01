/// @file
/// The command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cameras.h"
#include "course.h"

namespace zr::host {

struct CommonOptions
{
    Source source;                         ///< of the commands with one
    std::string plugin;                    ///< empty: found beside the program
    std::optional<tagZrLogLevel> logLevel; ///< of the libraries' log
    std::string logFile;                   ///< empty: stderr
    bool json = false;
    bool trace = false;                ///< messages on the wire are shown
    std::string traceFile;             ///< where, instead of stderr; empty: there
    std::string caFile;                ///< trusted for rtsps besides the system's; empty: none
    bool insecure = false;             ///< servers' certificates are not verified
    bool force = false;                ///< files may be written over
    std::vector<std::string> warnings; ///< about files with secrets
};

struct DescribeOptions
{
    bool sdp = false; ///< as it came, instead of what it says
};

struct CheckOptions
{
    std::string html;       ///< file of the report; empty: none
    bool multicast = false; ///< is tried as well
};

struct PlayOptions
{
    CourseOptions course;
    std::optional<double> duration; ///< seconds of media; none: until its end or Ctrl-C
    std::optional<double> pauseAt;  ///< seconds of media before the pause
    double pauseFor = 2;            ///< seconds
    std::string snapshot;           ///< file; empty: none
    bool preview = false;           ///< the picture is drawn in the terminal
    bool window = false;            ///< in a window
    bool reconnect = false;
};

struct DownloadOptions
{
    CourseOptions course; ///< which records into the file
    bool resume = false;  ///< what the file has already is not fetched again
};

struct TvOptions
{
    CourseOptions course; ///< its protocol is the relation's as well
    tagTransportAddr wall;
    std::optional<double> duration; ///< seconds of the relation; none: until Ctrl-C
};

struct WatchOptions
{
    CourseOptions course; ///< of each
    std::vector<Source> sources;
    std::optional<double> duration; ///< seconds; none: until Ctrl-C
    bool reconnect = false;
    std::string metrics; ///< IP:PORT where they are served; empty: not
};

struct CamerasOptions
{
    std::string file; ///< empty: there is none
    std::vector<Camera> cameras;
    bool names = false; ///< and nothing else
};

enum class Command
{
    Help, ///< it was printed, nothing is left to do
    Describe,
    Check,
    Play,
    Replay,
    Download,
    Tv,
    Watch,
    Cameras
};

struct Options
{
    Command command = Command::Help;
    CommonOptions common;
    DescribeOptions describe;
    CheckOptions check;
    PlayOptions play; ///< replay's as well
    DownloadOptions download;
    TvOptions tv;
    WatchOptions watch;
    CamerasOptions cameras;
};

/// What to try where a failure cannot know it.
struct Hints
{
    std::string usage;       ///< the page that tells of the command
    std::string credentials; ///< where those come from; empty: the command line
};

/// @param hints  become known also where this throws
/// @throws Failure  of wrong usage
Options parseOptions(int argc, char **argv, Hints &hints);

} // namespace zr::host
