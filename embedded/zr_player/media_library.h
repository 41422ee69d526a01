/// @file
/// What the media library (libzr_platform_media) offers the media ports: recordings and pictures. It is loaded only
/// when a host asks for one, so that the platform itself carries no GStreamer. A plain C interface, for the two are
/// found at run time.
#pragma once

#include <stdint.h>

extern "C"
{
    /// What a track carries, texts of the caller's.
    struct ZrMediaFormat
    {
        const char *pszMedia;      ///< "video" or "audio"
        const char *pszEncoding;   ///< in capitals: "H264"
        const char *pszParameters; ///< of the rtpmap: channels
        const char *pszFmtp;
        uint32_t ulClockRate; ///< Hz
        uint32_t ulPayloadType;
    };

    enum ZrMediaKind
    {
        ZR_MEDIA_KIND_RECORDING, ///< a Matroska file
        ZR_MEDIA_KIND_PICTURE,   ///< a PNG file of the first whole picture
        ZR_MEDIA_KIND_SHOW,      ///< pictures for a callback
        ZR_MEDIA_KIND_WINDOW     ///< a window; its end is a failure
    };

    enum ZrMediaState
    {
        ZR_MEDIA_STATE_RUNNING,
        ZR_MEDIA_STATE_WHOLE, ///< the file is complete
        ZR_MEDIA_STATE_EMPTY, ///< nothing that begins with a key frame arrived
        ZR_MEDIA_STATE_FAILED ///< the log has said why
    };

    struct ZrMediaSink;

    /// Why a file of a recording ended.
    enum ZrMediaPartEnd
    {
        ZR_MEDIA_PART_END,    ///< the recording did
        ZR_MEDIA_PART_LENGTH, ///< it was long enough
        ZR_MEDIA_PART_SIZE,   ///< it was large enough
        ZR_MEDIA_PART_CHANGED ///< what came then is coded otherwise
    };

    /// A file of a recording. Times in nanoseconds.
    struct ZrMediaPart
    {
        const char *pszFile;
        ZrMediaPartEnd enEnd;
        uint64_t ullBegin; ///< since the sink's first packet
        uint64_t ullLength;
        uint64_t ullBytes; ///< of its frames
        int64_t llUnix;    ///< when it begins, since 1970
        int iSenderClock;  ///< whether that is of the sender's clock
    };

    /// How a recording is written.
    struct ZrMediaParts
    {
        uint64_t ullLength; ///< nanoseconds after which the next file begins with a key frame; 0: never
        uint64_t ullBytes;  ///< likewise
        /// Makes the file that is written next, however long the disk takes. A thread of the library's, one at a
        /// time; push() and clock() may run meanwhile, or wait for it.
        /// @param enWhy  the one before ended; ZR_MEDIA_PART_END: there is none
        /// @param ullBegin  nanoseconds from the sink's first packet
        /// @return its name, valid until the next call; null when there can be none, which ends the recording
        const char *(*next)(void *pvUser, ZrMediaPartEnd enWhy, uint64_t ullBegin);
        /// A file is whole. The thread that calls state() or finish().
        void (*whole)(void *pvUser, const ZrMediaPart *pstPart);
    };

    /// Takes a line of the log. Any thread, but none after close().
    typedef void (*ZrMediaLog)(void *pvUser, int iError, const char *pszText);

    /// Takes a picture: rows of red, green and blue without gaps. A thread of the library's, none after close().
    typedef void (*ZrMediaPicture)(void *pvUser, const uint8_t *pucRgb, uint32_t ulWidth, uint32_t ulHeight);

    /// Times of a recording, in nanoseconds.
    struct ZrMediaTimes
    {
        uint64_t ullEnd;
        uint64_t ullLastKey; ///< its last key frame; without video as ullEnd
        int64_t llUnix;      ///< when it begins, since 1970; 0: it does not say
        int iSenderClock;    ///< whether that is of the sender's clock
    };

    /// A sink's operations are called by one thread at a time; none waits but finish().
    struct ZrMediaLibrary
    {
        uint32_t ulVersion; ///< ZR_MEDIA_LIBRARY_VERSION of its build
        /// @return 1 when files of such a track can be made
        int (*accepts)(const ZrMediaFormat *pstFormat);
        /// @param pszFile     of a picture; exists and is overwritten
        /// @param pstParts    of a recording
        /// @param pstTracks   one or more that are accepted; but for a recording one
        /// @param pfnPicture  takes what ZR_MEDIA_KIND_SHOW shows
        /// @return null when it cannot be made; the log has said why
        ZrMediaSink *(*open)(ZrMediaKind enKind, const char *pszFile, const ZrMediaParts *pstParts,
                             const ZrMediaFormat *pstTracks, uint32_t ulTracks, ZrMediaPicture pfnPicture,
                             ZrMediaLog pfnLog, void *pvUser);
        /// @param ulTrack    index of open()'s tracks
        /// @param pucPacket  an RTP packet
        /// @param ullArrival nanoseconds of the monotonic clock
        void (*push)(ZrMediaSink *pstSink, uint32_t ulTrack, const uint8_t *pucPacket, uint32_t ulSize,
                     uint64_t ullArrival);
        /// A sender report (RFC 3550, 6.4.1) tells a track's wall-clock time.
        /// @param ulTimestamp  of the track's RTP clock
        /// @param llUnix       when that was, in nanoseconds since 1970
        void (*clock)(ZrMediaSink *pstSink, uint32_t ulTrack, uint32_t ulSsrc, uint32_t ulTimestamp, int64_t llUnix);
        ZrMediaState (*state)(ZrMediaSink *pstSink);
        /// Ends the tracks and waits until the file is complete.
        ZrMediaState (*finish)(ZrMediaSink *pstSink, uint32_t ulTimeoutMs);
        void (*close)(ZrMediaSink *pstSink);

        /// Reads a Matroska file through. Any thread, as the next.
        /// @return 1; 0 when it holds no media
        int (*times)(const char *pszFile, ZrMediaTimes *pstOut, ZrMediaLog pfnLog, void *pvUser);
        /// Writes two recordings of a stream as one: the second goes on where its first key frame is in the first, else
        /// behind its end.
        /// @param pszOut  exists and is overwritten
        /// @return 1; 2 when the second ends before the first does, and nothing was written; 0 when they cannot be one
        int (*join)(const char *pszFirst, const char *pszSecond, const char *pszOut, ZrMediaLog pfnLog, void *pvUser);
    };

    enum
    {
        ZR_MEDIA_LIBRARY_VERSION = 4
    };

    /// The library's one entry point; null when it cannot work here.
    typedef const ZrMediaLibrary *(*ZrMediaLibraryEntry)(ZrMediaLog pfnLog);
}

#define ZR_MEDIA_LIBRARY_ENTRY "zr_media_library"
