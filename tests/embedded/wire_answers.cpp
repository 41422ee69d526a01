// What becomes of a server's answers.
#include <tuple>

#include <gmock/gmock.h>

#include "mapping.h"

using namespace zr::dispatch;
using namespace std::chrono_literals;
using testing::HasSubstr;
using zr::aoi::Request;
using zr::aoi::TransportElement;
using Headers = std::vector<zr::rtsp::Header>;

namespace {

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

Request setup(const TransportElement &transport)
{
    Request request = make(AOI_MSG_RTSP_SETUP);
    request.transport = transport;
    return request;
}

/// What a SETUP came to, in one line.
std::string print(const Mapped &mapped)
{
    const auto number = [](unsigned value) { return std::to_string(value); };
    if (mapped.answer.errorCode)
        return "failure " + number(*mapped.answer.errorCode);
    const auto &[address, port] = *mapped.answer.transport;
    if (!mapped.track)
        return address + ':' + number(port);
    const zr::media::TrackTransport &track = *mapped.track;
    const auto &[methodAddress, methodPort] = mapped.answer.methodTransport;
    EXPECT_EQ(address, track.peerAddress);
    EXPECT_EQ(methodAddress, track.multicast ? track.group : address);
    EXPECT_EQ(methodPort, track.multicast ? track.groupPort : port);
    const std::string begin = number(mapped.trackNumber) + ": " + address;
    if (track.interleaved)
        return begin + " $" + number(track.rtpChannel) + ',' + number(track.rtcpChannel);
    EXPECT_EQ(port, track.peerRtpPort);
    return begin + ' ' + number(port) + ',' + number(track.peerRtcpPort) + " to " +
           (track.multicast ? track.group + ':' : "") + number(track.clientRtpPort);
}

class WireAnswers : public testing::Test
{
protected:
    Mapped map(const Request &request, int status, Headers headers = {}, const std::string &body = "",
               const std::string &askedUrl = url, PlayPosition::Time now = {})
    {
        zr::rtsp::Message message;
        message.response = true;
        message.status = status;
        message.headers = std::move(headers);
        message.body = body;
        return mapResponse(request, askedUrl, message, m_session, ends, now);
    }
    Mapped map(ZR_ULONG id, Headers headers, PlayPosition::Time now)
    {
        return map(make(id), 200, std::move(headers), "", url, now);
    }

    Session m_session;
};

} // namespace

