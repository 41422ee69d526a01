/// @file
/// The plug-in's entry points, exported by their plain names for dlopen and dlsym.
#pragma once

#include <string>

#include "zr_rtsp/media_ctrl.h"

/// Marks the four entry points, the only functions that the plug-in exports.
#ifdef _WIN32
#define ZR_RTSP_API __declspec(dllexport)
#else
#define ZR_RTSP_API __attribute__((visibility("default")))
#endif

extern "C"
{
    /// Starts the library: call once, before any object is made. The arguments are ZR_MSGDISP_Init's.
    /// @param ulMaxMessageBytes   the largest body of an answer, in bytes; 0: the default
    /// @param ulConnectTimeoutMs  how long a connection may take, in milliseconds; 0: the default
    /// @param pszUserAgent        the User-Agent of requests; NULL: the default
    /// @param pszCaFile           trusted certificates for rtsps (PEM); NULL: the system's
    /// @return 0, else the platform's code
    ZR_RTSP_API ZR_ULONG init(ZR_ULONG ulMaxMessageBytes, ZR_ULONG ulConnectTimeoutMs, const char *pszUserAgent,
                              const char *pszCaFile);

    /// Ends what init started. Objects that were not deleted stay, and may be deleted afterwards.
    ZR_RTSP_API void destroy();

    /// Makes the object of one media session.
    /// @param ulPortID      the media port's identifier: the key under which received media is marked
    /// @param strSrcUaID    local user agent; with strDstUaID the key of the route
    /// @param strDstUaID    remote user agent
    /// @param strLocalIP    where media is received
    /// @param usLocalPort   its first port
    /// @param strServerIP   the server's address or name
    /// @param usServerPort  its RTSP port; 0: 554
    /// @param ulAOIPortID   the identifier under which the object is registered with the dispatcher: neither 0 nor
    ///                      0xFFFFFFFF, and no other object's
    /// @return the object, the host's until deleteMediaCtrlInter; NULL when the registry is locked (from inside a
    ///         notification) or there is no memory
    ZR_RTSP_API CIMediaCtrl *createMediaCtrlInter(ZR_ULONG ulPortID, const std::string &strSrcUaID,
                                                  const std::string &strDstUaID, const std::string &strLocalIP,
                                                  ZR_USHORT usLocalPort, const std::string &strServerIP,
                                                  ZR_USHORT usServerPort, ZR_ULONG ulAOIPortID);

    /// Ends the session, deletes the object and sets the pointer to NULL. It waits for calls that are inside the
    /// object.
    /// @return 0; 2 for a pointer to NULL; 10109 when the registry is locked (from inside a notification): nothing is
    ///         deleted
    ZR_RTSP_API ZR_ULONG deleteMediaCtrlInter(CIMediaCtrl **ppoCIMediaCtrl);
}
