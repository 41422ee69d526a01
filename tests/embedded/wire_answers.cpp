// What becomes of a server's answers.
#include <gmock/gmock.h>

#include "mapping.h"

using namespace zr::dispatch;
using namespace std::chrono_literals;
using testing::HasSubstr;
using zr::aoi::Request;
using zr::rtsp::Header;
using zr::rtsp::Message;

namespace
{

const Ends ends{"192.0.2.1", 554};
const std::string url = "rtsp://h/cam";
const std::string sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track1\r\n";

Request make(ZR_ULONG id)
{
    Request request;
    request.messageId = id;
    request.sourceId = 5;
    request.url = url;
    return request;
}

Message answer(int status, std::vector<Header> headers, const std::string &body = "")
{
    Message message;
    message.response = true;
    message.status = status;
    message.headers = std::move(headers);
    message.body = body;
    return message;
}

Mapped describe(const Message &response, const std::string &askedUrl = url)
{
    Session session;
    return mapResponse(make(AOI_MSG_RTSP_DESCRIBE), askedUrl, response, session, ends);
}

std::string print(const zr::aoi::TransportAddress &address)
{
    return address.address + ':' + std::to_string(address.port);
}

/// What a SETUP came to, in one line.
std::string print(const Mapped &mapped)
{
    if (mapped.answer.errorCode)
        return "failure " + std::to_string(*mapped.answer.errorCode);
    std::string out = mapped.answer.transport ? print(*mapped.answer.transport) : "no transport";
    if (mapped.answer.method)
        out += ' ' + std::to_string(*mapped.answer.method == BROADCASTMETHOD_MULTICAST) + '/' +
               print(mapped.answer.methodTransport);
    if (!mapped.track)
        return out;
    const zr::media::TrackTransport &track = *mapped.track;
    const auto number = [](unsigned value) { return std::to_string(value); };
    out += " track" + number(mapped.trackNumber);
    if (track.interleaved)
        return out + " $" + number(track.rtpChannel) + ',' + number(track.rtcpChannel) + ' ' + track.peerAddress;
    out += ' ' + track.peerAddress + ' ' + number(track.peerRtpPort) + ',' + number(track.peerRtcpPort) + " to " +
           number(track.clientRtpPort);
    return track.multicast ? out + " group " + track.group + ':' + number(track.groupPort) : out;
}

} // namespace

