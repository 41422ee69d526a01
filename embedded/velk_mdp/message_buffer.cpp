#include "message_buffer.h"

#include <cstring>

namespace zr::mdp {
namespace {

constexpr size_t capacityOffset = sizeof(tagMDPMsgHeader);
constexpr size_t usedOffset = capacityOffset + sizeof(ZR_ULONG);

void store(char *at, size_t value)
{
    const auto narrow = static_cast<ZR_ULONG>(value);
    std::memcpy(at, &narrow, sizeof(narrow));
}

} // namespace

void initialise(tagMDPMsg *message, ZR_ULONG capacity)
{
    auto *const base = reinterpret_cast<char *>(message);
    std::memset(base, 0, prefixSize);
    store(base + capacityOffset, capacity);
    store(base + usedOffset, prefixSize);
}

Status find(const tagAOIMsg *message, ZR_ULONG id, std::string_view &value)
{
    if (message == nullptr)
        return NullArgument;
    Walk walk(message);
    while (walk.next())
    {
        if (walk.id() == id)
        {
            value = walk.value();
            return Ok;
        }
    }
    return walk.sound() ? NotFound : Malformed;
}

Status append(tagAOIMsg *message, ZR_ULONG id, std::initializer_list<std::string_view> parts)
{
    std::string_view present;
    const Status searched = find(message, id, present);
    if (searched != NotFound)
        return searched == Ok ? Duplicate : searched;

    size_t length = 0;
    for (const std::string_view part : parts)
        length += part.size();
    auto *const base = reinterpret_cast<char *>(message);
    const size_t used = load(base + usedOffset);
    const size_t room = load(base + capacityOffset) - used;
    if (length > room || elementSize(length) > room)
        return NoRoom;

    char *at = base + used;
    if (length > 0) // no byte of the heap's past goes out with the padding
        store(at + elementSize(length) - sizeof(ZR_ULONG), 0);
    store(at, id);
    store(at + sizeof(ZR_ULONG), length);
    at += elementSize(0);
    for (const std::string_view part : parts)
    {
        if (!part.empty())
            std::memcpy(at, part.data(), part.size());
        at += part.size();
    }
    store(base + usedOffset, used + elementSize(length));
    return Ok;
}

} // namespace zr::mdp

ZR_ULONG MDP_CreatReqMsgHeader(const tagMDPMsgHeader *pstHeader, tagMDPMsg *pstMsg)
{
    if (pstHeader == nullptr || pstMsg == nullptr)
        return zr::mdp::NullArgument;
    pstMsg->stHeader = *pstHeader;
    pstMsg->stHeader.ulMsgKind = 0;
    return zr::mdp::Ok;
}

ZR_ULONG MDP_GetMsgIE(const tagAOIMsg *pstAOIMsg, ZR_ULONG ulIEID, const void **ppvIE, ZR_ULONG *pulLen)
{
    if (ppvIE == nullptr || pulLen == nullptr)
        return zr::mdp::NullArgument;
    std::string_view value;
    const zr::mdp::Status found = zr::mdp::find(pstAOIMsg, ulIEID, value);
    if (found != zr::mdp::Ok)
        return found;
    *ppvIE = value.data();
    *pulLen = static_cast<ZR_ULONG>(value.size());
    return zr::mdp::Ok;
}
