#include <array>

#include "elements.h"
#include "loop_back.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG unauthorized = 401, notFoundStatus = 404;

const std::string nonce = "7f3a5c21";
/// What the device keeps of its one user: MD5 of "demo:loop-back:demo".
const char *const userHash = "6d4f9968a72bb2f5ff581c141eeeb158";

const char *const description = "v=0\r\n"
                                "o=- 1 1 IN IP4 127.0.0.1\r\n"
                                "s=loop-back\r\n"
                                "t=0 0\r\n"
                                "a=control:*\r\n"
                                "m=video 0 RTP/AVP 96\r\n"
                                "a=rtpmap:96 H264/90000\r\n"
                                "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z0IAHukCgPRA,aM4G4g==\r\n"
                                "a=control:track1\r\n"
                                "m=audio 0 RTP/AVP 0\r\n"
                                "a=rtpmap:0 PCMU/8000\r\n"
                                "a=control:track2\r\n";

} // namespace

/// Whether the request bears the device's user's response (RFC 2617, 3.2.2).
bool own::LoopBack::authorized(const tagAOIMsg &request, const std::string &url)
{
    std::array<char, 33> response{};
    TW_DigestCalcResponse(userHash, nonce.c_str(), nullptr, nullptr, nullptr, "DESCRIBE", url.c_str(), nullptr,
                          response.data());
    const std::string expected = std::string("response=\"") + response.data() + '"';
    return textOf(request, AOI_IE_AUTHORIZATION_ID).find(expected) != std::string::npos;
}

/// A stream under "/missing" is not there; one under "/protected" is shown to the device's user.
ZR_ULONG own::LoopBack::describe(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const std::string url = textOf(request, AOI_IE_URL);
    if (url.find("/missing") != std::string::npos)
        return notFoundStatus;
    if (url.find("/protected") != std::string::npos && !authorized(request, url))
    {
        addText(answer, AOI_IE_AUTHORIZATION_ID, challengeLead, "Digest realm=\"loop-back\", nonce=\"" + nonce + "\"");
        return unauthorized;
    }
    addText(answer, AOI_IE_URL, 0, url);
    addText(answer, AOI_IE_CONTENT_BASE, 0, url.empty() || url.back() != '/' ? url + '/' : url);
    addText(answer, AOI_IE_SERVER, 0, "loop-back");
    addText(answer, AOI_IE_DATA, dataLead, description);
    return 0;
}
