#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "mapping.h"
#include "rtsp_text.h"

namespace {

using namespace zr::dispatch;
namespace aoi = zr::aoi;
namespace rtsp = zr::rtsp;

bool isListed(const Session &session, std::string_view method)
{
    std::string_view rest = session.publicMethods;
    while (!rest.empty())
    {
        if (rtsp::takePiece(rest, ',') == method)
            return true;
    }
    return false;
}

/// A host name or address, with nothing that could end a Transport parameter.
bool isAddress(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == ':' ||
               c == '-';
    });
}

/// What a URL has percent-encoded on the wire.
bool isUnsafe(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
}

std::string percentEncoded(std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (isUnsafe(c))
            encoded.append(1, '%').append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
        else
            encoded += c;
    }
    return encoded;
}

std::string pair(unsigned first)
{
    return std::to_string(first) + '-' + std::to_string(first + 1);
}

/// A SETUP's Transport header (RFC 2326, 12.39); empty when its ports, channels or destination are out of bounds.
std::string transportOf(const aoi::TransportElement &asked, unsigned setups)
{
    const bool tcp = asked.protocol == PROTOCOL_TCP;
    if (!asked.method)
    {
        if (asked.port == 0 || asked.port == UINT16_MAX || !isAddress(asked.address))
            return {};
        return std::string(tcp ? "RTP/AVP/TCP" : "RTP/AVP") + ";unicast;destination=" + asked.address +
               ";client_port=" + pair(asked.port);
    }
    if (tcp)
        return setups > 127 ? std::string() : "RTP/AVP/TCP;unicast;interleaved=" + pair(2 * setups);
    if (*asked.method == BROADCASTMETHOD_MULTICAST)
        return "RTP/AVP;multicast";
    if (asked.port == 0 || setups > 127 || asked.port + 2 * setups + 1 > UINT16_MAX)
        return {};
    return "RTP/AVP;unicast;client_port=" + pair(asked.port + 2 * setups);
}

/// A Scale value with at least one digit after the point, which the least of parsers reads.
std::string scaleText(float scale)
{
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, scale, std::chars_format::fixed);
    std::string out(text, result.ptr);
    return out.find('.') == std::string::npos ? out + ".0" : out;
}

/// Builds a request line by line.
class RequestText
{
public:
    RequestText(std::string_view method, std::string_view url, unsigned cseq, std::string_view userAgent)
    {
        constexpr size_t usual = 512; // what most requests take, with an Authorization
        m_text.reserve(usual);
        m_text.append(method).append(" ").append(url).append(" RTSP/1.0\r\n");
        add("CSeq", std::to_string(cseq));
        add("User-Agent", userAgent);
    }

    /// Adds a header, unless its value is empty.
    void add(std::string_view name, std::string_view value)
    {
        if (value.empty())
            return;
        m_text.append(name).append(": ");
        rtsp::appendHeaderSafe(m_text, value);
        m_text.append("\r\n");
    }

    std::string end() { return std::move(m_text.append("\r\n")); }

private:
    std::string m_text;
};

} // namespace

namespace zr::dispatch {

const char *methodOf(ZR_ULONG messageId)
{
    switch (messageId)
    {
    case AOI_MSG_RTSP_SETUP:
        return "SETUP";
    case AOI_MSG_RTSP_PLAY:
        return "PLAY";
    case AOI_MSG_RTSP_PAUSE:
        return "PAUSE";
    case AOI_MSG_RTSP_TEARDOWN:
        return "TEARDOWN";
    case AOI_MSG_RTSP_OPTIONS:
        return "OPTIONS";
    case AOI_MSG_RTSP_DESCRIBE:
        return "DESCRIBE";
    case AOI_MSG_RTSP_SET_PARAMERTER:
        return "SET_PARAMETER";
    default:
        return nullptr;
    }
}

std::optional<Url> askedUrl(const aoi::Request &request, const Session &session)
{
    constexpr std::string_view secure = "rtsps://";
    std::string_view text = request.url.empty() || request.url == "*" ? session.lastUrl : request.url;
    // a control URL that the plug-in did not take for absolute stands behind its base
    const size_t joined = text.rfind(secure);
    if (joined != std::string_view::npos)
        text.remove_prefix(joined);
    return std::any_of(text.begin(), text.end(), isUnsafe) ? parseUrl(percentEncoded(text)) : parseUrl(text);
}

std::string wireUrl(const aoi::Request &request, const Session &session)
{
    auto url = askedUrl(request, session);
    return url ? std::move(url->withoutCredentials) : std::string();
}

std::string writeRequest(const aoi::Request &request, unsigned cseq, const Session &session,
                         const std::string &userAgent)
{
    return writeRequest(request, {wireUrl(request, session), request.authorization}, cseq, session, userAgent);
}

std::string writeRequest(const aoi::Request &request, const Wording &wording, unsigned cseq, const Session &session,
                         const std::string &userAgent)
{
    const char *method = methodOf(request.messageId);
    if (method == nullptr || wording.url.empty() || (request.messageId == AOI_MSG_RTSP_SETUP && !request.transport))
        return {};
    // some servers close the connection on a method that they do not know
    if (request.messageId == AOI_MSG_RTSP_SET_PARAMERTER && !session.publicMethods.empty() &&
        !isListed(session, method))
        method = keepAliveMethod(session, wording.authorization);
    RequestText text(method, wording.url, cseq, userAgent);
    text.add("Session", request.sessionId);
    if (request.transport)
    {
        const std::string transport = transportOf(*request.transport, session.setups);
        if (transport.empty())
            return {};
        text.add("Transport", transport);
    }
    // a Scale of 0 would be none (RFC 2326, 12.34)
    if (request.scale && std::isfinite(*request.scale) && *request.scale != 0)
        text.add("Scale", scaleText(*request.scale));
    text.add("Range", request.range);
    text.add("Authorization", wording.authorization);
    if (request.accept)
        text.add("Accept", "application/sdp");
    return text.end();
}

const char *keepAliveMethod(const Session &session, std::string_view authorization)
{
    const bool bound = rtsp::beginsWith(authorization, "Digest ");
    return !bound && isListed(session, "GET_PARAMETER") ? "GET_PARAMETER" : "OPTIONS";
}

std::string writeKeepAlive(const Session &session, std::string_view authorization, unsigned cseq,
                           const std::string &userAgent)
{
    if (session.lastUrl.empty())
        return {};
    RequestText text(keepAliveMethod(session, authorization), session.lastUrl, cseq, userAgent);
    text.add("Session", session.id);
    text.add("Authorization", authorization);
    return text.end();
}

} // namespace zr::dispatch
