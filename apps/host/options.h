/// @file
/// The command line.
#pragma once

#include <optional>
#include <string>

#include "session.h"

namespace zr::host {

struct CommonOptions
{
    Source source;
    std::string plugin;                    ///< empty: found beside the program
    std::optional<tagZrLogLevel> logLevel; ///< of the libraries' log
    std::string logFile;                   ///< empty: stderr
    bool json = false;
};

struct PlayOptions
{
    tagProtocol protocol = PROTOCOL_UDP;
    Playback playback;
    std::string speed;              ///< as it was given, to be shown
    std::optional<double> duration; ///< seconds of media; none: until its end or Ctrl-C
    std::optional<double> pauseAt;  ///< seconds of media before the pause
    double pauseFor = 2;            ///< seconds
    std::string snapshot;           ///< file; empty: none
    std::string record;             ///< file; empty: none
};

enum class Command
{
    Help, ///< it was printed, nothing is left to do
    Describe,
    Play
};

struct Options
{
    Command command = Command::Help;
    CommonOptions common;
    PlayOptions play;
};

/// @throws Failure  of wrong usage
Options parseOptions(int argc, char **argv);

} // namespace zr::host
