/// @file
/// The system's errors in words.
#pragma once

#include <string>
#include <system_error>

namespace zr::media {

/// Any thread.
inline std::string errorText(int error)
{
    return std::generic_category().message(error);
}

} // namespace zr::media
