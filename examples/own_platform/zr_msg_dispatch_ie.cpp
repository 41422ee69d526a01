// The message-dispatch library, first half: messages and their elements (CAOIIETool).
//
// Requests are filled on the thread that sends them, under the session's lock; answers are read inside AOIMsgPro, on
// the delivery thread. A message belongs to one thread at a time, so that nothing here needs a lock. None of it may
// block.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "elements.h"

namespace {

/// A text becomes part of a header: what would end that header is refused.
ZR_ULONG addText(tagAOIMsg *message, ZR_ULONG id, const std::string &text)
{
    static constexpr char forbidden[] = {'\r', '\n', '\0'};
    if (text.find_first_of(forbidden, 0, sizeof forbidden) != std::string::npos)
        return own::invalid;
    return own::addElement(message, id, {text.c_str(), text.size() + 1});
}

ZR_ULONG addTransport(tagAOIMsg *message, ZR_ULONG id, const std::string &ip, own::Transport transport)
{
    if (ip.size() >= sizeof transport.ip)
        return own::invalid;
    std::copy(ip.begin(), ip.end(), transport.ip);
    return own::addValue(message, id, transport);
}

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

ZR_ULONG own::getText(const tagAOIMsg *message, ZR_ULONG id, size_t lead, std::string &text)
{
    std::string_view value;
    const ZR_ULONG found = findElement(message, id, value);
    if (found != ok)
        return found;
    if (value.size() <= lead || value.back() != '\0')
        return malformed;
    text = value.data() + lead;
    return ok;
}

// NULL says that there is no memory: the operation then returns 3. VELK_free takes it back, on the same thread.
tagMDPMsg *CAOIIETool::mallocAOIMsg(ZR_ULONG ulSize)
{
    if (ulSize < sizeof(own::Frame))
        return nullptr;
    void *const memory = std::malloc(ulSize);
    if (memory == nullptr)
        return nullptr;
    auto *const frame = new (memory) own::Frame{};
    frame->capacity = ulSize - static_cast<ZR_ULONG>(sizeof(own::Frame));
    return frame;
}

// ulSrcID is the identifier under which the session is registered: the answer goes there. It cannot fail.
void CAOIIETool::genAOIMsgHeader(ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, ZR_ULONG ulDstID, tagMDPMsgHeader &stHeader)
{
    stHeader = {ulMsgID, MDP_MSG_KIND_REQUEST, ulSrcID, ulDstID};
}

// The adds: copy the text. Anything but 0 ends the request: it is not sent, and its operation fails, mostly with that
// very code.
ZR_ULONG CAOIIETool::addAOIIEURL(const std::string &strURL, tagAOIMsg *pstAOIMsg)
{
    return addText(pstAOIMsg, AOI_IE_URL, strURL);
}

// Empty as long as the server gave none: then nothing goes on the wire.
ZR_ULONG CAOIIETool::addAOIIESessionID(const std::string &strSessionID, tagAOIMsg *pstAOIMsg)
{
    return addText(pstAOIMsg, AOI_IE_SESSION_ID, strSessionID);
}

// The pair of UAs: DESCRIBE and SETUP carry it, for the route (CRouteMgr).
ZR_ULONG CAOIIETool::addAOIIESrcUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulOnvif*/)
{
    return addText(pstAOIMsg, AOI_IE_SRC_UA_ID, strUaID);
}

ZR_ULONG CAOIIETool::addAOIIEDstUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulOnvif*/)
{
    return addText(pstAOIMsg, AOI_IE_DST_UA_ID, strUaID);
}

// Without a broadcast method: where a TV wall is to receive.
ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                       tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulReserved*/)
{
    return addTransport(pstAOIMsg, AOI_IE_TRANSPORT, strIP, {usPort, enProtocol, BROADCASTMETHOD_NONE, {}});
}

// With one: where the session itself receives. BROADCASTMETHOD_NONE stands for unicast; multicast has no address.
ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                       tagBroadcastmethod enMethod, tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulReserved*/)
{
    return addTransport(pstAOIMsg, AOI_IE_METHOD_TRANSPORT, strIP, {usPort, enProtocol, enMethod, {}});
}

// Written without the host's locale; 0 is no speed, and goes without the header.
ZR_ULONG CAOIIETool::addAOIIEScale(float fScale, tagAOIMsg *pstAOIMsg)
{
    return std::isfinite(fScale) ? own::addValue(pstAOIMsg, AOI_IE_SCALE, fScale) : static_cast<ZR_ULONG>(own::invalid);
}

// Here the range travels as "begin-end"; yours tells npt from clock, and refuses what is neither.
ZR_ULONG CAOIIETool::addAOIIERangetime(const std::string &strBegin, const std::string &strEnd, tagAOIMsg *pstAOIMsg)
{
    if (strBegin.empty() && strEnd.empty())
        return own::ok;
    return addText(pstAOIMsg, AOI_IE_RANGE_TIME, strBegin + "-" + strEnd);
}

// The Authorization header's value, empty before a challenge: then no header. A secret: never into a log.
ZR_ULONG CAOIIETool::addAOIIEAuth(const std::string &strAuth, tagAOIMsg *pstAOIMsg)
{
    return addText(pstAOIMsg, AOI_IE_AUTHORIZATION_ID, strAuth);
}

ZR_ULONG CAOIIETool::addAOIIEUserAgent(tagAOIMsg *pstAOIMsg)
{
    return addText(pstAOIMsg, AOI_IE_USER_AGENT, "own-platform");
}

ZR_ULONG CAOIIETool::addAOIIEAccept(tagAOIMsg *pstAOIMsg)
{
    return addText(pstAOIMsg, AOI_IE_ACCEPT, "application/sdp");
}

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

// A good DESCRIBE answer of an ONVIF source, where the server gave one: it becomes the session's URL. With a slash at
// its end where the SDP has relative controls, which are put behind it as they are.
ZR_ULONG CAOIIETool::getAOIIEContentBase(const tagAOIMsg *pstAOIMsg, std::string &strContentBase)
{
    return own::getText(pstAOIMsg, AOI_IE_CONTENT_BASE, 0, strContentBase);
}

// A good DESCRIBE answer of another source: the URL for the relation to a TV wall. Missing, there is no such relation.
ZR_ULONG CAOIIETool::getAOIIEURL(const tagAOIMsg *pstAOIMsg, std::string &strURL)
{
    return own::getText(pstAOIMsg, AOI_IE_URL, 0, strURL);
}

// A good DESCRIBE answer, where the server told.
ZR_ULONG CAOIIETool::getAOIIEServer(const tagAOIMsg *pstAOIMsg, std::string &strServer)
{
    return own::getText(pstAOIMsg, AOI_IE_SERVER, 0, strServer);
}

// A good DESCRIBE answer; an ONVIF source's is also read through MDP_GetMsgIE, and unusable without it.
ZR_ULONG CAOIIETool::getAOIIESDP(const tagAOIMsg *pstAOIMsg, std::string &strSDP)
{
    return own::getText(pstAOIMsg, AOI_IE_DATA, own::dataLead, strSDP);
}
