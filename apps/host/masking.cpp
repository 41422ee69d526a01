#include "masking.h"

#include "zr_platform.h"

namespace zr::host {

std::string shown(const std::string &text)
{
    std::string safe(text.size() + 64, '\0'); // stars may be longer than what they stand for
    const auto mask = [&] {
        return ZR_TextMask(text.data(), static_cast<ZR_ULONG>(text.size()), safe.data(),
                           static_cast<ZR_ULONG>(safe.size()));
    };
    size_t length = mask();
    while (length > safe.size()) // again where another secret came to be hidden in between
    {
        safe.resize(length);
        length = mask();
    }
    safe.resize(length);
    return safe;
}

std::vector<std::string> secretsIn(const std::string &text)
{
    const std::string stars = "***";
    const std::string safe = shown(text);
    std::vector<std::string> secrets;
    size_t told = 0; // of both, as far as they are alike
    size_t at = 0;
    for (size_t mask = safe.find(stars); mask != std::string::npos; mask = safe.find(stars, told))
    {
        at += mask - told;
        told = mask + stars.size();
        const std::string behind = safe.substr(told, safe.find(stars, told) - told);
        const size_t end = behind.empty() ? text.size() : text.find(behind, at);
        if (end == std::string::npos)
        {
            break; // the stars are the text's own
        }
        secrets.push_back(text.substr(at, end - at));
        at = end;
    }
    return secrets;
}

std::string withoutCredentials(const std::string &text)
{
    const size_t scheme = text.find("://");
    const size_t at = text.rfind('@');
    const bool user = scheme != std::string::npos && at != std::string::npos && scheme + 3 <= at;
    return shown(user ? text.substr(0, scheme + 3) + "***" + text.substr(at) : text);
}

} // namespace zr::host