TEST_F(WireAnswers, ReadTheTransportOfASetup)
{
    const TransportElement udp{"10.0.0.2", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE};
    const TransportElement tcp{"10.0.0.2", 5000, PROTOCOL_TCP, BROADCASTMETHOD_UNICAST};
    const TransportElement group{"", 5000, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST};
    const TransportElement wall{"10.0.0.9", 6000, PROTOCOL_UDP, std::nullopt};
    const TransportElement tcpWall{"10.0.0.9", 6000, PROTOCOL_TCP, std::nullopt};
    const std::string refused = "failure 461";
    const std::tuple<TransportElement, std::string, std::string> rows[] = {
        {udp, "RTP/AVP;unicast;server_port=7000-7003;source=192.0.2.7", "1: 192.0.2.7 7000,7003 to 5002"},
        {udp, "rtp/avp/udp;Client_Port = 5008-5009;server_port=7000;ssrc=1;mode=\"PLAY,RECORD\"",
         "1: 192.0.2.1 7000,7001 to 5008"},
        {udp, "RTP/AVP;unicast;source=0.0.0.0;server_port=0-0", "1: 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;unicast;source=239.1.2.3", "1: 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;source=evil.example", "1: 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;source=[2001:db8::1]", "1: 192.0.2.1 0,0 to 5002"},
        {udp, "RTP/AVP;unicast;server_port=70000-70001", refused},
        {udp, "RTP/AVP;unicast;client_port=5000-", refused},
        {udp, "RTP/AVP/TCP;unicast;interleaved=0-1", refused},
        {udp, "RTP/AVP;unicast;interleaved=0-1", refused},
        {udp, "RTP/SAVP;unicast", refused},
        {tcp, "RTP/AVP/TCP;unicast;interleaved=4-5;source=192.0.2.7", "1: 192.0.2.1 $4,5"},
        {tcp, "RTP/AVP/TCP;interleaved=254", "1: 192.0.2.1 $254,255"},
        {tcp, "RTP/AVP/TCP", "1: 192.0.2.1 $2,3"},
        {tcp, "RTP/AVP/TCP;interleaved=1-2", refused}, // 1 is the first track's
        {tcp, "RTP/AVP/TCP;interleaved=255", refused},
        {tcp, "RTP/AVP/TCP;interleaved=256-257", refused},
        {tcp, "RTP/AVP/TCP;interleaved=2-2", refused},
        {group, "RTP/AVP;multicast;destination=239.1.2.3;port=7000", "1: 192.0.2.1 0,0 to 239.1.2.3:7000"},
        {group, "RTP/AVP;destination=239.1.2.4;client_port=7000-7001", "1: 192.0.2.1 0,0 to 239.1.2.4:7000"},
        {group, "RTP/AVP;multicast;destination=ff15::1;port=7000", refused},
        {group, "RTP/AVP;multicast;destination=239.1.2.3;port=7000;source=2001:db8::1", refused},
        {group, "RTP/AVP;multicast;destination=10.0.0.1;port=7000", refused},
        {group, "RTP/AVP;multicast;destination=239.1.2.3", refused},
        {group, "RTP/AVP;multicast;destination=239.1.2.3;port=65535", refused},
        {group, "RTP/AVP;multicast;destination=239.1.2.3;port=7000;source=192.0.2.7;ttl=300",
         "1: 192.0.2.7 0,0 to 239.1.2.3:7000"},
        {group, "RTP/AVP;unicast;destination=239.1.2.3;port=7000", refused},
        {wall, "RTP/AVP;unicast;destination=10.0.0.9;server_port=7000-7001", "192.0.2.1:7000"},
        {wall, "RTP/AVP/TCP;unicast", refused},
        {tcpWall, "RTP/AVP/TCP;unicast;server_port=7000;source=192.0.2.7", "192.0.2.7:7000"},
        {tcpWall, "RTP/AVP/TCP;unicast;interleaved=0-1", refused},
    };
    for (const auto &[asked, header, result] : rows)
    {
        SCOPED_TRACE(header);
        m_session = {};
        map(setup(tcp), 200, {{"Session", "id"}, {"Transport", "RTP/AVP/TCP"}}); // on 0 and 1
        const Mapped mapped = map(setup(asked), 200, {{"Session", "id"}, {"transport", header}});
        EXPECT_EQ(print(mapped), result);
        EXPECT_EQ(mapped.problem.empty(), !mapped.answer.errorCode);
        EXPECT_EQ(m_session.setups, asked.method ? 2u : 1u);
    }
}

