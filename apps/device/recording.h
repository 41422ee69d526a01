/// @file
/// The recording that the device plays back.
#pragma once

#include <string>

#include "pipelines.h"

namespace zr::device {

/// A recording made once, in an anonymous file: it is gone with the process, however that ends.
class Recording
{
public:
    /// Makes it; takes a second or two.
    /// @param seconds  its length
    /// @throws std::runtime_error  what could not be made, and why
    Recording(const Picture &picture, int seconds);
    ~Recording();
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;

    /// A name under which this process can open it.
    const std::string &path() const { return m_path; }

private:
    int m_file;
    std::string m_path;
};

} // namespace zr::device
