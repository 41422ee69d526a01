/// @file
/// The embedded platform's own operations for hosts: what no AOI message carries. The plug-in does not know them.
///
/// A media port receives the RTP of one session, counts it, and records it. Open it before the session's object is
/// created, create the object with the same identifiers, address and port, and close the port after the object was
/// deleted.
#pragma once

#include "zr_common.h"
#include "zr_types.h"

/// What the operations of media ports return besides 0; the log says more.
enum tagZrMediaCode : ZR_ULONG
{
    ZR_MEDIA_FAILED = 1,       ///< the system refused something
    ZR_MEDIA_INVALID = 2,      ///< an argument; a packet or description that is not understood
    ZR_MEDIA_UNKNOWN_PORT = 3, ///< the port is not open, or was closed meanwhile
    ZR_MEDIA_PORT_IN_USE = 4,  ///< an identifier is in use
    ZR_MEDIA_ADDRESS = 5,      ///< no free ports at the address, or it is not this machine's
    ZR_MEDIA_NO_TRACK = 6,     ///< no track is known that it could be done with
    ZR_MEDIA_UNAVAILABLE = 7,  ///< built or installed without recording and pictures
    ZR_MEDIA_BUSY = 8,         ///< the port is at it already; nothing to end
    ZR_MEDIA_UNWRITABLE = 9,   ///< the file cannot be written
    ZR_MEDIA_NO_MEDIA = 10     ///< nothing that could be used arrived (in time)
};

/// For ZR_MediaPortShow.
enum tagZrShow : ZR_ULONG
{
    ZR_SHOW_NOTHING = 0,  ///< ends it
    ZR_SHOW_PICTURES = 1, ///< pictures for the callback, at most 12 a second and 640 to 480 pixels
    ZR_SHOW_WINDOW = 2    ///< a window of the desktop
};

/// Why a file of a recording ended, for ZrRecordingFile.
enum tagZrRecordingEnd : ZR_ULONG
{
    ZR_RECORDING_ENDED = 0,  ///< the recording did
    ZR_RECORDING_LENGTH = 1, ///< it was long enough
    ZR_RECORDING_SIZE = 2,   ///< it was large enough
    ZR_RECORDING_CHANGED = 3 ///< what came then is coded otherwise (another resolution, parameter set or encoding),
                             ///< or of a track that had been silent
};

/// What the operations of TLS return besides 0; the log says more.
enum tagZrTlsCode : ZR_ULONG
{
    ZR_TLS_FAILED = 1,     ///< no memory
    ZR_TLS_UNREADABLE = 2, ///< the file cannot be read, or holds no certificate
    ZR_TLS_TOO_LATE = 3    ///< the dispatcher runs already
};

/// Why a session's connection failed.
enum tagZrConnectionProblem : ZR_ULONG
{
    ZR_CONNECTION_NONE = 0,
    ZR_CONNECTION_FAILED = 1,              ///< there was none: refused, unreachable, unresolved, or too slow
    ZR_CONNECTION_TLS_FAILED = 2,          ///< no TLS with the server: it speaks none, or only versions before 1.2
    ZR_CONNECTION_NOT_TRUSTED = 3,         ///< its certificate is not accepted, for a reason that is none of these
    ZR_CONNECTION_FOREIGN_ISSUER = 4,      ///< nobody who is trusted vouches for its certificate
    ZR_CONNECTION_WRONG_NAME = 5,          ///< its certificate is for another host
    ZR_CONNECTION_EXPIRED = 6,             ///< its certificate has expired
    ZR_CONNECTION_NOT_YET_VALID = 7,       ///< its certificate will be valid, or this machine's clock is wrong
    ZR_CONNECTION_BROKEN = 8,              ///< it was there, and was reset, closed, or cut for what the server sent
    ZR_CONNECTION_NO_TUNNEL = 9,           ///< there is none (ZR_SessionSetTunnel), or it was closed before any answer
    ZR_CONNECTION_TUNNEL_CREDENTIALS = 10, ///< it opens none without credentials, or refuses those of the session
    ZR_CONNECTION_TUNNEL_CONNECTIONS = 11  ///< it was closed before any answer, and the tunnel with the other number of
                                           ///< connections (tagZrTunnel) may work
};

