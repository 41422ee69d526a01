#include <algorithm>

#include "mapping_parts.h"
#include "result_codes.h"
#include "rtsp_text.h"

namespace {

using namespace zr::dispatch;
namespace aoi = zr::aoi;
namespace rtsp = zr::rtsp;

constexpr ZR_ULONG successKind = 1;
constexpr ZR_ULONG failureKind = 2;

/// Whether it sets up the relation to a TV wall, not the session itself.
bool isRelation(const aoi::Request &request)
{
    return request.transport && !request.transport->method;
}

void fail(Mapped &mapped, const aoi::Request &request, ZR_ULONG status, std::string problem)
{
    mapped.answer = failureAnswer(request, status);
    mapped.problem = std::move(problem);
}

/// Reads a Session header (RFC 2326, 12.37).
/// @param timeoutSeconds  keeps its value when none is given
/// @return the ID without its parameters; empty when there is none
std::string_view readSession(const rtsp::Message &response, unsigned &timeoutSeconds)
{
    constexpr uint32_t day = 86400;
    constexpr std::string_view timeout = "timeout=";
    const std::string *header = response.find("Session");
    if (header == nullptr)
        return {};
    std::string_view rest = *header;
    const std::string_view id = rtsp::takePiece(rest, ';');
    while (!rest.empty())
    {
        const std::string_view piece = rtsp::takePiece(rest, ';');
        if (!rtsp::beginsWith(piece, timeout))
            continue;
        const auto seconds = rtsp::parseNumber(rtsp::trimmed(piece.substr(timeout.size())), day);
        if (seconds && *seconds > 0)
            timeoutSeconds = *seconds;
    }
    return id;
}

std::string readPublic(const rtsp::Message &response)
{
    constexpr size_t most = 64;
    size_t count = 0;
    std::string methods;
    for (const rtsp::Header &header : response.headers)
    {
        if (!rtsp::sameText(header.name, "Public"))
            continue;
        for (std::string_view rest = header.value; !rest.empty();)
        {
            const std::string_view piece = rtsp::takePiece(rest, ',');
            if (!piece.empty() && ++count <= most)
                methods.append(methods.empty() ? "" : ", ").append(piece);
        }
    }
    std::transform(methods.begin(), methods.end(), methods.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return methods;
}

void mapChallenge(const aoi::Request &request, const rtsp::Message &response, Mapped &mapped)
{
    mapped.answer = failureAnswer(request, static_cast<ZR_ULONG>(response.status));
    mapped.answer.challenge = chooseChallenge(response, mapped.problem);
    if (!mapped.answer.challenge)
        return fail(mapped, request, statusForbidden, std::move(mapped.problem));
    mapped.problem.clear();
}

/// The base that control URLs are joined to (RFC 2326, C.1.1); none: the request's own URL, by the requester's rules.
std::optional<std::string> contentBase(const aoi::Request &request, const std::string &requestUrl,
                                       const rtsp::Message &response, std::string_view sdp)
{
    std::optional<std::string> base;
    for (const char *name : {"Content-Base", "Content-Location"})
    {
        const std::string *header = response.find(name);
        if (header != nullptr && !base)
            base = resolveUrl(requestUrl, *header);
    }
    if (!base && requestUrl != wireUrl(request, {}))
        base = requestUrl;
    if (base && base->back() != '/' && hasRelativeControls(sdp))
        *base += '/';
    return base;
}

void mapDescription(const aoi::Request &request, const std::string &requestUrl, const rtsp::Message &response,
                    Session &session, Mapped &mapped)
{
    const auto sdp = readDescription(response);
    if (!sdp)
    {
        const std::string *type = response.find("Content-Type");
        return fail(mapped, request, statusUnsupportedMediaType,
                    "the DESCRIBE answer holds no SDP: " + std::to_string(response.body.size()) + " bytes of type " +
                        rtsp::quoted(type != nullptr ? *type : ""));
    }
    session.groups = readGroups(*sdp);
    std::string completed = completeRtpmaps(*sdp);
    mapped.answer.contentBase = contentBase(request, requestUrl, response, *sdp);
    if (request.onvif)
    {
        completed =
            completeControl(std::move(completed), mapped.answer.contentBase ? *mapped.answer.contentBase : requestUrl);
        std::string problem = descriptionProblem(completed);
        if (!problem.empty())
            return fail(mapped, request, statusUnsupportedMediaType, std::move(problem));
    }
    mapped.answer.body = std::move(completed);
    const std::string *location = request.onvif ? nullptr : response.find("Content-Location");
    if (location != nullptr)
        mapped.answer.url = resolveUrl(requestUrl, *location);
}

void mapSetup(const aoi::Request &request, const std::string &requestUrl, const rtsp::Message &response,
              Session &session, const Ends &ends, Mapped &mapped)
{
    const unsigned number = session.setups;
    if (!isRelation(request))
        ++session.setups;
    if (!mapped.answer.sessionId)
        return fail(mapped, request, statusBadGateway, "the SETUP answer has no Session");
    session.id = *mapped.answer.sessionId;
    if (!request.transport)
        return;
    std::string problem;
    const TransportQuestion asked{*request.transport, session.channels, number, groupFor(session, requestUrl, number)};
    const auto agreed = readTransport(asked, response, ends, problem);
    if (!agreed)
        return fail(mapped, request, statusUnsupportedTransport, std::move(problem));
    mapped.answer.transport = agreed->plain;
    if (isRelation(request))
        return;
    if (agreed->track.interleaved)
        session.channels.set(agreed->track.rtpChannel).set(agreed->track.rtcpChannel);
    mapped.answer.method = request.transport->method;
    mapped.answer.methodTransport = agreed->method;
    mapped.track = agreed->track;
    mapped.track->url = requestUrl;
    mapped.trackNumber = number;
}

void mapPlay(const aoi::Request &request, const rtsp::Message &response, Session &session, PlayPosition::Time now)
{
    constexpr double largestScale = 1000;
    const std::string *range = response.find("Range");
    const std::string *scale = response.find("Scale");
    session.played = true;
    session.position.play(range != nullptr ? std::string_view(*range) : "", request.range,
                          scale != nullptr ? rtsp::parseDecimal(*scale, largestScale).value_or(1) : 1, now);
}

/// Whether an answer that a requester waits for is its session's: it would pass over another one, and go on waiting.
bool isOfSession(const aoi::Request &request, const rtsp::Message &response)
{
    const bool awaited = request.messageId == AOI_MSG_RTSP_PLAY || request.messageId == AOI_MSG_RTSP_PAUSE;
    if (!awaited || request.sessionId.empty())
        return true;
    unsigned ignored = 0;
    const std::string_view id = readSession(response, ignored);
    return id.empty() || id == request.sessionId;
}

/// What every 2xx answer says.
void mapCommon(const aoi::Request &request, const rtsp::Message &response, Session &session, aoi::Answer &answer)
{
    answer.messageId = request.messageId;
    answer.kind = successKind;
    answer.destinationId = request.sourceId;
    std::string_view id = readSession(response, session.timeoutSeconds);
    if (id.empty())
        id = session.id.empty() ? request.sessionId : session.id;
    if (!id.empty())
        answer.sessionId = id;
    if (const std::string *server = response.find("Server"))
        answer.server = *server;
    if (const std::string *range = response.find("Range"))
        answer.range = *range;
    std::string methods = readPublic(response);
    if (!methods.empty())
        session.publicMethods = std::move(methods);
}

} // namespace

namespace zr::dispatch {

Mapped mapResponse(const aoi::Request &request, const std::string &requestUrl, const rtsp::Message &response,
                   Session &session, const Ends &ends, std::chrono::steady_clock::time_point now)
{
    Mapped mapped;
    // a TEARDOWN may be a relation's; nothing follows the session's own
    if (!isRelation(request) && request.messageId != AOI_MSG_RTSP_TEARDOWN)
        session.lastUrl = requestUrl;
    if (!rtsp::isSuccess(response))
    {
        mapped.answer = failureAnswer(request, static_cast<ZR_ULONG>(response.status));
        if (response.status == statusUnauthorized)
            mapChallenge(request, response, mapped);
        return mapped;
    }
    if (!isOfSession(request, response))
    {
        fail(mapped, request, statusSessionNotFound,
             "the answer is for the session " + rtsp::quoted(*response.find("Session")));
        return mapped;
    }
    mapCommon(request, response, session, mapped.answer);
    switch (request.messageId)
    {
    case AOI_MSG_RTSP_DESCRIBE:
        mapDescription(request, requestUrl, response, session, mapped);
        break;
    case AOI_MSG_RTSP_SETUP:
        mapSetup(request, requestUrl, response, session, ends, mapped);
        break;
    case AOI_MSG_RTSP_PLAY:
        mapPlay(request, response, session, now);
        break;
    case AOI_MSG_RTSP_PAUSE:
        session.position.pause(now);
        break;
    case AOI_MSG_RTSP_OPTIONS:
        if (!mapped.answer.range)
            mapped.answer.range = session.position.range(now);
        break;
    default:
        break;
    }
    return mapped;
}

aoi::Answer failureAnswer(const aoi::Request &request, ZR_ULONG status)
{
    aoi::Answer answer;
    answer.messageId = request.messageId;
    answer.kind = failureKind;
    answer.destinationId = request.sourceId;
    answer.errorCode = status;
    return answer;
}

} // namespace zr::dispatch
