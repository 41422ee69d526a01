/// @file
/// The files that the program writes.
#pragma once

#include <string>

namespace zr::host {

/// Whether something stands there that would be written over: a device or a pipe is none.
bool wouldBeLost(const std::string &file);

/// Why a file cannot be written, or be made where there is none; empty: it should do.
std::string whyUnwritable(const std::string &file);

/// @param force  it may be written over
/// @throws Failure  when the file is there and may not
void requireFree(const std::string &file, bool force);

/// stream.mkv, stream.2.mkv ...: of these the first from a number on that is free.
/// @param number  1: the name itself; receives the number that was taken
/// @param force   whatever stands there may be written over
std::string numbered(const std::string &file, int &number, bool force);

} // namespace zr::host