TEST_F(WireAnswers, TakeTheGroupFromTheDescriptionWhereTheAnswerNamesNone)
{
    const std::string described =
        "v=0\r\nc=IN IP4 239.1.1.1/127\r\na=source-filter: incl IN IP4 * 192.0.2.9 192.0.2.1\r\n"
        "m=audio 6000/2 RTP/AVP 0\r\na=control:t/1\r\n"
        "m=video 6002 RTP/AVP 96\r\nc=IN IP4 239.2.2.2/1/3\r\na=control:1\r\n"
        "a=source-filter: excl IN IP4 * 192.0.2.3\r\n"
        "a=source-filter:incl IN IP4 239.2.2.2 192.0.2.8\r\n"
        "m=text 6004 RTP/AVP 98\r\nc=IN IP4 192.0.2.4\r\na=control:rtsp://h/cam/x?t=3\r\n"
        "m=text 0 RTP/AVP 98\r\nc=IN IP6 ff15::7\r\n";
    // n, URL, Transport; group and sender, or a refusal
    const std::tuple<unsigned, std::string, std::string, std::string> rows[] = {
        {0, "rtsp://h/cam/t/1", "RTP/AVP;multicast", "0: 192.0.2.1 0,0 to 239.1.1.1:6000"},
        {0, "rtsp://h/cam/1", "RTP/AVP;multicast", "0: 192.0.2.8 0,0 to 239.2.2.2:6002"},
        {1, "rtsp://h/cam/11", "RTP/AVP;multicast", "1: 192.0.2.8 0,0 to 239.2.2.2:6002"},
        {0, "rtsp://h/cam/1", "RTP/AVP;multicast;destination=239.2.2.2", "0: 192.0.2.8 0,0 to 239.2.2.2:6002"},
        {0, "rtsp://h/cam/1", "RTP/AVP;multicast;port=7000;source=192.0.2.5", "0: 192.0.2.5 0,0 to 239.2.2.2:7000"},
        {0, "rtsp://h/cam/1", "RTP/AVP;multicast;destination=239.9.9.9;port=7000",
         "0: 192.0.2.1 0,0 to 239.9.9.9:7000"},
        {0, "rtsp://h/cam/1", "RTP/AVP;multicast;destination=239.9.9.9", "failure 461"},
        {0, "rtsp://h/cam/x?t=3", "RTP/AVP;multicast", "failure 461"},
        {3, "rtsp://h/cam/4", "RTP/AVP;multicast", "failure 461"},
        {4, "rtsp://h/cam/5", "RTP/AVP;multicast", "failure 461"},
    };
    for (const auto &[setups, asked, header, result] : rows)
    {
        SCOPED_TRACE(asked + ' ' + header);
        map(make(AOI_MSG_RTSP_DESCRIBE), 200, {{"Content-Type", "application/sdp"}}, described);
        m_session.setups = setups;
        const Request request = setup({"", 5000, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST});
        const Mapped mapped = map(request, 200, {{"Session", "id"}, {"Transport", header}}, "", asked);
        EXPECT_EQ(print(mapped), result);
        EXPECT_TRUE(!mapped.track || mapped.track->sourceNamed == (mapped.track->group != "239.9.9.9"));
    }
    map(make(AOI_MSG_RTSP_DESCRIBE), 200, {{"Content-Type", "application/sdp"}}, sdp);
    EXPECT_TRUE(m_session.groups.empty());
}

TEST_F(WireAnswers, CarryTheSessionAndCountItsSetups)
{
    const Request interleaved = setup({"", 0, PROTOCOL_TCP, BROADCASTMETHOD_NONE});
    const zr::rtsp::Header transport{"Transport", "RTP/AVP/TCP;interleaved=0-1"};
    EXPECT_EQ(print(map(interleaved, 454, {transport})), "failure 454");
    EXPECT_THAT(map(interleaved, 200, {transport}).problem, HasSubstr("no Session"));
    m_session.setups = 0;
    Mapped mapped = map(interleaved, 200, {{"session", "aB1 ; Timeout=20;x"}, transport});
    EXPECT_TRUE(mapped.answer.kind == 1u && mapped.answer.destinationId == 5u);
    EXPECT_EQ(mapped.answer.sessionId, "aB1");
    mapped = map(interleaved, 200, {{"Transport", "RTP/AVP/TCP"}, {"Server", "s/1"}});
    EXPECT_EQ(mapped.answer.sessionId, "aB1");
    EXPECT_EQ(mapped.trackNumber, 1u);
    EXPECT_EQ(mapped.answer.server, "s/1");
    for (const char *timeout : {"aB1;timeout=-5", "aB1;timeout=0", "aB1;timeout=99999999999", "aB1;timeout=x"})
        map(make(AOI_MSG_RTSP_PAUSE), 200, {{"Session", timeout}});
    EXPECT_EQ(m_session.timeoutSeconds, 20u);

    // another ID than the session's is the plug-in's to judge; the session keeps its own
    mapped = map(make(AOI_MSG_RTSP_PLAY), 200, {{"Session", "other"}}, "", "rtsp://h/2");
    EXPECT_EQ(mapped.answer.sessionId, "other");
    EXPECT_TRUE(m_session.id == "aB1" && m_session.lastUrl == "rtsp://h/2" && m_session.played);
    map(make(AOI_MSG_RTSP_OPTIONS), 200, {{"Public", "Play,,OPTIONS"}, {"Public", "x"}});
    EXPECT_EQ(m_session.publicMethods, "PLAY, OPTIONS, X");
    EXPECT_EQ(map(make(AOI_MSG_RTSP_PAUSE), 300).answer.errorCode, 300u);
}

