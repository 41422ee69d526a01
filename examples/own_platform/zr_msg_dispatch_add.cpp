// The message-dispatch library, the elements of requests (CAOIIETool).
//
// They are filled on the thread that sends them, under the session's lock. A message belongs to one thread at a time,
// so that nothing here needs a lock. None of it may block.

#include <algorithm>
#include <cmath>

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

} // namespace

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
