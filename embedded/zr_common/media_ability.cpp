#include <mutex>
#include <string_view>

#include "zr_common.h"

namespace {

struct Fields
{
    std::string serverIp;
    std::string localIp;
    std::string localUaId;
    std::string remoteUaId;
    std::string sessionId;
    std::string decoderTag;
    std::string describeRspSdp;
    std::string natSessionStr;
    std::string tcpVodToTvServerIp;
    ZR_USHORT serverPort = 0;
    ZR_USHORT serverAudioPort = 0;
    ZR_USHORT localPort = 0;
    ZR_USHORT tcpVodToTvServerPort = 0;
    ZR_USHORT tcpVodToTvServerAudioPort = 0;
    ZR_ULONG packetType = 0;
    ZR_ULONG transportType = 0;
    tagNatMode natMode = NAT_MODE_NONE;
    COnvifInfo onvifInfo;
};

} // namespace

struct CMediaAbility::Values
{
    mutable std::mutex mutex; ///< guards the fields; two objects' are only taken together, by std::scoped_lock
    Fields fields;

    template <typename T>
    T get(T Fields::*field) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return fields.*field;
    }

    template <typename T>
    void set(T Fields::*field, const T &value)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        fields.*field = value;
    }
};

CMediaAbility::CMediaAbility()
    : m_poValues(std::make_unique<Values>())
{
}

CMediaAbility::CMediaAbility(const CMediaAbility &oOther)
    : CMediaAbility()
{
    const std::lock_guard<std::mutex> lock(oOther.m_poValues->mutex);
    m_poValues->fields = oOther.m_poValues->fields;
}

CMediaAbility &CMediaAbility::operator=(const CMediaAbility &oOther)
{
    if (this != &oOther)
    {
        const std::scoped_lock lock(m_poValues->mutex, oOther.m_poValues->mutex);
        m_poValues->fields = oOther.m_poValues->fields;
    }
    return *this;
}

CMediaAbility::~CMediaAbility() = default;

// The parameters are plain values with nothing behind them that a session would have to obtain or give back. Every
// value outlives both calls: init comes before each SETUP, the second track's of a playing session too, and the UA IDs
// are read after release.
ZR_ULONG CMediaAbility::init()
{
    return 0;
}

void CMediaAbility::release() {}

ZR_ULONG CMediaAbility::isOnvif() const
{
    const std::lock_guard<std::mutex> lock(m_poValues->mutex);
    return std::string_view(m_poValues->fields.decoderTag) == "onvif" ? 1 : 0;
}

std::string CMediaAbility::getServerIP() const
{
    return m_poValues->get(&Fields::serverIp);
}

void CMediaAbility::setServerIP(const std::string &strServerIP)
{
    m_poValues->set(&Fields::serverIp, strServerIP);
}

std::string CMediaAbility::getLocalIP() const
{
    return m_poValues->get(&Fields::localIp);
}

void CMediaAbility::setLocalIP(const std::string &strLocalIP)
{
    m_poValues->set(&Fields::localIp, strLocalIP);
}

std::string CMediaAbility::getLocalUaID() const
{
    return m_poValues->get(&Fields::localUaId);
}

void CMediaAbility::setLocalUaID(const std::string &strLocalUaID)
{
    m_poValues->set(&Fields::localUaId, strLocalUaID);
}

std::string CMediaAbility::getRemoteUaID() const
{
    return m_poValues->get(&Fields::remoteUaId);
}

void CMediaAbility::setRemoteUaID(const std::string &strRemoteUaID)
{
    m_poValues->set(&Fields::remoteUaId, strRemoteUaID);
}

std::string CMediaAbility::getSessionID() const
{
    return m_poValues->get(&Fields::sessionId);
}

void CMediaAbility::setSessionID(const std::string &strSessionID)
{
    m_poValues->set(&Fields::sessionId, strSessionID);
}

std::string CMediaAbility::getDecoderTag() const
{
    return m_poValues->get(&Fields::decoderTag);
}

