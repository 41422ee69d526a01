#include "engine_fixture.h"
#include "tls_identity.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

using EngineSession = EngineTest;

TEST_F(EngineSession, RunsWholeOverTcp)
{
    const std::string frame("$\0\0\3abc", 7);
    const std::string answerAmongMedia = frame + sessionAnswer + frame;
    const std::string answerAfterMedia = frame + frame + sessionAnswer;
    const std::string large = ok("Content-Type: application/sdp\r\n", "v=0\r\n" + std::string(200000, 'x'));
    const Authority authority;
    settings.caFile = authority.file();
    for (const auto &[scheme, host] : {std::pair{"rtsp", "127.0.0.1"},
                                       {"rtsp", "localhost"}, // also where the name means ::1 first
                                       {"rtsps", "127.0.0.1"},
                                       {"rtsps", "localhost"}})
    {
        const std::string url = std::string(scheme).append("://").append(host).append("/live");
        SCOPED_TRACE(url);
        const bool secure = scheme == std::string("rtsps");
        ScriptedServer server({{{"DESCRIBE", {large.substr(0, 10), large.substr(10)}},
                                {"SETUP", {setupAnswer}},
                                {"PLAY", {answerAmongMedia}},
                                {"OPTIONS", {answerAfterMedia}},
                                {"TEARDOWN", {sessionAnswer}}}},
                              secure ? authority.issue({}) : nullptr);
        const auto port = RecordingPort::open(7);
        Client client(engine(), 7, host, server.port());
        client.url = url;
        const Received described = client.ask(AOI_MSG_RTSP_DESCRIBE);
        EXPECT_EQ(described.kind, 1U);
        EXPECT_EQ(described.destination, 7U);
        EXPECT_THAT(described.sdp, SizeIs(200005));
        EXPECT_EQ(*engine().description(7), described.sdp);

        client.url = "rtsp://192.0.2.1/inner/"; // as a server that knows nothing of its TLS describes itself
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_SETUP).session, "S1");
        EXPECT_EQ(engine().description(7), nullptr);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_PLAY).kind, 1U);
        EXPECT_TRUE(port->writers(1).at(0)(1, "xy", 2));
        EXPECT_THAT(server.frames(1), ElementsAre(std::string("$\1\0\2xy", 6)));
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_OPTIONS).kind, 1U);
        ASSERT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
        ASSERT_EQ(client.unregister(), 0U);
        EXPECT_TRUE(server.ended(1));
        EXPECT_THAT(port->events(8), ElementsAre("track 0 channels 0-1", "playing", "frame 0 abc", "played",
                                                 "frame 0 abc", "frame 0 abc", "frame 0 abc", "closed"));
        std::vector<testing::Matcher<std::string>> requests = {
            AllOf(StartsWith("DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\n"), HasSubstr("User-Agent: test\r\n"),
                  HasSubstr("Accept: application/sdp\r\n")),
            AllOf(StartsWith("SETUP "), HasSubstr("Transport: RTP/AVP/TCP;unicast;interleaved=0-1")),
            AllOf(StartsWith("PLAY "), HasSubstr("Session: S1\r\n")), StartsWith("OPTIONS "),
            AllOf(StartsWith("TEARDOWN "), HasSubstr("CSeq: 5\r\n"))};
        if (secure)
            requests.emplace_back("close_notify");
        EXPECT_THAT(server.requests(requests.size()), ElementsAreArray(requests));
    }
}

/// How answers may come: each case answers DESCRIBE and then SETUP, and both must arrive whole.
TEST_F(EngineSession, FindsAnswersInTheStream)
{
    const std::string head = describeAnswer.substr(0, describeAnswer.find("Content-Length"));
    const std::string tail = describeAnswer.substr(head.size());
    const std::string noCseq = "RTSP/1.0 200 OK\r\n" + describeAnswer.substr(describeAnswer.find("Content-Type"));
    const std::string foreign = "RTSP/1.0 404 Not Found\r\nCSeq: 77\r\n\r\n";
    const std::string serverRequest = "GET_PARAMETER * RTSP/1.0\r\nCSeq: 9\r\n\r\n";
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"split", {head.substr(0, 20), head.substr(20), tail.substr(0, 9), tail.substr(9, 40), tail.substr(49)}},
        {"after 1xx", {"RTSP/1.0 100 Continue\r\nCSeq: {cseq}\r\n\r\n", describeAnswer}},
        {"a foreign CSeq before it", {foreign + describeAnswer}},
        {"no CSeq", {noCseq}},
        {"merged with a server's request", {describeAnswer + serverRequest}},
        {"behind blank lines and a frame", {std::string("\r\n\r\n$\0\0\1x", 9) + describeAnswer}},
    };
    for (const auto &[name, pieces] : cases)
    {
        SCOPED_TRACE(name);
        ScriptedServer server({{{"DESCRIBE", pieces}, {"SETUP", {setupAnswer}}}});
        Client client(engine(), 8, server);
        client.send(AOI_MSG_RTSP_DESCRIBE);
        client.send(AOI_MSG_RTSP_SETUP);
        const auto messages = client.recorder.messages(2);
        ASSERT_EQ(messages.size(), 2U);
        EXPECT_EQ(messages[0].messageId, AOI_MSG_RTSP_DESCRIBE);
        EXPECT_EQ(messages[0].kind, 1U);
        EXPECT_THAT(messages[0].sdp, HasSubstr("a=control:track1"));
        EXPECT_EQ(messages[1].kind, 1U);
    }
}

