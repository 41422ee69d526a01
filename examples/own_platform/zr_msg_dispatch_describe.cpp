// The message-dispatch library: the elements of an answer to DESCRIBE (CAOIIETool), read as those of
// zr_msg_dispatch_get.cpp.

#include "elements.h"

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
