// Requests as they go on the wire, and URLs.
#include <gmock/gmock.h>

#include <cmath>

#include "mapping.h"

using namespace zr::dispatch;
using zr::aoi::Request;
using zr::aoi::TransportElement;

namespace
{

const std::string url = "rtsp://h/s";

Request make(ZR_ULONG id, const std::string &target = url)
{
    Request request;
    request.messageId = id;
    request.url = target;
    return request;
}

Request setup(const std::string &address, uint16_t port, tagProtocol protocol, std::optional<tagBroadcastmethod> method)
{
    Request request = make(AOI_MSG_RTSP_SETUP);
    request.transport = TransportElement{address, port, protocol, method};
    return request;
}

/// The request with CSeq and User-Agent, which all have, taken out; lines end with "|".
std::string written(const Request &request, const Session &session = {})
{
    std::string text = writeRequest(request, 7, session, "agent/1");
    const std::string common = "CSeq: 7\r\nUser-Agent: agent/1\r\n";
    const size_t at = text.find(common);
    if (at == std::string::npos)
        return text;
    text.erase(at, common.size());
    for (size_t end = text.find("\r\n"); end != std::string::npos; end = text.find("\r\n"))
        text.replace(end, 2, "|");
    return text;
}

} // namespace

TEST(WireRequests, AreTheRowsOfTheirElements)
{
    const auto none = std::optional<tagBroadcastmethod>();
    Session second;
    second.setups = 1;
    second.lastUrl = "rtsp://h/last";
    Session many;
    many.setups = 128;
    Request full = make(AOI_MSG_RTSP_PLAY, "rtsp://user:p@ss@h:8554/s?q=a b");
    full.sessionId = "id";
    full.scale = 0.125F;
    full.range = "npt=1-";
    full.authorization = "Basic eA==";
    full.accept = true;
    const auto scaled = [](float scale)
    {
        Request request = make(AOI_MSG_RTSP_PLAY);
        request.scale = scale;
        return request;
    };
    Session parameterless;
    parameterless.publicMethods = {"OPTIONS", "PLAY"};
    Session listing;
    listing.publicMethods = {"GET_PARAMETER", "SET_PARAMETER"};
    struct
    {
        Request request;
        Session session;
        std::string text;
    } const rows[] = {
        {full,
         {},
         "PLAY rtsp://h:8554/s?q=a%20b RTSP/1.0|Session: id|Scale: 0.125|Range: npt=1-|"
         "Authorization: Basic eA==|Accept: application/sdp||"},
        {make(AOI_MSG_RTSP_DESCRIBE), {}, "DESCRIBE rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_PAUSE), {}, "PAUSE rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_TEARDOWN), {}, "TEARDOWN rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_OPTIONS, "*"), second, "OPTIONS rtsp://h/last RTSP/1.0||"},
        {make(AOI_MSG_RTSP_SET_PARAMERTER, ""), second, "SET_PARAMETER rtsp://h/last RTSP/1.0||"},
        {make(AOI_MSG_RTSP_SET_PARAMERTER), parameterless, "OPTIONS rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_SET_PARAMERTER), listing, "SET_PARAMETER rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_PLAY, "rtsps://h/s/rtsps://u:p@h/s/track"), {}, "PLAY rtsps://h/s/track RTSP/1.0||"},
        {make(AOI_MSG_RTSP_PLAY, "rtsp://relay/rtsp://camera/1"), {}, "PLAY rtsp://relay/rtsp://camera/1 RTSP/1.0||"},
        {scaled(1), {}, "PLAY rtsp://h/s RTSP/1.0|Scale: 1.0||"},
        {scaled(-256), {}, "PLAY rtsp://h/s RTSP/1.0|Scale: -256.0||"},
        {scaled(0), {}, "PLAY rtsp://h/s RTSP/1.0||"},
        {scaled(NAN), {}, "PLAY rtsp://h/s RTSP/1.0||"},
        {setup("10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_UNICAST),
         {},
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP;unicast;client_port=5000-5001||"},
        {setup("10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE), second,
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP;unicast;client_port=5002-5003||"},
        {setup("", 5000, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST),
         {},
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP;multicast||"},
        {setup("10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_NONE), second,
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP/TCP;unicast;interleaved=2-3||"},
        {setup("10.0.0.9", 6000, PROTOCOL_UDP, none), second,
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP;unicast;destination=10.0.0.9;client_port=6000-6001||"},
        {setup("10.0.0.9", 6000, PROTOCOL_TCP, none),
         {},
         "SETUP rtsp://h/s RTSP/1.0|Transport: RTP/AVP/TCP;unicast;destination=10.0.0.9;client_port=6000-6001||"},
        // what cannot be written
        {setup("10.0.0.2", 65534, PROTOCOL_UDP, BROADCASTMETHOD_NONE), second, ""},
        {setup("10.0.0.2", 0, PROTOCOL_UDP, BROADCASTMETHOD_NONE), {}, ""},
        {setup("10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_NONE), many, ""},
        {setup("10.0.0.9", 65535, PROTOCOL_UDP, none), {}, ""},
        {setup("h;interleaved=0-1", 6000, PROTOCOL_UDP, none), {}, ""},
        {make(AOI_MSG_RTSP_SETUP), {}, ""},
        {make(AOI_MSG_RTSP_PLAY, ""), {}, ""},
        {make(AOI_MSG_RTSP_PLAY, "http://h/s"), {}, ""},
        {make(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE), {}, ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(written(row.request, row.session), row.text);
    second.id = "id";
    EXPECT_EQ(writeKeepAlive(second, "", 3, "a"),
              "OPTIONS rtsp://h/last RTSP/1.0\r\nCSeq: 3\r\nUser-Agent: a\r\nSession: id\r\n\r\n");
}

TEST(WireRequests, LetNoValueAddALine)
{
    const std::string evil("x\r\nEvil: 1\n\0y", 13);
    Request request = make(AOI_MSG_RTSP_PLAY, url + evil);
    request.sessionId = request.range = request.authorization = evil;
    const std::string text = written(request);
    EXPECT_EQ(text, "PLAY rtsp://h/sx%0D%0AEvil:%201%0A%00y RTSP/1.0|Session: x  Evil: 1  y|Range: x  Evil: 1  y|"
                    "Authorization: x  Evil: 1  y||");
}

TEST(WireUrls, AreTakenApartOrRefused)
{
    struct
    {
        std::string text;
        std::string parts; ///< host|port|secure|without credentials; empty: refused
    } const rows[] = {
        {"rtsp://h", "h|554|0|rtsp://h"},
        {"RTSPS://h/p", "h|322|1|RTSPS://h/p"},
        {"rtsp://h:8554/p%2Fq?x=a@b:1", "h|8554|0|rtsp://h:8554/p%2Fq?x=a@b:1"},
        {"rtsp://h?x=1", "h|554|0|rtsp://h?x=1"},
        {"rtsp://h:/p", "h|554|0|rtsp://h:/p"},
        {"rtsp://u:p@s@h:1/", "h|1|0|rtsp://h:1/"},
        {"rtsp://u@[2001:db8::1]:8554/p", "2001:db8::1|8554|0|rtsp://[2001:db8::1]:8554/p"},
        {"rtsp://[fe80::1%eth0]/", "fe80::1%eth0|554|0|rtsp://[fe80::1%eth0]/"},
        {"", ""},
        {"h/p", ""},
        {"http://h/", ""},
        {"xrtsp://h/", ""},
        {"rtsp:///p", ""},
        {"rtsp://u:p@/", ""},
        {"rtsp://h:0/", ""},
        {"rtsp://h:65536/", ""},
        {"rtsp://h:5 54/", ""},
        {"rtsp://h:+554/", ""},
        {"rtsp://h\r\n/", ""},
        {"rtsp://h;x/", ""},
        {"rtsp://[::1/", ""},
        {"rtsp://[::1]x/", ""},
        {"rtsp://[::g]/", ""},
        {"rtsp://::1/", ""},
    };
    for (const auto &row : rows)
    {
        const auto parsed = parseUrl(row.text);
        EXPECT_EQ(parsed ? parsed->host + '|' + std::to_string(parsed->port) + '|' + (parsed->secure ? '1' : '0') +
                               '|' + parsed->withoutCredentials
                         : "",
                  row.parts)
            << row.text;
    }
    EXPECT_EQ(hostAndPort({"2001:db8::1", 554}), "[2001:db8::1]:554");
}

TEST(WireUrls, AreResolvedAgainstAnother)
{
    struct
    {
        std::string base, reference, result;
    } const rows[] = {
        {"rtsp://h:1/a/b", "rtsp://u:p@k/c", "rtsp://k/c"},
        {"rtsp://h:1/a/b", "/c?x=y://z", "rtsp://h:1/c?x=y://z"},
        {"rtsp://h:1/a/b?q=/r", "c/d", "rtsp://h:1/a/c/d"},
        {"rtsps://h:1", "c", "rtsps://h:1/c"},
        {"rtsps://h/a", "//k/c", "rtsps://k/c"},
        {"rtsp://h/a", "http://h/", ""},
        {"rtsp://h/a", "", ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(resolveUrl(row.base, row.reference).value_or(""), row.result) << row.reference;
    zr::rtsp::Message redirect;
    EXPECT_EQ(redirectTarget("rtsps://h/a", redirect), std::nullopt);
    redirect.headers = {{"location", "rtsp://k/b"}};
    EXPECT_EQ(redirectTarget("rtsp://h/a", redirect), "rtsp://k/b");
    EXPECT_EQ(redirectTarget("RTSPS://h/a", redirect), std::nullopt) << "the session would lose its protection";
}
