// The memory of a message, which the message platform and the dispatch library share.

#include <cstring>

#include "message.h"

namespace {

constexpr size_t elementHead = 2 * sizeof(ZR_ULONG);

size_t elementSize(size_t valueSize)
{
    return elementHead + (valueSize + 3) / 4 * 4;
}

const char *elements(const own::Frame &frame)
{
    return reinterpret_cast<const char *>(&frame + 1);
}

ZR_ULONG load(const char *at)
{
    ZR_ULONG value = 0;
    std::memcpy(&value, at, sizeof value);
    return value;
}

} // namespace

ZR_ULONG own::findElement(const tagAOIMsg *message, ZR_ULONG id, std::string_view &value)
{
    if (message == nullptr)
        return invalid;
    const auto &frame = static_cast<const Frame &>(static_cast<const tagMDPMsg &>(*message));
    // the lengths are checked on the way: a far side may have filled the message
    for (size_t at = 0; at < frame.used;)
    {
        const size_t left = frame.used - at;
        if (frame.used > frame.capacity || left < elementHead)
            return malformed;
        const char *head = elements(frame) + at;
        const size_t length = load(head + sizeof(ZR_ULONG));
        if (length > left - elementHead)
            return malformed;
        if (load(head) == id)
        {
            value = std::string_view(head + elementHead, length);
            return ok;
        }
        at += elementSize(length);
    }
    return notFound;
}

ZR_ULONG own::addElement(tagAOIMsg *message, ZR_ULONG id, std::string_view value)
{
    std::string_view present;
    const ZR_ULONG searched = findElement(message, id, present);
    if (searched != notFound)
        return searched == ok ? static_cast<ZR_ULONG>(invalid) : searched;
    auto &frame = static_cast<Frame &>(static_cast<tagMDPMsg &>(*message));
    const size_t room = frame.capacity - frame.used;
    if (value.size() > room || elementSize(value.size()) > room)
        return noRoom;
    char *at = reinterpret_cast<char *>(&frame + 1) + frame.used;
    std::memset(at, 0, elementSize(value.size()));
    const auto length = static_cast<ZR_ULONG>(value.size());
    std::memcpy(at, &id, sizeof id);
    std::memcpy(at + sizeof id, &length, sizeof length);
    if (!value.empty())
        std::memcpy(at + elementHead, value.data(), value.size());
    frame.used += static_cast<ZR_ULONG>(elementSize(value.size()));
    return ok;
}
