/// @file
/// RTSP URLs as people type them, and as the plug-in takes them.
#pragma once

#include <cstdint>
#include <string>

namespace zr::host {

struct Credentials
{
    std::string user; ///< empty: none
    std::string password;
    bool complete = false; ///< the password was given, empty though it may be
};

struct Url
{
    std::string text; ///< whole, without credentials and fragment; safe to show
    std::string host;
    uint16_t port = 554;
    bool portNamed = false;  ///< else it is the scheme's
    Credentials credentials; ///< those in the URL, percent-decoded
};

/// @param text  rtsp:// or rtsps://, [user[:password]@]host[:port][/path][?query]
/// @throws Failure  of wrong usage; its text does not repeat the URL
Url parseUrl(const std::string &text);

/// The URL as CIMediaCtrl::describe takes it: with the credentials in its tail. What the plug-in would take for the
/// tail in the URL's own text is escaped (RFC 3986, 2.1).
/// @throws Failure  of wrong usage, for credentials that no tail can carry
std::string urlForDescribe(const std::string &url, const Credentials &credentials);

/// A track's control URL as CIMediaCtrl::setup takes it, which cuts before "auth".
std::string urlForSetup(const std::string &control);

} // namespace zr::host
