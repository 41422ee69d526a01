/// @file
/// The memory of a message: the header, its capacity and used length in bytes (both counted from the message's first
/// byte), then the information elements (IEs), each as identifier, length and value, padded to 4 bytes.
///
/// Nothing that is read out of a message is trusted: every length is checked against the used length, and that against
/// the capacity.
#pragma once

#include <cstddef>
#include <cstring>
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

/// A number of a message, wherever it stands.
inline ZR_ULONG load(const char *at)
{
    ZR_ULONG value = 0;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

/// Makes raw memory a message without IEs; the header is zero.
/// @param capacity  the memory's size in bytes, at least prefixSize
void initialise(tagMDPMsg *message, ZR_ULONG capacity);

/// Adds an IE whose value is the parts, one after the other. On failure the message is as before.
Status append(tagAOIMsg *message, ZR_ULONG id, std::initializer_list<std::string_view> parts);

/// Finds the first IE of an identifier; the value stays the message's. On failure `value` is as before.
Status find(const tagAOIMsg *message, ZR_ULONG id, std::string_view &value);

/// Walks the IEs of a message that is there, in order; each step checks that the next one lies within the used length.
class Walk
{
public:
    explicit Walk(const tagAOIMsg *message);

    /// Steps to the next IE; false at the end, and where the lengths contradict each other.
    bool next();
    /// Whether all lengths agreed so far.
    bool sound() const { return m_sound; }
    ZR_ULONG id() const { return m_id; }
    /// It stays the message's.
    std::string_view value() const { return {m_value, m_size}; }

private:
    const char *m_next;
    size_t m_left = 0;
    bool m_sound;
    ZR_ULONG m_id = 0;
    const char *m_value = nullptr;
    size_t m_size = 0;
};

inline Walk::Walk(const tagAOIMsg *message)
    : m_next(reinterpret_cast<const char *>(message) + prefixSize)
{
    const size_t capacity = load(m_next - 2 * sizeof(ZR_ULONG));
    const size_t used = load(m_next - sizeof(ZR_ULONG));
    m_sound = used >= prefixSize && used <= capacity && used % sizeof(ZR_ULONG) == 0;
    if (m_sound)
        m_left = used - prefixSize;
}

inline bool Walk::next()
{
    if (m_left == 0)
        return false;
    // what is left is a multiple of 4, so the padding lies within it too
    if (m_left < elementSize(0) || load(m_next + sizeof(ZR_ULONG)) > m_left - elementSize(0))
    {
        m_left = 0;
        m_sound = false;
        return false;
    }
    m_id = load(m_next);
    m_size = load(m_next + sizeof(ZR_ULONG));
    m_value = m_next + elementSize(0);
    m_next += elementSize(m_size);
    m_left -= elementSize(m_size);
    return true;
}

} // namespace zr::mdp
