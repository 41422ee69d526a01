/// @file
/// How G.726 is packed.
#pragma once

#include <string>

#include <gst/gst.h>

namespace zr::media {

/// How many bits a code has of G.726 whose first code lies in the lowest bits (RFC 3551, 4.5.4); 0: it is something
/// else, or packed as for AAL2.
unsigned codeBitsOf(const std::string &encoding);

/// In containers, as for AAL2, the first code lies in the highest bits. (The depayloader's own way of doing that, tried
/// in version 1.22, mistakes codes of 3 and 5 bits.)
void packAnew(GstBuffer *buffer, unsigned bits);

} // namespace zr::media
