#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine_fixture.h"

namespace zr::test {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class EngineSession : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(engine.start()); }

    dispatch::Engine engine{quickSettings()};
};

TEST_F(EngineSession, RunsWholeOverTcp)
{
    const std::string frame("$\0\0\3abc", 7);
    const std::string control("$\1\0\2xy", 6);
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}},
                            {"SETUP", {setupAnswer}},
                            {"PLAY", {frame + ok("Session: S1\r\n") + frame}},
                            {"OPTIONS", {frame + frame + ok("Session: S1\r\n")}},
                            {"TEARDOWN", {ok("Session: S1\r\n")}}}});
    const auto port = RecordingPort::open(7);
    Client client(engine, 7, "127.0.0.1", server.port());

    ASSERT_EQ(client.describe(), 0U);
    const auto described = client.recorder.messages(1);
    ASSERT_EQ(described.size(), 1U);
    EXPECT_EQ(described[0].kind, 1U);
    EXPECT_EQ(described[0].destination, 7U);
    EXPECT_THAT(described[0].sdp, HasSubstr("a=control:track1"));

    ASSERT_EQ(client.setup(), 0U);
    const auto setUp = client.recorder.messages(2);
    ASSERT_EQ(setUp.size(), 2U);
    EXPECT_EQ(setUp[1].session, "S1");

    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    ASSERT_EQ(client.recorder.messages(3).size(), 3U);
    EXPECT_TRUE(port->writer()(1, "xy", 2));
    EXPECT_EQ(server.frames(control.size()), control);
    ASSERT_EQ(client.send(AOI_MSG_RTSP_OPTIONS), 0U);
    ASSERT_EQ(client.recorder.messages(4).size(), 4U);

    ASSERT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
    ASSERT_EQ(client.unregister(), 0U);
    EXPECT_TRUE(server.ended(1));
    EXPECT_THAT(port->events(6), ElementsAre("track 0 channels 0-1", "frame 0 abc", "frame 0 abc", "frame 0 abc",
                                             "frame 0 abc", "closed"));
    EXPECT_THAT(server.requests(5),
                ElementsAre(AllOf(StartsWith("DESCRIBE " + client.url + " RTSP/1.0\r\nCSeq: 1\r\n"),
                                  HasSubstr("User-Agent: test\r\n"), HasSubstr("Accept: application/sdp\r\n")),
                            AllOf(StartsWith("SETUP "), HasSubstr("Transport: RTP/AVP/TCP;unicast;interleaved=0-1")),
                            AllOf(StartsWith("PLAY "), HasSubstr("Session: S1\r\n")), StartsWith("OPTIONS "),
                            AllOf(StartsWith("TEARDOWN "), HasSubstr("CSeq: 5\r\n"))));
}

/// How answers may come: each case answers DESCRIBE and then SETUP, and both must arrive whole.
TEST_F(EngineSession, FindsAnswersInTheStream)
{
    const std::string head = describeAnswer.substr(0, describeAnswer.find("Content-Length"));
    const std::string tail = describeAnswer.substr(head.size());
    const std::string noCseq = "RTSP/1.0 200 OK\r\n" + describeAnswer.substr(describeAnswer.find("Content-Type"));
    const std::string foreign = "RTSP/1.0 404 Not Found\r\nCSeq: 77\r\n\r\n";
    const std::string serverRequest = "GET_PARAMETER * RTSP/1.0\r\nCSeq: 9\r\n\r\n";
    const struct
    {
        const char *name;
        std::vector<std::string> pieces;
    } cases[] = {
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
        Client client(engine, 8, "127.0.0.1", server.port());
        client.describe();
        client.setup();
        const auto messages = client.recorder.messages(2);
        ASSERT_EQ(messages.size(), 2U);
        EXPECT_EQ(messages[0].messageId, AOI_MSG_RTSP_DESCRIBE);
        EXPECT_EQ(messages[0].kind, 1U);
        EXPECT_THAT(messages[0].sdp, HasSubstr("a=control:track1"));
        EXPECT_EQ(messages[1].kind, 1U);
    }
}

} // namespace zr::test
