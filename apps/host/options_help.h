/// @file
/// What --help tells below the options.
#pragma once

namespace zr::host {

extern const char *const generalHelp; ///< the exit codes
extern const char *const describeHelp;
extern const char *const checkHelp;
extern const char *const playHelp;
extern const char *const downloadHelp;
extern const char *const tvHelp;
extern const char *const watchHelp;

} // namespace zr::host
