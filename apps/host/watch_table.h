/// @file
/// Streams as a table on the terminal.
#pragma once

#include <string>
#include <vector>

#include "report.h"
#include "watch_stream.h"

namespace zr::host {

/// @param from  the first stream to be shown, from 0, where there is no room for all
/// @return rows that fit, coloured by state unless NO_COLOR is in the environment
std::vector<std::string> streamTable(const std::vector<StreamFacts> &streams, size_t from, TerminalSize room);

/// What a program reads of a stream.
Fields streamFields(const StreamFacts &stream);

} // namespace zr::host
