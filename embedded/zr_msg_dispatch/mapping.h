/// @file
/// AOI requests to RTSP requests, RTSP answers to AOI answers. Nothing here knows sockets or threads.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "aoi_message.h"
#include "media_port.h"
#include "play_position.h"
#include "rtsp_message.h"

namespace zr::dispatch {

/// Where a section of a description is sent to (RFC 4566, 5.7 and 5.14).
struct DescribedGroup
{
    std::string control;              ///< as it stands there
    std::string address;              ///< numeric; empty: no group
    uint16_t port = 0;                ///< 0: not said
    std::vector<std::string> sources; ///< who alone sends there (RFC 4570), numeric; empty: not said
};

/// Channels of an interleaved session (RFC 2326, 10.12).
using ChannelSet = std::bitset<256>;

/// What one RTSP session has agreed on so far. Owned by its connection; one thread at a time.
struct Session
{
    std::string id;                     ///< without parameters
    unsigned timeoutSeconds = 60;       ///< of the Session header's "timeout" (RFC 2326, 12.37)
    unsigned setups = 0;                ///< SETUPs of the session itself that were answered 2xx, relations not counted
    ChannelSet channels;                ///< of the tracks that were set up interleaved
    std::string lastUrl;                ///< of the last answered request of the session itself
    std::string publicMethods;          ///< of the last Public header, in capitals, after commas; empty: unknown
    std::vector<DescribedGroup> groups; ///< of the description's sections in their order; empty: none is multicast
    std::string challengedBy;           ///< hostAndPort of who asked for credentials last; the owner's to note
    size_t authorized = 0;              ///< hash of the host's Authorization that went out last, likewise
    size_t authorizedAt = 0;            ///< and of the hostAndPort where it went to
    bool played = false;                ///< a PLAY was answered 2xx
    PlayPosition position;              ///< what plays, for the Range of OPTIONS answers
};

/// The connection's far and near ends, as an answer's mapping needs them.
struct Ends
{
    std::string peerAddress;
    uint16_t peerPort = 0;
};

/// "192.0.2.1:554", "[2001:db8::1]:554": the form of Session::challengedBy.
std::string hostAndPort(const Ends &ends);

/// "DESCRIBE" for AOI_MSG_RTSP_DESCRIBE and so on; null for what is no request.
const char *methodOf(ZR_ULONG messageId);

/// The bytes of a request. An Authorization is written whenever the request has one: whether the far side may see it
/// is for the caller to judge (Session::challengedBy). A SET_PARAMETER to a server that does not list it goes out as
/// keepAliveMethod.
/// @param cseq  its sequence number
/// @return empty when the request cannot be written: no usable URL, or ports, channels or a destination out of bounds
/// n of a SETUP's Transport is session.setups (RTP and RTCP ports or channels are P + 2n and P + 2n + 1).
std::string writeRequest(const aoi::Request &request, unsigned cseq, const Session &session,
                         const std::string &userAgent);

/// What stands in a request's line and headers in place of its own.
struct Wording
{
    std::string_view url; ///< as wireUrl gives it, or a redirect's target
    std::string_view authorization;
};
/// @copydoc writeRequest
std::string writeRequest(const aoi::Request &request, const Wording &wording, unsigned cseq, const Session &session,
                         const std::string &userAgent);

/// What keeps a session alive: GET_PARAMETER where the server lists it, else OPTIONS; with a Digest of the requester's,
/// which holds for OPTIONS alone (RFC 2617, 3.2.2.3), OPTIONS.
const char *keepAliveMethod(const Session &session, std::string_view authorization);

/// The bytes of a keep-alive of the platform's own.
/// @param authorization  may be empty
/// @return empty when nothing of the session was answered yet, so that it has no URL
std::string writeKeepAlive(const Session &session, std::string_view authorization, unsigned cseq,
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
/// @param request     as the plug-in made it
/// @param requestUrl  the URL that was asked in the end (wireUrl, or the redirect's target)
/// @param now         when the answer came
Mapped mapResponse(const aoi::Request &request, const std::string &requestUrl, const rtsp::Message &response,
                   Session &session, const Ends &ends,
                   std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

/// What becomes of a request of the server's own.
struct ServerRequest
{
    int status = 200;                   ///< of its answer
    std::vector<rtsp::Header> headers;  ///< of its answer
    std::optional<ZR_ULONG> quitReason; ///< set: it ends the session, for that reason
    std::string says;                   ///< for the log; may be empty
};

/// Judges it: by its method, an announcement by the number of its Notice (or x-notice) header.
ServerRequest judgeServerRequest(const rtsp::Message &request);

/// The failure answer that the platform itself gives (503: the far side is not reachable ...).
aoi::Answer failureAnswer(const aoi::Request &request, ZR_ULONG status);

/// The absolute URL that a 301 or 302 points to; none when it has no usable one, or leads from rtsps to rtsp.
std::optional<std::string> redirectTarget(const std::string &requestUrl, const rtsp::Message &response);

/// A reference made absolute against a base URL (RFC 3986, 5.2, without its dot segments); none when the result is no
/// RTSP URL. Credentials are cut off.
std::optional<std::string> resolveUrl(const std::string &base, std::string_view reference);

/// A URL's parts; none when it is no rtsp or rtsps URL with a host. Brackets of an IPv6 literal are cut off.
struct Url
{
    bool secure = false;
    std::string host;
    uint16_t port = 0; ///< 554 or 322 when not given
    std::string withoutCredentials;
};
std::optional<Url> parseUrl(std::string_view text);

/// The URL that a request asks for on the wire: its own, else the session's last; of a control URL joined to a base
/// the last rtsps URL; blanks and controls percent-encoded. Without credentials; empty when there is no usable one.
std::string wireUrl(const aoi::Request &request, const Session &session);

/// Where that URL leads.
struct Destination
{
    bool secure = false;
    std::string host;
};
/// None when there is no usable one.
std::optional<Destination> askedUrl(const aoi::Request &request, const Session &session);

} // namespace zr::dispatch
