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

std::string withoutCredentials(const std::string &text)
{
    const size_t scheme = text.find("://");
    const size_t at = text.rfind('@');
    const bool user = scheme != std::string::npos && at != std::string::npos && scheme + 3 <= at;
    return shown(user ? text.substr(0, scheme + 3) + "***" + text.substr(at) : text);
}

} // namespace zr::host
