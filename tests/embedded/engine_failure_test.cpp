#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "zr_cc_rt.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class EngineFailure : public testing::Test
{
protected:
    dispatch::Engine &start(const dispatch::Settings &settings)
    {
        m_engine = std::make_unique<dispatch::Engine>(settings);
        EXPECT_TRUE(m_engine->start());
        return *m_engine;
    }

private:
    std::unique_ptr<dispatch::Engine> m_engine;
};

/// Each ends a connection while a request is outstanding and another is queued: both fail at once with 503.
TEST_F(EngineFailure, FailsAllRequestsOfADeadConnection)
{
    dispatch::Settings settings = quickSettings();
    settings.maxBody = 100;
    settings.messageTimeout = 100ms;
    dispatch::Engine &engine = start(settings);
    const struct
    {
        const char *name;
        Step step;
    } cases[] = {
        {"reset", {"DESCRIBE", {}, After::Reset}},
        {"closed", {"DESCRIBE", {}, After::Close}},
        {"closed within the answer", {"DESCRIBE", {"RTSP/1.0 200 OK\r\nCSe"}, After::Close}},
        {"garbage", {"DESCRIBE", {"HTTP/1.1 200 OK\r\n\r\n"}}},
        {"a body beyond the limit", {"DESCRIBE", {"RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 101\r\n\r\n"}}},
        {"a line without end", {"DESCRIBE", {std::string(5000, 'x')}}},
        {"an answer that never ends", {"DESCRIBE", {"RTSP/1.0 200 OK\r\n"}}},
    };
    for (const auto &[name, step] : cases)
    {
        SCOPED_TRACE(name);
        ScriptedServer server({{step}});
        Client client(engine, 3, "127.0.0.1", server.port());
        EXPECT_EQ(client.describe(), 0U);
        EXPECT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
        for (const Received &answer : client.recorder.messages(2))
        {
            EXPECT_EQ(answer.kind, 2U);
            EXPECT_EQ(answer.error, 503U);
        }
        EXPECT_THAT(client.recorder.messages(2), SizeIs(2));
        EXPECT_TRUE(server.ended(1));
        EXPECT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U); // nothing to send it on, so at once
        EXPECT_EQ(client.recorder.messages(3).back().error, 503U);
    }
}

TEST_F(EngineFailure, FailsWithoutAConnection)
{
    dispatch::Settings settings = quickSettings();
    settings.connectTimeout = 200ms;
    dispatch::Engine &engine = start(settings);
    const struct
    {
        const char *name;
        std::string host;
        uint16_t port;
    } cases[] = {
        {"refused", "127.0.0.1", refusedPort()},
        {"refused over IPv6", "::1", refusedPort()},
        {"a name that is none", "no.such.name.invalid", 554},
        {"unreachable", "255.255.255.255", 554},
        {"not answering", "127.0.0.1", silentPort(true)},
    };
    for (const auto &[name, host, port] : cases)
    {
        SCOPED_TRACE(name);
        Client client(engine, 4, host, port);
        client.url = "rtsp://camera/live";
        EXPECT_EQ(client.describe(), 0U);
        const auto answers = client.recorder.messages(1);
        ASSERT_THAT(answers, SizeIs(1));
        EXPECT_EQ(answers[0].error, 503U);
        client.url = "rtsps://camera/live";
        EXPECT_EQ(client.describe(), 0U);
        EXPECT_EQ(client.recorder.messages(2).back().error, 503U);
    }
}

TEST_F(EngineFailure, FindsAServerByName)
{
    dispatch::Engine &engine = start(quickSettings());
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}}});
    Client client(engine, 4, "localhost", server.port()); // also where the name means ::1 first
    EXPECT_EQ(client.describe(), 0U);
    EXPECT_EQ(client.recorder.messages(1).at(0).kind, 1U);
}

