#include <cmath>
#include <cstdlib>
#include <cstring>

#include "aoi_element.h"
#include "aoi_message.h"
#include "aoi_range.h"
#include "platform_log.h"

using zr::aoi::Status;

namespace {

/// Adds a text that becomes part of a header, and behind its zero the mark. The log names the IE, not the text: that
/// may be a credential.
Status addText(const char *name, ZR_ULONG id, const std::string &text, tagAOIMsg *message, std::string_view mark = {})
{
    if (!zr::aoi::isHeaderText(text))
    {
        ZR_PLATFORM_LOG(WARNING, zr::mdp::ForbiddenText, Dispatch, "[%s] a text with CR, LF or NUL is refused", name);
        return zr::mdp::ForbiddenText;
    }
    return zr::aoi::appendText(message, id, {}, text, mark);
}

Status addTransport(ZR_ULONG id, const zr::aoi::TransportElement &transport, tagAOIMsg *message)
{
    Status status = zr::mdp::Ok;
    const char *problem = nullptr;
    if (!zr::aoi::isHeaderText(transport.address))
    {
        status = zr::mdp::ForbiddenText;
        problem = "an address with CR, LF or NUL is refused";
    }
    else if ((problem = zr::aoi::addressProblem(transport)) != nullptr)
        status = zr::mdp::BadValue;
    if (problem == nullptr)
        return zr::aoi::appendTransport(message, id, transport);
    ZR_PLATFORM_LOG(WARNING, status, Dispatch, "[addAOIIETransport] %s (\"%s\", port %u)", problem,
                    transport.address.c_str(), transport.port);
    return status;
}

} // namespace

const char *const zr::aoi::defaultUserAgent = "zr_rtsp/" ZR_VERSION;

tagMDPMsg *CAOIIETool::mallocAOIMsg(ZR_ULONG ulSize)
{
    if (ulSize < zr::mdp::prefixSize)
        return nullptr;
    auto *const message = static_cast<tagMDPMsg *>(std::malloc(ulSize));
    if (message != nullptr)
        zr::mdp::initialise(message, ulSize);
    return message;
}

void CAOIIETool::genAOIMsgHeader(ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, ZR_ULONG ulDstID, tagMDPMsgHeader &stHeader)
{
    stHeader = {ulMsgID, 0, ulSrcID, ulDstID};
}

