/// @file
/// Base64 (RFC 4648, 4).
#pragma once

#include <optional>
#include <string>

namespace zr::host {

/// @param text  with or without padding
/// @return nothing for other characters
std::optional<std::string> fromBase64(const std::string &text);
/// Padded.
std::string toBase64(const std::string &bytes);

} // namespace zr::host
