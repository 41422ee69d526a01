/// @file
/// How this dispatch library writes the values of elements: texts with their zero, numbers and records as they are.
#pragma once

#include <cstring>
#include <string>

#include "message.h"
#include "zr_msg_dispatch.h"

namespace own {

constexpr size_t dataLead = 84;     ///< bytes in front of a description's text
constexpr size_t challengeLead = 8; ///< and of a challenge's

struct Transport
{
    ZR_USHORT port = 0;
    tagProtocol protocol = PROTOCOL_UDP;
    tagBroadcastmethod method = BROADCASTMETHOD_NONE;
    char ip[64] = {};
};

template <typename Value>
ZR_ULONG addValue(tagAOIMsg *message, ZR_ULONG id, const Value &value)
{
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return addElement(message, id, {bytes, sizeof bytes});
}

template <typename Value>
ZR_ULONG getValue(const tagAOIMsg *message, ZR_ULONG id, Value &value)
{
    std::string_view bytes;
    const ZR_ULONG found = findElement(message, id, bytes);
    if (found != ok)
        return found;
    if (bytes.size() != sizeof value)
        return malformed;
    std::memcpy(&value, bytes.data(), sizeof value);
    return ok;
}

/// @param lead  the bytes in front of the text
ZR_ULONG getText(const tagAOIMsg *message, ZR_ULONG id, size_t lead, std::string &text);

/// @return empty where the message has no such text
std::string textOf(const tagAOIMsg &message, ZR_ULONG id);

void addText(tagAOIMsg *message, ZR_ULONG id, size_t lead, const std::string &text);

} // namespace own
