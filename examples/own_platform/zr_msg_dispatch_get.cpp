// The message-dispatch library, second third: the elements of answers (CAOIIETool), read inside AOIMsgPro on the
// delivery thread.

#include "elements.h"

namespace {

ZR_ULONG getTransport(const tagAOIMsg *message, ZR_ULONG id, tagBroadcastmethod method, std::string &ip,
                      ZR_USHORT &port)
{
    own::Transport transport;
    const ZR_ULONG found = own::getValue(message, id, transport);
    if (found != own::ok)
        return found;
    if (transport.method != method)
        return own::notFound;
    ip = transport.ip;
    port = transport.port;
    return own::ok;
}

/// An enumeration travels as its number.
template <typename Number>
ZR_ULONG getNumber(const tagAOIMsg *message, ZR_ULONG id, Number &number)
{
    ZR_ULONG value = 0;
    const ZR_ULONG found = own::getValue(message, id, value);
    if (found == own::ok)
        number = static_cast<Number>(value);
    return found;
}

} // namespace

// The gets: 0, or a code and nothing written. Each says below which messages must have the element; where it is missing
// from a good answer, the plug-in leaves the answer aside and the request runs into its 25 seconds.

// Every good answer but DESCRIBE's, and what the server sends by itself.
ZR_ULONG CAOIIETool::getAOIIESessionID(const tagAOIMsg *pstAOIMsg, std::string &strSessionID)
{
    return own::getText(pstAOIMsg, AOI_IE_SESSION_ID, 0, strSessionID);
}

// Every failure answer: the RTSP status. Missing, the code of this get stands for it.
ZR_ULONG CAOIIETool::getAOIIEErrcode(const tagAOIMsg *pstAOIMsg, ZR_ULONG &ulErrcode)
{
    return getNumber(pstAOIMsg, AOI_IE_ERRCODE, ulErrcode);
}

// Every good SETUP answer: the server's address and first port.
ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *pstAOIMsg, std::string &strIP, ZR_USHORT &usPort)
{
    return getTransport(pstAOIMsg, AOI_IE_TRANSPORT, BROADCASTMETHOD_NONE, strIP, usPort);
}

// A good SETUP answer of a multicast session: the group and its port.
ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *pstAOIMsg, tagBroadcastmethod enMethod, std::string &strIP,
                                       ZR_USHORT &usPort)
{
    return getTransport(pstAOIMsg, AOI_IE_METHOD_TRANSPORT, enMethod, strIP, usPort);
}

// Every good OPTIONS answer: where the session plays, as a Range value.
ZR_ULONG CAOIIETool::getAOIIERange(const tagAOIMsg *pstAOIMsg, std::string &strRange)
{
    return own::getText(pstAOIMsg, AOI_IE_RANGE, 0, strRange);
}

// An announcement; missing, it counts as the end of the session.
ZR_ULONG CAOIIETool::getAOIIEQuitReason(const tagAOIMsg *pstAOIMsg, tagAOIIEQuitReason &enReason)
{
    return getNumber(pstAOIMsg, AOI_IE_QUIT_REASON, enReason);
}

// The platform's notice about a session.
ZR_ULONG CAOIIETool::getAOIIESAction(const tagAOIMsg *pstAOIMsg, tagAOIIERtspActionType &enAction)
{
    return getNumber(pstAOIMsg, AOI_IE_SESSION_ACTION, enAction);
}
