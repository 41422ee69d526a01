/// @file
/// Which sources are meant: URLs and credentials, from the command line or from a file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace zr::host {

/// @param given  credentials that go before those in the URL; a password alone completes them
/// @throws Failure  of wrong usage, for what cannot be understood or handed over
Source makeSource(const std::string &url, const Credentials &given, const std::string &tag);

/// A file with a URL or a camera's name a line; empty lines and those that begin with # do not count.
/// @param given  credentials of those that bring none
/// @param named  gives a camera's source
/// @throws Failure  of wrong usage, or named()'s, naming the line
std::vector<Source> readSources(const std::string &file, const Credentials &given, const std::string &tag,
                                const std::function<Source(const std::string &)> &named);

} // namespace zr::host
