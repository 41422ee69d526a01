#include "g726.h"

namespace zr::media {

unsigned codeBitsOf(const std::string &encoding)
{
    if (encoding.rfind("G726", 0) != 0)
    {
        return 0;
    }
    return encoding == "G726-16" ? 2 : encoding == "G726-24" ? 3 : encoding == "G726-40" ? 5 : 4;
}

void packAnew(GstBuffer *buffer, unsigned bits)
{
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READWRITE) == FALSE)
    {
        return;
    }
    for (size_t at = 0; at + bits <= map.size; at += bits) // eight codes
    {
        uint64_t codes = 0;
        uint64_t packed = 0;
        for (size_t i = 0; i < bits; ++i)
        {
            codes |= uint64_t{map.data[at + i]} << (8 * i);
        }
        for (unsigned i = 0; i < 8; ++i)
        {
            packed = packed << bits | (codes >> (i * bits) & ((1U << bits) - 1));
        }
        for (size_t i = bits; i > 0; --i)
        {
            map.data[at + i - 1] = static_cast<uint8_t>(packed);
            packed >>= 8U;
        }
    }
    gst_buffer_unmap(buffer, &map);
}

} // namespace zr::media
