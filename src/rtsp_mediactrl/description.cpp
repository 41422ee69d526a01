// DESCRIBE, what is cut out of its answer, and the Authorization values of RFC 2617.

#include "rtsp_mediactrl.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "request.h"
#include "tw_system.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG RTSP_UNAUTHORIZED = 401;

constexpr ZR_ULONG ONVIF_KEEPLIVE_MAX_FAIL = 3;
constexpr ZR_ULONG ONVIF_DEFAULT_TIMEOUT_MS = 60000;

constexpr ZR_ULONG DATA_TEXT_OFFSET = 84;
constexpr ZR_ULONG CHALLENGE_TEXT_OFFSET = 8;
constexpr ZR_ULONG RTPMAP_LIMIT = 32;
constexpr ZR_ULONG CHALLENGE_LIMIT = 128;
constexpr ZR_ULONG VALUE_LIMIT = 512;

constexpr size_t HA1_SIZE = 33;
constexpr size_t RESPONSE_SIZE = 128;
constexpr size_t DIGEST_HEADER_SIZE = 384;
constexpr size_t BASIC_SIZE = 128;

const char g_szDescribe[] = "CRtspMediaCtrl::describe";
const char g_szDescribeRsp[] = "CRtspMediaCtrl::AOIProcRtspDescribeRsp";

/// Part of a text; empty where it would begin beyond the end. Whether the keys around it were found is not tested: the
/// positions come as unsigned arithmetic on what find() gave.
std::string partOf(const std::string &strText, size_t ulStart, size_t ulLength)
{
    return ulStart > strText.size() ? std::string() : strText.substr(ulStart, ulLength);
}

/// The text inside an element, behind its fixed part.
/// @param ppszText  receives it; the element holds its zero, so that it may be scanned
/// @return 0; the look-up's own code; 13803 for an element too short for a text, or without a zero
ZR_ULONG findText(const tagAOIMsg *pstAOIMsg, ZR_ULONG ulIEID, ZR_ULONG ulOffset, const char **ppszText)
{
    const void *pvIE = nullptr;
    ZR_ULONG ulLen = 0;
    const ZR_ULONG ulResult = MDP_GetMsgIE(pstAOIMsg, ulIEID, &pvIE, &ulLen);
    if (ulResult != ZR_RTSP_OK)
        return ulResult;
    if (pvIE == nullptr || ulLen <= ulOffset)
        return ZR_RTSP_IE_UNREADABLE;
    const char *pszText = static_cast<const char *>(pvIE) + ulOffset;
    if (std::memchr(pszText, 0, ulLen - ulOffset) == nullptr)
        return ZR_RTSP_IE_UNREADABLE;
    *ppszText = pszText;
    return ZR_RTSP_OK;
}

/// A track's control value as a whole URL.
std::string joinControl(const std::string &strControl, const std::string &strContentBase, const std::string &strURL)
{
    if (strControl.find("rtsp://") != std::string::npos)
        return strControl;
    return strContentBase.empty() ? strURL + "/" + strControl : strContentBase + strControl;
}

} // namespace

ZR_ULONG CRtspMediaCtrl::describe(const std::string &strURL)
{
    const auto fnDescribe = [&]() -> ZR_ULONG {
        if (m_oMediaAbility.isOnvif() == 1)
        {
            m_ulKeepLiveMaxFail = ONVIF_KEEPLIVE_MAX_FAIL;
            const ZR_ULONG ulTimeout = m_oMediaAbility.getOnvifInfo().m_ulTimeout;
            const ZR_ULONG ulTimeoutMs = ulTimeout != 0 ? ulTimeout * 1000 : ONVIF_DEFAULT_TIMEOUT_MS;
            m_ulKeepLivePeriod = ulTimeoutMs / KEEPLIVE_TICK_MS / ONVIF_KEEPLIVE_MAX_FAIL;
        }
        ZR_ULONG ulResult = keepURL(strURL);
        m_ulKeepLiveTick = m_ulKeepLivePeriod.load();
        if (ulResult == ZR_RTSP_OK)
            ulResult = describe();
        const bool bOnvif = ulResult == ZR_RTSP_OK && m_oMediaAbility.isOnvif() == 1;
        COnvifInfo oInfo = bOnvif ? m_oMediaAbility.getOnvifInfo() : COnvifInfo();
        // once more where an Authorization is known by now, whether or not it was asked for just now
        if (!oInfo.m_strDescribeAuth.empty())
        {
            ulResult = describe();
            if (ulResult == ZR_RTSP_OK)
                oInfo = m_oMediaAbility.getOnvifInfo();
        }
        if (ulResult != ZR_RTSP_OK)
        {
            RTSP_LOG(ERROR, ulResult, "[%s] Failed to send AOI_MSG_RTSP_DESCRIBE response Message", g_szDescribe);
            return ulResult;
        }
        if (bOnvif && (oInfo.m_strVideoRtpmap.empty() || oInfo.m_strVideoControl.empty()))
        {
            RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER,
                     "[%s] Not exist video rtpmap and control in AOI_MSG_RTSP_DESCRIBE response Message", g_szDescribe);
            return ZR_RTSP_INVALID_PARAMETER;
        }
        return ZR_RTSP_OK;
    };
    return inside(g_szDescribe, fnDescribe, ZR_RTSP_FAILED);
}

