#include "digest.h"
#include <atomic>

#include "engine_fixture.h"
#include "tls_identity.h"
#include "zr_platform.h"

namespace zr::test {

using EngineOrders = EngineTest;
static const std::string challenge = "RTSP/1.0 401 Unauthorized\r\nCSeq: {cseq}\r\nWWW-Authenticate: ";

/// The strongest of what is offered, by the formulas of RFC 7616, 3.4.
TEST_F(EngineOrders, AnswerAsTheChallengeAsks)
{
    const auto check = [&](const std::string &asked, const char *hash, bool session, bool qop, const char *says) {
        ScriptedServer server({{{"DESCRIBE", {challenge + asked + "\r\n\r\n"}}, {"DESCRIBE", {describeAnswer}}}});
        ZR_SessionSetCredentials(7, "u", "p", ZR_CREDENTIALS_BASIC_IN_CLEAR);
        EXPECT_EQ(Client(engine(), 7, server).ask(AOI_MSG_RTSP_DESCRIBE).kind, 1U);
        const std::string request = server.requests(2).at(1);
        const std::string cnonce = qop || session ? request.substr(request.find(" cnonce=\"") + 9, 32) : "";
        const auto h = [hash](const std::string &text) { return util::hexDigest(hash, {text}).value(); };
        const std::string secret = (session ? h(h("u:r\":p") + ":n:" + cnonce) : h("u:r\":p")) + ":n:";
        const std::string count = qop ? "00000001:" + cnonce + ":auth:" : "";
        const std::string response = '"' + h(secret + count + h("DESCRIBE:" + server.url())) + '"';
        EXPECT_THAT(request, testing::HasSubstr(says)) << asked;
        EXPECT_THAT(request, testing::HasSubstr(says[0] == 'B' ? "" : response)) << asked;
    };
    const std::string more = ", realm=\"r\\\"\", nonce=\"n\"";
    const std::string sha = "\r\nWWW-Authenticate: Digest algorithm=\"SHA-256\"" + more + ", Digest algorithm=X" + more;
    check("Digest algorithm=\"md5-SESS\", opaque=\"o\"" + more, "MD5", true, false, "opaque=\"o\", cnonce=");
    check("Digest qop=\"x, auth\", algorithm=SHA-256-sess" + more, "SHA256", true, true, "qop=auth, nc=00000001");
    check("Basic realm=x, Digest qop=auth" + more + sha, "SHA256", false, false, "algorithm=SHA-256\r\n");
    check("Basic realm=x", "MD5", false, false, "Basic dTpw\r\n");

    // credentials that were set meanwhile may not be shown
    ScriptedServer server(
        {{{"", {challenge + "Basic realm=x\r\n\r\n"}}, {"", {describeAnswer}}, {"", {sessionAnswer}}}});
    ZR_SessionSetCredentials(7, "u", "p", ZR_CREDENTIALS_BASIC_IN_CLEAR);
    Client client(engine(), 7, server);
    client.ask(AOI_MSG_RTSP_DESCRIBE);
    ZR_SessionSetCredentials(7, "u", "other", 0);
    client.ask(AOI_MSG_RTSP_OPTIONS);
    EXPECT_THAT(server.requests(3).at(1), testing::HasSubstr("Authorization"));
    EXPECT_THAT(server.requests(3).at(2), testing::Not(testing::HasSubstr("Authorization")));
}

/// A nonce for each request, another realm in between; what cannot be answered goes up, and is no end.
TEST_F(EngineOrders, AnswerEachChallengeOfASession)
{
    Script script;
    const std::pair<std::string, std::string> requests[] = {
        {"SETUP", setupAnswer}, {"PLAY", sessionAnswer}, {"PAUSE", sessionAnswer}, {"SET_PARAMETER", sessionAnswer}};
    for (const auto &[method, answer] : requests)
    {
        const std::string realm = method[0] == 'S' ? "s" : "p";
        script.push_back({method, {challenge + "Digest realm=" + realm + ", nonce=n" + method + "\r\n\r\n"}});
        script.push_back({method, {answer}});
    }
    for (const char *asked : {"Digest qop=auth-int, realm=s, nonce=n", "Basic realm=s"})
        script.push_back({"OPTIONS", {challenge + asked + "\r\n\r\n"}});
    ScriptedServer server({script});
    Client client(engine(), 7, server);
    ZR_SessionSetCredentials(7, "u", "p", 0);
    for (const ZR_ULONG id : {AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE, AOI_MSG_RTSP_SET_PARAMERTER})
        EXPECT_EQ(client.ask(id).kind, 1U);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_OPTIONS).error, 401U);
    const std::vector<std::string> sent = server.requests(10);
    for (const auto &[place, said] :
         std::vector<std::pair<size_t, const char *>>{{1, "realm=\"s\", nonce=\"nSETUP\""},
                                                      {2, "nonce=\"nSETUP\""},
                                                      {3, "realm=\"p\", nonce=\"nPLAY\""},
                                                      {5, "nonce=\"nPAUSE\""},
                                                      {7, "realm=\"s\", nonce=\"nSET_PARAMETER\""}})
        EXPECT_THAT(sent.at(place), testing::HasSubstr(said));
    EXPECT_EQ(sent.at(0).find("Authorization"), std::string::npos);
}

