/// @file
/// Play speeds as people write them, and as the plug-in's codes.
#pragma once

#include <optional>
#include <string>

#include "zr_types.h"

namespace zr::host {

/// @param text  a factor from 0.125 to 16 or -0.25 to -16, with or without a final "x"; or "code:N" with N from 0 to 19
/// @return the code; nothing for 1, which is plain play
/// @throws Failure  of wrong usage, naming the factors there are
std::optional<ZR_ULONG> speedCode(const std::string &text);

/// The speed next to this one, up or down; the last one where there is no other.
/// @param code  nothing: 1
std::optional<ZR_ULONG> nextSpeed(std::optional<ZR_ULONG> code, bool up);

/// Such as "x2", "x-0.25".
std::string speedText(std::optional<ZR_ULONG> code);

/// How much faster than time a code plays; 1 for a code without a factor of its own.
double speedFactor(std::optional<ZR_ULONG> code);

} // namespace zr::host