/// Keeps the session's URL, and cuts the credential tail off where there is one. The tail is expected to end with one
/// closing character, which goes as the separators do.
/// @return 0; 10109
ZR_ULONG CRtspMediaCtrl::keepURL(const std::string &strURL)
{
    const CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    m_strURL = withoutCredentialTail(strURL);
    if (strURL.find("auth") == std::string::npos)
        return ZR_RTSP_OK;

    const size_t ulUser = strURL.find("username=");
    const size_t ulPassword = strURL.find("password=");
    COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    oInfo.m_strOnvifURL = m_strURL;
    oInfo.m_strUserName = partOf(strURL, ulUser + 9, ulPassword - ulUser - 10);
    oInfo.m_strPassword = partOf(strURL, ulPassword + 9, strURL.size() - ulPassword - 10);
    m_oMediaAbility.setOnvifInfo(oInfo);
    return ZR_RTSP_OK;
}

ZR_ULONG CRtspMediaCtrl::describe()
{
    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;
    const ZR_ULONG ulOnvif = m_oMediaAbility.isOnvif();
    CAOIRequest oRequest(g_szDescribe, AOI_MSG_RTSP_DESCRIBE, m_ulAOIPortID);
    oRequest.header(0)
        .add("[%s] add IE AOI_IE_URL failed", 0, CAOIIETool::addAOIIEURL, m_strURL)
        .add("[%s] add IE SrcUaID failed", 0, CAOIIETool::addAOIIESrcUaID, m_oMediaAbility.getLocalUaID(), ulOnvif)
        .add("[%s] add IE DstUaID failed", 0, CAOIIETool::addAOIIEDstUaID, m_oMediaAbility.getRemoteUaID(), ulOnvif)
        .add("[%s] add IE UserAgent failed", 0, CAOIIETool::addAOIIEUserAgent)
        .add("[%s] add IE Accept failed", 0, CAOIIETool::addAOIIEAccept)
        .add("[%s] add IE Authorization failed", 0, CAOIIETool::addAOIIEAuth,
             m_oMediaAbility.getOnvifInfo().m_strDescribeAuth);
    if (oRequest.send("[%s] send AOI_MSG_RTSP_DESCRIBE message failed", ZR_RTSP_REQUEST_SEND_FAILED,
                      ZR_RTSP_REQUEST_SEND_FAILED) != ZR_RTSP_OK)
        return oRequest.status();

    ZR_ULONG ulRspResult = ZR_RTSP_FAILED;
    const EOutcome enOutcome = exchange(EXCHANGE_DESCRIBE, oGuard, ulRspResult);
    oGuard.release();
    if (enOutcome == EOutcome::timedOut)
    {
        RTSP_LOG(WARNING, ZR_RTSP_NO_ANSWER, "[%s] don't receive a AOI_MSG_RTSP_DESCRIBE OK response Message",
                 g_szDescribe);
        return ZR_RTSP_NO_ANSWER;
    }
    if (ulRspResult != ZR_RTSP_OK)
        RTSP_LOG(WARNING, ulRspResult, "[%s] Describe receive error", g_szDescribe);
    return ulRspResult;
}

