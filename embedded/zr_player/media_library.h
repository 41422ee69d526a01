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

    /// Takes a line of the log. Any thread, but none after close().
    typedef void (*ZrMediaLog)(void *pvUser, int iError, const char *pszText);

    /// Takes a picture: rows of red, green and blue without gaps. A thread of the library's, none after close().
    typedef void (*ZrMediaPicture)(void *pvUser, const uint8_t *pucRgb, uint32_t ulWidth, uint32_t ulHeight);

    /// Times of a recording, in nanoseconds.
    struct ZrMediaTimes
    {
        uint64_t ullEnd;
        uint64_t ullLastKey; ///< its last key frame; without video as ullEnd
    };

    /// A sink's operations are called by one thread at a time; none waits but finish().
    struct ZrMediaLibrary
    {
        uint32_t ulVersion; ///< ZR_MEDIA_LIBRARY_VERSION of its build
        /// @return 1 when files of such a track can be made
        int (*accepts)(const ZrMediaFormat *pstFormat);
        /// @param pszFile     exists and is overwritten; nothing where pictures are shown
        /// @param pstTracks   one or more that are accepted; but for a recording one
        /// @param pfnPicture  takes what ZR_MEDIA_KIND_SHOW shows
        /// @return null when it cannot be made; the log has said why
        ZrMediaSink *(*open)(ZrMediaKind enKind, const char *pszFile, const ZrMediaFormat *pstTracks, uint32_t ulTracks,
                             ZrMediaPicture pfnPicture, ZrMediaLog pfnLog, void *pvUser);
        /// @param ulTrack    index of open()'s tracks
        /// @param pucPacket  an RTP packet
        /// @param ullArrival nanoseconds of the monotonic clock
        void (*push)(ZrMediaSink *pstSink, uint32_t ulTrack, const uint8_t *pucPacket, uint32_t ulSize,
                     uint64_t ullArrival);
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
        /// @return 1; 0 when they cannot be one
        int (*join)(const char *pszFirst, const char *pszSecond, const char *pszOut, ZrMediaLog pfnLog, void *pvUser);
    };

    enum
    {
        ZR_MEDIA_LIBRARY_VERSION = 2
    };

    /// The library's one entry point; null when it cannot work here.
    typedef const ZrMediaLibrary *(*ZrMediaLibraryEntry)(ZrMediaLog pfnLog);
}

#define ZR_MEDIA_LIBRARY_ENTRY "zr_media_library"
