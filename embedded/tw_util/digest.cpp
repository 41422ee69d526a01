#include "digest.h"

#include <algorithm>
#include <array>
#include <map>
#include <mutex>
#include <utility>

#include <strings.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "platform_log.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG codeFailed = 1; ///< the cryptographic library refuses (MD5 is not allowed everywhere)
constexpr ZR_ULONG codeInvalid = 2;

constexpr size_t hashText = 33;      ///< 32 digits and the zero
constexpr ZR_ULONG base64Input = 93; ///< what 128 bytes with the zero hold

bool anyNull(std::initializer_list<const char *> texts)
{
    return std::any_of(texts.begin(), texts.end(), [](const char *text) { return text == nullptr; });
}

/// MD5 of the fields joined by colons, as text; the output is written only on success.
ZR_ULONG hash(std::initializer_list<std::string_view> fields, char *out)
{
    const zr::util::SecretText digest(zr::util::hexDigest("MD5", fields).value_or(std::string()));
    if (digest.text().empty())
        return codeFailed;
    out[digest.text().copy(out, hashText - 1)] = '\0';
    return 0;
}

/// An algorithm of the cryptographic library. It is looked up once, which costs as much as a digest.
/// @return null when the library does not have it, now
const EVP_MD *algorithmOf(const std::string &name)
{
    static std::mutex mutex;                                                              // guards the next
    static std::map<std::string, EVP_MD *> &found = *new std::map<std::string, EVP_MD *>; // used until the process ends
    const std::lock_guard<std::mutex> lock(mutex);
    const auto known = found.find(name);
    if (known != found.end())
        return known->second;
    EVP_MD *const fetched = EVP_MD_fetch(nullptr, name.c_str(), nullptr);
    if (fetched)
        found.emplace(name, fetched);
    return fetched;
}

} // namespace

std::string zr::util::randomHex(size_t size)
{
    std::array<unsigned char, 32> bytes{};
    if (size > bytes.size() || RAND_bytes(bytes.data(), static_cast<int>(size)) != 1)
        return {};
    return hex(bytes.data(), size);
}

zr::util::SecretText::SecretText(std::string text)
    : m_text(std::move(text))
{
}

zr::util::SecretText::SecretText(std::initializer_list<std::string_view> fields)
{
    size_t length = 0;
    for (const std::string_view field : fields)
        length += field.size() + 1;
    m_text.reserve(length); // so that it is never moved
    for (const std::string_view field : fields)
        m_text.append(field).append(1, ':');
    m_text.pop_back();
}

zr::util::SecretText::~SecretText()
{
    OPENSSL_cleanse(m_text.data(), m_text.size());
}

std::string zr::util::hex(const unsigned char *bytes, size_t size)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(2 * size, '\0');
    for (size_t i = 0; i < size; ++i)
    {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 15];
    }
    return text;
}

std::optional<std::string> zr::util::hexDigest(const char *algorithm, std::initializer_list<std::string_view> fields)
{
    const SecretText joined(fields);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    const EVP_MD *const method = algorithmOf(algorithm);
    if (!method || EVP_Digest(joined.text().data(), joined.text().size(), digest.data(), &length, method, nullptr) != 1)
    {
        ZR_PLATFORM_LOG(ERROR, codeFailed, Util, "[hexDigest] %s is not available in the cryptographic library",
                        algorithm);
        return std::nullopt;
    }
    std::string text = hex(digest.data(), length);
    OPENSSL_cleanse(digest.data(), digest.size());
    return text;
}

ZR_ULONG TW_DigestCalcHA1(const char *pszAlg, const char *pszUserName, const char *pszRealm, const char *pszPassword,
                          const char *pszNonce, const char *pszCNonce, char *pszHA1)
{
    if (anyNull({pszAlg, pszUserName, pszRealm, pszPassword, pszHA1}))
        return codeInvalid;
    const bool session = strcasecmp(pszAlg, "md5-sess") == 0;
    if ((!session && strcasecmp(pszAlg, "MD5") != 0) || (session && anyNull({pszNonce, pszCNonce})))
        return codeInvalid;
    if (!session)
        return hash({pszUserName, pszRealm, pszPassword}, pszHA1);
    std::array<char, hashText> user{};
    const ZR_ULONG result = hash({pszUserName, pszRealm, pszPassword}, user.data());
    const ZR_ULONG combined = result != 0 ? result : hash({user.data(), pszNonce, pszCNonce}, pszHA1);
    OPENSSL_cleanse(user.data(), user.size());
    return combined;
}

ZR_ULONG TW_DigestCalcResponse(const char *pszHA1, const char *pszNonce, const char *pszNonceCount,
                               const char *pszCNonce, const char *pszQop, const char *pszMethod,
                               const char *pszDigestUri, const char *pszHEntity, char *pszResponse)
{
    if (anyNull({pszHA1, pszNonce, pszMethod, pszDigestUri, pszResponse}))
        return codeInvalid;
    const bool plain = pszQop == nullptr || *pszQop == '\0';
    const bool integrity = !plain && strcasecmp(pszQop, "auth-int") == 0;
    if (!plain && ((!integrity && strcasecmp(pszQop, "auth") != 0) || anyNull({pszNonceCount, pszCNonce}) ||
                   (integrity && pszHEntity == nullptr)))
        return codeInvalid;

    std::array<char, hashText> ha2{};
    const ZR_ULONG result = integrity ? hash({pszMethod, pszDigestUri, pszHEntity}, ha2.data())
                                      : hash({pszMethod, pszDigestUri}, ha2.data());
    if (result != 0)
        return result;
    return plain ? hash({pszHA1, pszNonce, ha2.data()}, pszResponse)
                 : hash({pszHA1, pszNonce, pszNonceCount, pszCNonce, pszQop, ha2.data()}, pszResponse);
}

ZR_ULONG TW_VODstr2Base64(const char *pszIn, ZR_ULONG ulInLength, char *pszOut)
{
    if (pszOut == nullptr || (pszIn == nullptr && ulInLength > 0))
        return codeInvalid;
    if (ulInLength > base64Input)
        ZR_PLATFORM_LOG(WARNING, 0, Util, "[TW_VODstr2Base64] of %u bytes only the first %u fit into the result",
                        ulInLength, base64Input);
    const ZR_ULONG taken = std::min(ulInLength, base64Input);
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(pszOut), reinterpret_cast<const unsigned char *>(pszIn),
                    static_cast<int>(taken));
    return 0;
}