/// Takes the answer in any state: DESCRIBE tells its outcome by its result alone.
ZR_ULONG CRtspMediaCtrl::AOIProcRtspDescribeRsp(const tagAOIMsg *pstAOIMsg)
{
    if (pstAOIMsg == nullptr)
    {
        RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER, "[%s] Invalid param", g_szDescribeRsp);
        return ZR_RTSP_INVALID_PARAMETER;
    }
    CObjectGuard oGuard(m_oMutex, m_ulLockDepth);
    if (!oGuard.locked())
        return ZR_RTSP_LOCK_FAILED;

    ZR_ULONG ulResult = ZR_RTSP_OK;
    const ZR_ULONG ulKind = pstAOIMsg->stHeader.ulMsgKind;
    if (ulKind == MDP_MSG_KIND_SUCCESS)
    {
        ulResult = takeDescription(pstAOIMsg);
    }
    else if (ulKind == MDP_MSG_KIND_FAILURE)
    {
        readErrcode(pstAOIMsg, g_szDescribeRsp, "[%s] Get AOI_IE_ERRCODE from describ failed");
        if (m_oMediaAbility.isOnvif() == 1 && m_ulRspResult == RTSP_UNAUTHORIZED)
            ulResult = takeChallenge(pstAOIMsg);
    }
    else
    {
        RTSP_LOG(WARNING, ZR_RTSP_FAILED, "[%s] describe response failed, msg type %u", g_szDescribeRsp, ulKind);
    }
    return ulResult == ZR_RTSP_OK ? acceptAnswer(g_szDescribeRsp, EXCHANGE_DESCRIBE.ulWait, oGuard) : ulResult;
}

/// A good answer: the URL of the relation to a TV wall, or an ONVIF source's stream information; and the SDP.
/// @return 0; the code with which an ONVIF source's SDP could not be used: then nobody is woken
ZR_ULONG CRtspMediaCtrl::takeDescription(const tagAOIMsg *pstAOIMsg)
{
    if (m_oMediaAbility.isOnvif() != 1)
    {
        const ZR_ULONG ulResult = CAOIIETool::getAOIIEURL(pstAOIMsg, m_strVodToTvURL);
        if (ulResult != ZR_RTSP_OK)
            RTSP_LOG(WARNING, ulResult, "[%s] Get AOI_IE_URL IE from describ failed", g_szDescribeRsp);
    }
    else
    {
        std::string strContentBase;
        CAOIIETool::getAOIIEContentBase(pstAOIMsg, strContentBase);
        if (!strContentBase.empty())
            m_strURL = std::move(strContentBase);
        const ZR_ULONG ulResult = getOnvifInfoFromSdp(pstAOIMsg);
        if (ulResult != ZR_RTSP_OK)
        {
            RTSP_LOG(WARNING, ulResult, "[%s] Get onvifinfo from sdp from describ failed", g_szDescribeRsp);
            return ulResult;
        }
    }

    std::string strServer;
    if (CAOIIETool::getAOIIEServer(pstAOIMsg, strServer) == ZR_RTSP_OK && strServer == "MSRelayer")
        m_bMSRelayer = 1;
    std::string strSDP;
    const ZR_ULONG ulResult = CAOIIETool::getAOIIESDP(pstAOIMsg, strSDP);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(WARNING, ulResult, "[%s] get AOI_IE_DATA IE failed, it does not matter.", g_szDescribeRsp);
        strSDP.clear();
    }
    m_oMediaAbility.setDescribeRspSdp(strSDP);
    m_ulRspResult = ZR_RTSP_OK;
    return ZR_RTSP_OK;
}

/// A 401 from an ONVIF source: computes the Authorization values, so that the request may be sent once more.
/// @return 0; a code, and then nobody is woken
ZR_ULONG CRtspMediaCtrl::takeChallenge(const tagAOIMsg *pstAOIMsg)
{
    const char *pszChallenge = nullptr;
    ZR_ULONG ulResult = findText(pstAOIMsg, AOI_IE_AUTHORIZATION_ID, CHALLENGE_TEXT_OFFSET, &pszChallenge);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] Get AOI_IE_AUTHORIZATION_ID from describ failed", g_szDescribeRsp);
        return ulResult;
    }
    COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    const auto fnTake = [&](const char *pszKey, std::string &strValue) {
        char szValue[CHALLENGE_LIMIT] = {};
        const ZR_ULONG ulFound = getDataFromSDP(pszChallenge, "Digest", pszKey, CHALLENGE_LIMIT, szValue);
        if (ulFound != ZR_RTSP_OK)
            RTSP_LOG(WARNING, ulFound, "[%s] get video rtpmap failed", g_szDescribeRsp);
        strValue = ulFound == ZR_RTSP_OK ? szValue : "";
    };
    fnTake("realm=", oInfo.m_strRealm);
    fnTake("nonce=", oInfo.m_strNonce);
    ulResult = calcAuth(oInfo);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] calc auth info failed", g_szDescribeRsp);
        return ulResult;
    }
    m_oMediaAbility.setOnvifInfo(oInfo);
    m_ulRspResult = ZR_RTSP_OK;
    return ZR_RTSP_OK;
}