/// Nonces that end, or are called stale and stay, what the user may not do, a TEARDOWN that is asked twice; and nothing
/// for another server.
TEST_F(EngineOrders, LastForTheSession)
{
    const auto digest = [](const char *n) { return challenge + "Digest qop=auth, realm=r, nonce=" + n + "\r\n\r\n"; };
    Script script;
    for (const std::string &answer :
         {digest("n1"), setupAnswer, sessionAnswer, digest("n1, stale=true"), digest("n3, stale=true"), digest("n4"),
          challenge + "Basic\r\n\r\n", digest("n5"), sessionAnswer})
        script.push_back({"", {answer}});
    ScriptedServer other({{{"", {digest("n")}}}});
    ScriptedServer server({script, {{"", {"RTSP/1.0 302 x\r\nCSeq: 1\r\nLocation: " + other.url() + "\r\n\r\n"}}}});
    const ZrOnvifReplay replay = {ZR_RATE_CONTROL_NO, 1, ZR_FRAMES_INTRA, 4000};
    Client client(engine(), 7, server);
    EXPECT_EQ(ZR_SessionSetCredentials(7, "u", "p", 0) + ZR_SessionSetReplay(7, &replay), 0U);
    EXPECT_EQ(ZR_SessionSetHeader(7, nullptr, "X", "a\r\nY: b"), ZR_ULONG{ZR_SESSION_INVALID});
    EXPECT_EQ(ZR_SessionSetHeader(7, "PLAY", "cseq", "1"), ZR_ULONG{ZR_SESSION_INVALID});
    const ZR_ULONG errors[] = {client.ask(AOI_MSG_RTSP_SETUP).error, client.ask(AOI_MSG_RTSP_PLAY).error,
                               client.ask(AOI_MSG_RTSP_PAUSE).error, client.ask(AOI_MSG_RTSP_OPTIONS).error};
    EXPECT_THAT(errors, testing::ElementsAre(0U, 0U, 403U, 401U));
    EXPECT_EQ(client.send(AOI_MSG_RTSP_TEARDOWN) + client.unregister(), 0U);
    EXPECT_TRUE(server.ended(1));
    EXPECT_THAT(server.requests(9).at(2), testing::ContainsRegex("^PLAY.*n1.*nc=00000002.*Require: onvif-replay"));
    EXPECT_THAT(server.requests(9).at(4), testing::ContainsRegex("^PAUSE.*n1.*nc=00000004")) << "taken for a replay";
    ZR_SessionSetCredentials(7, "u", "p", 0);
    EXPECT_EQ(Client(engine(), 7, server).ask(AOI_MSG_RTSP_DESCRIBE).error, 403U);
    EXPECT_EQ(other.requests(1).at(0).find("Authorization"), std::string::npos);
}

/// A nonce for each connection, of a server that ends each; and Basic, where the connection hides it.
TEST_F(EngineOrders, AnswerOnEachConnection)
{
    const auto asks = [](const std::string &what) { return Step{"", {challenge + what + "\r\n\r\n"}}; };
    const Authority authority;
    settings.caFile = authority.file();
    ScriptedServer server({{asks("Digest realm=r, nonce=n1"), {"SETUP", {udpSetupAnswer}, After::Close}},
                           {asks("Digest realm=r, nonce=n2"), {"PLAY", {sessionAnswer}, After::Close}},
                           {asks("Digest realm=r, nonce=n3"), {"PAUSE", {sessionAnswer}}}});
    Client client(engine(), 7, server);
    client.protocol = PROTOCOL_UDP;
    ZR_SessionSetCredentials(7, "u", "p", 0);
    Notes<std::string> closed; // as the client sees it
    ZR_TraceSet(
        [](const ZrTraceEvent *event, void *notes) {
            if (event->ulKind == ZR_TRACE_CLOSED)
                static_cast<Notes<std::string> *>(notes)->add(event->pszText);
        },
        &closed);
    size_t connections = 0;
    for (const ZR_ULONG request : {AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE})
    {
        EXPECT_EQ(closed(connections).size(), connections);
        EXPECT_EQ(client.ask(request).kind, 1U);
        ++connections;
    }
    ZR_TraceSet(nullptr, nullptr);
    const std::vector<std::string> sent = server.requests(6);
    for (const size_t connection : {1U, 2U, 3U})
        EXPECT_THAT(sent.at(2 * connection - 1), testing::HasSubstr("nonce=\"n" + std::to_string(connection) + '"'));

    ScriptedServer secured({{asks("Basic realm=r"), {"DESCRIBE", {describeAnswer}}}}, authority.issue({}));
    Client other(engine(), 8, secured);
    other.url = secured.url("rtsps");
    ZR_SessionSetCredentials(8, "u", "p", 0);
    EXPECT_EQ(other.ask(AOI_MSG_RTSP_DESCRIBE).kind, 1U);
    EXPECT_THAT(secured.requests(2).at(1), testing::HasSubstr("\r\nAuthorization: Basic dTpw\r\n"));
}

