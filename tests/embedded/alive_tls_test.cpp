#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "tls_identity.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class AliveTls : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(engine.start()); }
    void TearDown() override { std::remove(authority.file().c_str()); }

    static dispatch::Settings trusting(const Authority &authority)
    {
        dispatch::Settings settings = quickSettings();
        settings.caFile = authority.file();
        return settings;
    }

    Authority authority;
    dispatch::Engine engine{trusting(authority)};
};

TEST_F(AliveTls, RunsASession)
{
    const std::string frame("$\0\0\3abc", 7);
    const std::string large = ok("Content-Type: application/sdp\r\n", "v=0\r\n" + std::string(200000, 'x'));
    for (const char *host : {"127.0.0.1", "localhost"})
    {
        SCOPED_TRACE(host);
        ScriptedServer server({{{"DESCRIBE", {large.substr(0, 10), large.substr(10)}},
                                {"SETUP", {setupAnswer}},
                                {"PLAY", {frame + ok("Session: S1\r\n") + frame}},
                                {"TEARDOWN", {ok("Session: S1\r\n")}}}},
                              authority.issue({}));
        const auto port = RecordingPort::open(7);
        Client client(engine, 7, "127.0.0.1", server.port());
        client.url = std::string("rtsps://") + host + "/live";
        ASSERT_EQ(client.describe(), 0U);
        ASSERT_THAT(client.recorder.messages(1), SizeIs(1));
        EXPECT_THAT(client.recorder.messages(1)[0].sdp, SizeIs(200005));
        client.url = "rtsp://192.0.2.1/inner/"; // as a server that knows nothing of its TLS describes itself
        ASSERT_EQ(client.setup(), 0U);
        ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
        EXPECT_THAT(port->events(3), ElementsAre("track 0 channels 0-1", "frame 0 abc", "frame 0 abc"));
        EXPECT_TRUE(port->writer()(1, "xy", 2));
        EXPECT_EQ(server.frames(6), std::string("$\1\0\2xy", 6));
        ASSERT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN), 0U);
        ASSERT_EQ(client.unregister(), 0U);
        EXPECT_THAT(server.requests(5), ElementsAre(StartsWith("DESCRIBE "), StartsWith("SETUP "), StartsWith("PLAY "),
                                                    StartsWith("TEARDOWN "), "close_notify"));
    }
}

/// Each fails all requests at once, sends none of them, and says why.
TEST_F(AliveTls, TrustsNobodyElse)
{
    const Authority foreign;
    const struct
    {
        const char *reason;
        std::shared_ptr<SSL_CTX> identity;
    } cases[] = {
        {"certificate has expired", authority.issue({"IP:127.0.0.1", -7200, -3600})},
        {"certificate is not yet valid", authority.issue({"IP:127.0.0.1", 3600, 7200})},
        {"unable to get local issuer certificate", foreign.issue({})},
        {"IP address mismatch", authority.issue({"DNS:127.0.0.1,IP:127.0.0.2"})},
        {"the TLS handshake failed", authority.issue({"IP:127.0.0.1", -3600, 3600, TLS1_1_VERSION})},
    };
    for (const auto &[reason, identity] : cases)
    {
        SCOPED_TRACE(reason);
        ScriptedServer server({{{"", {describeAnswer}}}}, identity);
        testing::internal::CaptureStderr();
        Client client(engine, 8, "127.0.0.1", server.port());
        client.url = "rtsps://127.0.0.1/live";
        EXPECT_EQ(client.describe("Basic secret"), 0U);
        EXPECT_EQ(client.send(AOI_MSG_RTSP_PAUSE), 0U);
        const auto answers = client.recorder.messages(2);
        ASSERT_THAT(answers, SizeIs(2));
        EXPECT_EQ(answers[0].error, 503U);
        EXPECT_EQ(answers[1].error, 503U);
        EXPECT_TRUE(server.ended(1));
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(reason));
        EXPECT_THAT(server.requests(0), IsEmpty());
    }
    std::remove(foreign.file().c_str());
}

/// A URL that asks for TLS is never sent in clear, nor waits for ever for a server that does not speak it.
TEST_F(AliveTls, NeverFallsBack)
{
    dispatch::Settings settings = trusting(authority);
    settings.connectTimeout = 200ms;
    dispatch::Engine impatient(settings);
    ASSERT_TRUE(impatient.start());
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}}, {"SETUP", {setupAnswer}}}, {}});
    Client client(impatient, 9, "127.0.0.1", server.port());
    ASSERT_EQ(client.describe(), 0U);
    ASSERT_EQ(client.setup(), 0U);
    ASSERT_THAT(client.recorder.messages(2), SizeIs(2));
    client.url = "rtsps://127.0.0.1/live";
    ASSERT_EQ(client.send(AOI_MSG_RTSP_PLAY), 0U);
    EXPECT_EQ(client.recorder.messages(3).back().error, 503U);
    ASSERT_EQ(client.describe(), 0U);
    EXPECT_EQ(client.recorder.messages(4).back().error, 503U);
    EXPECT_THAT(server.requests(2), SizeIs(2));
}

TEST_F(AliveTls, RefusesACaFileThatIsNone)
{
    const std::string empty = authority.file() + ".empty";
    std::ofstream(empty) << "no certificate\n";
    for (const std::string &file : {empty, std::string("/no/such/file")})
        EXPECT_NE(ZR_MSGDISP_Init(0, 0, nullptr, file.c_str()), 0U);
    EXPECT_EQ(ZR_MSGDISP_Init(0, 0, nullptr, authority.file().c_str()), 0U);
    ZR_MSGDISP_Destroy();
    std::remove(empty.c_str());
}

} // namespace zr::test
