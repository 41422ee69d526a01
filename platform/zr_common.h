/// @file
/// The common library: the log, a session's media parameters, and the marks of received media.
#pragma once

#include <memory>
#include <string>

#include "zr_msg_dispatch.h"
#include "zr_types.h"

/// How much a line of the log matters.
enum tagZrLogLevel : ZR_ULONG
{
    ZR_LOG_DEBUG = 1,
    ZR_LOG_INFO = 2,
    ZR_LOG_WARNING = 3,
    ZR_LOG_ERROR = 4
};

/// How a session passes a network address translator.
enum tagNatMode : ZR_ULONG
{
    NAT_MODE_NONE = 0,
    NAT_MODE_OUT = 1,
    NAT_MODE_IN = 2
};

/// Has the compiler check a format against its arguments, which are counted from 1.
#if defined(__GNUC__)
#define ZR_PRINTF_FORMAT(iFormat, iFirst) __attribute__((format(printf, iFormat, iFirst)))
#else
#define ZR_PRINTF_FORMAT(iFormat, iFirst)
#endif

/// The log of all in-house libraries.
class ZR_PLATFORM_API CZRWriteLog
{
public:
    /// Writes one line. Any thread; never throws and never fails visibly.
    /// @param ulCode    the status that is reported, 0 on information lines
    /// @param ulModule  the module's code, such as 0x6000003
    /// @param pszFile   the source's name, kept by the caller
    static void writeLog(tagZrLogLevel enLevel, ZR_ULONG ulCode, ZR_ULONG ulModule, const char *pszFile, int iLine,
                         const char *pszFormat, ...) ZR_PRINTF_FORMAT(6, 7);
};

/// The ONVIF part of a session's media parameters; a plain record, copied whole.
struct COnvifInfo
{
    std::string m_strOnvifURL;     ///< request URL without credentials: the digest URI
    ZR_ULONG m_ulTimeout = 0;      ///< session time-out in seconds, 0: none given
    std::string m_strVideoControl; ///< control URLs, by which tracks are set up; empty: no such track
    std::string m_strAudioControl; ///< likewise
    std::string m_strVideoRtpmap;  ///< of a=rtpmap (RFC 8866, 6.6) what stands before the clock rate, such as "96 H264"
    std::string m_strAudioRtpmap;  ///< likewise
    std::string m_strVideoSps;     ///< with its key "sprop-parameter-sets="
    std::string m_strUserName;     ///< empty: none were given
    std::string m_strPassword;     ///< its password
    std::string m_strRealm;        ///< of the last challenge; empty: Basic, or none
    std::string m_strNonce;        ///< likewise
    std::string m_strDescribeAuth; ///< the Authorization value of DESCRIBE; empty before a challenge, as the next ones
    std::string m_strSetupAuth;    ///< that of SETUP
    std::string m_strPlayAuth;     ///< that of PLAY
    std::string m_strOptionsAuth;  ///< that of OPTIONS
    std::string m_strTeardownAuth; ///< that of TEARDOWN
    ZR_ULONG m_ulPlayerInput = 0;  ///< 1: stream information goes to the player library, not to the local port
    tagBroadcastmethod m_enBroadcastMethod = BROADCASTMETHOD_NONE; ///< to how many the source sends
};

/// The media parameters of one session. Each get and set guards itself, so that several threads may use one object;
/// texts come back by value.
class ZR_PLATFORM_API CMediaAbility
{
public:
    CMediaAbility();
    /// Copies share nothing afterwards.
    CMediaAbility(const CMediaAbility &oOther);
    /// @copydoc CMediaAbility(const CMediaAbility &)
    CMediaAbility &operator=(const CMediaAbility &oOther);
    ~CMediaAbility();

    /// Readies the parameters for a session, and again: idempotent.
    /// @return 0, else a code
    ZR_ULONG init();
    /// Gives back what init took; without one it does nothing.
    void release();
    /// @return 1 when the decoder tag is "onvif", else 0
    ZR_ULONG isOnvif() const;

    /// @name Parameters
    /// @{

    /// The value as it was set last; empty or 0 before.
    std::string getServerIP() const;
    void setServerIP(const std::string &strServerIP);
    std::string getLocalIP() const;
    void setLocalIP(const std::string &strLocalIP);
    std::string getLocalUaID() const;
    void setLocalUaID(const std::string &strLocalUaID);
    std::string getRemoteUaID() const;
    void setRemoteUaID(const std::string &strRemoteUaID);
    std::string getSessionID() const;
    void setSessionID(const std::string &strSessionID);
    std::string getDecoderTag() const;
    void setDecoderTag(const std::string &strDecoderTag);
    std::string getDescribeRspSdp() const;
    void setDescribeRspSdp(const std::string &strDescribeRspSdp);
    std::string getNATSessionStr() const;
    void setNATSessionStr(const std::string &strNATSessionStr);
    std::string getTcpVodToTvServerIP() const;
    void setTcpVodToTvServerIP(const std::string &strTcpVodToTvServerIP);

    ZR_USHORT getServerPort() const;
    void setServerPort(ZR_USHORT usServerPort);
    ZR_USHORT getServerAudioPort() const;
    void setServerAudioPort(ZR_USHORT usServerAudioPort);
    ZR_USHORT getLocalPort() const;
    void setLocalPort(ZR_USHORT usLocalPort);
    ZR_USHORT getTcpVodToTvServerPort() const;
    void setTcpVodToTvServerPort(ZR_USHORT usTcpVodToTvServerPort);
    ZR_USHORT getTcpVodToTvServerAudioPort() const;
    void setTcpVodToTvServerAudioPort(ZR_USHORT usTcpVodToTvServerAudioPort);

    ZR_ULONG getPacketType() const;
    void setPacketType(ZR_ULONG ulPacketType);
    ZR_ULONG getTransportType() const;
    void setTransportType(ZR_ULONG ulTransportType);

    tagNatMode getNATMode() const;
    void setNATMode(tagNatMode enNATMode);

    COnvifInfo getOnvifInfo() const;
    void setOnvifInfo(const COnvifInfo &oOnvifInfo);
    /// @}

private:
    struct Values;
    std::unique_ptr<Values> m_poValues;
};

/// Whether media arrives, by media port identifier. Any thread; marking takes no lock.
class ZR_PLATFORM_API CJugeMediaKeepLive
{
public:
    /// Starts the check of a port afresh: nothing counts as received.
    static void RefreshMediaKeepLive(ZR_ULONG ulPortID);
    /// @return non-zero when packets arrived on the port since the last check
    static ZR_ULONG CheckIfRecvPkt(ZR_ULONG ulPortID);
};
