/// @file
/// Files that are made to be written.
#pragma once

#include <string>

#include "udp.h"
#include "zr_types.h"

namespace zr::media {

/// Makes it, or empties what has its name, as a host that names an output file expects; links are followed.
/// @param fresh  it must be new: a name of our own, behind which nobody else's link may lie
/// @return 0, else the system's error number
int createFile(const std::string &file, bool fresh);

/// A name beside another, that no other file has.
std::string temporaryName(const std::string &file);

/// Makes a new file beside another, which may take its name when it is whole.
/// @param out   receives its name
/// @param held  receives what says that somebody works on it, as long as it is open
/// @return 0, else the system's error number
int createTemporary(const std::string &file, std::string &out, Descriptor &held);

/// Removes what createTemporary made beside this file, for a process that is gone. Where the file system cannot tell
/// that, it stays.
void removeAbandoned(const std::string &file);

/// "a.mkv" and 2 make "a-002.mkv".
std::string partName(const std::string &file, ZR_ULONG number);

/// Makes a file of the name, or of the first numbered one that is free.
/// @param overwrite  one that is there is emptied instead
/// @param max        of the numbers
/// @param number     0 or 1: the name has none; receives the one that was taken
/// @param out        receives the name
/// @return 0, else the system's error number
int createNumbered(const std::string &file, bool overwrite, ZR_ULONG max, ZR_ULONG &number, std::string &out);

} // namespace zr::media
