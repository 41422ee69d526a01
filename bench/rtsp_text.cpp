#include "rtsp_text.h"

#include <array>
#include <stdexcept>

#include <openssl/evp.h>

namespace text {

std::string md5(std::string_view bytes)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned size = 0;
    EVP_Digest(bytes.data(), bytes.size(), hash.data(), &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < size; ++i)
    {
        constexpr char digits[] = "0123456789abcdef";
        hex += digits[hash.at(i) >> 4U];
        hex += digits[hash.at(i) & 0xFU];
    }
    return hex;
}

std::string_view behind(std::string_view whole, std::string_view key, const char *ends)
{
    const size_t at = whole.find(key);
    if (at == std::string_view::npos)
        return {};
    const std::string_view rest = whole.substr(at + key.size());
    return rest.substr(0, rest.find_first_of(ends));
}

std::string digestResponse(const std::string &ha1, const std::string &nonce, std::string_view method,
                           const std::string &uri)
{
    return md5(ha1 + ':' + nonce + ':' + md5(std::string(method) + ':' + uri));
}

std::string controlUrl(std::string_view sdp, const std::string &base, unsigned track)
{
    size_t at = 0;
    for (unsigned i = 0; i <= track; ++i)
    {
        at = sdp.find("\nm=", at);
        if (at == std::string_view::npos)
            throw std::runtime_error("the description names too few tracks");
        ++at;
    }
    const std::string_view section = sdp.substr(at, sdp.find("\nm=", at) - at);
    const std::string_view control = behind(section, "a=control:", "\r\n");
    if (control.empty())
        throw std::runtime_error("a track of the description has no control");
    return control.find("://") != std::string_view::npos ? std::string(control)
                                                         : std::string(base).append("/").append(control);
}

} // namespace text
