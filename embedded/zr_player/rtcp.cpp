#include "rtcp.h"

#include <algorithm>

namespace zr::media {

namespace {

constexpr uint8_t typeSenderReport = 200;
constexpr uint8_t typeReceiverReport = 201;
constexpr uint8_t typeSourceDescription = 202;
constexpr uint8_t typeBye = 203;
constexpr uint8_t typeLast = 207; // extended reports
constexpr uint8_t itemCname = 1;

void appendU32(std::vector<uint8_t> &out, uint32_t value)
{
    for (unsigned shift = 32; shift != 0;)
    {
        shift -= 8;
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

void appendHeader(std::vector<uint8_t> &out, size_t count, uint8_t type, size_t bytes)
{
    appendU32(out, static_cast<uint32_t>(0x80U | count) << 24 | static_cast<uint32_t>(type) << 16 |
                       static_cast<uint32_t>(bytes / 4 - 1));
}

/// Of a sender report. NTP counts seconds from 1900, which a zero instead of does not.
std::optional<SenderClock> readClock(const uint8_t *report)
{
    constexpr int64_t from1900To1970 = 2208988800;
    const uint32_t seconds = readU32(report + 8);
    const uint32_t fraction = readU32(report + 12);
    if (seconds == 0 && fraction == 0)
    {
        return std::nullopt;
    }
    const auto nanoseconds = static_cast<int64_t>(static_cast<uint64_t>(fraction) * 1000000000 >> 32U);
    return SenderClock{readU32(report + 4), readU32(report + 16),
                       (int64_t{seconds} - from1900To1970) * 1000000000 + nanoseconds};
}

void readPacket(const uint8_t *data, size_t size, RtcpReading &reading)
{
    const size_t count = data[0] & 0x1FU;
    if (data[1] == typeSenderReport && size >= 28)
    {
        reading.senderReport = {readU32(data + 4), readU32(data + 10), readClock(data)};
    }
    if (data[1] == typeBye)
    {
        for (size_t i = 0; i < count && 8 + 4 * i <= size; ++i)
        {
            reading.byes.push_back(readU32(data + 4 + 4 * i));
        }
    }
}

} // namespace

std::vector<uint8_t> writeReceiverReport(uint32_t ssrc, const ReportBlock *block, const std::string &cname)
{
    std::vector<uint8_t> out;
    appendHeader(out, block == nullptr ? 0 : 1, typeReceiverReport, block == nullptr ? 8 : 32);
    appendU32(out, ssrc);
    if (block != nullptr)
    {
        appendU32(out, block->ssrc);
        appendU32(out, static_cast<uint32_t>(block->fractionLost) << 24 |
                           (static_cast<uint32_t>(block->cumulativeLost) & 0xFFFFFFU));
        appendU32(out, block->highestSequence);
        appendU32(out, block->jitter);
        appendU32(out, block->lastSenderReport);
        appendU32(out, block->delaySinceLast);
    }
    const size_t length = std::min<size_t>(cname.size(), 255);
    // the item list ends with at least one zero, on a word's boundary
    const size_t chunk = (4 + 2 + length) / 4 * 4 + 4;
    appendHeader(out, 1, typeSourceDescription, 4 + chunk);
    const size_t start = out.size();
    appendU32(out, ssrc);
    out.push_back(itemCname);
    out.push_back(static_cast<uint8_t>(length));
    out.insert(out.end(), cname.begin(), cname.begin() + static_cast<std::ptrdiff_t>(length));
    out.resize(start + chunk);
    return out;
}

std::optional<RtcpReading> readRtcp(const uint8_t *data, size_t size)
{
    RtcpReading reading;
    for (size_t at = 0; at < size;)
    {
        if (size - at < 4 || data[at] >> 6 != 2)
        {
            return std::nullopt;
        }
        const size_t length = size_t{4} * (readU16(data + at + 2) + 1U);
        // a compound packet begins with a report; cameras that send a lone BYE are understood as well
        const bool known = data[at + 1] >= typeSenderReport && data[at + 1] <= typeLast;
        if (length > size - at || !known)
        {
            return std::nullopt;
        }
        readPacket(data + at, length, reading);
        at += length;
    }
    return size == 0 ? std::nullopt : std::optional<RtcpReading>(reading);
}

} // namespace zr::media
