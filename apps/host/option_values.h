/// @file
/// What options take. What these checks say of a wrong value names it, and what is allowed.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "zr_rtsp/media_ctrl.h"

namespace zr::host {

/// A number of a range, its ends included.
/// @param unit  such as "seconds"
CLI::Validator numberFrom(double least, double most, const char *unit);
CLI::Validator wholeNumberFrom(double least, double most, const char *unit);

/// One of some words, which becomes the number that it stands for.
CLI::Validator oneOf(std::vector<std::pair<std::string, ZR_ULONG>> words);

/// A file that can be written, as far as that can be told without writing it.
CLI::Validator writable();
/// The same; a name that promises another format than is written is refused.
/// @param what  is written, such as "a report is an HTML page"
/// @param end   of its names, such as ".html"
CLI::Validator writableAs(const std::string &what, const std::string &end);

/// The same for a recording or a picture, which takes the place of whatever has its name.
CLI::Validator media(const std::string &what, const std::string &end);

/// What stands in requests and must not end their lines.
CLI::Validator plain();

/// A place in a recording, as requests carry it: seconds, hh:mm:ss, or a time of the day. One by ISO 8601 becomes that.
CLI::Validator place();

/// A time of the day, by ISO 8601 or as requests carry it, which it becomes.
CLI::Validator clockTime();

/// What speedCode understands.
CLI::Validator speed();

/// @return nothing for what is no IPv4 address with a port from 1 to 65535
std::optional<tagTransportAddr> addressAndPort(const std::string &text);
CLI::Validator receiverAddress();
/// A port, which becomes one at 127.0.0.1, or an address and port.
CLI::Validator listenAddress();

} // namespace zr::host
