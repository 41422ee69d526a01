// The message platform. Put in your own: the two operations at the end are all that the plug-in calls.

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

// Called while a request is built, on the thread that builds it (a host's, the timer's, or a delivery thread), before
// the first element is added. Copy the header, make the kind that of a request, keep neither pointer. Anything but 0
// ends the request: it is not sent.
ZR_ULONG MDP_CreatReqMsgHeader(const tagMDPMsgHeader *pstHeader, tagMDPMsg *pstMsg)
{
    if (pstHeader == nullptr || pstMsg == nullptr)
        return own::invalid;
    pstMsg->stHeader = *pstHeader;
    pstMsg->stHeader.ulMsgKind = MDP_MSG_KIND_REQUEST;
    return own::ok;
}

// Called inside AOIMsgPro, on the delivery thread, for the description (AOI_IE_DATA) and a challenge
// (AOI_IE_AUTHORIZATION_ID). What *ppvIE shows stays yours and must stand until AOIMsgPro returns; *pulLen counts the
// text's zero. On failure write nothing: the plug-in then leaves the answer aside, and the request runs into its
// time-out.
ZR_ULONG MDP_GetMsgIE(const tagAOIMsg *pstAOIMsg, ZR_ULONG ulIEID, const void **ppvIE, ZR_ULONG *pulLen)
{
    if (ppvIE == nullptr || pulLen == nullptr)
        return own::invalid;
    std::string_view value;
    const ZR_ULONG found = own::findElement(pstAOIMsg, ulIEID, value);
    if (found != own::ok)
        return found;
    *ppvIE = value.data();
    *pulLen = static_cast<ZR_ULONG>(value.size());
    return own::ok;
}
