/// @file
/// MD5 (RFC 1321), so that the template needs no library; a product takes a cryptographic library's.
#pragma once

#include <string>

namespace own {

/// @return the hash as 32 lowercase hexadecimal digits
std::string md5(const std::string &text);

} // namespace own
