/// @file
/// Texts that are safe to show, whatever a server repeats.
#pragma once

#include <string>

namespace zr::host {

/// Has shown() write "***" wherever this stands, for all time. Not while another thread calls that.
/// @return false for a short one, which stands in many words: it is not hidden
bool hideSecret(const std::string &secret);

/// The text with "***" for what was hidden, for the user information of URLs and for passwords in their queries and
/// paths, such as ?password=x and /user=a_password=x_channel=1.sdp. In linear time. Any thread may call.
std::string shown(const std::string &text);

/// Likewise, for a URL that was not understood: all that stands before its last @ may be a password.
std::string withoutCredentials(const std::string &text);

} // namespace zr::host
