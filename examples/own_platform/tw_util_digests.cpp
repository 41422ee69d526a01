// The base utility library, second half: digest and Base64.

#include <algorithm>
#include <cstring>
#include <string>
#include <strings.h>

#include "md5.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG invalid = 2;

ZR_ULONG write(const std::string &hash, char *out)
{
    std::memcpy(out, hash.c_str(), hash.size() + 1);
    return 0;
}

} // namespace

// The digests: called inside AOIMsgPro on the delivery thread, when a challenge came. Write 33 bytes or, on failure,
// nothing; a failure makes the plug-in leave the challenge unanswered. Keep no credential.
ZR_ULONG TW_DigestCalcHA1(const char *pszAlg, const char *pszUserName, const char *pszRealm, const char *pszPassword,
                          const char *pszNonce, const char *pszCNonce, char *pszHA1)
{
    const bool session = strcasecmp(pszAlg, "md5-sess") == 0;
    if ((!session && strcasecmp(pszAlg, "MD5") != 0) || (session && (pszNonce == nullptr || pszCNonce == nullptr)))
        return invalid;
    const std::string user = own::md5(std::string(pszUserName) + ":" + pszRealm + ":" + pszPassword);
    return write(session ? own::md5(user + ":" + pszNonce + ":" + pszCNonce) : user, pszHA1);
}

// Called once for each method that will carry an Authorization; the plug-in itself passes no qop.
ZR_ULONG TW_DigestCalcResponse(const char *pszHA1, const char *pszNonce, const char *pszNonceCount,
                               const char *pszCNonce, const char *pszQop, const char *pszMethod,
                               const char *pszDigestUri, const char *pszHEntity, char *pszResponse)
{
    const std::string qop = pszQop == nullptr ? "" : pszQop;
    if (!qop.empty() && (pszNonceCount == nullptr || pszCNonce == nullptr))
        return invalid;
    std::string request = std::string(pszMethod) + ":" + pszDigestUri;
    if (strcasecmp(qop.c_str(), "auth-int") == 0)
        request += std::string(":") + pszHEntity;
    const std::string quality = qop.empty() ? "" : std::string(pszNonceCount) + ":" + pszCNonce + ":" + qop + ":";
    return write(own::md5(std::string(pszHA1) + ":" + pszNonce + ":" + quality + own::md5(request)), pszResponse);
}

// Called like the digests, for a challenge without a realm. The result has 128 bytes, zero included: cut what is too
// long, 93 bytes of input fit.
ZR_ULONG TW_VODstr2Base64(const char *pszIn, ZR_ULONG ulInLength, char *pszOut)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const ZR_ULONG length = std::min<ZR_ULONG>(ulInLength, 93);
    for (ZR_ULONG at = 0; at < length; at += 3)
    {
        uint32_t bits = 0;
        for (ZR_ULONG i = at; i < at + 3; ++i)
            bits = bits << 8 | (i < length ? static_cast<unsigned char>(pszIn[i]) : 0U);
        for (ZR_ULONG i = 0; i < 4; ++i)
            *pszOut++ = at + i > length ? '=' : digits[bits >> (18 - 6 * i) & 63];
    }
    *pszOut = '\0';
    return 0;
}
