#include "payload.h"

namespace zr::media {
namespace {

constexpr const char *shortFragment = "a fragment with nothing in it";

/// RFC 6184, 5.4
const char *whyNotH264(const uint8_t *payload, size_t size)
{
    switch (payload[0] & 31U)
    {
    case 26:
    case 27:
        return "units of an interleaved order (MTAP)";
    case 28:
        return size < 3 ? shortFragment : nullptr;
    case 29:
        return size < 5 ? shortFragment : nullptr;
    default:
        return nullptr;
    }
}

/// RFC 7798, 4.4
const char *whyNotH265(const uint8_t *payload, size_t size)
{
    switch (payload[0] >> 1U & 63U)
    {
    case 49:
        return size < 4 ? shortFragment : nullptr;
    case 50:
        return "a unit with extensions of its head (PACI)";
    default:
        return nullptr;
    }
}

} // namespace

const char *whyNotDepayable(const std::string &encoding, const uint8_t *payload, size_t size)
{
    if (size == 0)
    {
        return nullptr; // a sign of life, which goes no further
    }
    return encoding == "H264" ? whyNotH264(payload, size) : encoding == "H265" ? whyNotH265(payload, size) : nullptr;
}

} // namespace zr::media
