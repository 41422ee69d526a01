// The hand-off of an ONVIF source's stream information to the local player.

#include "rtsp_mediactrl.h"

#include <algorithm>
#include <iterator>
#include <netinet/in.h>
#include <string_view>
#include <utility>

#include "tw_system.h"
#include "zr_player.h"

namespace {

const char g_szSendOnvifRtp[] = "CRtspMediaCtrl::sendOnvifRtp";

constexpr ZR_ULONG HEADER_SIZE = 16;

/// The information as one RTP packet whose header extension holds the text (RFC 3550, 5.3.1).
struct tagInfoPacket
{
    unsigned char aucBytes[640] = {};
    ZR_ULONG ulLen = 0;
};

/// The pieces whose source is there, one after the other; one that does not fit any more is left out.
std::string infoText(const COnvifInfo &oInfo)
{
    const std::pair<std::string_view, const std::string &> aPieces[] = {
        {"VRMP:", oInfo.m_strVideoRtpmap},
        {"ARMP:", oInfo.m_strAudioRtpmap},
        {"SPS:", oInfo.m_strVideoSps},
    };
    constexpr size_t ulRoom = sizeof(tagInfoPacket::aucBytes) - HEADER_SIZE;
    std::string strText;
    strText.reserve(ulRoom);
    for (const auto &[strKey, strValue] : aPieces)
    {
        if (strValue.empty())
            continue;
        if (strText.size() + strKey.size() + strValue.size() + 1 <= ulRoom)
            strText.append(strKey).append(strValue).append(";");
        else
            RTSP_HANDOFF_LOG(WARNING, ZR_RTSP_INVALID_PARAMETER,
                             "[%s] left out of the onvif rtp info, it does not fit: %s of %u bytes", g_szSendOnvifRtp,
                             strKey.data(), static_cast<ZR_ULONG>(strValue.size()));
    }
    return strText;
}

tagInfoPacket infoPacket(const COnvifInfo &oInfo)
{
    // sequence number, timestamp and SSRC are 10000 in little-endian order; only the extension's length, in 32-bit
    // words, is in network order
    static const unsigned char aucHeader[HEADER_SIZE - 2] = {0x90, 0x01, 0x10, 0x27, 0x10, 0x27, 0x00,
                                                             0x00, 0x10, 0x27, 0x00, 0x00, 0x00, 0x00};
    const std::string strText = infoText(oInfo);
    const size_t ulWords = (strText.size() + 3) / 4;
    tagInfoPacket stPacket;
    std::copy(std::begin(aucHeader), std::end(aucHeader), stPacket.aucBytes);
    stPacket.aucBytes[14] = static_cast<unsigned char>(ulWords >> 8);
    stPacket.aucBytes[15] = static_cast<unsigned char>(ulWords & 0xFF);
    std::copy(strText.begin(), strText.end(), stPacket.aucBytes + HEADER_SIZE);
    stPacket.ulLen = static_cast<ZR_ULONG>(HEADER_SIZE + 4 * ulWords);
    return stPacket;
}

/// Sends the packet to the session's local port. What cannot be sent is lost, and stops nothing.
/// @return 0; 4 without a socket
ZR_ULONG sendToLocalPort(const tagInfoPacket &stPacket, const std::string &strLocalIP, ZR_USHORT usLocalPort)
{
    constexpr int IPV4 = 2;
    constexpr int DATAGRAM = 2;
    const CNoCancellation oNoCancellation; // it would leak the socket
    const int iSocket = VELK_socket(IPV4, DATAGRAM, 0);
    if (iSocket < 0)
    {
        RTSP_HANDOFF_LOG(ERROR, ZR_RTSP_NO_SOCKET, "[%s] create socket error, system error is %d", g_szSendOnvifRtp,
                         VELK_getlasterr());
        return ZR_RTSP_NO_SOCKET;
    }
    sockaddr_in stTo = {};
    stTo.sin_family = IPV4;
    stTo.sin_port = VELK_htons(usLocalPort);
    stTo.sin_addr.s_addr = VELK_inet_addr(strLocalIP.c_str());
    static_assert(sizeof stTo == 16, "an IPv4 address record has 16 bytes");

    const unsigned char *pucNext = stPacket.aucBytes;
    int iRemaining = static_cast<int>(stPacket.ulLen);
    while (iRemaining >= 1)
    {
        const int iSent = VELK_sendto(iSocket, pucNext, iRemaining, 0, reinterpret_cast<const sockaddr *>(&stTo),
                                      static_cast<int>(sizeof stTo));
        if (iSent < 0)
            RTSP_HANDOFF_LOG(ERROR, ZR_RTSP_NO_SOCKET, "[%s] Send data error, system error is %d", g_szSendOnvifRtp,
                             VELK_getlasterr());
        if (iSent <= 0)
            break;
        iRemaining -= iSent;
        pucNext += iSent;
    }
    VELK_closesocket(iSocket);
    return ZR_RTSP_OK;
}

} // namespace

/// @return 0, also when there is nothing to do; the player library's refusal; 4 without a socket
ZR_ULONG CRtspMediaCtrl::sendOnvifRtp()
{
    if (m_oMediaAbility.isOnvif() != 1)
        return ZR_RTSP_OK;
    const COnvifInfo oInfo = m_oMediaAbility.getOnvifInfo();
    const tagInfoPacket stPacket = infoPacket(oInfo);
    if (m_enProtocol != PROTOCOL_TCP && oInfo.m_ulPlayerInput != 1)
        return sendToLocalPort(stPacket, m_oMediaAbility.getLocalIP(), m_oMediaAbility.getLocalPort());

    const int iResult = PlayerInputOnvifRtpInfo(m_ulPortID, stPacket.aucBytes, stPacket.ulLen);
    if (iResult != 0)
        RTSP_HANDOFF_LOG(ERROR, static_cast<ZR_ULONG>(iResult),
                         "[%s] Input onvif rtp info data failed, error code is %d", g_szSendOnvifRtp, iResult);
    return static_cast<ZR_ULONG>(iResult);
}
