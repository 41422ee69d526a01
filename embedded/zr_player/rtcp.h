/// @file
/// RTCP as a receiver writes and reads it (RFC 3550, 6).
#pragma once

#include <string>
#include <vector>

#include "rtp.h"

namespace zr::media {

/// What the wall clock of a sender showed at an RTP timestamp (RFC 3550, 6.4.1).
struct SenderClock
{
    uint32_t ssrc = 0;
    uint32_t timestamp = 0;
    int64_t unixNs = 0; ///< since 1970; before 2001 where it counts from elsewhere, such as the device's start
};

/// A compound packet: a receiver report and the CNAME.
/// @param ssrc   the receiver's own
/// @param block  null: an empty report
std::vector<uint8_t> writeReceiverReport(uint32_t ssrc, const ReportBlock *block, const std::string &cname);

/// What a receiver reads of a compound packet.
struct RtcpReading
{
    struct SenderReport
    {
        uint32_t ssrc = 0;
        uint32_t ntpMiddle = 0;
        std::optional<SenderClock> clock; ///< none: it has none
    };
    std::optional<SenderReport> senderReport;
    std::vector<uint32_t> byes; ///< sources that left
};

/// @return none when a length does not add up or a packet's type is not RTCP's (RFC 3550, A.2)
std::optional<RtcpReading> readRtcp(const uint8_t *data, size_t size);

} // namespace zr::media
