/// @file
/// Digests as text, for whoever answers a challenge.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace zr::util {

/// The digest of the fields joined by colons, in lower-case hexadecimal digits. What was joined is wiped. Any thread.
/// @param algorithm  as OpenSSL names it: "MD5", "SHA256"
/// @return none when the cryptographic library refuses it (MD5 is not allowed everywhere), which is logged
std::optional<std::string> hexDigest(const char *algorithm, std::initializer_list<std::string_view> fields);

} // namespace zr::util
