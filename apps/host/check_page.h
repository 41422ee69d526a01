/// @file
/// A check as a page to hand on.
#pragma once

#include <string>

#include "check_table.h"
#include "session.h"

namespace zr::host {

/// Writes one self-contained page (HTML), without the source's credentials.
/// @param picture  PNG; empty: none
/// @throws Failure  Output
void writePage(const std::string &file, const Source &source, const CheckTable &table, const std::string &verdict,
               const std::string &picture);

} // namespace zr::host
