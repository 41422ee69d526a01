/// @file
/// The plug-in's notifications in words, and how a lost session is begun again.
#pragma once

#include <chrono>
#include <string>

#include "failure.h"

namespace zr::host {

/// Such as "the server ended the session (101, end of stream)".
std::string noticeText(ZR_ULONG notice);

/// Whether it may have passed when the session is tried again: wrong credentials, for one, will not have.
bool mayPass(const Failure &failed);

/// The growing pauses before a session is begun again.
class Backoff
{
public:
    /// @param seconds  of media that the session had which is over now
    /// @return 1 s, 2 s, 4 s ... 30 s; from the beginning after a session of 10 s
    std::chrono::seconds next(double seconds);

private:
    std::chrono::seconds m_next{1};
};

} // namespace zr::host