/// The text that follows a key behind a section's beginning, up to the end of the line or what else ends such a value.
/// The search is not bounded by the section. Uses no member.
/// @param ulMaxLen  the size of pszOut
/// @return 0; 1 when it is not there, or too long (pszOut has no zero then); 2 for a NULL argument
ZR_ULONG CRtspMediaCtrl::getDataFromSDP(const char *pszText, const char *pszSection, const char *pszKey,
                                        ZR_ULONG ulMaxLen, char *pszOut)
{
    if (pszText == nullptr || pszSection == nullptr || pszKey == nullptr || pszOut == nullptr)
    {
        RTSP_LOG(ERROR, ZR_RTSP_INVALID_PARAMETER, "[%s] Invalid param", "CRtspMediaCtrl::getDataFromSDP");
        return ZR_RTSP_INVALID_PARAMETER;
    }
    const char *pszFound = std::strstr(pszText, pszSection);
    if (pszFound == nullptr)
        return ZR_RTSP_FAILED;
    pszFound = std::strstr(pszFound + std::strlen(pszSection), pszKey);
    if (pszFound == nullptr)
        return ZR_RTSP_FAILED;

    const bool bRtpmap = std::strcmp(pszKey, "a=rtpmap:") == 0;
    const bool bParameterSets = std::strcmp(pszKey, "sprop-parameter-sets=") == 0;
    const bool bDigest = std::strcmp(pszSection, "Digest") == 0;
    ZR_ULONG ulStored = 0;
    for (const char *pszNext = pszFound + std::strlen(pszKey);; ++pszNext)
    {
        const char cNext = *pszNext;
        const bool bEnd = cNext == '\0' || cNext == '\r' || cNext == '\n' ||
                          (bRtpmap && (cNext == '/' || cNext == ';')) || (bParameterSets && cNext == ';');
        if (!bEnd && bDigest && cNext == '"')
            continue;
        if (bEnd || (bDigest && cNext == ','))
        {
            pszOut[ulStored] = '\0';
            return ZR_RTSP_OK;
        }
        if (ulMaxLen <= ulStored + 1)
            return ZR_RTSP_FAILED;
        pszOut[ulStored++] = cNext;
    }
}

/// Fills the session's ONVIF information out of a DESCRIBE answer's SDP; nothing is written back on failure.
ZR_ULONG CRtspMediaCtrl::getOnvifInfoFromSdp(const tagAOIMsg *pstAOIMsg)
{
    static const char szFunction[] = "CRtspMediaCtrl::getOnvifInfoFromSdp";
    COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    const char *pszSDP = nullptr;
    ZR_ULONG ulResult = findText(pstAOIMsg, AOI_IE_DATA, DATA_TEXT_OFFSET, &pszSDP);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] get AOI_IE_DATA IE failed", szFunction);
        return ulResult;
    }

    char szValue[VALUE_LIMIT] = {};
    ulResult = getDataFromSDP(pszSDP, "m=video", "a=rtpmap:", RTPMAP_LIMIT, szValue);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] get video rtpmap failed", szFunction);
        return ulResult;
    }
    oInfo.m_strVideoRtpmap = szValue;

    ulResult = getDataFromSDP(pszSDP, "m=video", "sprop-parameter-sets=", VALUE_LIMIT, szValue);
    if (ulResult != ZR_RTSP_OK)
        RTSP_LOG(WARNING, ulResult, "[%s] Failed to get video SPS", szFunction);
    else
        oInfo.m_strVideoSps = std::string("sprop-parameter-sets=") + szValue;

    std::string strContentBase;
    CAOIIETool::getAOIIEContentBase(pstAOIMsg, strContentBase);
    ulResult = getDataFromSDP(pszSDP, "m=video", "a=control:", VALUE_LIMIT, szValue);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] get get video control failed", szFunction);
        return ulResult;
    }
    oInfo.m_strVideoControl = joinControl(szValue, strContentBase, m_strURL);

    ulResult = getDataFromSDP(pszSDP, "m=audio", "a=rtpmap:", RTPMAP_LIMIT, szValue);
    if (ulResult != ZR_RTSP_OK)
        RTSP_LOG(WARNING, ulResult, "[%s] get audio rtpmap failed", szFunction);
    else
        oInfo.m_strAudioRtpmap = szValue;

    ulResult = getDataFromSDP(pszSDP, "m=audio", "a=control:", VALUE_LIMIT, szValue);
    if (ulResult != ZR_RTSP_OK)
        RTSP_LOG(WARNING, ulResult, "[%s] get get audio control failed", szFunction);
    else
        oInfo.m_strAudioControl = joinControl(szValue, strContentBase, m_strURL);

    m_oMediaAbility.setOnvifInfo(oInfo);
    return ZR_RTSP_OK;
}

