/// @file
/// The message-dispatch library: AOI messages, their information elements (IEs), and the dispatcher that turns them
/// into RTSP (RFC 2326) on the wire.
#pragma once

#include <string>

#include "velk_mdp.h"
#include "zr_types.h"

/// Message identifiers. "PARAMERTER" and "ADMINSSION" are the platform's names.
enum : ZR_ULONG
{
    AOI_MSG_RTSP_SETUP = 0x06010000,
    AOI_MSG_RTSP_PLAY = 0x06020000,
    AOI_MSG_RTSP_PAUSE = 0x06030000,
    AOI_MSG_RTSP_TEARDOWN = 0x06040000,
    AOI_MSG_RTSP_OPTIONS = 0x06050000,
    AOI_MSG_RTSP_DESCRIBE = 0x06060000,
    AOI_MSG_RTSP_SET_PARAMERTER = 0x06070000,
    AOI_MSG_RTSP_ADMINSSION_ANNOUNCE = 0x06080300, ///< received only: the server ends the session
    AOI_MSG_INTERNAL_NOTIFY_RTSP = 0x0A010400,     ///< received only: the platform's notice about the session
};

/// Identifiers of IEs. Only the first two are ever passed to MDP_GetMsgIE by the plug-in; the rest are read and written
/// through CAOIIETool.
enum : ZR_ULONG
{
    AOI_IE_DATA = 2560,              ///< 84 bytes, then the body's text and a zero
    AOI_IE_AUTHORIZATION_ID = 10240, ///< 8 bytes, then the challenge's text and a zero
    AOI_IE_URL = 2561,
    AOI_IE_SESSION_ID = 2562,
    AOI_IE_SRC_UA_ID = 2563,
    AOI_IE_DST_UA_ID = 2564,
    AOI_IE_TRANSPORT = 2565,
    AOI_IE_METHOD_TRANSPORT = 2566, ///< the transport of one broadcast method
    AOI_IE_SCALE = 2567,
    AOI_IE_RANGE_TIME = 2568,
    AOI_IE_RANGE = 2569,
    AOI_IE_USER_AGENT = 2570,
    AOI_IE_ACCEPT = 2571,
    AOI_IE_ERRCODE = 2572,
    AOI_IE_QUIT_REASON = 2573,
    AOI_IE_SESSION_ACTION = 2574,
    AOI_IE_CONTENT_BASE = 2575,
    AOI_IE_SERVER = 2576,
};

/// How media travels: RTP over UDP, or RTP interleaved in the RTSP connection (RFC 2326, 10.12).
enum tagProtocol : ZR_ULONG
{
    PROTOCOL_UDP = 0,
    PROTOCOL_TCP = 1
};

/// To how many a server sends.
enum tagBroadcastmethod : ZR_ULONG
{
    BROADCASTMETHOD_UNICAST = 0,
    BROADCASTMETHOD_MULTICAST = 1,
    BROADCASTMETHOD_NONE = 0xFFFFFFFF
};

/// Why a server ends a session: 2001, 2002 and 2003 are legal.
enum tagAOIIEQuitReason : ZR_ULONG
{
};

/// What happened to a session: 1 says that it is lost.
enum tagAOIIERtspActionType : ZR_ULONG
{
};

/// Receives messages; implemented by the plug-in's objects.
class ZR_PLATFORM_API CIAOIMsgProc
{
public:
    /// Takes one message.
    /// @param pstAOIMsg  the message, the platform's, valid during the call only
    /// @return 0 when it was handled, else why not
    /// Called on one of the platform's threads; messages of one registration come one after the other.
    virtual ZR_ULONG AOIMsgPro(tagAOIMsg *pstAOIMsg) = 0;
    virtual ~CIAOIMsgProc() {}
};

/// The dispatcher. It belongs to the platform and outlives ZR_MSGDISP_Destroy; its operations fail from then on.
/// Any thread may call them.
class ZR_PLATFORM_API CIAOIMsgDisp
{
public:
    /// Sends a request. Never resolves, connects or blocks, and never calls AOIMsgPro from inside.
    /// @param pstMDPMsg  the message; what is needed of it is copied, the caller frees it right after the call
    /// @return 0 when it was accepted, else a code
    virtual ZR_ULONG sendAOIMsg(tagMDPMsg *pstMDPMsg) = 0;

    /// Makes a processor the receiver of the messages addressed to an identifier.
    /// @param ulID    neither 0 nor 0xFFFFFFFF, and not in use
    /// @param poProc  the processor; it stays the caller's and must live until it was unregistered
    /// @return 0, else a code
    virtual ZR_ULONG registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc) = 0;

    /// Ends that. When it returns, no call into the processor is running or will begin; from inside such a call, or on
    /// the timer's thread, it does not wait: nothing new begins.
    /// @return 0, else a code (no such registration)
    virtual ZR_ULONG unregisterAOIMsgProc(ZR_ULONG ulID) = 0;

protected:
    ~CIAOIMsgDisp() {}
};

/// Builds and reads AOI messages. Every add and get returns 0, or a code and then has changed nothing; an add refuses
/// what does not fit into the message and texts with CR, LF or NUL. Any thread; a message belongs to one thread at a
/// time.
class ZR_PLATFORM_API CAOIIETool
{
public:
    /// @param ulSize  the message's size in bytes, header included
    /// @return a message without IEs, the caller's, released by VELK_free; NULL when there is no memory
    static tagMDPMsg *mallocAOIMsg(ZR_ULONG ulSize);
    /// Fills the header of a request.
    static void genAOIMsgHeader(ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, ZR_ULONG ulDstID, tagMDPMsgHeader &stHeader);