/// For all requests or one method's, from the next request on; whoever orders may be on another thread.
TEST_F(EngineOrders, AddHeadersWhileASessionRuns)
{
    const Script script(30, Step{"", {sessionAnswer}});
    ScriptedServer server({script});
    Client client(engine(), 7, server);
    const auto set = [](const char *method, const char *name, const char *value) {
        return ZR_SessionSetHeader(7, method, name, value);
    };
    client.ask(AOI_MSG_RTSP_DESCRIBE);
    EXPECT_EQ(set(nullptr, "X-All", "1") + set("PAUSE", "x-all", "2") + set("PAUSE", "X-Pause", " y "), 0U);
    for (const ZR_ULONG request : {AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE})
        client.ask(request);
    EXPECT_EQ(set(nullptr, "x-ALL", nullptr) + set("PAUSE", "X-Pause", "z") + set("PAUSE", "X-All", nullptr), 0U);
    for (const ZR_ULONG request : {AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_PAUSE})
        client.ask(request);
    const std::vector<std::string> sent = server.requests(5);
    const char *const ends[] = {"sdp\r\n\r\n", "S1\r\nX-All: 1\r\n\r\n", "S1\r\nx-all: 2\r\nX-Pause: y\r\n\r\n",
                                "S1\r\n\r\n", "S1\r\nX-Pause: z\r\n\r\n"};
    for (size_t at = 0; at < std::size(ends); ++at)
        EXPECT_THAT(sent.at(at), testing::EndsWith(ends[at]));

    for (int count = 1; count < 16; ++count)
        EXPECT_EQ(set(nullptr, ("X-" + std::to_string(count)).c_str(), "v"), 0U);
    EXPECT_EQ(set(nullptr, "X-16", "v"), ZR_ULONG{ZR_SESSION_TOO_MANY});
    std::atomic<bool> over{false};
    std::thread ordering([&over, &set] {
        for (unsigned count = 0; !over; ++count)
        {
            set(nullptr, "X-1", count % 2 == 0 ? "w" : nullptr);
            ZR_SessionSetCredentials(7, count % 3 == 0 ? nullptr : "u", "p", 0);
        }
    });
    for (int count = 0; count < 20; ++count)
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_OPTIONS).kind, 1U);
    over = true;
    ordering.join();
    for (const std::string &request : server.requests(25))
        EXPECT_THAT(request, testing::Not(testing::HasSubstr("Authorization")));
}

/// A replay is required on SETUP and PLAY alone; where it is, its frames say.
TEST_F(EngineOrders, ReplayARecording)
{
    const ZrOnvifReplay replay = {ZR_RATE_CONTROL_YES, 0, ZR_FRAMES_PREDICTED, 0};
    const auto port = RecordingPort::open(7);
    port->times = media::ReplayTimes{1795168800000000, 1795168801000000, 25};
    ScriptedServer server({{{"DESCRIBE", {describeAnswer}},
                            {"SETUP", {setupAnswer}},
                            {"PLAY", {ok("Session: S1\r\nRange: clock=20261120T100000Z-\r\n")}},
                            {"OPTIONS", {ok("Session: S1\r\n")}},
                            {"OPTIONS", {ok("Session: S1\r\nRange: npt=1-\r\n")}}}});
    Client client(engine(), 7, server);
    EXPECT_EQ(ZR_SessionSetReplay(7, &replay), 0U);
    for (const ZR_ULONG request : {AOI_MSG_RTSP_DESCRIBE, AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY})
        EXPECT_EQ(client.ask(request).kind, 1U);
    port->times = media::ReplayTimes{1795168800000000, 1795168802000000, 50};
    EXPECT_EQ(client.ask(AOI_MSG_RTSP_OPTIONS).range, "clock=20261120T100002Z-");
    EXPECT_EQ(client.ask(AOI_MSG_RTSP_OPTIONS).range, "npt=1-") << "the server's own word";
    const std::vector<std::string> requests = server.requests(5);
    EXPECT_THAT(requests[0], testing::Not(testing::HasSubstr("onvif-replay")));
    EXPECT_THAT(requests[1], testing::HasSubstr("\r\nRequire: onvif-replay\r\n"));
    EXPECT_THAT(requests[2],
                testing::HasSubstr("\r\nRequire: onvif-replay\r\nRate-Control: yes\r\nFrames: predicted\r\n"));
    EXPECT_THAT(requests[3], testing::Not(testing::HasSubstr("onvif-replay")));
}

} // namespace zr::test