TEST_F(WireAnswers, ReadTheDescription)
{
    // type, body, result; empty: refused
    const std::tuple<std::string, std::string, std::string> bodies[] = {
        {"Application/SDP; charset=utf-8", sdp + std::string("\0\0", 2), sdp},
        {"application/sdp", sdp + std::string("\0a=evil", 7), sdp},
        {"application/sdp", "v=0\nm=video 0 RTP/AVP 26\na=control:1\nm=audio 0 RTP/AVP 0 8",
         "v=0\nm=video 0 RTP/AVP 26\na=rtpmap:26 JPEG/90000\na=control:1\nm=audio 0 RTP/AVP 0 8\na=rtpmap:0 PCMU/8000\n"},
        {"application/sdp", "v=0\r\nm=audio 0 RTP/AVP 8\r\na=rtpmap:8 x/1\r\nm=video 0 RTP/AVP 33\r\nb=AS:1\r\n",
         "v=0\r\nm=audio 0 RTP/AVP 8\r\na=rtpmap:8 x/1\r\nm=video 0 RTP/AVP 33\r\nb=AS:1\r\na=rtpmap:33 MP2T/90000\r\n"},
        {"application/sdp", "v=0\nm=audio 0 RTP/AVP 0 96\na=rtpmap:96 x/1\n",
         "v=0\nm=audio 0 RTP/AVP 0 96\na=rtpmap:0 PCMU/8000\na=rtpmap:96 x/1\n"},
        {"application/sdp", "v=0\nm=\nm=video 0 RTP/AVP 999", "v=0\nm=\nm=video 0 RTP/AVP 999"},
        {"application/sdp", "<html>", ""},
        {"text/html", sdp, ""},
    };
    for (const auto &[type, body, result] : bodies)
    {
        const Mapped mapped = map(make(AOI_MSG_RTSP_DESCRIBE), 200, {{"Content-Type", type}}, body);
        EXPECT_EQ(mapped.answer.body.value_or(""), result);
        EXPECT_EQ(mapped.answer.errorCode.value_or(0), result.empty() ? 415u : 0u);
        EXPECT_EQ(mapped.problem.empty(), !result.empty());
    }

    // of an ONVIF source: headers, its session's and its stream's attributes, what is added; empty: refused
    Request onvif = make(AOI_MSG_RTSP_DESCRIBE);
    onvif.onvif = true;
    const std::tuple<Headers, std::string, std::string, std::string> lone[] = {
        {{}, "", "", "a=control:rtsp://h/cam\n"},
        {{{"Content-Base", "/a/"}}, "a=control:*\n", "", "a=control:rtsp://h/a/\n"},
        {{}, "a=control:t\n", "", "a=control:rtsp://h/cam/t\n"},
        {{}, "a=control:rtsp://h/all\n", "", "a=control:rtsp://h/all\n"},
        {{}, "a=control:http://h/\n", "", ""},
        {{}, "a=control:*\n", "a=control:1\n", "a=control:1\n"},
        {{}, "a=control:*\n", "m=audio 0 RTP/AVP 0\n", ""},
    };
    for (const auto &[headers, session, stream, added] : lone)
    {
        const std::string begin = "v=0\n" + session + "m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\n";
        const Mapped mapped = map(onvif, 200, headers, begin + stream);
        EXPECT_EQ(mapped.answer.body.value_or(""), added.empty() ? "" : begin + added);
    }
}

