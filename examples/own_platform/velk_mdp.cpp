// The message platform: all that the plug-in calls of it.

#include "message.h"

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
