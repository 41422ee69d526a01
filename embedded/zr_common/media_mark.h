/// @file
/// The mark that received media leaves for CJugeMediaKeepLive.
#pragma once

#include <atomic>
#include <memory>

#include "zr_types.h"

namespace zr::common {

/// A port's mark, shared by who receives and who checks; the receiver keeps it and stores true for each packet, which
/// costs no lock. Any thread.
std::shared_ptr<std::atomic<bool>> mediaMark(ZR_ULONG portId);

} // namespace zr::common