TEST(WireAnswers, ReadTheTransportOfASetup)
{
    using zr::aoi::TransportElement;
    const TransportElement udp{"10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE};
    const TransportElement tcp{"10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_UNICAST};
    const TransportElement group{"", 5000, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST};
    const TransportElement wall{"10.0.0.9", 6000, PROTOCOL_UDP, std::nullopt};
    const TransportElement tcpWall{"10.0.0.9", 6000, PROTOCOL_TCP, std::nullopt};
    struct
    {
        TransportElement asked;
        std::string header;
        std::string result;
    } const rows[] = {
        {udp, "RTP/AVP;unicast;client_port=5002-5003;server_port=7000-7001;source=192.0.2.7",
         "192.0.2.7:7000 0/192.0.2.7:7000 track1 192.0.2.7 7000,7001 to 5002"},
        {udp, "rtp/avp/udp;Client_Port = 5002-5003;server_port=7000;ssrc=1;mode=\"PLAY,RECORD\"",
         "192.0.2.1:7000 0/192.0.2.1:7000 track1 192.0.2.1 7000,7001 to 5002"},
        {udp, "RTP/AVP;unicast", "192.0.2.1:0 0/192.0.2.1:0 track1 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;unicast;client_port=4588-4589;source=0.0.0.0;server_port=0-0",
         "192.0.2.1:0 0/192.0.2.1:0 track1 192.0.2.1 0,0 to 4588"},
        {udp, "RTP/AVP;source=evil.example", "192.0.2.1:0 0/192.0.2.1:0 track1 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;source=[2001:db8::1]", "2001:db8::1:0 0/2001:db8::1:0 track1 2001:db8::1 0,0 to 5002"},
        {udp, "RTP/AVP;unicast;server_port=70000-70001", "failure 461"},
        {udp, "RTP/AVP;unicast;server_port=-7", "failure 461"},
        {udp, "RTP/AVP;unicast;client_port=5000-", "failure 461"},
        {udp, "RTP/AVP/TCP;unicast;interleaved=0-1", "failure 461"},
        {udp, "RTP/AVP;unicast;interleaved=0-1", "failure 461"},
        {udp, "RTP/AVP;multicast;destination=239.0.0.1;port=7000-7001", "failure 461"},
        {udp, "RTP/SAVP;unicast", "failure 461"},
        {udp, "", "failure 461"},
        {tcp, "RTP/AVP/TCP;unicast;interleaved=4-5;source=192.0.2.7",
         "192.0.2.1:554 0/192.0.2.1:554 track1 $4,5 192.0.2.1"},
        {tcp, "RTP/AVP/TCP;interleaved=254", "192.0.2.1:554 0/192.0.2.1:554 track1 $254,255 192.0.2.1"},
        {tcp, "RTP/AVP/TCP", "192.0.2.1:554 0/192.0.2.1:554 track1 $2,3 192.0.2.1"},
        {tcp, "RTP/AVP/TCP;interleaved=255", "failure 461"},
        {tcp, "RTP/AVP/TCP;interleaved=256-257", "failure 461"},
        {tcp, "RTP/AVP/TCP;interleaved=2-2", "failure 461"},
        {tcp, "RTP/AVP/TCP;interleaved=", "failure 461"},
        {tcp, "RTP/AVP;unicast;server_port=7000-7001", "failure 461"},
        {group, "RTP/AVP;multicast;destination=239.1.2.3;port=7000-7001;ttl=5",
         "192.0.2.1:0 1/239.1.2.3:7000 track1 192.0.2.1 0,0 to 7000 group 239.1.2.3:7000"},
        {group, "RTP/AVP;destination=ff15::1;client_port=7000-7001",
         "192.0.2.1:0 1/ff15::1:7000 track1 192.0.2.1 0,0 to 7000 group ff15::1:7000"},
        {group, "RTP/AVP;multicast;destination=10.0.0.1;port=7000", "failure 461"},
        {group, "RTP/AVP;multicast;destination=239.1.2.3", "failure 461"},
        {group, "RTP/AVP;unicast;destination=239.1.2.3;port=7000", "failure 461"},
        {wall, "RTP/AVP;unicast;destination=10.0.0.9;server_port=7000-7001", "192.0.2.1:7000"},
        {wall, "RTP/AVP/TCP;unicast", "failure 461"},
        {tcpWall, "RTP/AVP/TCP;unicast;server_port=7000;source=192.0.2.7", "192.0.2.7:7000"},
        {tcpWall, "RTP/AVP/TCP;unicast;interleaved=0-1", "failure 461"},
    };
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.header);
        Session session;
        session.setups = 1;
        Request request = make(AOI_MSG_RTSP_SETUP);
        request.transport = row.asked;
        const Mapped mapped =
            mapResponse(request, url, answer(200, {{"Session", "id"}, {"transport", row.header}}), session, ends);
        EXPECT_EQ(print(mapped), row.result);
        EXPECT_EQ(mapped.problem.empty(), !mapped.answer.errorCode);
        EXPECT_EQ(session.setups, row.asked.method ? 2u : 1u);
    }
}

