/// @file
/// A check as a page to hand on.
#pragma once

#include <string>

#include "check_table.h"
#include "session.h"
#include "trace.h"

namespace zr::host {

struct CheckPage
{
    const Source &source;
    const CheckTable &table;
    std::string verdict;
    std::string picture;                  ///< PNG; empty: none
    std::vector<Trace::Lines> transcript; ///< of the messages on the wire
};

/// Writes one self-contained page (HTML), without the source's credentials.
/// @throws Failure  Output
void writePage(const std::string &file, const CheckPage &page);

} // namespace zr::host
