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

/// The values of a message's IEs, read from its front to its end once.
class Elements
{
public:
    /// Of two IEs of an identifier the first counts.
    Status read(const tagMDPMsg *message)
    {
        mdp::Walk walk(message);
        while (walk.next())
        {
            std::string_view &place = m_values[placeOf(walk.id())];
            if (place.data() == nullptr)
                place = walk.value();
        }
        return walk.sound() ? mdp::Ok : mdp::Malformed;
    }

    /// Null when there is none; never for one that is there.
    std::string_view of(ZR_ULONG id) const { return m_values[placeOf(id)]; }

private:
    static constexpr size_t inRow = AOI_IE_ACCEPT - AOI_IE_URL + 1; ///< a request's are, but for one
    static constexpr size_t places = inRow + 2;                     ///< that one, and all that no request has

    static constexpr size_t placeOf(ZR_ULONG id)
    {
        const ZR_ULONG place = id - AOI_IE_URL;
        if (place < inRow)
            return place;
        return id == AOI_IE_AUTHORIZATION_ID ? inRow : inRow + 1;
    }

    std::array<std::string_view, places> m_values;
};

struct TextRow
{
    ZR_ULONG id;
    std::string Request::*member;
};
constexpr std::array<TextRow, 6> textRows{{{AOI_IE_URL, &Request::url},
                                           {AOI_IE_SESSION_ID, &Request::sessionId},
                                           {AOI_IE_SRC_UA_ID, &Request::srcUaId},
                                           {AOI_IE_DST_UA_ID, &Request::dstUaId},
                                           {AOI_IE_RANGE_TIME, &Request::range},
                                           {AOI_IE_AUTHORIZATION_ID, &Request::authorization}}};
using Texts = std::array<std::string_view, textRows.size()>;

Status readTexts(const Elements &elements, Texts &texts)
{
    for (size_t i = 0; i < texts.size(); ++i)
    {
        const std::string_view value = elements.of(textRows[i].id);
        if (value.data() == nullptr)
            continue;
        const Status status = readText(value, 0, texts[i]);
        if (status != mdp::Ok)
            return status;
        if (!isHeaderText(texts[i]))
            return mdp::ForbiddenText;
    }
    return mdp::Ok;
}

Status readTransport(const Elements &elements, std::optional<TransportElement> &asked)
{
    for (const ZR_ULONG id : {AOI_IE_TRANSPORT, AOI_IE_METHOD_TRANSPORT})
    {
        const std::string_view value = elements.of(id);
        if (value.data() == nullptr)
            continue;
        TransportElement transport;
        const Status status = readTransport(value, id == AOI_IE_METHOD_TRANSPORT, transport);
        if (status != mdp::Ok)
            return status;
        if (asked) // both forms: which one is asked for?
            return mdp::Malformed;
        const ZR_ULONG method = transport.method.value_or(BROADCASTMETHOD_NONE);
        if (transport.protocol > PROTOCOL_TCP ||
            (method > BROADCASTMETHOD_MULTICAST && method != BROADCASTMETHOD_NONE) ||
            !isHeaderText(transport.address) || addressProblem(transport) != nullptr)
            return mdp::BadValue;
        asked = std::move(transport);
    }
    return mdp::Ok;
}

Status readScale(std::string_view value, std::optional<float> &asked)
{
    if (value.data() == nullptr)
        return mdp::Ok;
    float scale = 0;
    if (value.size() != sizeof(scale))
        return mdp::Malformed;
    std::memcpy(&scale, value.data(), sizeof(scale));
    if (!std::isfinite(scale))
        return mdp::BadValue;
    asked = scale;
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
    if (message == nullptr)
        return mdp::NullArgument;
    Elements elements;
    Status status = elements.read(message);
    if (status != mdp::Ok)
        return status;
    if (message->stHeader.ulMsgKind != 0)
        return mdp::NotARequest;
    if (!isRequestId(message->stHeader.ulMsgID))
        return mdp::UnknownMessage;

    Texts texts;
    std::optional<TransportElement> transport;
    std::optional<float> scale;
    status = readTexts(elements, texts);
    if (status == mdp::Ok)
        status = readTransport(elements, transport);
    if (status == mdp::Ok)
        status = readScale(elements.of(AOI_IE_SCALE), scale);
    if (status != mdp::Ok)
        return status;

    out.messageId = message->stHeader.ulMsgID;
    out.sourceId = message->stHeader.ulSrcID;
    for (size_t i = 0; i < texts.size(); ++i)
        out.*textRows[i].member = std::string(texts[i]);
    out.transport = std::move(transport);
    out.scale = scale;
    out.accept = elements.of(AOI_IE_ACCEPT).data() != nullptr;
    out.onvif = elements.of(AOI_IE_DST_UA_ID).find(onvifMark) != std::string_view::npos;
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
