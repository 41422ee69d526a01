/// @file
/// What is said of a command line that is not understood.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "failure.h"

namespace zr::host {

/// The one of some words that was most likely meant; empty: none is near.
std::string nearest(const std::string &word, const std::vector<std::string> &words);

/// Where the command is told of whose command line it was, such as "zr_rtsp_host play --help".
std::string helpFor(const CLI::App &app);

/// @param app    has parsed the command line, and thrown this
/// @param first  what stands behind the program's name; empty: nothing
/// @return       words that repeat nothing which may be a secret
Failure misunderstood(const CLI::App &app, const CLI::ParseError &wrong, const std::string &first);

} // namespace zr::host