TEST(WireAnswers, CarryTheSessionAndCountItsSetups)
{
    Session session;
    Request setup = make(AOI_MSG_RTSP_SETUP);
    setup.transport.emplace().method = BROADCASTMETHOD_NONE;
    setup.transport->protocol = PROTOCOL_TCP;
    const Header transport{"Transport", "RTP/AVP/TCP;interleaved=0-1"};
    EXPECT_EQ(print(mapResponse(setup, url, answer(454, {transport}), session, ends)), "failure 454");
    Mapped mapped = mapResponse(setup, url, answer(200, {transport}), session, ends);
    EXPECT_EQ(print(mapped), "failure 502");
    EXPECT_THAT(mapped.problem, HasSubstr("no Session"));
    session.setups = 0;
    mapped = mapResponse(setup, url, answer(200, {{"session", "aB1 ; Timeout=20;x"}, transport}), session, ends);
    EXPECT_EQ(mapped.answer.sessionId, "aB1");
    EXPECT_EQ(mapped.answer.kind, 1u);
    EXPECT_EQ(mapped.answer.destinationId, 5u);
    EXPECT_EQ(session.timeoutSeconds, 20u);
    mapped = mapResponse(setup, url, answer(200, {transport, {"Server", "s/1"}}), session, ends);
    EXPECT_EQ(mapped.answer.sessionId, "aB1");
    EXPECT_EQ(mapped.trackNumber, 1u);
    EXPECT_EQ(mapped.answer.server, "s/1");
    for (const char *timeout : {"aB1;timeout=-5", "aB1;timeout=0", "aB1;timeout=99999999999", "aB1;timeout=x"})
        mapResponse(make(AOI_MSG_RTSP_PAUSE), url, answer(200, {{"Session", timeout}}), session, ends);
    EXPECT_EQ(session.timeoutSeconds, 20u);

    // another ID than the session's is the plug-in's to judge; the session keeps its own
    mapped = mapResponse(make(AOI_MSG_RTSP_PLAY), "rtsp://h/2", answer(200, {{"Session", "other"}}), session, ends);
    EXPECT_EQ(mapped.answer.sessionId, "other");
    EXPECT_EQ(session.id, "aB1");
    EXPECT_EQ(session.lastUrl, "rtsp://h/2");
    EXPECT_TRUE(session.played);
    mapResponse(make(AOI_MSG_RTSP_OPTIONS), url, answer(200, {{"Public", "Play,,OPTIONS"}, {"Public", "x"}}), session,
                ends);
    EXPECT_THAT(session.publicMethods, testing::ElementsAre("PLAY", "OPTIONS", "X"));
    for (const int status : {300, 302, 500})
    {
        mapped = mapResponse(make(AOI_MSG_RTSP_PAUSE), url, answer(status, {}), session, ends);
        EXPECT_EQ(mapped.answer.kind, 2u);
        EXPECT_EQ(mapped.answer.errorCode, static_cast<ZR_ULONG>(status));
    }
}

TEST(WireAnswers, ReadTheDescription)
{
    struct
    {
        std::string type;
        std::string body;
        std::string result; ///< empty: refused
    } const bodies[] = {
        {"application/sdp", sdp, sdp},
        {"Application/SDP; charset=utf-8", sdp + std::string("\0\0", 2), sdp},
        {"", sdp + std::string("\0a=evil", 7), sdp},
        {"application/sdp", "v=0\nm=video 0 RTP/AVP 26\na=control:1\nm=audio 0 RTP/AVP 0 8",
         "v=0\nm=video 0 RTP/AVP 26\na=rtpmap:26 JPEG/90000\na=control:1\nm=audio 0 RTP/AVP 0 8\na=rtpmap:0 PCMU/8000\n"},
        {"application/sdp", "v=0\r\nm=audio 0 RTP/AVP 8\r\na=rtpmap:8 x/1\r\nm=video 0 RTP/AVP 33\r\nb=AS:1\r\n",
         "v=0\r\nm=audio 0 RTP/AVP 8\r\na=rtpmap:8 x/1\r\nm=video 0 RTP/AVP 33\r\nb=AS:1\r\na=rtpmap:33 MP2T/90000\r\n"},
        {"application/sdp", "v=0\nm=audio 0 RTP/AVP 0 96\na=rtpmap:96 x/1\n",
         "v=0\nm=audio 0 RTP/AVP 0 96\na=rtpmap:0 PCMU/8000\na=rtpmap:96 x/1\n"},
        {"application/sdp", "v=0\nm=\nm=video 0 RTP/AVP 999\nm=video 0 RTP/AVP 80",
         "v=0\nm=\nm=video 0 RTP/AVP 999\nm=video 0 RTP/AVP 80"},
        {"application/sdp", "", ""},
        {"application/sdp", "<html>", ""},
        {"application/sdp", std::string("\0v=0", 4), ""},
        {"text/html", sdp, ""},
    };
    for (const auto &row : bodies)
    {
        std::vector<Header> headers;
        if (!row.type.empty())
            headers.push_back({"Content-Type", row.type});
        const Mapped mapped = describe(answer(200, headers, row.body));
        EXPECT_EQ(mapped.answer.body.value_or(""), row.result);
        EXPECT_EQ(mapped.answer.errorCode.value_or(0), row.result.empty() ? 415u : 0u);
        EXPECT_EQ(mapped.problem.empty(), !row.result.empty());
    }
}

