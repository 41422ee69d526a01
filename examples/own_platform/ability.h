/// @file
/// What a session's media parameters are made of.
#pragma once

#include <mutex>
#include <string>

#include "zr_common.h"

namespace own {

struct AbilityFields
{
    std::string ServerIP, LocalIP, LocalUaID, RemoteUaID, SessionID, DecoderTag, DescribeRspSdp, NATSessionStr,
        TcpVodToTvServerIP;
    ZR_USHORT ServerPort = 0, ServerAudioPort = 0, LocalPort = 0, TcpVodToTvServerPort = 0,
              TcpVodToTvServerAudioPort = 0;
    ZR_ULONG PacketType = 0, TransportType = 0;
    tagNatMode NATMode = NAT_MODE_NONE;
    COnvifInfo OnvifInfo;
};

} // namespace own

struct CMediaAbility::Values
{
    mutable std::mutex mutex; ///< guards the fields
    own::AbilityFields fields;

    own::AbilityFields copy() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return fields;
    }
};
