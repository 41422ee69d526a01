/// @file
/// The memory of an AOI message: a frame, then the information elements (IEs), each as identifier, length and value,
/// padded to 4 bytes. Shared by the message platform, which reads it, and the dispatch library, which fills it.
#pragma once

#include <string_view>

#include "velk_mdp.h"

namespace own {

/// What every message begins with; the plug-in sees the header alone.
struct Frame : tagMDPMsg
{
    ZR_ULONG capacity; ///< bytes of the elements' memory behind the frame
    ZR_ULONG used;     ///< of these, the bytes in use
};

/// The codes of this platform's failures. The plug-in logs them and passes some on; only 0 has a meaning to it.
enum Code : ZR_ULONG
{
    ok = 0,
    failed = 1,
    invalid = 2,
    notFound = 20002,
    noRoom = 20003,
    malformed = 20001,
};

/// Adds an IE; on failure the message is as before.
ZR_ULONG addElement(tagAOIMsg *message, ZR_ULONG id, std::string_view value);

/// Finds the first IE of an identifier; the value stays the message's.
ZR_ULONG findElement(const tagAOIMsg *message, ZR_ULONG id, std::string_view &value);

} // namespace own