TEST_F(WireAnswers, MakeBaseAndLocationAbsolute)
{
    const std::string absolute = "v=0\nm=video 0 RTP/AVP 96\na=control:rtsp://h/1\na=control:*\n";
    const std::string none = "none";
    const std::tuple<Headers, std::string, std::string, std::string, std::string> rows[] = {
        {{}, url, sdp, none, none},
        {{{"Content-Base", "rtsp://u:p@h/cam"}}, url, sdp, "rtsp://h/cam/", none},
        {{{"Content-Base", "rtsp://h/cam"}}, url, absolute, "rtsp://h/cam", none},
        {{{"Content-Base", "/a/"}, {"Content-Location", "b"}}, url, sdp, "rtsp://h/a/", "rtsp://h/b"},
        {{{"Content-Location", "rtsp://h/tv"}}, url, sdp, "rtsp://h/tv/", "rtsp://h/tv"},
        {{{"Content-Base", "http://h/"}}, url, sdp, none, none},
        {{}, "rtsp://k/new", sdp, "rtsp://k/new/", none},
    };
    for (const auto &[headers, askedUrl, body, base, location] : rows)
    {
        const Mapped mapped = map(make(AOI_MSG_RTSP_DESCRIBE), 200, headers, body, askedUrl);
        EXPECT_EQ(mapped.answer.contentBase.value_or(none), base);
        EXPECT_EQ(mapped.answer.url.value_or(none), location);
    }
}

TEST_F(WireAnswers, ChooseAChallengeThatCanBeAnswered)
{
    const std::string md5 = "Digest realm=\"cam\", nonce=\"n1\"";
    const std::string realm127(127, 'r');
    // the result of a refusal: what the problem names
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"Digest realm=\"cam\",nonce=\"n1\",algorithm=MD5,qop=\"auth\",stale=FALSE"}, md5},
        {{"digest  NONCE = n1 , Realm=cam"}, md5},
        {{"basic"}, "Basic"},
        {{"Basic realm=\"a, Digest b=\\\"c\", Digest realm=\"cam\", nonce=\"n1\""}, md5},
        {{"Digest realm=\"cam\", nonce=\"n2\", algorithm=SHA-256", md5, "Basic realm=x"}, md5},
        {{"Digest realm=\"a \\c\", nonce=\"n1\", algorithm=\"md5\""}, "Digest realm=\"a c\", nonce=\"n1\""},
        {{"Digest realm=" + realm127 + ", nonce=n1"}, "Digest realm=\"" + realm127 + "\", nonce=\"n1\""},
        {{}, "without a challenge"},
        {{"Negotiate abc=="}, "neither"},
        {{"\"\"==,,= \"unended"}, "without a challenge"},
        {{"Digest realm=\"cam\", nonce=\"n2\", algorithm=SHA-256", "Basic realm=x"}, "SHA-256"},
        {{"Digest realm=r" + realm127 + ", nonce=n1"}, "realm"},
        {{"Digest realm=\"a,b\", nonce=n1"}, "realm"},
        {{"Digest realm=\"x nonce=y\", nonce=n1"}, "realm"},
        {{"Digest realm=\"\", nonce=n1", "Basic realm=x"}, "realm"},
        {{"Digest realm=r"}, "nonce"},
    };
    for (const auto &[challenges, result] : rows)
    {
        Headers headers;
        for (const std::string &challenge : challenges)
            headers.push_back({"WWW-Authenticate", challenge});
        m_session = {};
        const Mapped mapped = map(make(AOI_MSG_RTSP_DESCRIBE), 401, headers);
        const bool usable = mapped.answer.challenge.has_value();
        EXPECT_EQ(mapped.answer.kind, 2u);
        EXPECT_EQ(mapped.answer.errorCode, usable ? 401u : 403u);
        EXPECT_THAT(mapped.answer.challenge.value_or(mapped.problem), HasSubstr(result));
        EXPECT_TRUE(!usable || *mapped.answer.challenge == result) << *mapped.answer.challenge;
    }
}

