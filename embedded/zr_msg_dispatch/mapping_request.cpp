#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "mapping_parts.h"
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

/// With its blanks and controls percent-encoded.
std::string percentEncoded(std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7f)
            encoded.append(1, '%').append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
        else
            encoded += c;
    }
    return encoded;
}

/// A Scale value with at least one digit after the point, which the least of parsers reads.
std::string scaleText(float scale)
{
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, scale, std::chars_format::fixed);
    std::string out(text, result.ptr);
    return out.find('.') == std::string::npos ? out + ".0" : out;
}

/// Builds a request piece by piece: the end of a line goes out with the name of the next one.
class RequestText
{
public:
    RequestText(std::string_view method, std::string_view url, unsigned cseq, std::string_view userAgent)
    {
        constexpr size_t usual = 512; // what most requests take, with an Authorization
        m_text.reserve(usual);
        add(method).add(" ").add(url).add(" RTSP/1.0\r\nCSeq: ").add(cseq).header("\r\nUser-Agent: ", userAgent);
    }

    RequestText &add(std::string_view text)
    {
        m_text.append(text);
        return *this;
    }

    RequestText &add(unsigned number)
    {
        char digits[16];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        m_text.append(digits, static_cast<size_t>(result.ptr - digits));
        return *this;
    }

    /// "4588-4589"
    RequestText &pair(unsigned first) { return add(first).add("-").add(first + 1); }

    /// Adds a header, unless its value is empty.
    /// @param opening  the end of the line before, its name, and what stands in front of its value
    void header(std::string_view opening, std::string_view value)
    {
        if (value.empty())
            return;
        m_text.append(opening);
        rtsp::appendHeaderSafe(m_text, value);
    }

    std::string end() { return std::move(m_text.append("\r\n\r\n")); }

private:
    std::string m_text;
};

/// Adds a SETUP's Transport header (RFC 2326, 12.39); false when its ports, channels or destination are out of bounds.
bool addTransport(RequestText &text, const aoi::TransportElement &asked, unsigned setups)
{
    const bool tcp = asked.protocol == PROTOCOL_TCP;
    text.add(tcp ? "\r\nTransport: RTP/AVP/TCP;" : "\r\nTransport: RTP/AVP;");
    if (!asked.method)
    {
        if (asked.port == 0 || asked.port == UINT16_MAX || !isAddress(asked.address))
            return false;
        text.add("unicast;destination=").add(asked.address).add(";client_port=").pair(asked.port);
    }
    else if (tcp)
    {
        if (setups > 127)
            return false;
        text.add("unicast;interleaved=").pair(2 * setups);
    }
    else if (*asked.method == BROADCASTMETHOD_MULTICAST)
        text.add("multicast");
    else
    {
        if (asked.port == 0 || setups > 127 || asked.port + 2 * setups + 1 > UINT16_MAX)
            return false;
        text.add("unicast;client_port=").pair(asked.port + 2 * setups);
    }
    return true;
}

/// Reads the URL that a request asks for on the wire.
/// @param encoded  receives it where it cannot go out as it is; the parts are its then
std::optional<UrlParts> readAsked(const aoi::Request &request, const Session &session, std::string &encoded)
{
    constexpr std::string_view secure = "rtsps://";
    constexpr size_t beforeColon = 5;
    std::string_view text = request.url;
    if (text.empty() || text == "*")
        text = session.lastUrl;
    // a control URL that the plug-in did not take for absolute stands behind its base: the last one counts
    size_t joined = 0;
    for (size_t colon = text.find(':'); colon != std::string_view::npos; colon = text.find(':', colon + 1))
    {
        if (colon >= beforeColon && text.substr(colon - beforeColon, secure.size()) == secure)
            joined = colon - beforeColon;
    }
    text.remove_prefix(joined);
    const auto parts = readUrl(text);
    if (parts || !rtsp::anyBelow<0x21>(text))
        return parts;
    encoded = percentEncoded(text);
    return readUrl(encoded);
}

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

std::optional<Destination> askedUrl(const aoi::Request &request, const Session &session)
{
    std::string encoded;
    const auto parts = readAsked(request, session, encoded);
    return parts ? std::optional(Destination{parts->secure, std::string(parts->host)}) : std::nullopt;
}

std::string wireUrl(const aoi::Request &request, const Session &session)
{
    std::string encoded;
    const auto parts = readAsked(request, session, encoded);
    return parts ? parts->withoutCredentials() : std::string();
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
    text.header("\r\nSession: ", request.sessionId);
    if (request.transport && !addTransport(text, *request.transport, session.setups))
        return {};
    // a Scale of 0 would be none (RFC 2326, 12.34)
    if (request.scale && std::isfinite(*request.scale) && *request.scale != 0)
        text.header("\r\nScale: ", scaleText(*request.scale));
    text.header("\r\nRange: ", request.range);
    text.header("\r\nAuthorization: ", wording.authorization);
    if (request.accept)
        text.add("\r\nAccept: application/sdp");
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
    text.header("\r\nSession: ", session.id);
    text.header("\r\nAuthorization: ", authorization);
    return text.end();
}

} // namespace zr::dispatch