/// What the operations of sessions return besides 0; the log says more.
enum tagZrSessionCode : ZR_ULONG
{
    ZR_SESSION_FAILED = 1,  ///< no memory
    ZR_SESSION_INVALID = 2, ///< an argument
    ZR_SESSION_TOO_MANY = 3 ///< the session has 16 headers already
};

/// What a ZrTraceEvent tells of.
enum tagZrTraceKind : ZR_ULONG
{
    ZR_TRACE_SENT = 0,      ///< a message to the server
    ZR_TRACE_RECEIVED = 1,  ///< one of the server's
    ZR_TRACE_BROKEN = 2,    ///< what came of one that cannot be read; the connection is closed for it
    ZR_TRACE_CONNECTED = 3, ///< the text tells with whom, such as "192.0.2.10:322, TLSv1.3"
    ZR_TRACE_CLOSED = 4     ///< or never connected; the text tells why
};

/// For ZR_SessionSetCredentials.
enum tagZrCredentialsFlag : ZR_ULONG
{
    ZR_CREDENTIALS_BASIC_IN_CLEAR = 1 ///< Basic is answered also where the connection is not encrypted
};

/// For ZR_SessionSetTunnel.
enum tagZrTunnel : ZR_ULONG
{
    ZR_TUNNEL_NONE = 0,
    ZR_TUNNEL_HTTP = 1,    ///< in HTTP; in HTTPS where the URL is one of rtsps
    ZR_TUNNEL_HTTP_ONE = 2 ///< the same over one connection, where no second one comes through
};

/// Whether a server sends as fast as the media plays, for ZrOnvifReplay.
enum tagZrRateControl : ZR_ULONG
{
    ZR_RATE_CONTROL_UNSAID = 0, ///< no Rate-Control: it does
    ZR_RATE_CONTROL_NO = 1,     ///< it sends as fast as it is taken
    ZR_RATE_CONTROL_YES = 2
};

/// What a frame of a replayed recording is, for ZrReplayFacts.
enum tagZrReplayMark : ZR_ULONG
{
    ZR_REPLAY_CLEAN_POINT = 1,    ///< it can be decoded by itself
    ZR_REPLAY_END_OF_SECTION = 2, ///< the last one before a gap of the recording, or before its end
    ZR_REPLAY_DISCONTINUITY = 4,  ///< it does not follow the one before: after a seek, and of each group backwards
    ZR_REPLAY_TERMINAL = 8        ///< nothing more comes of what PLAY asked for
};

/// Which frames a server sends, for ZrOnvifReplay.
enum tagZrFrames : ZR_ULONG
{
    ZR_FRAMES_ALL = 0, ///< no Frames
    ZR_FRAMES_INTRA = 1,
    ZR_FRAMES_PREDICTED = 2 ///< intra-coded and predicted ones, no bidirectional ones
};

