#include "aoi_message.h"

#include <array>
#include <cmath>
#include <cstring>

#include "aoi_element.h"

namespace zr::aoi {
namespace {

bool isRequestId(ZR_ULONG messageId)
{
    switch (messageId)
    {
    case AOI_MSG_RTSP_SETUP:
    case AOI_MSG_RTSP_PLAY:
    case AOI_MSG_RTSP_PAUSE:
    case AOI_MSG_RTSP_TEARDOWN:
    case AOI_MSG_RTSP_OPTIONS:
    case AOI_MSG_RTSP_DESCRIBE:
    case AOI_MSG_RTSP_SET_PARAMERTER:
        return true;
    default:
        return false;
    }
}

/// What is absent is no failure.
Status optional(Status status)
{
    return status == mdp::NotFound ? mdp::Ok : status;
}

Status readTexts(const tagMDPMsg *message, Request &request)
{
    struct Row
    {
        ZR_ULONG id;
        std::string Request::*member;
    };
    static constexpr std::array<Row, 6> rows{{{AOI_IE_URL, &Request::url},
                                              {AOI_IE_SESSION_ID, &Request::sessionId},
                                              {AOI_IE_SRC_UA_ID, &Request::srcUaId},
                                              {AOI_IE_DST_UA_ID, &Request::dstUaId},
                                              {AOI_IE_RANGE_TIME, &Request::range},
                                              {AOI_IE_AUTHORIZATION_ID, &Request::authorization}}};
    for (const Row &row : rows)
    {
        const Status status = optional(getText(message, row.id, 0, request.*row.member));
        if (status != mdp::Ok)
            return status;
        if (!isHeaderText(request.*row.member))
            return mdp::ForbiddenText;
    }
    return mdp::Ok;
}

Status readTransport(const tagMDPMsg *message, Request &request)
{
    for (const ZR_ULONG id : {AOI_IE_TRANSPORT, AOI_IE_METHOD_TRANSPORT})
    {
        TransportElement transport;
        const Status status = getTransport(message, id, transport);
        if (status == mdp::NotFound)
            continue;
        if (status != mdp::Ok)
            return status;
        if (request.transport) // both forms: which one is asked for?
            return mdp::Malformed;
        const ZR_ULONG method = transport.method.value_or(BROADCASTMETHOD_NONE);
        if (transport.protocol > PROTOCOL_TCP ||
            (method > BROADCASTMETHOD_MULTICAST && method != BROADCASTMETHOD_NONE) ||
            !isHeaderText(transport.address) || addressProblem(transport) != nullptr)
            return mdp::BadValue;
        request.transport = std::move(transport);
    }
    return mdp::Ok;
}

Status readScale(const tagMDPMsg *message, Request &request)
{
    ZR_ULONG bits = 0;
    const Status status = getNumber(message, AOI_IE_SCALE, bits);
    if (status != mdp::Ok)
        return optional(status);
    float scale = 0;
    std::memcpy(&scale, &bits, sizeof(scale));
    if (!std::isfinite(scale))
        return mdp::BadValue;
    request.scale = scale;
    return mdp::Ok;
}

/// The IEs of an answer: `visit.text(id, prefix size, text)`, `visit.number(id, number)`,
/// `visit.transport(id, transport)` for each one that is there, so that sizing and writing cannot differ.
template <typename Visitor>
void visitElements(const Answer &answer, Visitor &&visit)
{
    const auto text = [&](ZR_ULONG id, size_t prefix, const std::optional<std::string> &value) {
        if (value)
            visit.text(id, prefix, *value);
    };
    const auto number = [&](ZR_ULONG id, const std::optional<ZR_ULONG> &value) {
        if (value)
            visit.number(id, *value);
    };
    number(AOI_IE_ERRCODE, answer.errorCode);
    text(AOI_IE_SESSION_ID, 0, answer.sessionId);
    if (answer.transport)
        visit.transport(AOI_IE_TRANSPORT, {answer.transport->address, answer.transport->port, PROTOCOL_UDP, {}});
    if (answer.method)
        visit.transport(AOI_IE_METHOD_TRANSPORT,
                        {answer.methodTransport.address, answer.methodTransport.port, PROTOCOL_UDP, answer.method});
    text(AOI_IE_CONTENT_BASE, 0, answer.contentBase);
    text(AOI_IE_URL, 0, answer.url);
    text(AOI_IE_SERVER, 0, answer.server);
    text(AOI_IE_DATA, dataPrefix, answer.body);
    text(AOI_IE_AUTHORIZATION_ID, challengePrefix, answer.challenge);
    text(AOI_IE_RANGE, 0, answer.range);
    number(AOI_IE_QUIT_REASON, answer.quitReason);
    number(AOI_IE_SESSION_ACTION, answer.action);
}

struct Sizer
{
    size_t size = mdp::prefixSize;
    void text(ZR_ULONG /*id*/, size_t prefix, const std::string &value) { size += textSize(prefix, value.size()); }
    void number(ZR_ULONG /*id*/, ZR_ULONG /*value*/) { size += numberSize; }
    void transport(ZR_ULONG /*id*/, const TransportElement &value)
    {
        size += textSize(transportPrefix, value.address.size());
    }
};

struct Writer
{
    tagMDPMsg *message;
    bool complete = true;
    void text(ZR_ULONG id, size_t prefix, const std::string &value)
    {
        static constexpr char zeros[dataPrefix] = {};
        note(appendText(message, id, {zeros, prefix}, value));
    }
    void number(ZR_ULONG id, ZR_ULONG value) { note(appendNumber(message, id, value)); }
    void transport(ZR_ULONG id, const TransportElement &value) { note(appendTransport(message, id, value)); }
    void note(Status status) { complete = complete && status == mdp::Ok; }
};

} // namespace

ZR_ULONG readRequest(const tagMDPMsg *message, Request &out)
{
    Status status = mdp::check(message);
    if (status != mdp::Ok)
        return status;
    if (message->stHeader.ulMsgKind != 0)
        return mdp::NotARequest;
    if (!isRequestId(message->stHeader.ulMsgID))
        return mdp::UnknownMessage;

    Request request;
    request.messageId = message->stHeader.ulMsgID;
    request.sourceId = message->stHeader.ulSrcID;
    for (const auto read : {readTexts, readTransport, readScale})
    {
        status = read(message, request);
        if (status != mdp::Ok)
            return status;
    }
    std::string_view accept;
    request.accept = mdp::find(message, AOI_IE_ACCEPT, accept) == mdp::Ok;
    std::string_view destination;
    request.onvif = mdp::find(message, AOI_IE_DST_UA_ID, destination) == mdp::Ok &&
                    destination.find(onvifMark) != std::string_view::npos;
    out = std::move(request);
    return mdp::Ok;
}

MessagePtr writeAnswer(const Answer &answer)
{
    Sizer sizer;
    visitElements(answer, sizer);
    if (sizer.size > UINT32_MAX)
        return nullptr;
    MessagePtr message(CAOIIETool::mallocAOIMsg(static_cast<ZR_ULONG>(sizer.size)));
    if (message == nullptr)
        return nullptr;
    message->stHeader = {answer.messageId, answer.kind, 0xFFFFFFFF, answer.destinationId};
    Writer writer{message.get()};
    visitElements(answer, writer);
    return writer.complete ? std::move(message) : nullptr;
}

} // namespace zr::aoi
