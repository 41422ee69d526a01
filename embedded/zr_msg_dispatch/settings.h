/// @file
/// What the dispatcher's engine can be told: bounds and durations. Tests shorten them; hosts set some through
/// ZR_MSGDISP_Init.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace zr::dispatch {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Settings
{
    size_t maxBody = 1048576;           ///< bytes of a message's body
    size_t maxRequests = 64;            ///< of one registration, accepted and not yet answered or dropped
    size_t maxOutgoing = 262144;        ///< bytes that a server may leave unread before it is given up
    size_t maxOutgoingMedia = 65536;    ///< the same, from where on RTCP is dropped
    milliseconds connectTimeout{5000};  ///< name and connection together
    milliseconds messageTimeout{10000}; ///< a message's first byte to its last
    milliseconds requestTimeout{25000}; ///< sendAOIMsg to the answer, as long as a requester waits
    milliseconds keepAliveHold{2000};   ///< how long an unanswered keep-alive holds other requests back
    milliseconds sessionSecond{1000};   ///< what a server's session time-out counts in
    unsigned servedTimeout = 60;        ///< seconds: from there on the requester's own keep-alives serve a session
    milliseconds tunnelPause{500};      ///< for a server to end a POST of which all is sent that it announced
    milliseconds linger{2000};          ///< how long a TEARDOWN's answer is waited for after unregistering
    std::string userAgent;
    std::string caFile;                   ///< PEM; empty: the system's
    std::vector<std::string> moreCaFiles; ///< PEM, trusted besides
    bool verify = true;                   ///< the certificates of servers
};

} // namespace zr::dispatch
