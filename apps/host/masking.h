/// @file
/// Texts that are safe to show, whatever a server repeats.
#pragma once

#include <string>
#include <vector>

namespace zr::host {

/// As ZR_TextMask has it. Any thread may call.
std::string shown(const std::string &text);

/// What shown() masks of a text, such as the passwords in a URL's query.
std::vector<std::string> secretsIn(const std::string &text);

/// Likewise, for a URL that was not understood: all that stands before its last @ may be a password.
std::string withoutCredentials(const std::string &text);

} // namespace zr::host
