/// @file
/// What nobody is to see of a text: the one place for the log, the trace and what hosts print (ZR_TextMask).
#pragma once

#include <string>

namespace zr::common {

/// Writes "***" wherever what ZR_LogHide was given stands in a text, and over the values of Authorization and its like
/// but for their scheme (RFC 7615, RFC 7616, 3), the user information of URLs (RFC 3986, 3.2.1), passwords in their
/// queries and paths, and responses of Digest. In time linear in the text. Throws std::bad_alloc. Any thread.
void maskCredentials(std::string &text);

} // namespace zr::common
