/// @file
/// AOI requests to RTSP requests, RTSP answers to AOI answers. Nothing here knows sockets or threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "aoi_message.h"
#include "media_port.h"
#include "rtsp_message.h"

namespace zr::dispatch
{

/// What one RTSP session has agreed on so far. Owned by its connection; one thread at a time.
struct Session
{
    std::string id;               ///< without parameters
    unsigned timeoutSeconds = 60; ///< of the Session header's "timeout" (RFC 2326, 12.37)
    unsigned setups = 0;          ///< SETUPs of the session itself that were answered 2xx, relations not counted
    std::string lastUrl;          ///< of the last request
    std::vector<std::string> publicMethods; ///< of the last Public header; empty: unknown
    std::string challengedBy;               ///< host and port that asked for credentials last
    bool played = false;                    ///< a PLAY was answered 2xx
};

/// The connection's far and near ends, as an answer's mapping needs them.
struct Ends
{
    std::string peerAddress;
    uint16_t peerPort = 0;
};

/// "DESCRIBE" for AOI_MSG_RTSP_DESCRIBE and so on; null for what is no request.
const char *methodOf(ZR_ULONG messageId);

/// The bytes of a request.
/// @param cseq  its sequence number
/// n of a SETUP's Transport is session.setups (RTP and RTCP ports or channels are P + 2n and P + 2n + 1).
std::string writeRequest(const aoi::Request &request, unsigned cseq, const Session &session,
                         const std::string &userAgent);

/// What came of an answer.
struct Mapped
{
    aoi::Answer answer;
    std::optional<media::TrackTransport> track; ///< of a 2xx SETUP of the session itself
    unsigned trackNumber = 0;                   ///< n of that SETUP
    std::string problem; ///< why a 2xx became a failure, or a challenge could not be used; for the log
};

/// Maps the final answer of a request (1xx are the caller's to pass over), and brings the session up to date.
/// @param requestUrl  the URL that was asked in the end (after redirects)
Mapped mapResponse(const aoi::Request &request, const std::string &requestUrl, const rtsp::Message &response,
                   Session &session, const Ends &ends);

/// The failure answer that the platform itself gives (503: the far side is not reachable ...).
aoi::Answer failureAnswer(const aoi::Request &request, ZR_ULONG status);

/// A URL's parts; none when it is no rtsp or rtsps URL with a host. Brackets of an IPv6 literal are cut off.
struct Url
{
    bool secure = false;
    std::string host;
    uint16_t port = 0; ///< 554 or 322 when not given
    std::string withoutCredentials;
};
std::optional<Url> parseUrl(std::string_view text);

} // namespace zr::dispatch
