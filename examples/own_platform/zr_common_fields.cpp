// The common library, last third: the media parameters' getters and setters. They guard themselves, and cannot fail.

#include "ability.h"

// NOLINTBEGIN(bugprone-macro-parentheses): types and names stand in no parentheses
#define OWN_FIELD(Type, Name, Argument)                                                                                \
    Type CMediaAbility::get##Name() const                                                                              \
    {                                                                                                                  \
        const std::lock_guard<std::mutex> lock(m_poValues->mutex);                                                     \
        return m_poValues->fields.Name;                                                                                \
    }                                                                                                                  \
    void CMediaAbility::set##Name(Argument value)                                                                      \
    {                                                                                                                  \
        const std::lock_guard<std::mutex> lock(m_poValues->mutex);                                                     \
        m_poValues->fields.Name = value;                                                                               \
    }
// NOLINTEND(bugprone-macro-parentheses)

OWN_FIELD(std::string, ServerIP, const std::string &)
OWN_FIELD(std::string, LocalIP, const std::string &)
OWN_FIELD(std::string, LocalUaID, const std::string &)
OWN_FIELD(std::string, RemoteUaID, const std::string &)
OWN_FIELD(std::string, SessionID, const std::string &)
OWN_FIELD(std::string, DecoderTag, const std::string &)
OWN_FIELD(std::string, DescribeRspSdp, const std::string &)
OWN_FIELD(std::string, NATSessionStr, const std::string &)
OWN_FIELD(std::string, TcpVodToTvServerIP, const std::string &)
OWN_FIELD(ZR_USHORT, ServerPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, ServerAudioPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, LocalPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, TcpVodToTvServerPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, TcpVodToTvServerAudioPort, ZR_USHORT)
OWN_FIELD(ZR_ULONG, PacketType, ZR_ULONG)
OWN_FIELD(ZR_ULONG, TransportType, ZR_ULONG)
OWN_FIELD(tagNatMode, NATMode, tagNatMode)
OWN_FIELD(COnvifInfo, OnvifInfo, const COnvifInfo &)
#undef OWN_FIELD
