#include <future>

#include "engine_fixture.h"
#include "zr_cc_rt.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::SizeIs;

using EngineFailure = EngineTest;

/// Each ends a connection while a request is outstanding and another is queued: both fail at once with 503. The last
/// asks and asks and reads no answer, which costs a bounded amount of memory.
TEST_F(EngineFailure, FailsAllRequestsOfADeadConnection)
{
    settings.maxBody = 100;
    settings.messageTimeout = 100ms;
    std::string flood;
    for (int request = 0; request < 200000; ++request)
        flood += "OPTIONS * RTSP/1.0\r\nCSeq: 9\r\n\r\n";
    const std::pair<const char *, Step> cases[] = {
        {"reset", {"DESCRIBE", {}, After::Reset}},
        {"closed", {"DESCRIBE", {}, After::Close}},
        {"closed within the answer", {"DESCRIBE", {"RTSP/1.0 200 OK\r\nCSe"}, After::Close}},
        {"garbage", {"DESCRIBE", {"HTTP/1.1 200 OK\r\n\r\n"}}},
        {"a body beyond the limit", {"DESCRIBE", {"RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 101\r\n\r\n"}}},
        {"a line without end", {"DESCRIBE", {std::string(5000, 'x')}}},
        {"an answer that never ends", {"DESCRIBE", {"RTSP/1.0 200 OK\r\n"}}},
        {"reads nothing", {"DESCRIBE", {flood}}},
    };
    for (const auto &[name, step] : cases)
    {
        SCOPED_TRACE(name);
        ScriptedServer server({{step}});
        Client client(engine(), 3, server);
        EXPECT_EQ(client.send(AOI_MSG_RTSP_DESCRIBE), 0U);
        EXPECT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
        const auto answers = client.recorder.messages(2);
        EXPECT_THAT(answers, SizeIs(2));
        for (const Received &answer : answers)
            EXPECT_TRUE(answer.kind == 2 && answer.error == 503) << answer.kind << ' ' << answer.error;
        EXPECT_TRUE(server.ended(1));
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_PLAY).error, 503U); // nothing to send it on, so at once
    }
}

TEST_F(EngineFailure, FailsWithoutAConnection)
{
    settings.connectTimeout = 200ms;
    const std::tuple<const char *, const char *, uint16_t> cases[] = {
        {"refused", "127.0.0.1", refusedPort()},
        {"refused over IPv6", "::1", refusedPort()},
        {"a name that is none", "no.such.name.invalid", 554},
        {"unreachable", "255.255.255.255", 554},
        {"not answering", "127.0.0.1", silentPort(true)},
    };
    for (const auto &[name, host, port] : cases)
    {
        SCOPED_TRACE(name);
        Client client(engine(), 4, host, port);
        for (const char *url : {"rtsp://camera/live", "rtsps://camera/live"})
        {
            client.url = url;
            EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).error, 503U);
        }
    }
}

