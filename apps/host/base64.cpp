#include "base64.h"

#include <vector>

#include <openssl/evp.h>

namespace zr::host {
namespace {

constexpr size_t longestText = 1 << 20;

} // namespace

std::optional<std::string> fromBase64(const std::string &text)
{
    std::string padded = text.substr(0, text.find('='));
    const size_t size = padded.size() * 3 / 4;
    padded.resize((padded.size() + 3) / 4 * 4, '=');
    if (padded.size() > longestText)
    {
        return std::nullopt;
    }
    std::vector<unsigned char> bytes(padded.size() / 4 * 3 + 1);
    const int decoded = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char *>(padded.data()),
                                        static_cast<int>(padded.size()));
    return decoded < static_cast<int>(size)
               ? std::nullopt
               : std::optional<std::string>(std::in_place, bytes.begin(), bytes.begin() + static_cast<long>(size));
}

std::string toBase64(const std::string &bytes)
{
    std::vector<unsigned char> text((bytes.size() + 2) / 3 * 4 + 1);
    const int size = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char *>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    return {text.begin(), text.begin() + size};
}

} // namespace zr::host
