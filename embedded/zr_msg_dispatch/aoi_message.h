/// @file
/// AOI messages as the wire side uses them: a request decoded and copied, an answer written.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tw_system.h"
#include "zr_msg_dispatch.h"

namespace zr::aoi {

/// The User-Agent of requests where ZR_MSGDISP_Init was given none.
extern const char *const defaultUserAgent;

struct TransportAddress
{
    std::string address;
    uint16_t port = 0;
};

/// The transport that a SETUP asks for.
struct TransportElement
{
    std::string address;
    uint16_t port = 0;
    tagProtocol protocol = PROTOCOL_UDP;
    std::optional<tagBroadcastmethod> method; ///< none: the relation to a TV wall
};

/// A request, copied out of its message; a text that is absent is empty.
struct Request
{
    ZR_ULONG messageId = 0;
    ZR_ULONG sourceId = 0;
    std::string url;
    std::string sessionId;
    std::string srcUaId;
    std::string dstUaId;
    std::string range; ///< the Range header's whole value
    std::string authorization;
    std::optional<TransportElement> transport;
    std::optional<float> scale;
    bool accept = false;
    bool onvif = false; ///< whoever asks takes the source for one (DESCRIBE, SETUP)
};

/// Decodes a request message.
/// @return 0; a code (zr::mdp::Status) when it is not a well-formed request of a known identifier, or holds what no
/// RTSP request can carry: `out` is then as before
ZR_ULONG readRequest(const tagMDPMsg *message, Request &out);

/// What an answer (kind 1 or 2) or a request to a processor (kind 0) says; what is not set is not in the message.
struct Answer
{
    ZR_ULONG messageId = 0;
    ZR_ULONG kind = 0;
    ZR_ULONG destinationId = 0;
    std::optional<ZR_ULONG> errorCode;
    std::optional<std::string> sessionId;
    std::optional<TransportAddress> transport; ///< the plain form
    std::optional<tagBroadcastmethod> method;  ///< set: the method form is there as well, with the next member
    TransportAddress methodTransport;
    std::optional<std::string> contentBase;
    std::optional<std::string> url;
    std::optional<std::string> server;
    std::optional<std::string> body;      ///< of AOI_IE_DATA, without its 84 bytes and its zero
    std::optional<std::string> challenge; ///< of AOI_IE_AUTHORIZATION_ID, without its 8 bytes and its zero
    std::optional<std::string> range;
    std::optional<ZR_ULONG> quitReason;
    std::optional<ZR_ULONG> action;
};

struct MessageDeleter
{
    void operator()(tagMDPMsg *message) const
    {
        void *memory = message;
        VELK_free(&memory);
    }
};
using MessagePtr = std::unique_ptr<tagMDPMsg, MessageDeleter>;

/// Writes an answer into a message as large as it must be; null without memory.
MessagePtr writeAnswer(const Answer &answer);

} // namespace zr::aoi