TEST_F(EngineFailure, RefusesWhatItCannotUse)
{
    Client client(engine(), 5, "127.0.0.1", 554);
    EXPECT_NE(engine().sendAOIMsg(nullptr), 0U);
    EXPECT_NE(client.send(AOI_MSG_INTERNAL_NOTIFY_RTSP), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U); // a tear-down of what is not there is none
    client.session = "";
    EXPECT_EQ(client.send(AOI_MSG_RTSP_OPTIONS), 0U);

    ASSERT_EQ(CRouteMgr::addUAAddr("ua5", "camera", "127.0.0.2", 554), 0U);
    EXPECT_NE(client.send(AOI_MSG_RTSP_DESCRIBE), 0U); // two addresses
    CRouteMgr::deleteUAAddr("ua5", "camera");
    CRouteMgr::deleteUAAddr("ua5", "camera");
    EXPECT_NE(client.send(AOI_MSG_RTSP_DESCRIBE), 0U); // none
    EXPECT_NE(client.send(AOI_MSG_RTSP_SETUP), 0U);
    ASSERT_EQ(client.unregister(), 0U);
    client.session = "S1";
    EXPECT_NE(client.send(AOI_MSG_RTSP_PLAY), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    EXPECT_THAT(client.recorder.messages(1, 50ms), SizeIs(0));
}

/// The requester has given up when the answer comes; the next request must not take it for its own, with or without
/// CSeq. Meanwhile other sessions go on.
TEST_F(EngineFailure, DropsLateAnswers)
{
    settings.requestTimeout = 1s; // which the neighbour meets
    for (const std::string late : {"RTSP/1.0 404 Not Found\r\n\r\n", "RTSP/1.0 404 Not Found\r\nCSeq: 1\r\n\r\n"})
    {
        ScriptedServer server({{{"DESCRIBE", {}}, {"DESCRIBE", {late, describeAnswer}}}});
        ScriptedServer other({Script{{"DESCRIBE", {describeAnswer}}}});
        Client client(engine(), 6, server);
        Client neighbour(engine(), 7, other);
        ASSERT_EQ(client.send(AOI_MSG_RTSP_DESCRIBE), 0U);
        ASSERT_THAT(server.requests(1), SizeIs(1));
        EXPECT_EQ(neighbour.ask(AOI_MSG_RTSP_DESCRIBE).kind, 1U);
        EXPECT_THAT(client.recorder.messages(1, 1500ms), SizeIs(0));
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).kind, 1U);
    }
}

