/// @file
/// One RTSP session as its host sees it: CIMediaCtrl, CIMediaCtrlEx, CIMediaCtrlEx2, and the observer.
///
/// An object comes from createMediaCtrlInter and goes with deleteMediaCtrlInter (zr_rtsp.h). It implements all three
/// interfaces; a host reaches the second and third from the first by dynamic_cast. In the order of a life:
/// setDecoderDesc, attachObserver, describe, setup, play, (pause, dragPlay, playAtSpeed ...), tearDown, delete. A
/// tear-down ends the object's registration for good: a new session needs a new object.
///
/// Threads: every operation may be called from any thread of the host. setup, play, pause, describe and their kin send
/// one request and block their caller until the answer, 25 seconds at most; one such request at a time is the contract,
/// another is refused by its state or overtakes the first. Results are 0 or a code of codes.h; each failure has been
/// logged.
#pragma once

#include <cstdint>
#include <string>

#include "zr_common.h"
#include "zr_rtsp/codes.h"

/// Is told of errors and of what the server announces.
///
/// Called with the object's observer list locked, on a thread of the platform or of the keep-alive timer: return soon.
/// From inside, tearDown, getRange and getMediaAbility may be called; createMediaCtrlInter gives NULL,
/// deleteMediaCtrlInter 10109, attachObserver 1 and detachObserver does nothing (10109 in the log), of any object: else
/// two notifications could wait for each other. Requests that wait are for the host's own thread. From outside,
/// tearDown, destroy, deletion, attachObserver and detachObserver wait for a running notification: never call them
/// holding a lock that the observer takes, nor let the observer wait for the thread that calls them.
class ZR_PLATFORM_API CIMediaCtrlObserver
{
public:
    /// @return a number by which the host knows its observer; the object does not use it
    virtual ZR_ULONG getObserverID() = 0;
    /// @param pulCode     the code (tagZrRtspNotice), valid during the call only
    /// @param ulArgument  0
    virtual void notify(ZR_ULONG *pulCode, uintptr_t ulArgument) = 0;
    virtual ~CIMediaCtrlObserver() {}
};

/// Where a TV wall receives.
struct tagTransportAddr
{
    ZR_USHORT usPort;  ///< its first port
    std::string strIP; ///< its address, numeric IPv4
};

/// A session from its description to its end.
class ZR_PLATFORM_API CIMediaCtrl
{
public:
    /// Copies the session's media parameters: addresses, session ID, SDP, ONVIF information.
    /// @return oOut
    virtual CMediaAbility &getMediaAbility(CMediaAbility &oOut) = 0;

    /// Hands the session its media parameters. From then on their resources are the host's: setup does not init and
    /// deletion does not release them.
    virtual void setMediaAbility(const CMediaAbility &oIn) = 0;

    /// Says what kind of source it is: a tag, optionally "@" and two digits (transport and packet code), such as
    /// "onvif", "guobiao" or "omz-v1@12". "onvif" selects authentication and the hand-off of stream information.
    virtual void setDecoderDesc(const std::string &strDesc) = 0;

    /// @param pObserver  stays the host's and must live until it was detached or the object deleted
    /// @return 0; 2 for NULL; 1 when it is attached already or the list is locked (from inside a notification)
    virtual ZR_ULONG attachObserver(CIMediaCtrlObserver *pObserver) = 0;
    /// Returns when no notification of the observer runs. One that is not attached is logged.
    virtual void detachObserver(CIMediaCtrlObserver *pObserver) = 0;

    /// Asks for the stream's description (RFC 2326, 10.2) and, of an ONVIF source, answers a challenge once (RFC 2617).
    /// @param strURL  the RTSP URL; credentials may follow as "?auth&username=U&password=P&", which is cut off
    /// @return 0; 2 when an ONVIF answer names no video (with credentials given: they were refused); 13503 without an
    ///         answer; 13401 when it could not be sent; the server's status; 1 for an answer that is neither; 3; 10109
    ///         or the platform's own code
    virtual ZR_ULONG describe(const std::string &strURL) = 0;

    /// Sets a track up (RFC 2326, 10.4), once for each track.
    /// @param strURL      the track's control URL; it is cut before "auth"
    /// @param enProtocol  RTP over UDP, or interleaved
    /// @return 0; the server's status; 13951 without an answer; 13402 in a wrong state (a failed setup is final);
    ///         13805, 3, 10109 or the platform's own code
    virtual ZR_ULONG setup(const std::string &strURL, tagProtocol enProtocol) = 0;

