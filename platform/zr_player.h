/// @file
/// The player library, as far as the plug-in calls it.
#pragma once

#include "zr_types.h"

/// Takes ONVIF stream information for a media port (exported as ordinal 14 where libraries have ordinals).
/// @param ulPortID   the media port's identifier
/// @param pucPacket  an RTP packet of payload type 1 whose header extension holds the text
/// @param ulLen      its length in bytes
/// @return 0 when it was taken, or when nobody opened that port; else a code
/// Any thread; the packet stays the caller's.
ZR_PLATFORM_API int PlayerInputOnvifRtpInfo(ZR_ULONG ulPortID, const unsigned char *pucPacket, ZR_ULONG ulLen);