TEST(WireAnswers, MakeBaseAndLocationAbsolute)
{
    const std::string absolute = "v=0\nm=video 0 RTP/AVP 96\na=control:rtsp://h/1\na=control:*\n";
    const std::string none = "none";
    struct
    {
        std::vector<Header> headers;
        std::string askedUrl, body, base, location;
    } const rows[] = {
        {{}, url, sdp, none, none},
        {{{"Content-Base", "rtsp://u:p@h/cam"}}, url, sdp, "rtsp://h/cam/", none},
        {{{"Content-Base", "rtsp://h/cam"}}, url, absolute, "rtsp://h/cam", none},
        {{{"Content-Base", "/a/"}, {"Content-Location", "b"}}, url, sdp, "rtsp://h/a/", "rtsp://h/b"},
        {{{"Content-Location", "rtsp://h/tv"}}, url, sdp, "rtsp://h/tv/", "rtsp://h/tv"},
        {{{"Content-Base", "http://h/"}}, url, sdp, none, none},
        {{}, "rtsp://k/new", sdp, "rtsp://k/new/", none},
        {{{"Content-Base", "sub"}}, "rtsp://k/new", sdp, "rtsp://k/sub/", none},
    };
    for (const auto &row : rows)
    {
        const Mapped mapped = describe(answer(200, row.headers, row.body), row.askedUrl);
        EXPECT_EQ(mapped.answer.contentBase.value_or(none), row.base);
        EXPECT_EQ(mapped.answer.url.value_or(none), row.location);
    }
}

TEST(WireAnswers, ChooseAChallengeThatCanBeAnswered)
{
    const std::string md5 = "Digest realm=\"cam\", nonce=\"n1\"";
    struct
    {
        std::vector<std::string> headers;
        std::string result; ///< of a refusal: what the problem names
    } const rows[] = {
        {{"Digest realm=\"cam\",nonce=\"n1\",algorithm=MD5,qop=\"auth\",stale=FALSE"}, md5},
        {{"digest  NONCE = n1 , Realm=cam"}, md5},
        {{"Basic realm=\"cam\""}, "Basic"},
        {{"basic"}, "Basic"},
        {{"Basic realm=\"a, Digest b=\\\"c\", Digest realm=\"cam\", nonce=\"n1\""}, md5},
        {{"Basic realm=\"x\"", md5}, md5},
        {{"Digest realm=\"cam\", nonce=\"n2\", algorithm=SHA-256", md5, "Basic realm=x"}, md5},
        {{"Digest realm=\"a \\c\", nonce=\"n1\", algorithm=\"md5\""}, "Digest realm=\"a c\", nonce=\"n1\""},
        {{"Digest realm=\"" + std::string(127, 'r') + "\", nonce=n1"},
         "Digest realm=\"" + std::string(127, 'r') + "\", nonce=\"n1\""},
        {{}, "without a challenge"},
        {{"Negotiate abc=="}, "neither"},
        {{"\"\"==,,= \"unended"}, "without a challenge"},
        {{"Digest realm=\"cam\", nonce=\"n2\", algorithm=SHA-256", "Basic realm=x"}, "SHA-256"},
        {{"Digest realm=\"cam\", nonce=n1, algorithm=MD5-sess"}, "MD5-sess"},
        {{"Digest realm=\"" + std::string(128, 'r') + "\", nonce=n1"}, "realm"},
        {{"Digest realm=\"a,b\", nonce=n1"}, "realm"},
        {{"Digest realm=\"a\\\"b\", nonce=n1"}, "realm"},
        {{"Digest realm=\"x nonce=y\", nonce=n1"}, "realm"},
        {{"Digest realm=\"\", nonce=n1", "Basic realm=x"}, "realm"},
        {{"Digest nonce=n1"}, "realm"},
        {{"Digest realm=r"}, "nonce"},
        {{"Digest realm=r, nonce=\"" + std::string(128, 'n') + '"'}, "nonce"},
    };
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.headers.empty() ? "" : row.headers.front());
        std::vector<Header> headers;
        for (const std::string &header : row.headers)
            headers.push_back({"WWW-Authenticate", header});
        Session session;
        const Mapped mapped = mapResponse(make(AOI_MSG_RTSP_DESCRIBE), url, answer(401, headers), session, ends);
        EXPECT_EQ(mapped.answer.kind, 2u);
        const bool usable = mapped.answer.challenge.has_value();
        EXPECT_EQ(mapped.answer.errorCode, usable ? 401u : 403u);
        EXPECT_EQ(session.challengedBy, usable ? "192.0.2.1:554" : "");
        if (usable)
            EXPECT_EQ(*mapped.answer.challenge, row.result);
        else
            EXPECT_THAT(mapped.problem, HasSubstr(row.result));
    }
}