TEST_F(WireAnswers, TellThePositionNow)
{
    // answered, asked, scale, after; "after": 10 s later, then paused for a minute
    const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
        {"npt=3.5-", "npt=1-", "", "npt=13.500-"},
        {"", "npt=0:01:00.25-", "2.0", "npt=80.250-"},
        {"npt=3-8", "", "", "npt=8.000-"},
        {"npt=60-5", "", "-0.5", "npt=55.000-"},
        {"npt=5-", "", "-1", "npt=0.000-"},
        {"npt=0-", "", "304", "npt=40.000-"},
        {"npt=100-", "", "-256", "npt=90.000-"},
        {"clock=20240228T235955.5Z-20250101T000000Z", "", "1", "clock=20240229T000005Z-"},
        {"npt=now-", "npt=5-", "", "npt=now-"},
        {"npt=nan-", "clock=20241399T000000Z-", "inf", "npt=now-"},
        {"npt=1e300-", "npt=99999999999999999999-", "", "npt=now-"},
        {"smpte=1:2:3-", "npt=7-", "x", "npt=17.000-"},
    };
    const PlayPosition::Time start{};
    const auto position = [this](PlayPosition::Time now) { return *map(AOI_MSG_RTSP_OPTIONS, {}, now).answer.range; };
    for (const auto &[answered, asked, scale, after] : rows)
    {
        SCOPED_TRACE(answered + ' ' + asked);
        m_session = {};
        Request play = make(AOI_MSG_RTSP_PLAY);
        play.range = asked;
        map(play, 200, {{"Range", answered}, {"Scale", scale}}, "", url, start);
        EXPECT_EQ(position(start + 10s), after);
        map(AOI_MSG_RTSP_PAUSE, {}, start + 10s);
        EXPECT_EQ(position(start + 70s), after) << "paused";
    }
    // a PLAY without a range goes on where it was, at its own speed
    map(AOI_MSG_RTSP_PLAY, {{"Range", "npt=10-100"}}, start);
    map(AOI_MSG_RTSP_PLAY, {{"Scale", "-2"}}, start + 5s);
    EXPECT_EQ(position(start + 7s), "npt=11.000-");
}

TEST_F(WireAnswers, TellThePositionThatTheMediaTells)
{
    constexpr int64_t begin = 1795168800000000; // 2026-11-20T10:00:00Z, in microseconds
    const PlayPosition::Time start{};
    const auto position = [this, start] { return *map(AOI_MSG_RTSP_OPTIONS, {}, start + 10s).answer.range; };
    // what the first PLAY and a later one are answered; then frames of 4 s and of 60.5 s behind the first one
    const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
        {"clock=20261120T100002Z-", "clock=20261120T110000Z-", "clock=20261120T100004Z-", "clock=20261120T100100Z-"},
        {"npt=100-", "npt=200-", "npt=104.000-", "npt=160.500-"},
        {"", "", "clock=20261120T100004Z-", "clock=20261120T100100Z-"},
        {"clock=20261120T100002Z-", "npt=200-", "clock=20261120T100004Z-", "npt=210.000-"}};
    for (const auto &[first, later, afterFirst, afterLater] : rows)
    {
        SCOPED_TRACE(first + ' ' + later);
        m_session = {};
        m_session.position.follow({begin, begin + 1000000, 25}); // frames may come before the answer
        map(AOI_MSG_RTSP_PLAY, {{"Range", first}}, start);
        m_session.position.follow({begin, begin + 4000000, 100});
        EXPECT_EQ(position(), afterFirst);
        map(AOI_MSG_RTSP_PAUSE, {}, start + 5s);
        EXPECT_EQ(position(), afterFirst);
        map(AOI_MSG_RTSP_PLAY, {{"Range", later}}, start);
        EXPECT_TRUE(later.empty() || position() != afterFirst) << "as asked for, until a frame comes";
        m_session.position.follow({begin, begin + 60500000, 101});
        EXPECT_EQ(position(), afterLater);
    }
}