    /// Plays at normal speed (RFC 2326, 10.5), first handing an ONVIF source's stream information to the player.
    /// @param strStartTime, strStopTime  a range as the source understands it; an empty start sends none
    /// @return 0; 3; 13402 before describe or setup, or after a failed setup; 13952 for every other failure; the
    /// hand-off's own code
    virtual ZR_ULONG play(const std::string &strStartTime, const std::string &strStopTime) = 0;

    /// Ends the session (RFC 2326, 10.7) without waiting for the answer, and the object's registration with it. Called
    /// from inside a notification, the identifier stays taken until the object is deleted: only then is it certain that
    /// no message for it is still on its way.
    virtual void tearDown() = 0;

    /// Has the server send the stream to a TV wall as well.
    /// @param ulProtocol   a tagProtocol
    /// @param stTransport  the wall's receiver
    /// @return 0; the server's status; 13951 without an answer, or when the description offered no relation; 13402 in a
    ///         wrong state; 3, 10109 or the platform's own code
    virtual ZR_ULONG setupToTV(ZR_ULONG ulProtocol, const tagTransportAddr &stTransport) = 0;
    /// Ends that relation, without waiting for the answer; the session goes on.
    virtual void teardownToTV() = 0;

    virtual ~CIMediaCtrl() {}
};

/// Playback beyond playing: pausing, seeking, speeds, downloads.
class ZR_PLATFORM_API CIMediaCtrlEx
{
public:
    /// Pauses a playing session (RFC 2326, 10.6).
    /// @return 0; 13402 when it does not play; 3; 10109; 13954 for every other failure
    virtual ZR_ULONG pause() = 0;

    /// Seeks: plays from another time at a speed code, whatever the state.
    /// @return 0; 3; 10109; 13955 for every other failure
    virtual ZR_ULONG dragPlay(const std::string &strStartTime, const std::string &strStopTime, ZR_ULONG ulSpeed) = 0;

    /// Plays on at a speed code 0 to 19 (11 is normal; an unknown one plays at normal speed).
    /// @return 0; 3; 13402; 13956 for every other failure
    virtual ZR_ULONG playAtSpeed(ZR_ULONG ulSpeed) = 0;

    /// The same.
    /// @return 0; 3; 13402; 13957 for every other failure
    virtual ZR_ULONG changeSpeed(ZR_ULONG ulSpeed) = 0;

    /// Plays a recording for download.
    /// @param ulSpeed     0 to 3: 1, 2, 4 or 8 times
    /// @param iFullFrame  non-zero: every frame; 0: sampled frames
    /// @return 0; 3; 13402; 13957 for every other failure
    virtual ZR_ULONG download(const std::string &strStartTime, const std::string &strStopTime, ZR_ULONG ulSpeed,
                              int32_t iFullFrame) = 0;

    /// @return the position last told (by an OPTIONS answer, or asked for by dragPlay), as a Range value; may be empty
    virtual std::string getRange() = 0;

    virtual ~CIMediaCtrlEx() {}
};

/// What is seldom needed.
class ZR_PLATFORM_API CIMediaCtrlEx2
{
public:
    /// @param ulFlag  1: the next dragPlay of a "guobiao" session asks for playback now (used up by it)
    virtual void setPlaybackNowFlag(ZR_ULONG ulFlag) = 0;
    /// @param ulFlag  1: every play of a "guobiao" session asks for normal play
    virtual void setPlayNormalFlag(ZR_ULONG ulFlag) = 0;
    /// Sets how often a session that is not ONVIF is kept alive, in steps of 800 ms.
    virtual void setKeepLiveInterval(ZR_ULONG ulMilliseconds) = 0;
    /// Sets a track up for a download; the speed stays for later setups.
    /// @param ulSpeed, iFullFrame  as in CIMediaCtrlEx::download
    /// @return as CIMediaCtrl::setup
    virtual ZR_ULONG setup(const std::string &strURL, tagProtocol enProtocol, ZR_ULONG ulSpeed, int32_t iFullFrame) = 0;

    virtual ~CIMediaCtrlEx2() {}
};