extern "C"
{
    /// Gives user and password for a session. The dispatcher then answers each 401 itself, to any request, once: Digest
    /// (RFC 7616, RFC 2617) with SHA-256 or MD5, the "-sess" kinds too, qop auth or none, the strongest that the server
    /// offers; or Basic (RFC 7617). The challenge is answered in all further requests, until the server has
    /// another one. Where a right answer is refused, the request fails with 403, and ZR_RequestRefusal says 401. A
    /// challenge that cannot be answered is handed up as without credentials. They go to no other server than the
    /// session's route leads to, not where a redirect leads either: a 401 from there is a 403, and ZR_RequestRefusal
    /// says so.
    ///
    /// Before the session's object is created or while it lives; forgotten when that is torn down. Any thread.
    /// @param ulAOIPortID  the identifier of the session's object
    /// @param pszUser      1 to 255 bytes without control characters and colons (RFC 7617, 2); NULL: takes both back
    /// @param pszPassword  0 to 255 bytes without control characters; copied, wiped in the end
    /// @param ulFlags      0 or ZR_CREDENTIALS_BASIC_IN_CLEAR
    /// @return 0, else a tagZrSessionCode and nothing has changed
    ZR_PLATFORM_API ZR_ULONG ZR_SessionSetCredentials(ZR_ULONG ulAOIPortID, const char *pszUser,
                                                      const char *pszPassword, ZR_ULONG ulFlags);

    /// Adds a header to requests of a session, at most 16, from the next request on; one of the same method and name is
    /// replaced, one for a method stands for one of the same name for all. No secrets: it goes where a redirect leads,
    /// too. Forgotten when the session's object is torn down. Any thread.
    /// @param pszMethod  DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, OPTIONS, GET_PARAMETER or SET_PARAMETER as it is sent;
    ///                   NULL: all of them
    /// @param pszName    a token of at most 64 characters (RFC 2326, 15.1), not what the platform writes itself: CSeq,
    ///                   User-Agent, Session, Transport, Scale, Range, Authorization, Accept, those of a body
    /// @param pszValue   at most 1024 bytes without control characters; NULL: takes the header back
    /// @return 0, else a tagZrSessionCode and nothing has changed
    ZR_PLATFORM_API ZR_ULONG ZR_SessionSetHeader(ZR_ULONG ulAOIPortID, const char *pszMethod, const char *pszName,
                                                 const char *pszValue);

    /// Has a session's RTSP connection tunnelled in HTTP, as cameras, recorders and media servers know it
    /// (RTP/RTSP/HTTP/TCP of the ONVIF Streaming Specification): a GET, whose answer carries what the server says, and
    /// a POST, whose body tells it the requests in Base64, on a connection of its own. ZR_TUNNEL_HTTP_ONE sends the
    /// POST on the GET's connection, behind its answer, where no second one comes through; few servers take that. Media
    /// goes the same way where the session is set up over TCP. For rtsps URLs all is encrypted and verified as without
    /// a tunnel. Where HTTP itself asks for credentials (401 to the GET, or to the POST), those of
    /// ZR_SessionSetCredentials answer, once. Where there is no tunnel the requests fail with 503, and
    /// ZR_ConnectionProblem says why; it is never gone without.
    ///
    /// Before the session's object is created, or later: counts for the next connection, where a redirect leads, too.
    /// Forgotten when the object is torn down. Any thread.
    /// @param ulAOIPortID  the identifier of the session's object
    /// @param ulTunnel     a tagZrTunnel
    /// @param ulPort       where the session's server takes HTTP, 1 to 65535; 0: the port that the object was created
    ///                     with, but 80 in place of 554, and 443 in place of 322
    /// @return 0, else a tagZrSessionCode and nothing has changed
    ZR_PLATFORM_API ZR_ULONG ZR_SessionSetTunnel(ZR_ULONG ulAOIPortID, ZR_ULONG ulTunnel, ZR_ULONG ulPort);

    /// How an ONVIF recorder replays (ONVIF Streaming Specification, replay control).
    struct ZrOnvifReplay
    {
        ZR_ULONG ulRateControl; ///< a tagZrRateControl
        ZR_ULONG ulImmediate;   ///< not 0: a PLAY takes effect at once, before what an earlier one asked for has ended
        ZR_ULONG ulFrames;      ///< a tagZrFrames
        ZR_ULONG ulIntervalMs;  ///< with ZR_FRAMES_INTRA (servers may take it with predicted ones): the least time
                                ///< between two, in milliseconds; 0: none
    };

    /// Has a session replay a recording: Require: onvif-replay on SETUP and PLAY, Rate-Control, Immediate and Frames on
    /// PLAY. They are headers as ZR_SessionSetHeader adds them, five at most. Any thread, before or during the session;
    /// the next SETUP and PLAY say it.
    /// @param pstReplay  NULL: takes it back
    /// @return 0, else a tagZrSessionCode and nothing has changed
    ZR_PLATFORM_API ZR_ULONG ZR_SessionSetReplay(ZR_ULONG ulAOIPortID, const ZrOnvifReplay *pstReplay);

    /// Trusts the certificates of a file for rtsps, issuers' or a server's own, besides those of the system or of the
    /// file given to init. Counts from the plug-in's next init on, so call it before. May be called for several files.
    /// Any thread.
    /// @param pszCaFile  PEM certificates; NULL: takes back all that were added
    /// @return 0, else a tagZrTlsCode and nothing has changed
    ZR_PLATFORM_API ZR_ULONG ZR_TlsAddTrust(const char *pszCaFile);

    /// Whether servers' certificates are verified (RFC 5280; their names by RFC 6125). They are, unless this says
    /// otherwise before the plug-in's init: then rtsps hides from who listens, and from nobody who stands between. That
    /// is logged. Any thread.
    /// @param ulVerify  0: not at all; else: yes
    /// @return 0; ZR_TLS_TOO_LATE
    ZR_PLATFORM_API ZR_ULONG ZR_TlsSetVerification(ZR_ULONG ulVerify);

    /// Says why a session's connection failed last: a request then fails with 503 alone. Any thread.
    /// @param ulAOIPortID  the identifier of the session's object, which must not have been torn down since
    /// @param pszText      receives what happened, in words, cut to fit; with what the server sent in them; may be NULL
    /// @param ulSize       its bytes
    /// @return a tagZrConnectionProblem; 0: none since it connected, or no such session
    ZR_PLATFORM_API ZR_ULONG ZR_ConnectionProblem(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize);

    /// Says how a session's latest request, keep-alives apart, was refused: of most requests the plug-in tells only
    /// that they failed. Any thread.
    /// @param ulAOIPortID, pszText, ulSize  as above; the words are the server's, or say why its answer cannot be used
    /// @return its status (RFC 2326, 7.1.1), or the one that the answer amounts to; 0: it was not refused, or not
    ///         answered, or there is no such session
    ZR_PLATFORM_API ZR_ULONG ZR_RequestRefusal(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize);

    /// What a server told of itself on the connection of a session. Texts are cut to fit and end with a zero; servers'
    /// words in them may be anything but control characters.
    struct ZrSessionFacts
    {
        char szTls[16];            ///< such as "TLSv1.3"; empty: no TLS, or never connected
        char szServer[160];        ///< of the last Server header (RFC 2326, 12.36)
        char szMethods[400];       ///< of the last Public header (12.28), such as "OPTIONS, DESCRIBE"; empty: unknown
        ZR_ULONG ulTimeout;        ///< seconds until a silent session ends (12.37); 0: no session
        ZR_ULONG ulChecksAnswered; ///< answers to ZR_SessionCheck and to keep-alives of the platform's own
        ZR_ULONG ulCheckStatus;    ///< the status of the last of them
    };

    /// Any thread.
    /// @param ulAOIPortID  as for ZR_ConnectionProblem
    /// @return 0; 1: no such session
    ZR_PLATFORM_API ZR_ULONG ZR_SessionFacts(ZR_ULONG ulAOIPortID, ZrSessionFacts *pstOut);

    /// The description (SDP, RFC 4566) of a session as its server sent it, byte for byte, also one that is of no use.
    /// The plug-in has it with lines that the platform adds: rtpmaps of static payload types (RFC 3551), control URLs.
    /// It is kept from the answer to a DESCRIBE until that to a SETUP, or until the session's object is torn down. Any
    /// thread.
    /// @param ulAOIPortID  as for ZR_ConnectionProblem
    /// @param pszText      receives it, cut to fit, without a zero behind it; it may hold anything; may be NULL
    /// @param ulSize       bytes that there is room for
    /// @return the description's bytes; 0: there is none, or no such session
    ZR_PLATFORM_API ZR_ULONG ZR_SessionDescription(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize);

    /// Sends what keeps a session alive now: GET_PARAMETER where the server lists it, else OPTIONS. From the first
    /// answered DESCRIBE on. Its answer reaches nobody but the facts; while one is outstanding nothing is sent. Does
    /// not wait. Any thread.
    /// @return 0; 1: no such session
    ZR_PLATFORM_API ZR_ULONG ZR_SessionCheck(ZR_ULONG ulAOIPortID);

    /// Lets nobody wait for a session's server any longer, as when a host is to end: its requests that are outstanding
    /// fail at once with 503, and so does each that follows, but for TEARDOWN, which goes out as ever. So a request
    /// that waits ends without the object being deleted under it. What the server answers later is dropped. Cannot be
    /// taken back: a new session needs a new object. Does not wait. Any thread.
    /// @param ulAOIPortID  as for ZR_ConnectionProblem
    /// @return 0; 1: no such session
    ZR_PLATFORM_API ZR_ULONG ZR_SessionGiveUp(ZR_ULONG ulAOIPortID);

    /// Something on the wire, in the order in which it came there.
    struct ZrTraceEvent
    {
        ZR_ULONG ulAOIPortID;       ///< of the session whose connection it is
        ZR_ULONG ulKind;            ///< a tagZrTraceKind
        uint64_t ullUnixUs;         ///< when, in microseconds since 1970
        const char *pszText;        ///< the message, body included, as it is on the wire but for credentials; it may
                                    ///< hold anything, also zeros; one is behind it. Valid within the call
        ZR_ULONG ulLength;          ///< its bytes, 65536 at most
        uint64_t ullCut;            ///< bytes of the message that do not fit there
        uint64_t ullFramesReceived; ///< interleaved frames of the connection since its event before
        uint64_t ullFramesSent;     ///< likewise
        uint64_t ullFrameBytes;     ///< those of both
        uint64_t ullMissed; ///< events since the one before, of all connections, that are not told, for too many
                            ///< waited
    };

    /// Called on one thread of the trace's own. It may take its time, and call everything but ZR_TraceSet.
    typedef void (*ZR_TRACE_CALLBACK)(const ZrTraceEvent *pstEvent, void *pvUser);

    /// Has the RTSP messages of all sessions told, from now on, instead of to whom they were told before. Where
    /// credentials stand there is "***": values of Authorization headers but for the scheme, user information and
    /// passwords of URLs, responses of Digest, what ZR_LogHide was given. When it returns, all that was noted before
    /// has been told to the former callback, which is called no more: so call it with NULL before the program ends. Any
    /// thread.
    /// @param pfnCallback  NULL: nobody
    /// @param pvUser       handed to it
    /// @return 0; ZR_SESSION_FAILED: there is no thread for it (then nobody is told), or it was called by the callback
    ZR_PLATFORM_API ZR_ULONG ZR_TraceSet(ZR_TRACE_CALLBACK pfnCallback, void *pvUser);

    /// What a media port has received so far, all tracks together.
    struct ZrMediaStatistics
    {
        uint64_t ullPackets;      ///< RTP packets taken
        uint64_t ullBytes;        ///< their bytes, RTP headers included
        uint64_t ullLost;         ///< packets missing by their sequence numbers (RFC 3550, A.3)
        ZR_ULONG ulJitterUs;      ///< the worst track's interarrival jitter in microseconds (RFC 3550, A.8)
        ZR_ULONG ulLastArrivalMs; ///< milliseconds since the last packet; 0xFFFFFFFF: none yet
        ZR_ULONG ulTracks;        ///< tracks that were set up
        uint64_t ullMediaMs;      ///< time that the media covers by its RTP timestamps, of the track with most, in
                                  ///< milliseconds; jumps do not count
        uint64_t ullFrames;       ///< pictures of which a packet came: the video's different timestamps in succession
    };

    /// Opens the media port of a session before its object is created: binds two consecutive even RTP/RTCP pairs (one a
    /// track) on the local address and says the first port.
    /// @param ulPortID     the session's media port identifier; one that is open is refused
    /// @param ulAOIPortID  the identifier of the session's object, by which the dispatcher finds the port
    /// @param pszLocalIP   a numeric local address
    /// @param pusPort      receives the first port
    /// @return 0, else a code and nothing is open
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortOpen(ZR_ULONG ulPortID, ZR_ULONG ulAOIPortID, const char *pszLocalIP,
                                              ZR_USHORT *pusPort);

    /// Says what the session's tracks carry.
    /// @param pszSdp  the DESCRIBE answer's SDP (CMediaAbility::getDescribeRspSdp)
    /// @return 0; 2 when it names no track that is understood
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortSetDescription(ZR_ULONG ulPortID, const char *pszSdp);

    /// Records what arrives into a Matroska file, or ends the recording and returns when the file is whole. It begins
    /// with a key frame. Where the stream goes on with another resolution, parameter set or encoding, which no file can
    /// hold, it goes on in a new file: behind a.mkv comes a-002.mkv, or the next number that no file has. What cannot
    /// be written (an encoding that the container does not know) is left out, and the log says so. A file tells when it
    /// begins (DateUTC): by the sender's clock as soon as its reports tell it (RFC 3550, 6.4.1), which place sound and
    /// picture towards each other, too; else by this machine's.
    /// @param pszFile  the file; NULL ends. One that exists is emptied at once, and removed when nothing came. Links
    ///                 are followed, so name it in no folder where others may make one. What is no regular file is
    ///                 refused
    /// @return 0; a code when it cannot be written, no track is known, or the library was built without GStreamer
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortRecord(ZR_ULONG ulPortID, const char *pszFile);

    /// A file of a recording that is whole.
    struct ZrRecordingFile
    {
        const char *pszFile;    ///< its name; valid within the call
        uint64_t ullMediaMs;    ///< its length in milliseconds
        uint64_t ullBytes;      ///< of its frames
        uint64_t ullUnixUs;     ///< when it begins, in microseconds since 1970
        ZR_ULONG ulSenderClock; ///< 1: by the sender's clock; 0: by this machine's
        ZR_ULONG ulNumber;      ///< in its name; the first one's is 1
        ZR_ULONG ulEnd;         ///< a tagZrRecordingEnd
    };

    /// Called on a thread of the recording's, which writes nothing meanwhile: return soon. Everything may be called but
    /// what ends this recording or closes its port.
    typedef void (*ZR_RECORDING_CALLBACK)(const ZrRecordingFile *pstFile, void *pvUser);

    /// For ZR_MediaPortRecordFiles; 0 and NULL where there is nothing to say.
    struct ZrRecordingOptions
    {
        ZR_ULONG ulLengthMs;            ///< milliseconds of media after which another file begins; 0: never
        ZR_ULONG ulOverwrite;           ///< not 0: also further files take the place of those of their names
        uint64_t ullBytes;              ///< bytes of frames after which another file begins; 0: never
        ZR_RECORDING_CALLBACK pfnWhole; ///< learns of each file that is whole
        void *pvUser;                   ///< handed to it
    };

    /// Records as ZR_MediaPortRecord does, which also ends it, into as many files as are asked for, 99999 at most.
    /// Another one begins with a key frame; nothing is missing between them.
    /// @param pszFile  the first file; the next ones have numbers: a.mkv, a-002.mkv, a-003.mkv
    /// @return as ZR_MediaPortRecord
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortRecordFiles(ZR_ULONG ulPortID, const char *pszFile,
                                                     const ZrRecordingOptions *pstOptions);

    /// Whether a recording still goes on: a disk that is full ends it before its host does. Ask it now and then; it
    /// does not wait. Any thread.
    /// @return 0 while it does; ZR_MEDIA_BUSY when there is none; else what ended it, such as ZR_MEDIA_FAILED, which
    ///         ZR_MediaPortRecord will return for its end, which is still to be called
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortRecording(ZR_ULONG ulPortID);

    /// Writes the next whole picture into a PNG file: into a new one beside it, which then takes its name, also that of
    /// a link or of whatever else has it but a directory. Without a picture that stays as it is.
    /// @param ulTimeoutMs  how long to wait for it, in milliseconds
    /// @return 0; a code when none came in time or it cannot be written
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortSnapshot(ZR_ULONG ulPortID, const char *pszFile, ZR_ULONG ulTimeoutMs);

    /// Takes a picture that is shown, or learns that no more will come. On a thread of the platform's, one at a time,
    /// not after ZR_MediaPortShow ended it; it must not call operations of the port.
    /// @param pucRgb   ulHeight rows of ulWidth times red, green and blue, without gaps, valid during the call; NULL:
    /// it
    ///                 is over, because the window was closed or it failed, which the log then explains
    /// @param ulWidth  with NULL: 0 when it could not even begin
    typedef void (*ZR_PICTURE_CALLBACK)(void *pvUser, const unsigned char *pucRgb, ZR_ULONG ulWidth, ZR_ULONG ulHeight);

    /// Shows the video as it comes, or ends that and returns when it is over. It begins with the next key frame.
    /// @param ulHow        a tagZrShow
    /// @param pfnCallback  required but for ZR_SHOW_NOTHING; for ZR_SHOW_WINDOW it learns of the end only
    /// @return 0; ZR_MEDIA_BUSY when it is shown already, or not shown; another code
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortShow(ZR_ULONG ulPortID, ZR_ULONG ulHow, ZR_PICTURE_CALLBACK pfnCallback,
                                              void *pvUser);

    /// What a recording holds.
    struct ZrRecordingFacts
    {
        uint64_t ullMediaMs;   ///< from its beginning to where it ends, in milliseconds
        uint64_t ullLastKeyMs; ///< its last key frame; without video where it ends
    };

    /// Reads a recording through, also one that was cut short. Takes as long as reading it does. Any thread.
    /// @return 0; ZR_MEDIA_INVALID when it is no Matroska file with media; ZR_MEDIA_UNAVAILABLE
    ZR_PLATFORM_API ZR_ULONG ZR_RecordingFacts(const char *pszFile, ZrRecordingFacts *pstOut);

    /// When a recording begins.
    struct ZrRecordingBegin
    {
        uint64_t ullUnixUs;     ///< microseconds since 1970, of its DateUTC
        ZR_ULONG ulSenderClock; ///< 1: by the clock of who sent it; 0: by that of who recorded it
    };

    /// Reads when a recording begins; takes as long as ZR_RecordingFacts. Any thread.
    /// @return 0; ZR_MEDIA_INVALID when it does not say, or is no Matroska file with media; ZR_MEDIA_UNAVAILABLE
    ZR_PLATFORM_API ZR_ULONG ZR_RecordingBegin(const char *pszFile, ZrRecordingBegin *pstOut);

    /// Continues a recording by another of the same stream that begins before it ends, without coding anything anew:
    /// where the other's first key frame is found in it, that is where the other goes on; else behind its end. What
    /// comes out is a new file, which then takes the first one's name; the other stays. Until then, where it fails, and
    /// where the other ends before it does, both are as they were. What a process that was killed over it left beside
    /// the file (FILE.PID-N.part) is removed, where the file system tells that nobody works on it. Takes as long as
    /// copying them does. Any thread, one at a time for a file.
    /// @return 0; ZR_MEDIA_INVALID when they cannot be one: they are not read, or coded differently; another code
    ZR_PLATFORM_API ZR_ULONG ZR_RecordingContinue(const char *pszFile, const char *pszRest);

    /// Says what a port has received so far. Any thread.
    /// @return 0; 2 for NULL; 3 when the port is not open
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortStatistics(ZR_ULONG ulPortID, ZrMediaStatistics *pstOut);

    /// What the frames of a replayed recording told of themselves (ONVIF Streaming Specification, RTP header extension
    /// 0xABAC), since the session was set up: those of its first track that tell it.
    struct ZrReplayFacts
    {
        int64_t llUnixUs;            ///< when the latest frame was recorded, UTC in microseconds since 1970
        int64_t llFirstUnixUs;       ///< and the first one
        uint64_t ullFrames;          ///< frames that told it
        uint64_t ullCleanPoints;     ///< of these, those of each tagZrReplayMark
        uint64_t ullSectionEnds;     ///< likewise
        uint64_t ullDiscontinuities; ///< likewise
        ZR_ULONG ulMarks; ///< of the latest frame, tagZrReplayMark or-ed; the terminal one once all tracks had theirs
        ZR_ULONG ulCSeq;  ///< the low octet of CSeq of the PLAY that it belongs to; many recorders leave it 0
    };

    /// Says where in its recording a port is, after ZR_SessionSetReplay. It is also the position that OPTIONS answers
    /// bring the plug-in, once a frame has come after a PLAY: as a time of day, or, where the session's first PLAY was
    /// answered for normal play time, by the distance from that PLAY's begin. Any thread.
    /// @return 0; ZR_MEDIA_INVALID for NULL; ZR_MEDIA_UNKNOWN_PORT; ZR_MEDIA_NO_MEDIA when no packet told a time
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortReplay(ZR_ULONG ulPortID, ZrReplayFacts *pstOut);

    /// What a track of a media port has received so far.
    struct ZrTrackStatistics
    {
        uint64_t ullPackets;      ///< RTP packets taken
        uint64_t ullBytes;        ///< their bytes, RTP headers included
        uint64_t ullLost;         ///< packets missing by their sequence numbers (RFC 3550, A.3)
        uint64_t ullReordered;    ///< packets that came after a later one
        uint64_t ullSenderUnixUs; ///< what the sender's wall clock showed in its newest report (RFC 3550, 6.4.1), in
                                  ///< microseconds since 1970; 0: none, or none that counts from then
        ZR_ULONG ulJitterUs;      ///< interarrival jitter in microseconds (RFC 3550, A.8)
        ZR_ULONG ulSsrc;          ///< of the source that is heard
        ZR_ULONG ulPayloadType;   ///< of the newest packet
        char szMedia[16];         ///< "video", "audio"; empty: no packet yet, or not described
        char szEncoding[68];      ///< in capitals: "H264"
    };

    /// Any thread.
    /// @param ulTrack  0 for the session's first SETUP
    /// @return 0; 2 for NULL; 3 when the port is not open; 6 when the track was not set up
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortTrackStatistics(ZR_ULONG ulPortID, ZR_ULONG ulTrack,
                                                         ZrTrackStatistics *pstOut);

    /// Closes a port: ends its recording, closes its sockets. Nothing of it runs when this returns.
    ZR_PLATFORM_API ZR_ULONG ZR_MediaPortClose(ZR_ULONG ulPortID);

    /// Lines below this level are not written (default: ZR_LOG_INFO to a file, ZR_LOG_WARNING to stderr; above
    /// ZR_LOG_ERROR: none is).
    ZR_PLATFORM_API void ZR_LogSetLevel(tagZrLogLevel enLevel);
    /// Has log, trace, ZR_TextMask and what is told of failures and facts write "***" wherever this text stands, such
    /// as a password, or the Base64 of "user:password", both of which a server may repeat; for all time. Any thread.
    /// @param pszText  NULL and empty: without effect
    ZR_PLATFORM_API void ZR_LogHide(const char *pszText);
    /// What a host may show of a text that a server had a hand in, such as a reason, a description or a URL: with "***"
    /// where credentials stand, as ZR_TraceSet has it. In time linear in the text. Any thread.
    /// @param pszText    may hold anything, also zeros; NULL: an empty one
    /// @param ulLength   its bytes
    /// @param pszMasked  receives the masked text, cut to fit, without a zero behind it; may be NULL
    /// @param ulSize     bytes that there is room for
    /// @return the masked text's bytes, which may be more than the text's; 0: the text is empty, or there is no memory
    ZR_PLATFORM_API ZR_ULONG ZR_TextMask(const char *pszText, ZR_ULONG ulLength, char *pszMasked, ZR_ULONG ulSize);
    /// Writes the log to a rotating file instead of stderr; NULL: back to stderr.
    ZR_PLATFORM_API void ZR_LogSetFile(const char *pszFile);
}
