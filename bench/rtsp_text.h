/// @file
/// Texts that the clients and the sink server both read or make.
#pragma once

#include <string>
#include <string_view>

namespace text {

/// Hexadecimal, in small letters.
std::string md5(std::string_view bytes);

/// What stands behind a key, up to one of the ends; empty: the key is not there.
std::string_view behind(std::string_view whole, std::string_view key, const char *ends);

/// The response of a Digest without qop (RFC 2617, 3.2.2.1).
/// @param ha1  the hash of user, realm and password
std::string digestResponse(const std::string &ha1, const std::string &nonce, std::string_view method,
                           const std::string &uri);

/// Where a track of a description is set up (RFC 2326, C.1.1). Throws where there are fewer tracks.
/// @param base   of relative ones, without a slash at its end
/// @param track  from 0 on
std::string controlUrl(std::string_view sdp, const std::string &base, unsigned track);

} // namespace text