TEST_F(EngineFailure, RefusesWhatItCannotUse)
{
    dispatch::Engine &engine = start(quickSettings());
    Client client(engine, 5, "127.0.0.1", 554);
    EXPECT_NE(engine.sendAOIMsg(nullptr), 0U);
    EXPECT_NE(client.send(AOI_MSG_INTERNAL_NOTIFY_RTSP), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U); // a tear-down of what is not there is none
    EXPECT_EQ(client.send(AOI_MSG_RTSP_OPTIONS, ""), 0U);

    ASSERT_EQ(CRouteMgr::addUAAddr("ua5", "camera", "127.0.0.2", 554), 0U);
    EXPECT_NE(client.describe(), 0U); // two addresses
    CRouteMgr::deleteUAAddr("ua5", "camera");
    CRouteMgr::deleteUAAddr("ua5", "camera");
    EXPECT_NE(client.describe(), 0U); // none
    EXPECT_NE(client.setup(), 0U);
    ASSERT_EQ(client.unregister(), 0U);
    EXPECT_NE(client.send(AOI_MSG_RTSP_PLAY), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    EXPECT_THAT(client.recorder.messages(1, 50ms), SizeIs(0));
}

/// The requester has given up when the answer comes; the next request must not take it for its own, with or without
/// CSeq. Meanwhile other sessions go on.
TEST_F(EngineFailure, DropsLateAnswers)
{
    dispatch::Settings settings = quickSettings();
    settings.requestTimeout = 150ms;
    dispatch::Engine &engine = start(settings);
    const std::string late = "RTSP/1.0 404 Not Found\r\n\r\n";
    const std::string lateWithCseq = "RTSP/1.0 404 Not Found\r\nCSeq: 1\r\n\r\n";
    for (const std::string &lateAnswer : {late, lateWithCseq})
    {
        ScriptedServer server({{{"DESCRIBE", {}}, {"DESCRIBE", {lateAnswer, describeAnswer}}}});
        Client client(engine, 6, "127.0.0.1", server.port());
        ASSERT_EQ(client.describe(), 0U);
        ASSERT_THAT(server.requests(1), SizeIs(1));
        ScriptedServer other({Script{{"DESCRIBE", {describeAnswer}}}});
        Client neighbour(engine, 7, "127.0.0.1", other.port());
        ASSERT_EQ(neighbour.describe(), 0U);
        EXPECT_THAT(neighbour.recorder.messages(1), SizeIs(1));
        EXPECT_THAT(client.recorder.messages(1, 300ms), SizeIs(0));
        ASSERT_EQ(client.describe(), 0U);
        const auto answers = client.recorder.messages(1);
        ASSERT_THAT(answers, SizeIs(1));
        EXPECT_EQ(answers[0].kind, 1U);
    }
}

/// An unanswered keep-alive lets the next request pass, and does not take another one behind it.
TEST_F(EngineFailure, KeepAlivesHoldNobodyUp)
{
    dispatch::Settings settings = quickSettings();
    settings.keepAliveHold = 50ms;
    dispatch::Engine &engine = start(settings);
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}, {"OPTIONS", {}}, {"PLAY", {ok("Session: S1\r\n")}}}});
    Client client(engine, 6, "127.0.0.1", server.port());
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_THAT(client.recorder.messages(1), SizeIs(1));
    EXPECT_EQ(client.send(AOI_MSG_RTSP_OPTIONS), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_OPTIONS), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_SET_PARAMERTER), 0U);
    EXPECT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    EXPECT_EQ(client.recorder.messages(2).back().messageId, AOI_MSG_RTSP_PLAY);
    EXPECT_THAT(server.requests(3), SizeIs(3));
}

