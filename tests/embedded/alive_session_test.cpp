#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "callback_thread.h"
#include "engine_fixture.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class AliveSession : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(engine.start()); }

    dispatch::Engine engine{quickSettings()};
};

std::string announcement(const std::string &header)
{
    return "ANNOUNCE rtsp://x/ RTSP/1.0\r\nCSeq: 70\r\nSession: S1\r\n" + header + "\r\n";
}

/// Between answers, within an answer's way, glued to it: each is answered, and handed up as what its notice means.
TEST_F(AliveSession, HandsTheServersNoticesUp)
{
    const std::pair<const char *, ZR_ULONG> cases[] = {
        // 0: not handed up
        {"Notice: 2101 \"End-of-Stream Reached\" event-date=20240101T000000Z\r\n", 2001},
        {"x-notice: 2104\r\n", 2001},
        {"X-Notice:2306;x\r\n", 2001},
        {"Notice: 5400\r\n", 2003},
        {"Notice: 5499 \"x\"\r\n", 2003},
        {"Notice: 5500\r\n", 2002},
        {"Notice: 5399\r\n", 2002},
        {"Notice: 2000\r\n", 2002},
        {"Notice: 4400\r\n", 2002},
        {"", 0},
        {"Notice: \r\n", 0},
        {"Notice: soon\r\n", 0},
        {"Notice: 1103\r\n", 0},
        {"Notice: 2103\r\n", 0},
        {"Notice: 3101\r\n", 0},
        {"Notice: 21010\r\n", 0}};
    std::string all;
    std::vector<ZR_ULONG> expected;
    for (const auto &[header, reason] : cases)
    {
        all += announcement(header);
        if (reason != 0)
            expected.push_back(reason);
    }
    const std::string redirect = "REDIRECT rtsp://x/ RTSP/1.0\r\nCSeq: 71\r\nLocation: rtsp://y/\r\n\r\n";
    const std::string play = ok("Session: S1\r\n");
    ScriptedServer server({{{"SETUP", {announcement("Notice: 2104\r\n") + setupAnswer}}, // none is set up yet
                            {"PLAY", {play + all.substr(0, 500), all.substr(500)}},
                            {"PAUSE", {play.substr(0, 20), play.substr(20) + redirect}}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    ASSERT_EQ(client.setup(), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_THAT(client.recorder.messages(2 + expected.size()), SizeIs(2 + expected.size()));
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
    const auto messages = client.recorder.messages(4 + expected.size());
    std::vector<ZR_ULONG> reasons;
    for (const Received &message : messages)
    {
        if (message.messageId != AOI_MSG_RTSP_ADMINSSION_ANNOUNCE)
            continue;
        reasons.push_back(message.reason);
        EXPECT_EQ(message.kind, 0U);
        EXPECT_EQ(message.destination, 3U);
        EXPECT_EQ(message.session, "S1");
    }
    expected.push_back(2003);
    EXPECT_EQ(reasons, expected);
    const size_t answered = 1 + std::size(cases) + 1;
    size_t accepted = 0;
    for (const std::string &request : server.requests(3 + answered))
        accepted += request.rfind("RTSP/1.0 200 ", 0) == 0 ? 1 : 0;
    EXPECT_EQ(accepted, answered);
}

/// Ten seconds' time-out, kept for three of its lengths while the plug-in says nothing: OPTIONS until the server says
/// what it knows, then GET_PARAMETER, OPTIONS again when that was not true. The connection may go in between. Nobody
/// hears of the answers.
TEST_F(AliveSession, KeepsAShortSession)
{
    const std::string session = "Session: S1;timeout=10\r\n";
    const std::string udp = session + "Transport: RTP/AVP;unicast;client_port=5000-5001;server_port=6000-6001\r\n";
    const Step quiet = {"GET_PARAMETER", {ok("Session: S1\r\n")}};
    ScriptedServer server({{{"SETUP", {ok(udp)}},
                            {"PLAY", {ok(session)}},
                            {"OPTIONS", {ok("Public: OPTIONS, GET_PARAMETER\r\n")}},
                            quiet,
                            quiet,
                            {"GET_PARAMETER", {}, After::Close}},
                           {{"GET_PARAMETER", {"RTSP/1.0 501 Not Implemented\r\nCSeq: {cseq}\r\n\r\n"}},
                            {"OPTIONS", {ok()}},
                            {"OPTIONS", {ok()}}}});
    dispatch::Settings settings = quickSettings();
    settings.sessionSecond = 10ms;
    dispatch::Engine fast(settings);
    ASSERT_TRUE(fast.start());
    Client client(fast, 3, "127.0.0.1", server.port());
    ASSERT_EQ(client.setup("", PROTOCOL_UDP), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    const auto requests = server.requests(9);
    ASSERT_THAT(requests, SizeIs(testing::Ge(9U)));
    for (size_t number = 2; number < 9; ++number)
        EXPECT_THAT(requests[number], HasSubstr("Session: S1\r\n"));
    EXPECT_THAT(client.recorder.messages(3, 0ms), SizeIs(2));
}

/// A method that the server does not list goes out as one that it does; the position comes with each OPTIONS answer.
TEST_F(AliveSession, ReplacesSetParameter)
{
    ScriptedServer server({{{"SETUP", {setupAnswer}},
                            {"PLAY", {ok("Session: S1\r\nRange: npt=20.5-\r\n")}},
                            {"SET_PARAMETER", {ok()}},
                            {"OPTIONS", {ok("Public: OPTIONS, get_parameter\r\n")}},
                            {"GET_PARAMETER", {ok()}},
                            {"OPTIONS", {ok("Public: OPTIONS\r\n")}},
                            {"OPTIONS", {ok()}}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    ASSERT_EQ(client.setup(), 0U);
    size_t count = 1;
    for (const ZR_ULONG request : {AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_SET_PARAMERTER, AOI_MSG_RTSP_OPTIONS,
                                   AOI_MSG_RTSP_SET_PARAMERTER, AOI_MSG_RTSP_OPTIONS, AOI_MSG_RTSP_SET_PARAMERTER})
    {
        ASSERT_EQ(client.send(request), 0U);
        const auto messages = client.recorder.messages(++count);
        ASSERT_THAT(messages, SizeIs(count));
        EXPECT_EQ(messages.back().messageId, request);
        if (request == AOI_MSG_RTSP_OPTIONS)
        {
            EXPECT_THAT(messages.back().range, StartsWith("npt=2"));
        }
    }
}

/// Unregistered from a callback thread while a call is on its way, then again before the processor goes: it is not
/// called once that has returned.
TEST_F(AliveSession, UnregisteringAgainWaits)
{
    ScriptedServer server({Script{{"DESCRIBE", {describeAnswer}}}});
    Client client(engine, 3, "127.0.0.1", server.port());
    std::atomic<bool> entered{false};
    std::atomic<bool> leaving{false};
    Signal signal;
    client.recorder.inside = [&] {
        signal.change([&] { entered = true; });
        std::this_thread::sleep_for(30ms); // so that who does not wait is found out
        leaving = true;
    };
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_TRUE(signal.wait([&] { return entered.load(); }));
    std::thread([&] {
        const common::CallbackThreadMark timer;
        EXPECT_EQ(client.unregister(), 0U);
        EXPECT_FALSE(leaving);
    }).join();
    EXPECT_NE(engine.unregisterAOIMsgProc(3), 0U);
    EXPECT_TRUE(leaving);
}

} // namespace zr::test