void CMediaAbility::setDecoderTag(const std::string &strDecoderTag)
{
    m_poValues->set(&Fields::decoderTag, strDecoderTag);
}

std::string CMediaAbility::getDescribeRspSdp() const
{
    return m_poValues->get(&Fields::describeRspSdp);
}

void CMediaAbility::setDescribeRspSdp(const std::string &strDescribeRspSdp)
{
    m_poValues->set(&Fields::describeRspSdp, strDescribeRspSdp);
}

std::string CMediaAbility::getNATSessionStr() const
{
    return m_poValues->get(&Fields::natSessionStr);
}

void CMediaAbility::setNATSessionStr(const std::string &strNATSessionStr)
{
    m_poValues->set(&Fields::natSessionStr, strNATSessionStr);
}

std::string CMediaAbility::getTcpVodToTvServerIP() const
{
    return m_poValues->get(&Fields::tcpVodToTvServerIp);
}

void CMediaAbility::setTcpVodToTvServerIP(const std::string &strTcpVodToTvServerIP)
{
    m_poValues->set(&Fields::tcpVodToTvServerIp, strTcpVodToTvServerIP);
}

ZR_USHORT CMediaAbility::getServerPort() const
{
    return m_poValues->get(&Fields::serverPort);
}

void CMediaAbility::setServerPort(ZR_USHORT usServerPort)
{
    m_poValues->set(&Fields::serverPort, usServerPort);
}

ZR_USHORT CMediaAbility::getServerAudioPort() const
{
    return m_poValues->get(&Fields::serverAudioPort);
}

void CMediaAbility::setServerAudioPort(ZR_USHORT usServerAudioPort)
{
    m_poValues->set(&Fields::serverAudioPort, usServerAudioPort);
}

ZR_USHORT CMediaAbility::getLocalPort() const
{
    return m_poValues->get(&Fields::localPort);
}

void CMediaAbility::setLocalPort(ZR_USHORT usLocalPort)
{
    m_poValues->set(&Fields::localPort, usLocalPort);
}

ZR_USHORT CMediaAbility::getTcpVodToTvServerPort() const
{
    return m_poValues->get(&Fields::tcpVodToTvServerPort);
}

void CMediaAbility::setTcpVodToTvServerPort(ZR_USHORT usTcpVodToTvServerPort)
{
    m_poValues->set(&Fields::tcpVodToTvServerPort, usTcpVodToTvServerPort);
}

ZR_USHORT CMediaAbility::getTcpVodToTvServerAudioPort() const
{
    return m_poValues->get(&Fields::tcpVodToTvServerAudioPort);
}

void CMediaAbility::setTcpVodToTvServerAudioPort(ZR_USHORT usTcpVodToTvServerAudioPort)
{
    m_poValues->set(&Fields::tcpVodToTvServerAudioPort, usTcpVodToTvServerAudioPort);
}

ZR_ULONG CMediaAbility::getPacketType() const
{
    return m_poValues->get(&Fields::packetType);
}

void CMediaAbility::setPacketType(ZR_ULONG ulPacketType)
{
    m_poValues->set(&Fields::packetType, ulPacketType);
}

ZR_ULONG CMediaAbility::getTransportType() const
{
    return m_poValues->get(&Fields::transportType);
}

void CMediaAbility::setTransportType(ZR_ULONG ulTransportType)
{
    m_poValues->set(&Fields::transportType, ulTransportType);
}

tagNatMode CMediaAbility::getNATMode() const
{
    return m_poValues->get(&Fields::natMode);
}

void CMediaAbility::setNATMode(tagNatMode enNATMode)
{
    m_poValues->set(&Fields::natMode, enNATMode);
}

COnvifInfo CMediaAbility::getOnvifInfo() const
{
    return m_poValues->get(&Fields::onvifInfo);
}

void CMediaAbility::setOnvifInfo(const COnvifInfo &oOnvifInfo)
{
    m_poValues->set(&Fields::onvifInfo, oOnvifInfo);
}