/// A UDP session survives that its server closes the connection between requests; an interleaved one is lost.
TEST_F(EngineFailure, ReconnectsOrReportsTheLoss)
{
    dispatch::Engine &engine = start(quickSettings());
    const std::string udpAnswer =
        ok("Session: S1\r\nTransport: RTP/AVP;unicast;client_port=5000-5001;server_port=6000-6001\r\n");
    ScriptedServer udp({{{"SETUP", {udpAnswer}}, {"PLAY", {ok("Session: S1\r\n")}, After::Close}},
                        {{"PAUSE", {ok("Session: S1\r\n")}}}});
    Client client(engine, 6, "127.0.0.1", udp.port());
    ASSERT_EQ(client.setup("", PROTOCOL_UDP), 0U);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_TRUE(udp.ended(1));
    ASSERT_THAT(client.recorder.messages(2), SizeIs(2));
    std::this_thread::sleep_for(20ms); // for the end of the stream to be read
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
    EXPECT_EQ(client.recorder.messages(3).back().kind, 1U);
    EXPECT_THAT(udp.requests(3).back(), HasSubstr("CSeq: 3\r\n"));

    ScriptedServer tcp({{{"SETUP", {setupAnswer}}, {"PLAY", {ok("Session: S1\r\n")}, After::Close}}});
    const auto port = RecordingPort::open(7);
    Client interleaved(engine, 7, "127.0.0.1", tcp.port());
    ASSERT_EQ(interleaved.setup(), 0U);
    ASSERT_EQ(interleaved.send(AOI_MSG_RTSP_PLAY), 0U);
    const auto messages = interleaved.recorder.messages(3);
    ASSERT_THAT(messages, SizeIs(3));
    EXPECT_EQ(messages[2].messageId, AOI_MSG_INTERNAL_NOTIFY_RTSP);
    EXPECT_EQ(messages[2].kind, 0U);
    EXPECT_EQ(messages[2].action, 1U);
    EXPECT_EQ(messages[2].session, "S1");
    EXPECT_EQ(messages[2].destination, 7U);
    EXPECT_THAT(port->events(2).back(), "closed");

    ScriptedServer ending({{{"SETUP", {setupAnswer}},
                            {"PLAY", {ok("Session: S1\r\n")}},
                            {"TEARDOWN", {ok("Session: S1\r\n")}, After::Close}}});
    Client tornDown(engine, 8, "127.0.0.1", ending.port());
    ASSERT_EQ(tornDown.setup(), 0U);
    ASSERT_EQ(tornDown.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_EQ(tornDown.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    ASSERT_TRUE(ending.ended(1));
    EXPECT_THAT(tornDown.recorder.messages(4, 30ms), SizeIs(3)); // no notice of what was asked for
}

TEST_F(EngineFailure, KeepsCredentialsFromOtherHosts)
{
    dispatch::Engine &engine = start(quickSettings());
    const std::string challenge =
        "RTSP/1.0 401 Unauthorized\r\nCSeq: {cseq}\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n\r\n";
    ScriptedServer server({{{"DESCRIBE", {challenge}}, {"DESCRIBE", {describeAnswer}}}});
    ScriptedServer other({{{"DESCRIBE", {describeAnswer}}}});
    Client client(engine, 6, "127.0.0.1", server.port());
    ASSERT_EQ(client.describe(), 0U);
    EXPECT_EQ(client.recorder.messages(1).at(0).error, 401U);
    ASSERT_EQ(client.describe("Digest x"), 0U);
    ASSERT_THAT(client.recorder.messages(2), SizeIs(2));
    EXPECT_THAT(server.requests(2).at(1), HasSubstr("Authorization: Digest x\r\n"));

    CRouteMgr::deleteUAAddr("ua6", "camera");
    ASSERT_EQ(CRouteMgr::addUAAddr("ua6", "camera", "127.0.0.1", other.port()), 0U);
    ASSERT_EQ(client.describe("Digest x"), 0U);
    EXPECT_EQ(client.recorder.messages(3).back().kind, 1U);
    EXPECT_THAT(other.requests(1).at(0), Not(HasSubstr("Authorization")));
}

/// A server that asks and asks and reads no answer costs a bounded amount of memory.
TEST_F(EngineFailure, GivesUpAServerThatReadsNothing)
{
    dispatch::Engine &engine = start(quickSettings());
    std::string flood;
    for (int request = 0; request < 200000; ++request)
        flood += "OPTIONS * RTSP/1.0\r\nCSeq: 9\r\n\r\n";
    ScriptedServer server({Script{{"DESCRIBE", {flood}}}});
    Client client(engine, 6, "127.0.0.1", server.port());
    ASSERT_EQ(client.describe(), 0U);
    const auto answers = client.recorder.messages(1);
    ASSERT_THAT(answers, SizeIs(1));
    EXPECT_EQ(answers[0].error, 503U);
    EXPECT_TRUE(server.ended(1));
}

/// Requests of the server's own are answered.
TEST_F(EngineFailure, AnswersTheServer)
{
    dispatch::Engine &engine = start(quickSettings());
    ScriptedServer server({{{"DESCRIBE",
                             {"OPTIONS * RTSP/1.0\r\nCSeq: 9\r\n\r\nFLY rtsp://x/ RTSP/1.0\r\nCSeq: "
                              "10\r\nSession: S1\r\n\r\n" +
                              describeAnswer}}}});
    Client client(engine, 6, "127.0.0.1", server.port());
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_THAT(client.recorder.messages(1), SizeIs(1));
    const auto seen = server.requests(3);
    ASSERT_THAT(seen, SizeIs(3));
    EXPECT_THAT(seen[1], AllOf(StartsWith("RTSP/1.0 200 "), HasSubstr("CSeq: 9\r\n"), HasSubstr("Public: ")));
    EXPECT_THAT(seen[2], AllOf(StartsWith("RTSP/1.0 501 "), HasSubstr("CSeq: 10\r\n"), HasSubstr("Session: S1\r\n")));
}

} // namespace zr::test