    /// The request URL; a control URL may have been joined to its base.
    static ZR_ULONG addAOIIEURL(const std::string &strURL, tagAOIMsg *pstAOIMsg);
    /// The Session header (RFC 2326, 12.37); empty: none.
    static ZR_ULONG addAOIIESessionID(const std::string &strSessionID, tagAOIMsg *pstAOIMsg);
    /// The local user agent; with the remote one it finds the route, and is not sent.
    /// @param ulOnvif  1 for a session with an ONVIF device
    static ZR_ULONG addAOIIESrcUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG ulOnvif);
    /// The remote user agent, likewise.
    static ZR_ULONG addAOIIEDstUaID(const std::string &strUaID, tagAOIMsg *pstAOIMsg, ZR_ULONG ulOnvif);
    /// The transport of the relation to a TV wall.
    static ZR_ULONG addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                      tagAOIMsg *pstAOIMsg, ZR_ULONG ulReserved);
    /// The transport of the session itself.
    /// @param strIP   the local address; empty for multicast
    /// @param usPort  the first of the local ports (RTP of the first track)
    static ZR_ULONG addAOIIETransport(const std::string &strIP, ZR_USHORT usPort, tagProtocol enProtocol,
                                      tagBroadcastmethod enMethod, tagAOIMsg *pstAOIMsg, ZR_ULONG ulReserved);
    /// The Scale header (RFC 2326, 12.34); 0: none.
    static ZR_ULONG addAOIIEScale(float fScale, tagAOIMsg *pstAOIMsg);
    /// The Range header (RFC 2326, 12.29); both empty: none.
    /// @param strBegin, strEnd  seconds, "now", hh:mm:ss, YYYYMMDDThhmmss[.f]Z, or a Range value with its "="; may be
    /// empty
    static ZR_ULONG addAOIIERangetime(const std::string &strBegin, const std::string &strEnd, tagAOIMsg *pstAOIMsg);
    /// The Authorization header's value, a secret; empty: none.
    static ZR_ULONG addAOIIEAuth(const std::string &strAuth, tagAOIMsg *pstAOIMsg);
    /// The User-Agent header, with the text given to ZR_MSGDISP_Init.
    static ZR_ULONG addAOIIEUserAgent(tagAOIMsg *pstAOIMsg);
    /// The Accept header: application/sdp.
    static ZR_ULONG addAOIIEAccept(tagAOIMsg *pstAOIMsg);

    /// @param strSessionID  receives the session's ID
    static ZR_ULONG getAOIIESessionID(const tagAOIMsg *pstAOIMsg, std::string &strSessionID);
    /// @param ulErrcode  receives the RTSP status of a failure answer
    static ZR_ULONG getAOIIEErrcode(const tagAOIMsg *pstAOIMsg, ZR_ULONG &ulErrcode);
    /// Where the server sends from: its address and first port.
    static ZR_ULONG getAOIIETransport(const tagAOIMsg *pstAOIMsg, std::string &strIP, ZR_USHORT &usPort);
    /// The same of one broadcast method; of multicast the group and its port.
    static ZR_ULONG getAOIIETransport(const tagAOIMsg *pstAOIMsg, tagBroadcastmethod enMethod, std::string &strIP,
                                      ZR_USHORT &usPort);
    /// @param strRange  receives where it plays now, as a Range value
    static ZR_ULONG getAOIIERange(const tagAOIMsg *pstAOIMsg, std::string &strRange);
    /// @param enReason  receives why the server ends the session
    static ZR_ULONG getAOIIEQuitReason(const tagAOIMsg *pstAOIMsg, tagAOIIEQuitReason &enReason);
    /// @param enAction  receives what happened to the session
    static ZR_ULONG getAOIIESAction(const tagAOIMsg *pstAOIMsg, tagAOIIERtspActionType &enAction);
    /// @param strContentBase  receives the base of control URLs
    static ZR_ULONG getAOIIEContentBase(const tagAOIMsg *pstAOIMsg, std::string &strContentBase);
    /// @param strURL  receives the URL of the relation to a TV wall
    static ZR_ULONG getAOIIEURL(const tagAOIMsg *pstAOIMsg, std::string &strURL);
    /// @param strServer  receives the Server header (RFC 2326, 12.36)
    static ZR_ULONG getAOIIEServer(const tagAOIMsg *pstAOIMsg, std::string &strServer);
    /// @param strSDP  receives the description
    static ZR_ULONG getAOIIESDP(const tagAOIMsg *pstAOIMsg, std::string &strSDP);
};

/// Starts the dispatch library. Calls nest: each needs a ZR_MSGDISP_Destroy.
/// @param ulMaxMessageBytes   the largest body of an answer, in bytes; 0: 1 MiB
/// @param ulConnectTimeoutMs  how long a connection may take, in milliseconds; 0: 5000
/// @param pszUserAgent        the User-Agent of requests; NULL: the library's own
/// @param pszCaFile           a PEM file of trusted certificates for rtsps; NULL: the system's
/// @return 0, else a code
ZR_PLATFORM_API ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG ulMaxMessageBytes, ZR_ULONG ulConnectTimeoutMs,
                                         const char *pszUserAgent, const char *pszCaFile);

/// Takes one ZR_MSGDISP_Init back; the last one waits for connections that still send their TEARDOWN (2 s at most) and
/// ends the library's threads. Not from inside AOIMsgPro.
ZR_PLATFORM_API void ZR_MSGDISP_Destroy();

/// @return the dispatcher, never freed; NULL before the first ZR_MSGDISP_Init
ZR_PLATFORM_API CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter();
