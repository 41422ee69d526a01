/// @file
/// Passwords that do not stand on the command line.
#pragma once

#include <string>

namespace zr::host {

/// The first line of a file.
/// @param whose  a camera's name; empty: the command line names the file
/// @throws Failure  Usage, when it cannot be read or holds none
std::string readPassword(const std::string &file, const std::string &whose = {});

/// The first line that a command prints, by the shell, with the terminal as it is; waits as long as it runs (it may
/// ask somebody), and says so on stderr when it takes longer than a second.
/// @param whose  a camera's name
/// @throws Failure  Credentials, when it cannot be run, fails or prints none
std::string runForPassword(const std::string &command, const std::string &whose);

/// Whether others than a file's owner may read it; false when there is none.
bool isReadByOthers(const std::string &file);
/// Words about such a file.
std::string openSecret(const std::string &file);

/// Whether somebody could be asked for a password.
bool canAskPassword();

/// Asks on the terminal; what is typed is not shown.
/// @param whom  such as "admin at 192.0.2.10"; shown
/// @throws Failure  when no line is typed (Ctrl-D), or one that is too long
std::string askPassword(const std::string &whom);

} // namespace zr::host
