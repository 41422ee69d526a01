/// @file
/// The memory of a message: the header, its capacity and used length in bytes (both counted from the message's first
/// byte), then the information elements (IEs), each as identifier, length and value, padded to 4 bytes.
///
/// Nothing that is read out of a message is trusted: every length is checked against the used length, and that against
/// the capacity.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>

#include "velk_mdp.h"

namespace zr::mdp {

/// What the message platform and CAOIIETool return.
enum Status : ZR_ULONG
{
    Ok = 0,
    NullArgument = 2,       ///< the message, or where a result should go, is NULL
    Malformed = 20001,      ///< the message's own lengths contradict each other, or an IE has not its type's form
    NotFound = 20002,       ///< the message has no such IE
    NoRoom = 20003,         ///< the IE does not fit into the message
    Duplicate = 20004,      ///< the message has that IE already: it is refused, for nothing says which of two counts
    ForbiddenText = 20005,  ///< a text with CR, LF or NUL, which would end its header on the wire
    BadValue = 20006,       ///< a port, address, scale or range time that RTSP cannot carry
    NotARequest = 20007,    ///< a kind other than 0
    UnknownMessage = 20008, ///< the message identifier is none of a request's
};

/// The bytes in front of the first IE.
constexpr size_t prefixSize = sizeof(tagMDPMsgHeader) + 2 * sizeof(ZR_ULONG);

/// The bytes that an IE with a value of that many takes.
constexpr size_t elementSize(size_t valueSize)
{
    return 2 * sizeof(ZR_ULONG) + (valueSize + 3) / 4 * 4;
}

/// Makes raw memory a message without IEs; the header is zero.
/// @param capacity  the memory's size in bytes, at least prefixSize
void initialise(tagMDPMsg *message, ZR_ULONG capacity);

/// Adds an IE whose value is the parts, one after the other. On failure the message is as before.
Status append(tagAOIMsg *message, ZR_ULONG id, std::initializer_list<std::string_view> parts);

/// Finds the first IE of an identifier; the value stays the message's. On failure `value` is as before.
Status find(const tagAOIMsg *message, ZR_ULONG id, std::string_view &value);

/// Whether all lengths of the message agree, to its last IE.
Status check(const tagAOIMsg *message);

} // namespace zr::mdp