TEST(WireAnswers, TellThePositionNow)
{
    struct
    {
        std::string answered, asked, scale, after; ///< "after": 10 s later, then paused for a minute
    } const rows[] = {
        {"npt=3.5-", "npt=1-", "", "npt=13.500-"},
        {"", "npt=0:01:00.25-", "2.0", "npt=80.250-"},
        {"npt=3-8", "", "", "npt=8.000-"},
        {"npt=60-5", "", "-0.5", "npt=55.000-"},
        {"npt=5-", "", "-1", "npt=0.000-"},
        {"npt=0-", "", "304", "npt=40.000-"},
        {"npt=0-", "", "108.0", "npt=80.000-"},
        {"npt=0-", "", "258", "npt=10.000-"},
        {"npt=100-", "", "-256", "npt=90.000-"},
        {"clock=20240228T235955.5Z-20250101T000000Z", "", "1", "clock=20240229T000005Z-"},
        {"npt=now-", "npt=5-", "", "npt=now-"},
        {"", "", "4", "npt=now-"},
        {"npt=nan-", "clock=20241399T000000Z-", "inf", "npt=now-"},
        {"npt=1e300-", "npt=99999999999999999999-", "", "npt=now-"},
        {"smpte=1:2:3-", "npt=7-", "x", "npt=17.000-"},
    };
    const PlayPosition::Time start{};
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.answered + ' ' + row.asked);
        Session session;
        const auto position = [&session](PlayPosition::Time now)
        { return *mapResponse(make(AOI_MSG_RTSP_OPTIONS), url, answer(200, {}), session, ends, now).answer.range; };
        Request play = make(AOI_MSG_RTSP_PLAY);
        play.range = row.asked;
        std::vector<Header> headers;
        if (!row.answered.empty())
            headers.push_back({"Range", row.answered});
        if (!row.scale.empty())
            headers.push_back({"Scale", row.scale});
        mapResponse(play, url, answer(200, headers), session, ends, start);
        EXPECT_EQ(position(start + 10s), row.after);
        mapResponse(make(AOI_MSG_RTSP_PAUSE), url, answer(200, {}), session, ends, start + 10s);
        EXPECT_EQ(position(start + 70s), row.after) << "paused";
    }
    // a PLAY without a range goes on where it was, at its own speed
    Session session;
    mapResponse(make(AOI_MSG_RTSP_PLAY), url, answer(200, {{"Range", "npt=10-100"}}), session, ends, start);
    mapResponse(make(AOI_MSG_RTSP_PLAY), url, answer(200, {{"Scale", "-2"}}), session, ends, start + 5s);
    EXPECT_EQ(session.position.range(start + 7s), "npt=11.000-");
}