/// Computes the Authorization values of the five methods: Digest (MD5, without qop) where the challenge named a realm,
/// else Basic.
ZR_ULONG CRtspMediaCtrl::calcAuth(COnvifInfo &oInfo)
{
    static const char szFunction[] = "CRtspMediaCtrl::calcAuth";
    static const std::pair<const char *, std::string COnvifInfo::*> aMethods[] = {
        {"DESCRIBE", &COnvifInfo::m_strDescribeAuth}, {"SETUP", &COnvifInfo::m_strSetupAuth},
        {"PLAY", &COnvifInfo::m_strPlayAuth},         {"OPTIONS", &COnvifInfo::m_strOptionsAuth},
        {"TEARDOWN", &COnvifInfo::m_strTeardownAuth},
    };
    if (!oInfo.m_strRealm.empty())
    {
        char szHA1[HA1_SIZE] = {};
        const ZR_ULONG ulResult =
            TW_DigestCalcHA1("MD5", oInfo.m_strUserName.c_str(), oInfo.m_strRealm.c_str(), oInfo.m_strPassword.c_str(),
                             oInfo.m_strNonce.c_str(), nullptr, szHA1);
        if (ulResult != ZR_RTSP_OK)
        {
            RTSP_LOG(ERROR, ulResult, "[%s] Calc md5 step1 failed", szFunction);
            return ulResult;
        }
        for (const auto &[pszMethod, pmAuth] : aMethods)
            oInfo.*pmAuth = calcMethodAuth(szHA1, oInfo, pszMethod);
        return ZR_RTSP_OK;
    }

    char szCredentials[BASIC_SIZE] = {};
    char szBase64[BASIC_SIZE] = {};
    char szHeader[BASIC_SIZE] = {};
    VELK_snprintf(szCredentials, sizeof szCredentials, "%s:%s", oInfo.m_strUserName.c_str(),
                  oInfo.m_strPassword.c_str());
    // the encoder is not told the buffer's size; three bytes become four characters
    constexpr size_t uLongest = (sizeof szBase64 - 1) / 4 * 3;
    const ZR_ULONG ulResult = TW_VODstr2Base64(
        szCredentials, static_cast<ZR_ULONG>(std::min(VELK_strlen(szCredentials), uLongest)), szBase64);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] Calc str to base64 failed, string is %s", szFunction, szCredentials);
        return ulResult;
    }
    VELK_snprintf(szHeader, sizeof szHeader, "%s %s", "Basic", szBase64);
    for (const auto &[pszMethod, pmAuth] : aMethods)
        oInfo.*pmAuth = szHeader;
    return ZR_RTSP_OK;
}

/// One method's Digest value (RFC 2617, 3.2.2); empty when its response cannot be computed.
std::string CRtspMediaCtrl::calcMethodAuth(const char *pszHA1, const COnvifInfo &oInfo, const std::string &strMethod)
{
    char szEntityHash[HA1_SIZE] = {};
    char szResponse[RESPONSE_SIZE] = {};
    const ZR_ULONG ulResult =
        TW_DigestCalcResponse(pszHA1, oInfo.m_strNonce.c_str(), nullptr, nullptr, nullptr, strMethod.c_str(),
                              oInfo.m_strOnvifURL.c_str(), szEntityHash, szResponse);
    if (ulResult != ZR_RTSP_OK)
    {
        RTSP_LOG(ERROR, ulResult, "[%s] Calc md5 step2 failed, method is %s", "CRtspMediaCtrl::calcMethodAuth",
                 strMethod.c_str());
        return "";
    }
    char szHeader[DIGEST_HEADER_SIZE] = {};
    VELK_snprintf(szHeader, sizeof szHeader, "%s %s\"%s\", %s\"%s\", %s\"%s\", %s\"%s\", %s\"%s\"", "Digest",
                  "username=", oInfo.m_strUserName.c_str(), "realm=", oInfo.m_strRealm.c_str(),
                  "nonce=", oInfo.m_strNonce.c_str(), "uri=", oInfo.m_strOnvifURL.c_str(), "response=", szResponse);
    return szHeader;
}
