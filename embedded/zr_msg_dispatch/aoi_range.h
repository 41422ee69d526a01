/// @file
/// The Range header of a PLAY (RFC 2326, 12.29) out of its two ends.
#pragma once

#include <string>
#include <string_view>

#include "message_buffer.h"

namespace zr::aoi {

/// Writes a Range value. An end of the range is normal play time (seconds with a fraction, hh:mm:ss, now; RFC
/// 2326, 3.6) or a point of time in UTC (YYYYMMDDThhmmss[.f]Z; 3.7), both ends of the same kind; or one of them is a
/// whole value with its "=", which is taken as it stands, and the other is empty.
/// @param value  receives it: "npt=B-E", "npt=B-", "npt=-E", "clock=B-E", "clock=B-"; empty when both ends are
/// @return Ok; BadValue (and a line in the log) for anything else: UTC has no range without a begin
mdp::Status formatRange(std::string_view begin, std::string_view end, std::string &value);

} // namespace zr::aoi