/// Between answers, within an answer's way, glued to it: each is answered, and handed up as what its notice means.
TEST_F(EngineSession, AnswersTheServerAndHandsItsNoticesUp)
{
    const auto announcement = [](const std::string &header) {
        return "ANNOUNCE rtsp://x/ RTSP/1.0\r\nCSeq: 70\r\nSession: S1\r\n" + header + "\r\n\r\n";
    };
    const std::pair<ZR_ULONG, std::vector<std::string>> cases[] = {
        {2001,
         {"Notice: 2101 \"End-of-Stream Reached\" event-date=20240101T000000Z", "x-notice: 2104", "X-Notice:2306;x"}},
        {2003, {"Notice: 5400", "Notice: 5499 \"x\""}},
        {2002, {"Notice: 5500", "Notice: 5399", "Notice: 2000", "Notice: 4400"}},
        // not handed up
        {0,
         {"Range: npt=1-", "Notice: ", "Notice: soon", "Notice: 1103", "Notice: 2103", "Notice: 3101",
          "Notice: 21010"}}};
    std::string all;
    size_t announcements = 0;
    std::vector<ZR_ULONG> expected;
    for (const auto &[reason, headers] : cases)
    {
        for (const std::string &header : headers)
            all += announcement(header);
        announcements += headers.size();
        if (reason != 0)
            expected.insert(expected.end(), headers.size(), reason);
    }
    const std::string options = "OPTIONS * RTSP/1.0\r\nCSeq: 9\r\n\r\n";
    const std::string unknown = "FLY rtsp://x/ RTSP/1.0\r\nCSeq: 10\r\nSession: S1\r\n\r\n";
    const std::string redirect = "REDIRECT rtsp://x/ RTSP/1.0\r\nCSeq: 71\r\nLocation: rtsp://y/\r\n\r\n";
    const std::string notSetUpYet = announcement("Notice: 2104");
    ScriptedServer server({{{"SETUP", {options + unknown + notSetUpYet + setupAnswer}},
                            {"PLAY", {sessionAnswer + all.substr(0, 500), all.substr(500)}},
                            {"PAUSE", {sessionAnswer.substr(0, 20), sessionAnswer.substr(20) + redirect}}}});
    Client client(engine(), 3, server);
    client.ask(AOI_MSG_RTSP_SETUP);
    client.ask(AOI_MSG_RTSP_PLAY);
    ASSERT_THAT(client.recorder.messages(2 + expected.size()), SizeIs(2 + expected.size()));
    client.ask(AOI_MSG_RTSP_PAUSE);
    std::vector<ZR_ULONG> reasons;
    for (const Received &message : client.recorder.messages(4 + expected.size()))
    {
        if (message.messageId != AOI_MSG_RTSP_ADMINSSION_ANNOUNCE)
            continue;
        reasons.push_back(message.reason);
        EXPECT_TRUE(message.kind == 0 && message.destination == 3 && message.session == "S1");
    }
    expected.push_back(2003);
    EXPECT_EQ(reasons, expected);
    const auto answers = server.requests(3 + 3 + announcements + 1);
    ASSERT_THAT(answers, Contains(StartsWith("RTSP/1.0 200 ")).Times(2 + announcements + 1));
    EXPECT_THAT(answers[1], AllOf(StartsWith("RTSP/1.0 200 "), HasSubstr("CSeq: 9\r\n"), HasSubstr("Public: ")));
    EXPECT_THAT(answers[2],
                AllOf(StartsWith("RTSP/1.0 501 "), HasSubstr("CSeq: 10\r\n"), HasSubstr("Session: S1\r\n")));
}

