/// @file
/// The cameras file: streams by name, with where their passwords are.
#pragma once

#include <string>
#include <vector>

#include "session.h"
#include "zr_platform.h"

namespace zr::host {

struct Camera
{
    std::string name;
    std::string url;                     ///< as it stands there, with credentials if it has some
    std::string user;                    ///< empty: the URL's, if any
    std::string passwordFile;            ///< whose first line is the password; empty: none
    std::string passwordCommand;         ///< that prints it, for the shell; empty: none
    std::string tag;                     ///< decoder description; empty: the command's own
    tagZrTunnel tunnel = ZR_TUNNEL_NONE; ///< unless the command line asks for another, or for UDP
};

/// What the file holds (TOML), checked. One thread.
class Cameras
{
public:
    /// @param file  empty: the user's own (defaultFile), which need not exist
    /// @throws Failure  Usage, naming file and line
    explicit Cameras(const std::string &file);

    /// $XDG_CONFIG_HOME/zr_rtsp/cameras.toml, or below ~/.config; empty when neither is known.
    static std::string defaultFile();
    /// Whether a text is to be taken for a camera's name, not for a URL.
    static bool isName(const std::string &text);

    const std::string &file() const { return m_file; }
    const std::vector<Camera> &all() const { return m_cameras; }
    /// @throws Failure  Usage, with the names that there are
    const Camera &named(const std::string &name) const;
    /// What of these cameras others may read, and should not; in words.
    std::vector<std::string> warnings(const std::vector<Camera> &used) const;

private:
    void parse(const std::string &text);

    std::string m_file;
    std::vector<Camera> m_cameras;
};

/// Reads the password's file or runs its command, which may ask on the terminal and take its time.
/// @throws Failure  Usage; Credentials when the command fails
Credentials credentialsOf(const Camera &camera);

} // namespace zr::host