ZR_ULONG CAOIIETool::addAOIIEURL(const std::string &strURL, tagAOIMsg *pstAOIMsg)
{
    return addText("addAOIIEURL", AOI_IE_URL, strURL, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIESessionID(const std::string &strSessionID, tagAOIMsg *pstAOIMsg)
{
    return addText("addAOIIESessionID", AOI_IE_SESSION_ID, strSessionID, pstAOIMsg);
}

// the UA IDs find the route, which is the same whether or not an ONVIF device is at its end; the requester reads the
// answers of one otherwise
ZR_ULONG CAOIIETool::addAOIIESrcUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulOnvif*/)
{
    return addText("addAOIIESrcUaID", AOI_IE_SRC_UA_ID, strUaID, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIEDstUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG ulOnvif)
{
    return addText("addAOIIEDstUaID", AOI_IE_DST_UA_ID, strUaID, pstAOIMsg,
                   ulOnvif == 1 ? zr::aoi::onvifMark : std::string_view());
}

ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                       tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulReserved*/)
{
    return addTransport(AOI_IE_TRANSPORT, {strIP, usPort, enProtocol, {}}, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                       tagBroadcastmethod enMethod, tagAOIMsg *pstAOIMsg, ZR_ULONG /*ulReserved*/)
{
    return addTransport(AOI_IE_METHOD_TRANSPORT, {strIP, usPort, enProtocol, enMethod}, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIEScale(float fScale, tagAOIMsg *pstAOIMsg)
{
    if (!std::isfinite(fScale))
    {
        ZR_PLATFORM_LOG(WARNING, zr::mdp::BadValue, Dispatch, "[addAOIIEScale] the scale is no number");
        return zr::mdp::BadValue;
    }
    ZR_ULONG bits = 0;
    static_assert(sizeof(bits) == sizeof(fScale), "a Scale travels as its 32 bits");
    std::memcpy(&bits, &fScale, sizeof(bits));
    return zr::aoi::appendNumber(pstAOIMsg, AOI_IE_SCALE, bits);
}

ZR_ULONG CAOIIETool::addAOIIERangetime(const std::string &strBegin, const std::string &strEnd, tagAOIMsg *pstAOIMsg)
{
    if (pstAOIMsg == nullptr)
        return zr::mdp::NullArgument;
    std::string value;
    const Status status = zr::aoi::formatRange(strBegin, strEnd, value);
    if (status != zr::mdp::Ok || value.empty()) // no range: no header, and no IE
        return status;
    return addText("addAOIIERangetime", AOI_IE_RANGE_TIME, value, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIEAuth(const std::string &strAuth, tagAOIMsg *pstAOIMsg)
{
    return addText("addAOIIEAuth", AOI_IE_AUTHORIZATION_ID, strAuth, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIEUserAgent(tagAOIMsg *pstAOIMsg)
{
    return addText("addAOIIEUserAgent", AOI_IE_USER_AGENT, zr::aoi::defaultUserAgent, pstAOIMsg);
}

ZR_ULONG CAOIIETool::addAOIIEAccept(tagAOIMsg *pstAOIMsg)
{
    return addText("addAOIIEAccept", AOI_IE_ACCEPT, "application/sdp", pstAOIMsg);
}

ZR_ULONG CAOIIETool::getAOIIESessionID(const tagAOIMsg *pstAOIMsg, std::string &strSessionID)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_SESSION_ID, 0, strSessionID);
}

ZR_ULONG CAOIIETool::getAOIIEErrcode(const tagAOIMsg *pstAOIMsg, ZR_ULONG &ulErrcode)
{
    return zr::aoi::getNumber(pstAOIMsg, AOI_IE_ERRCODE, ulErrcode);
}

ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *pstAOIMsg, std::string &strIP, ZR_USHORT &usPort)
{
    zr::aoi::TransportElement transport;
    const Status status = zr::aoi::getTransport(pstAOIMsg, AOI_IE_TRANSPORT, transport);
    if (status == zr::mdp::Ok)
    {
        strIP = transport.address;
        usPort = transport.port;
    }
    return status;
}

ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *pstAOIMsg, tagBroadcastmethod enMethod, std::string &strIP,
                                       ZR_USHORT &usPort)
{
    zr::aoi::TransportElement transport;
    const Status status = zr::aoi::getTransport(pstAOIMsg, AOI_IE_METHOD_TRANSPORT, transport);
    if (status != zr::mdp::Ok)
        return status;
    if (transport.method != enMethod)
        return zr::mdp::NotFound;
    strIP = transport.address;
    usPort = transport.port;
    return zr::mdp::Ok;
}

ZR_ULONG CAOIIETool::getAOIIERange(const tagAOIMsg *pstAOIMsg, std::string &strRange)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_RANGE, 0, strRange);
}

ZR_ULONG CAOIIETool::getAOIIEQuitReason(const tagAOIMsg *pstAOIMsg, tagAOIIEQuitReason &enReason)
{
    ZR_ULONG number = 0;
    const Status status = zr::aoi::getNumber(pstAOIMsg, AOI_IE_QUIT_REASON, number);
    if (status == zr::mdp::Ok)
        enReason = static_cast<tagAOIIEQuitReason>(number);
    return status;
}

ZR_ULONG CAOIIETool::getAOIIESAction(const tagAOIMsg *pstAOIMsg, tagAOIIERtspActionType &enAction)
{
    ZR_ULONG number = 0;
    const Status status = zr::aoi::getNumber(pstAOIMsg, AOI_IE_SESSION_ACTION, number);
    if (status == zr::mdp::Ok)
        enAction = static_cast<tagAOIIERtspActionType>(number);
    return status;
}

ZR_ULONG CAOIIETool::getAOIIEContentBase(const tagAOIMsg *pstAOIMsg, std::string &strContentBase)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_CONTENT_BASE, 0, strContentBase);
}

ZR_ULONG CAOIIETool::getAOIIEURL(const tagAOIMsg *pstAOIMsg, std::string &strURL)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_URL, 0, strURL);
}

ZR_ULONG CAOIIETool::getAOIIEServer(const tagAOIMsg *pstAOIMsg, std::string &strServer)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_SERVER, 0, strServer);
}

ZR_ULONG CAOIIETool::getAOIIESDP(const tagAOIMsg *pstAOIMsg, std::string &strSDP)
{
    return zr::aoi::getText(pstAOIMsg, AOI_IE_DATA, zr::aoi::dataPrefix, strSDP);
}
