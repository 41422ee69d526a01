// Requests as they go on the wire, and URLs.
#include <tuple>

#include <gtest/gtest.h>

#include <cmath>

#include "mapping.h"

using namespace zr::dispatch;
using zr::aoi::Request;
using zr::aoi::TransportElement;

namespace {

const std::string url = "rtsp://h/s";

Request make(ZR_ULONG id, const std::string &target = url)
{
    Request request;
    request.messageId = id;
    request.url = target;
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
    Session session;
    session.lastUrl = "rtsp://h/last";
    Request full = make(AOI_MSG_RTSP_PLAY, "rtsp://user:p@ss@h:8554/s?q=a b");
    full.sessionId = "id";
    full.scale = 0.125F;
    full.range = "npt=1-";
    full.authorization = "Basic eA==";
    full.accept = true;
    const auto scaled = [](float scale) {
        Request request = make(AOI_MSG_RTSP_PLAY);
        request.scale = scale;
        return request;
    };
    const std::pair<Request, std::string> rows[] = {
        {full, "PLAY rtsp://h:8554/s?q=a%20b RTSP/1.0|Session: id|Scale: 0.125|Range: npt=1-|"
               "Authorization: Basic eA==|Accept: application/sdp||"},
        {make(AOI_MSG_RTSP_DESCRIBE), "DESCRIBE rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_TEARDOWN), "TEARDOWN rtsp://h/s RTSP/1.0||"},
        {make(AOI_MSG_RTSP_OPTIONS, "*"), "OPTIONS rtsp://h/last RTSP/1.0||"},
        {make(AOI_MSG_RTSP_SET_PARAMERTER, ""), "SET_PARAMETER rtsp://h/last RTSP/1.0||"},
        {make(AOI_MSG_RTSP_PLAY, "rtsps://h/s/rtsps://u:p@h/s/track"), "PLAY rtsps://h/s/track RTSP/1.0||"},
        {make(AOI_MSG_RTSP_PLAY, "rtsp://relay/rtsp://camera/1"), "PLAY rtsp://relay/rtsp://camera/1 RTSP/1.0||"},
        {scaled(-256), "PLAY rtsp://h/s RTSP/1.0|Scale: -256.0||"},
        {scaled(0), "PLAY rtsp://h/s RTSP/1.0||"},
        {scaled(NAN), "PLAY rtsp://h/s RTSP/1.0||"},
        // what cannot be written
        {make(AOI_MSG_RTSP_SETUP), ""},
        {make(AOI_MSG_RTSP_PLAY, "http://h/s"), ""},
        {make(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE), ""},
    };
    for (const auto &[request, text] : rows)
        EXPECT_EQ(written(request, session), text);

    session.id = "id";
    EXPECT_EQ(writeKeepAlive(session, "", 3, "a"),
              "OPTIONS rtsp://h/last RTSP/1.0\r\nCSeq: 3\r\nUser-Agent: a\r\nSession: id\r\n\r\n");
    EXPECT_EQ(writeKeepAlive({}, "", 3, "a"), "") << "there is no URL";
    session.publicMethods = "GET_PARAMETER, SET_PARAMETER";
    const std::pair<std::string, std::string> shown[] = {{"Basic eA==", "GET_PARAMETER "}, {"Digest x", "OPTIONS "}};
    for (const auto &[authorization, method] : shown)
        EXPECT_EQ(writeKeepAlive(session, authorization, 3, "a").rfind(method, 0), 0U) << method;
    EXPECT_EQ(written(make(AOI_MSG_RTSP_SET_PARAMERTER), session), "SET_PARAMETER rtsp://h/s RTSP/1.0||");
    session.publicMethods = "OPTIONS, PLAY";
    EXPECT_EQ(written(make(AOI_MSG_RTSP_SET_PARAMERTER), session), "OPTIONS rtsp://h/s RTSP/1.0||");
}

TEST(WireRequests, AskForTheTransportOfTheirTrack)
{
    // asked, setups, transport; before this one; empty: cannot be written
    const std::tuple<TransportElement, unsigned, std::string> rows[] = {
        {{"10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_UNICAST}, 0, "RTP/AVP;unicast;client_port=5000-5001"},
        {{"10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE}, 1, "RTP/AVP;unicast;client_port=5002-5003"},
        {{"10.0.0.2", 65534, PROTOCOL_UDP, BROADCASTMETHOD_NONE}, 1, ""},
        {{"10.0.0.2", 0, PROTOCOL_UDP, BROADCASTMETHOD_NONE}, 0, ""},
        {{"", 5000, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST}, 0, "RTP/AVP;multicast"},
        {{"10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_NONE}, 1, "RTP/AVP/TCP;unicast;interleaved=2-3"},
        {{"10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_NONE}, 128, ""},
        {{"h", 6000, PROTOCOL_UDP, {}}, 1, "RTP/AVP;unicast;destination=h;client_port=6000-6001"},
        {{"h", 6000, PROTOCOL_TCP, {}}, 0, "RTP/AVP/TCP;unicast;destination=h;client_port=6000-6001"},
        {{"h", 65535, PROTOCOL_UDP, {}}, 0, ""},
        {{"h;interleaved=0-1", 6000, PROTOCOL_UDP, {}}, 0, ""},
    };
    for (const auto &[asked, setups, transport] : rows)
    {
        Session session;
        session.setups = setups;
        Request request = make(AOI_MSG_RTSP_SETUP);
        request.transport = asked;
        EXPECT_EQ(written(request, session),
                  transport.empty() ? "" : "SETUP rtsp://h/s RTSP/1.0|Transport: " + transport + "||");
    }
}

TEST(WireRequests, LetNoValueAddALine)
{
    const std::string evil("x\r\nEvil: 1\n\0y", 13);
    Request request = make(AOI_MSG_RTSP_PLAY, url + evil);
    request.sessionId = request.range = request.authorization = evil;
    EXPECT_EQ(written(request),
              "PLAY rtsp://h/sx%0D%0AEvil:%201%0A%00y RTSP/1.0|Session: x  Evil: 1  y|Range: x  Evil: 1  y|"
              "Authorization: x  Evil: 1  y||");
}

TEST(WireUrls, AreTakenApartOrRefused)
{
    const std::pair<std::string, std::string> rows[] = {
        // host|port|secure|without credentials
        {"rtsp://h", "h|554|0|rtsp://h"},
        {"RTSPS://h/p", "h|322|1|RTSPS://h/p"},
        {"rtsp://h:8554/p%2Fq?x=a@b:1", "h|8554|0|rtsp://h:8554/p%2Fq?x=a@b:1"},
        {"rtsp://h?x=1", "h|554|0|rtsp://h?x=1"},
        {"rtsp://u:p@s@h:1/", "h|1|0|rtsp://h:1/"},
        {"rtsp://u@[2001:db8::1]:8554/p", "2001:db8::1|8554|0|rtsp://[2001:db8::1]:8554/p"},
    };
    for (const auto &[text, parts] : rows)
    {
        const Url parsed = parseUrl(text).value();
        EXPECT_EQ(parsed.host + '|' + std::to_string(parsed.port) + '|' + (parsed.secure ? '1' : '0') + '|' +
                      parsed.withoutCredentials,
                  parts);
    }
    for (const char *refused : {"", "h/p", "http://h/", "xrtsp://h/", "rtsp:///p", "rtsp://u:p@/", "rtsp://h:0/",
                                "rtsp://h:65536/", "rtsp://h:5 54/", "rtsp://h:+554/", "rtsp://h\r\n/", "rtsp://h;x/",
                                "rtsp://[::1/", "rtsp://[::1]x/", "rtsp://[::g]/", "rtsp://::1/"})
        EXPECT_FALSE(parseUrl(refused)) << refused;
    EXPECT_EQ(hostAndPort({"2001:db8::1", 554}), "[2001:db8::1]:554");
}

TEST(WireUrls, AreResolvedAgainstAnother)
{
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"rtsp://h:1/a/b", "rtsp://u:p@k/c", "rtsp://k/c"},
        {"rtsp://h:1/a/b", "/c?x=y://z", "rtsp://h:1/c?x=y://z"},
        {"rtsp://h:1/a/b?q=/r", "c/d", "rtsp://h:1/a/c/d"},
        {"rtsps://h:1", "c", "rtsps://h:1/c"},
        {"rtsps://h/a", "//k/c", "rtsps://k/c"},
        {"rtsp://h/a", "http://h/", ""},
        {"rtsp://h/a", "", ""},
    };
    for (const auto &[base, reference, result] : rows)
        EXPECT_EQ(resolveUrl(base, reference).value_or(""), result) << reference;
    zr::rtsp::Message redirect;
    EXPECT_EQ(redirectTarget("rtsps://h/a", redirect), std::nullopt);
    redirect.headers = {{"location", "rtsp://k/b"}};
    EXPECT_EQ(redirectTarget("rtsp://h/a", redirect), "rtsp://k/b");
    EXPECT_EQ(redirectTarget("RTSPS://h/a", redirect), std::nullopt) << "the session would lose its protection";
}
