/// @file
/// From a command line's words to what is to be done.
#pragma once

#include <optional>
#include <string>

#include "cameras.h"
#include "options.h"
#include "replay_options.h"

namespace zr::host {

/// What is on the command line, before it is understood.
struct RawOptions
{
    std::string url;
    std::string file; ///< download's, watch's
    std::string tag;  ///< empty: the command's own
    std::string wall;
    Credentials credentials;
    std::optional<std::string> password;
    std::string passwordFile;
    std::string camerasFile;
    std::optional<Camera> camera; ///< that was meant by its name
    bool tcp = false;
    bool udp = false;
    bool multicast = false;
    bool http = false;
    bool httpOne = false;
    tagZrTunnel tunnel = ZR_TUNNEL_NONE; ///< what comes of both, and of the camera's
    std::optional<int> downloadTimes;
    bool sampled = false;
    ReplayOptions replay;
};

/// Finds the camera, the passwords and the sources that are meant, and what a command makes of its options. May ask for
/// a password at the terminal. One thread.
/// @throws Failure  for what does not go together, or cannot be read or found
void understand(RawOptions &raw, Options &options);

} // namespace zr::host