/// A UDP session survives that its server closes the connection between requests; an interleaved one is lost.
TEST_F(EngineFailure, ReconnectsOrReportsTheLoss)
{
    const Step playAndClose = {"PLAY", {sessionAnswer}, After::Close};
    ScriptedServer udp({{{"SETUP", {udpSetupAnswer}}, playAndClose}, {{"PAUSE", {sessionAnswer}}}});
    Client client(engine(), 6, udp);
    client.protocol = PROTOCOL_UDP;
    client.ask(AOI_MSG_RTSP_SETUP);
    client.ask(AOI_MSG_RTSP_PLAY);
    ASSERT_TRUE(udp.ended(1));
    std::this_thread::sleep_for(20ms); // for the end of the stream to be read
    EXPECT_EQ(client.ask(AOI_MSG_RTSP_PAUSE).kind, 1U);
    EXPECT_THAT(udp.requests(3).back(), HasSubstr("CSeq: 3\r\n"));

    // closed just as the next request goes out: once more, unless it may have been acted on and must not be twice
    ScriptedServer racing({{{"SETUP", {udpSetupAnswer}}, playAndClose},
                           {{"PLAY", {sessionAnswer}}, {"PAUSE", {}, After::Close}},
                           {{"PAUSE", {sessionAnswer}}, {"PLAY", {}, After::Close}},
                           {{"SETUP", {udpSetupAnswer}}, playAndClose},
                           {{"TEARDOWN", {sessionAnswer}}}});
    const auto held = RecordingPort::open(9);
    Client racer(engine(), 9, racing);
    racer.protocol = PROTOCOL_UDP;
    // plays, and sends what else there is while the loop does not see that the server closes
    const auto race = [&](size_t closings, const std::function<void()> &sendMore) {
        std::promise<void> sent;
        const std::shared_future<void> more = sent.get_future().share();
        held->inside = [&racing, closings, more] { EXPECT_TRUE((more.wait(), racing.ended(closings))); };
        racer.ask(AOI_MSG_RTSP_SETUP);
        const size_t events = held->events(0).size();
        EXPECT_EQ(racer.send(AOI_MSG_RTSP_PLAY), 0U);
        EXPECT_EQ(held->events(events + 2).back(), "played");
        sendMore();
        sent.set_value();
    };
    race(1, [&] { racer.send(AOI_MSG_RTSP_PLAY); });
    ASSERT_THAT(racer.recorder.messages(3), SizeIs(3));
    EXPECT_EQ(racer.recorder.messages(3)[2].kind, 1U) << "cut off";
    EXPECT_EQ(racer.ask(AOI_MSG_RTSP_PAUSE).kind, 1U) << "does no harm";
    ASSERT_EQ(racer.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_THAT(racer.recorder.messages(6), SizeIs(6));
    EXPECT_EQ(racer.recorder.messages(6)[4].error, 503U) << "may have been acted on";
    EXPECT_EQ(racer.recorder.messages(6)[5].messageId, AOI_MSG_INTERNAL_NOTIFY_RTSP);
    race(4, [&] { racer.send(AOI_MSG_RTSP_TEARDOWN), racer.unregister(); });
    EXPECT_THAT(racing.requests(9).back(), HasSubstr("TEARDOWN "));

    ScriptedServer tcp({{{"SETUP", {setupAnswer}}, playAndClose}});
    const auto port = RecordingPort::open(7);
    Client interleaved(engine(), 7, tcp);
    interleaved.ask(AOI_MSG_RTSP_SETUP);
    interleaved.ask(AOI_MSG_RTSP_PLAY);
    const auto messages = interleaved.recorder.messages(3);
    ASSERT_THAT(messages, SizeIs(3));
    EXPECT_EQ(messages[2].messageId, AOI_MSG_INTERNAL_NOTIFY_RTSP);
    EXPECT_TRUE(messages[2].kind == 0 && messages[2].action == 1 && messages[2].destination == 7);
    EXPECT_EQ(messages[2].session, "S1");
    EXPECT_EQ(engine().facts(7).value().timeoutSeconds, 0U);
    EXPECT_THAT(port->events(2).back(), "closed");

    ScriptedServer ending(
        {{{"SETUP", {setupAnswer}}, {"PLAY", {sessionAnswer}}, {"TEARDOWN", {sessionAnswer}, After::Close}}});
    Client tornDown(engine(), 8, ending);
    for (const ZR_ULONG request : {AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_TEARDOWN})
        tornDown.ask(request);
    ASSERT_TRUE(ending.ended(1));
    EXPECT_THAT(tornDown.recorder.messages(4, 30ms), SizeIs(3)); // no notice of what was asked for
}

/// A host that gives a session up waits for nothing more, and its server is told of the end all the same.
TEST_F(EngineFailure, GivesUp)
{
    EXPECT_FALSE(engine().giveUp(9));
    // the connection is not there yet, and is there
    for (const uint16_t silent : {silentPort(true), silentPort(false)})
    {
        Client waits(engine(), 9, "127.0.0.1", silent);
        ASSERT_EQ(waits.send(AOI_MSG_RTSP_DESCRIBE), 0U);
        EXPECT_TRUE(engine().giveUp(9));
        EXPECT_THAT(waits.recorder.messages(1), SizeIs(1));
        EXPECT_EQ(waits.ask(AOI_MSG_RTSP_DESCRIBE).error, 503U); // for good
    }
    ScriptedServer server({{{"SETUP", {setupAnswer}}, {"PLAY", {}}}});
    Client client(engine(), 9, server);
    client.ask(AOI_MSG_RTSP_SETUP);
    for (const ZR_ULONG request : {AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE, AOI_MSG_RTSP_TEARDOWN})
        ASSERT_EQ(client.send(request), 0U); // one after the other
    ASSERT_THAT(server.requests(2), SizeIs(2));
    EXPECT_TRUE(engine().giveUp(9));
    const auto answers = client.recorder.messages(3);
    ASSERT_THAT(answers, SizeIs(3));
    EXPECT_EQ(answers[1].messageId, AOI_MSG_RTSP_PLAY);
    EXPECT_EQ(answers[2].messageId, AOI_MSG_RTSP_PAUSE);
    EXPECT_TRUE(answers[1].error == 503 && answers[2].error == 503);
    EXPECT_THAT(server.requests(3).back(), HasSubstr("TEARDOWN "));
}

} // namespace zr::test