/// Ten seconds' time-out, kept for three of its lengths while the plug-in says nothing: OPTIONS until the server says
/// what it knows, then GET_PARAMETER, OPTIONS again when that was not true. The connection may go in between. Nobody
/// hears of the answers.
TEST_F(EngineSession, KeepsAShortSession)
{
    const Step quiet = {"GET_PARAMETER", {sessionAnswer}};
    ScriptedServer server({{{"SETUP", {udpSetupAnswer}},
                            {"PLAY", {sessionAnswer}},
                            {"OPTIONS", {ok("Public: OPTIONS, GET_PARAMETER\r\n")}},
                            quiet,
                            quiet,
                            {"GET_PARAMETER", {}, After::Close}},
                           {{"GET_PARAMETER", {"RTSP/1.0 501 Not Implemented\r\nCSeq: {cseq}\r\n\r\n"}},
                            {"OPTIONS", {ok()}},
                            {"OPTIONS", {ok()}}}});
    settings.sessionSecond = 10ms;
    Client client(engine(), 3, server);
    client.protocol = PROTOCOL_UDP;
    ASSERT_EQ(client.send(AOI_MSG_RTSP_SETUP), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    const auto requests = server.requests(9);
    ASSERT_THAT(requests, SizeIs(testing::Ge(9U)));
    for (size_t number = 2; number < 9; ++number)
        EXPECT_THAT(requests[number], HasSubstr("Session: S1\r\n"));
    EXPECT_THAT(client.recorder.messages(3, 0ms), SizeIs(2));
}

/// Before two seconds' time-out is over, also where one of them goes down with its connection.
TEST_F(EngineSession, KeepsAliveInTime)
{
    settings.sessionSecond = 200ms;
    ScriptedServer server({{{"SETUP", {udpSetupAnswer}}, {"OPTIONS", {}, After::Close}}, {{"OPTIONS", {ok()}}}});
    Client client(engine(), 3, server);
    client.protocol = PROTOCOL_UDP;
    const auto timedOut = dispatch::SteadyClock::now() + 2s;
    ASSERT_EQ(client.send(AOI_MSG_RTSP_SETUP), 0U);
    EXPECT_THAT(server.requests(3), SizeIs(3));
    EXPECT_LT(dispatch::SteadyClock::now(), timedOut);
}

/// An unanswered keep-alive lets the next request pass, and does not take another one behind it.
TEST_F(EngineSession, LetsKeepAlivesHoldNobodyUp)
{
    settings.keepAliveHold = 50ms;
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}, {"OPTIONS", {}}, {"PLAY", {sessionAnswer}}}});
    Client client(engine(), 6, server);
    client.ask(AOI_MSG_RTSP_DESCRIBE);
    for (const ZR_ULONG keepAlive : {AOI_MSG_RTSP_OPTIONS, AOI_MSG_RTSP_OPTIONS, AOI_MSG_RTSP_SET_PARAMERTER})
        EXPECT_EQ(client.send(keepAlive), 0U);
    EXPECT_EQ(client.ask(AOI_MSG_RTSP_PLAY).messageId, AOI_MSG_RTSP_PLAY);
    EXPECT_THAT(server.requests(3), SizeIs(3));
}

/// A method that the server does not list goes out as one that it does; the position comes with each OPTIONS answer.
TEST_F(EngineSession, ReplacesSetParameter)
{
    ScriptedServer server({{{"SETUP", {setupAnswer}},
                            {"PLAY", {ok("Session: S1\r\nRange: npt=20.5-\r\n")}},
                            {"SET_PARAMETER", {ok()}},
                            {"OPTIONS", {ok("Public: OPTIONS, get_parameter\r\n")}},
                            {"GET_PARAMETER", {ok()}},
                            {"OPTIONS", {ok("Public: OPTIONS\r\n")}},
                            {"OPTIONS", {ok()}}}});
    Client client(engine(), 3, server);
    for (const ZR_ULONG request :
         {AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_SET_PARAMERTER, AOI_MSG_RTSP_OPTIONS,
          AOI_MSG_RTSP_SET_PARAMERTER, AOI_MSG_RTSP_OPTIONS, AOI_MSG_RTSP_SET_PARAMERTER})
    {
        const Received answer = client.ask(request);
        EXPECT_EQ(answer.messageId, request);
        EXPECT_TRUE(request != AOI_MSG_RTSP_OPTIONS || answer.range.rfind("npt=2", 0) == 0) << answer.range;
    }
}

} // namespace zr::test
