// The player library, as far as the plug-in calls it. The loop-back sends no media, so that there is nothing to play.

#include "zr_player.h"

// Called by play(), on the host's thread and outside the session's lock, for an ONVIF session whose media comes
// interleaved or whose COnvifInfo::m_ulPlayerInput is 1. The packet stays the caller's: copy the text, which begins
// behind the 16 bytes of header, as "VRMP:...;ARMP:...;SPS:...;". Return 0 also for a port that nobody opened; anything
// else is play()'s result, and PLAY is not sent.
int PlayerInputOnvifRtpInfo(ZR_ULONG /*ulPortID*/, const unsigned char *pucPacket, ZR_ULONG ulLen)
{
    constexpr ZR_ULONG headerSize = 16;
    const bool information = pucPacket != nullptr && ulLen >= headerSize && pucPacket[0] == 0x90 && pucPacket[1] == 1;
    return information ? 0 : 2;
}
