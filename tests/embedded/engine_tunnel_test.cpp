#include "engine_fixture.h"
#include "tls_identity.h"
#include "zr_platform.h"

namespace zr::test {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class EngineTunnel : public EngineTest
{
protected:
    EngineTunnel() { settings.caFile = authority.file(); }
    static std::string cookieOf(const std::string &request)
    {
        const size_t begin = request.find("\r\nx-sessioncookie: ") + 19;
        return request.substr(begin, request.find("\r\n", begin) - begin);
    }
    static std::string tunnelled(const std::string &more = "")
    {
        return "HTTP/1.0 200 OK\r\nx-sessioncookie: another\r\n" + more +
               "Content-Type: Application/X-RTSP-tunnelled; x=y\r\n\r\n";
    }
    std::string reason(ZR_ULONG id, ZR_ULONG code)
    {
        const auto note = engine().note(id, &zr::dispatch::Registration::connection);
        EXPECT_EQ(note.code, code) << note.text;
        return note.text;
    }
    const Authority authority;
};

/// From the opening to the TEARDOWN, in clear and in TLS, over two connections and one: answers and frames come raw,
/// cut anywhere; requests and receiver reports go coded, each by itself.
TEST_F(EngineTunnel, CarriesASession)
{
    const std::string frame("$\0\0\3abc", 7);
    for (const auto &[secure, tunnel] : std::initializer_list<std::pair<bool, ZR_ULONG>>{
             {false, ZR_TUNNEL_HTTP}, {true, ZR_TUNNEL_HTTP}, {false, ZR_TUNNEL_HTTP_ONE}, {true, ZR_TUNNEL_HTTP_ONE}})
    {
        const bool one = tunnel == ZR_TUNNEL_HTTP_ONE;
        const std::string late = one ? "HTTP/1.1 100 a\r\n\r\nHTTP/1.0 200 b\r\nContent-Length: 1\r\n\r\n$" : "";
        const Script script = {{"GET",
                                {"HTTP/1.1 100 Continue\r\n\r", "\nHTTP/1.", tunnelled("A: b\r\n").substr(7)},
                                one ? After::Share : After::Stay},
                               {"POST", {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", "\r\n<a>\r\n"}},
                               {"DESCRIBE", {describeAnswer}},
                               {"SETUP", {setupAnswer}},
                               {"PLAY", {frame.substr(0, 2), frame.substr(2) + late + frame, sessionAnswer}},
                               {"TEARDOWN", {sessionAnswer}}};
        ScriptedServer server({script}, secure ? authority.issue({}) : nullptr);
        const auto port = RecordingPort::open(7);
        Client client(engine(), 7, server);
        ASSERT_EQ(ZR_SessionSetTunnel(7, tunnel, server.port()), 0U);
        client.url = server.url(secure ? "rtsps" : "rtsp") + "?a=b";
        for (const ZR_ULONG request : {AOI_MSG_RTSP_DESCRIBE, AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY})
            EXPECT_EQ(client.ask(request).kind, 1U) << reason(7, 0);
        EXPECT_THAT(port->events(5),
                    ElementsAre("track 0 channels 0-1", "playing", "frame 0 abc", "frame 0 abc", "played"));
        EXPECT_TRUE(port->writers(1).at(0)(1, "report", 6));
        EXPECT_THAT(server.frames(1), ElementsAre(std::string("$\1\0\6report", 10)));
        client.send(AOI_MSG_RTSP_TEARDOWN);
        client.unregister();
        EXPECT_TRUE(server.ended(1));

        const auto requests = server.requests(6);
        const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
        EXPECT_THAT(requests.at(0), AllOf(StartsWith("GET /live?a=b HTTP/1.0\r\n" + host), HasSubstr("Agent: test\r\n"),
                                          HasSubstr("Accept: application/x-rtsp-tunnelled\r\n")));
        EXPECT_THAT(requests.at(1), AllOf(StartsWith("POST /live?a=b HTTP/1.0\r\n" + host),
                                          HasSubstr("Content-Type: application/x-rtsp-tunnelled\r\n"),
                                          HasSubstr("Pragma: no-cache\r\nCache-Control: no-cache\r\n")));
        EXPECT_THAT(cookieOf(requests.at(0)), AllOf(SizeIs(22), cookieOf(requests.at(1))));
        EXPECT_THAT(requests.at(2), StartsWith("DESCRIBE rtsp"));
    }
}

/// Each is refused at once, for that reason, and nothing of RTSP goes out.
TEST_F(EngineTunnel, SaysWhyThereIsNone)
{
    settings.connectTimeout = 1500ms;
    const std::string html = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n<html>";
    const std::tuple<const char *, ZR_ULONG, Step> cases[] = {
        {"404 \"Not Found\"", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 404 Not Found\r\n\r\n<html>"}}},
        {"there are no credentials", ZR_CONNECTION_TUNNEL_CREDENTIALS, {"", {"HTTP/1.1 401 Unauthorized\r\n\r\n"}}},
        {"of type \"text/html\"", ZR_CONNECTION_NO_TUNNEL, {"", {html}}},
        {"of no type", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 200 OK\r\n\r\n"}}},
        {"is coded (\"chunked\")", ZR_CONNECTION_NO_TUNNEL, {"", {tunnelled("Transfer-Encoding: chunked\r\n")}}},
        {"not an HTTP status line: \"RTSP", ZR_CONNECTION_NO_TUNNEL, {"", {"RTSP/1.0 501 Not Implemented\r\n"}}},
        {"not an HTTP status line", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 20\r\n"}}},
        {"longer than 16384", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 200 OK\r\n" + std::string(17000, 'x')}}},
        {"in time", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 200 OK\r\nContent-Type: app"}}},
        {"closed the connection instead", ZR_CONNECTION_NO_TUNNEL, {"", {"HTTP/1.1 200 OK\r\n"}, After::Close}},
    };
    for (const auto &[why, code, step] : cases)
    {
        SCOPED_TRACE(why);
        ScriptedServer server({{step}});
        Client client(engine(), 8, server);
        ASSERT_EQ(ZR_SessionSetTunnel(8, ZR_TUNNEL_HTTP, 0), 0U);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).error, 503U);
        EXPECT_THAT(reason(8, code), HasSubstr(why));
        EXPECT_THAT(server.requests(0), SizeIs(1));
    }
    EXPECT_EQ(ZR_SessionSetTunnel(8, 3, 0), ZR_ULONG{ZR_SESSION_INVALID});
    EXPECT_EQ(ZR_SessionSetTunnel(8, ZR_TUNNEL_HTTP, 65536), ZR_ULONG{ZR_SESSION_INVALID});
}

/// Either connection takes the session with it, whatever happens to it; until something was answered it was no tunnel.
TEST_F(EngineTunnel, EndsWithEitherConnection)
{
    const Step get = {"GET", {tunnelled()}};
    const Step shared = {"GET", {tunnelled()}, After::Share};
    const Step describe = {"DESCRIBE", {describeAnswer}};
    const char *const late = "HTTP/1.0 401 x\r\nWWW-Authenticate: Digest realm=x, nonce=n\r\n\r\n";
    const char *const other = "; perhaps it takes the tunnel's POST on a second connection only";
    const std::tuple<const char *, ZR_ULONG, Script> cases[] = {
        {"POST: 404 \"Not Found\"", ZR_CONNECTION_NO_TUNNEL, {get, {"POST", {"HTTP/1.0 404 Not Found\r\n\r\n"}}}},
        {"POST: 401", ZR_CONNECTION_TUNNEL_CREDENTIALS, {get, {"POST", {"HTTP/1.0 401 x\r\n\r\n"}}}},
        {"POST: 401", ZR_CONNECTION_TUNNEL_CREDENTIALS, {get, {"POST", {"HTTP/1.0 401 x\r\n\r\n"}, After::Close}}},
        {"POST cannot be read: not an HTTP", ZR_CONNECTION_NO_TUNNEL, {get, {"POST", {"SSH-2.0\r\n"}}}},
        {"HTTP tunnel's POST: the server closed",
         ZR_CONNECTION_TUNNEL_CONNECTIONS,
         {get, {"POST", {}}, {"", {}, After::ClosePost}}},
        {"the tunnel may do with one",
         ZR_CONNECTION_TUNNEL_CONNECTIONS,
         {get, {"POST", {}}, {"", {}, After::ClosePost}}},
        {"on the GET's connection: 400",
         ZR_CONNECTION_TUNNEL_CONNECTIONS,
         {shared, {"POST", {"RTSP/1.0 400 x\r\n\r\n"}}}},
        {"POST: 405", ZR_CONNECTION_TUNNEL_CONNECTIONS, {shared, {"POST", {"HTTP/1.0 405 x\r\n\r\n"}}}},
        {other, ZR_CONNECTION_TUNNEL_CONNECTIONS, {{"GET", {tunnelled()}, After::Close}}},
        {other, ZR_CONNECTION_TUNNEL_CONNECTIONS, {shared, {"POST", {}, After::Close}}},
        {"not an RTSP start line", ZR_CONNECTION_TUNNEL_CONNECTIONS, {shared, {"POST", {"SSH-2.0\r\n"}}}},
        {"not an HTTP status", ZR_CONNECTION_TUNNEL_CONNECTIONS, {shared, {"POST", {"HTTP/1.0 20\r\n"}}}},
        {"POST: 401", ZR_CONNECTION_TUNNEL_CREDENTIALS, {shared, {"POST", {"HTTP/1.0 401 x\r\n\r\n"}}}},
        {"POST: 401", ZR_CONNECTION_BROKEN, {shared, {"POST", {}}, describe, {"", {late}}}},
        {"the server closed the connection", ZR_CONNECTION_NO_TUNNEL, {get, {"POST", {}}, {"", {}, After::CloseGet}}},
        {"not an RTSP start line", ZR_CONNECTION_NO_TUNNEL, {get, {"POST", {}}, {"", {"HTTP/1.0 200 OK\r\n\r\n"}}}},
        {"HTTP tunnel's POST: the server closed",
         ZR_CONNECTION_BROKEN,
         {get, {"POST", {}}, describe, {"", {}, After::ClosePost}}},
        {"the server closed the connection",
         ZR_CONNECTION_BROKEN,
         {get, {"POST", {}}, {"DESCRIBE", {"RTSP/1.0 404 x\r\nCSeq: 1\r\n\r\n"}}, {"", {"$"}, After::CloseGet}}},
    };
    for (size_t number = 0; number < 2 * std::size(cases); ++number)
    {
        const auto &[why, code, script] = cases[number / 2];
        const bool secure = number % 2 == 1;
        SCOPED_TRACE(why);
        ScriptedServer server({script}, secure ? authority.issue({}) : nullptr);
        Client client(engine(), 9, server);
        client.url = server.url(secure ? "rtsps" : "rtsp");
        ZR_SessionSetCredentials(9, "u", "p", 0);
        const bool two = script[0].after == After::Stay;
        ZR_SessionSetTunnel(9, two ? ZR_TUNNEL_HTTP : ZR_TUNNEL_HTTP_ONE, 0);
        EXPECT_TRUE(code != ZR_CONNECTION_BROKEN || client.ask(AOI_MSG_RTSP_DESCRIBE).error != 503);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).error, 503U);
        EXPECT_THAT(reason(9, code), HasSubstr(why));
        EXPECT_TRUE(server.ended(1)); // the other one was closed, too
    }
}

/// HTTP's own challenge is answered once, on a new connection, for GET and POST; the trace does not show it.
TEST_F(EngineTunnel, AnswersAChallengeOfHttp)
{
    const std::string asks = "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=x\r\n\r\n";
    const Script refused = {{"GET", {asks}, After::Close}};
    ScriptedServer server(
        {refused, {{"GET", {tunnelled()}}, {"POST", {}}, {"DESCRIBE", {describeAnswer}}}, refused, refused});
    Notes<std::string> told;
    ZR_TraceSet(
        [](const ZrTraceEvent *event, void *notes) {
            static_cast<Notes<std::string> *>(notes)->add({event->pszText, event->ulLength});
        },
        &told);
    for (const ZR_ULONG error : {0U, 503U})
    {
        ZR_SessionSetTunnel(7, ZR_TUNNEL_HTTP, 0);
        ZR_SessionSetCredentials(7, "u", "p", ZR_CREDENTIALS_BASIC_IN_CLEAR);
        Client client(engine(), 7, server);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).error, error);
        EXPECT_THAT(reason(7, error == 0 ? ZR_CONNECTION_NONE : ZR_CONNECTION_TUNNEL_CREDENTIALS),
                    HasSubstr(error == 0 ? "" : "refused the user name"));
    }
    ZR_TraceSet(nullptr, nullptr);
    const auto requests = server.requests(6);
    ASSERT_THAT(requests, SizeIs(6));
    for (const size_t at : {1U, 2U, 5U})
        EXPECT_THAT(requests[at], HasSubstr("\r\nAuthorization: Basic dTpw\r\n"));
    EXPECT_THAT(requests[0], Not(HasSubstr("Authorization")));
    EXPECT_THAT(requests[3], AllOf(StartsWith("DESCRIBE "), Not(HasSubstr("Authorization"))));
    EXPECT_NE(cookieOf(requests[1]), cookieOf(requests[5]));
    const auto events = told(0);
    for (const char *line : {"GET /live", "HTTP/1.0 200", "POST /live", "DESCRIBE "})
        EXPECT_THAT(events, testing::Contains(StartsWith(line)));
    EXPECT_THAT(events, testing::Contains(HasSubstr("Authorization: Basic ***\r\n")));
    EXPECT_THAT(events, testing::Each(Not(HasSubstr("dTpw"))));
}

/// A POST that alone is challenged goes out once more with all of its body, behind its GET where they share a
/// connection.
TEST_F(EngineTunnel, AnswersAChallengeOfThePost)
{
    const Step describe = {"DESCRIBE", {describeAnswer}};
    const std::string asks =
        "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm=x, nonce=n\r\nContent-Length: 3\r\n\r\n<a>";
    const Script refused = {{"GET", {tunnelled()}, After::Share},
                            {"POST", {asks.substr(0, 30), asks.substr(30)}, After::Close}};
    const Step get = {"GET", {tunnelled()}};
    const std::tuple<ZR_ULONG, std::vector<Script>, size_t, ZR_ULONG> cases[] = {
        {ZR_TUNNEL_HTTP, {{get, {"POST", {asks}, After::NextPost}, {"POST", {}}, describe}}, 4, 0},
        {ZR_TUNNEL_HTTP, {{get, {"POST", {asks}, After::NextPost}, {"POST", {asks}, After::Close}}}, 3, 503},
        {ZR_TUNNEL_HTTP_ONE, {refused, {refused[0], {"POST", {}}, describe}}, 5, 0},
        {ZR_TUNNEL_HTTP_ONE, {refused, refused}, 4, 503},
    };
    for (const auto &[tunnel, scripts, expected, error] : cases)
    {
        SCOPED_TRACE(expected);
        ScriptedServer server(scripts);
        Client client(engine(), 7, server);
        ZR_SessionSetTunnel(7, tunnel, 0);
        ZR_SessionSetCredentials(7, "u", "p", 0);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_DESCRIBE).error, error);
        EXPECT_THAT(reason(7, error == 0 ? ZR_CONNECTION_NONE : ZR_CONNECTION_TUNNEL_CREDENTIALS),
                    HasSubstr(error == 0 ? "" : "refused the user name"));
        const auto requests = server.requests(expected);
        ASSERT_THAT(requests, SizeIs(expected));
        EXPECT_THAT(requests[1], AllOf(StartsWith("POST "), Not(HasSubstr("Authorization"))));
        const std::string &again = requests[error == 0 ? expected - 2 : expected - 1];
        EXPECT_THAT(again, AllOf(StartsWith("POST "), HasSubstr("Authorization: Digest username=\"u\"")));
        EXPECT_EQ(cookieOf(again), cookieOf(requests[tunnel == ZR_TUNNEL_HTTP ? 0 : 2]));
    }
}

/// Where the server ends the POST as announced another one goes on within a frame; where it does not, the same one.
TEST_F(EngineTunnel, GoesOnBehindTheAnnouncedLength)
{
    const Script opening = {{"GET", {tunnelled()}}, {"POST", {}}, {"SETUP", {setupAnswer}}};
    Script counting = opening;
    counting[1].after = After::ClosePost;
    counting.push_back(counting[1]);
    counting.push_back({"PLAY", {sessionAnswer}});
    Script endless = opening;
    endless.push_back({"PLAY", {sessionAnswer}});
    for (const Script &script : {counting, endless})
    {
        const bool counts = script.size() > endless.size();
        settings.tunnelPause = counts ? 20000ms : 20ms; // an engine has those that it began with
        dispatch::Engine own(settings);
        ASSERT_TRUE(own.start());
        ScriptedServer server({script});
        const auto port = RecordingPort::open(7);
        Client client(own, 7, server);
        ZR_SessionSetTunnel(7, ZR_TUNNEL_HTTP, 0);
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_SETUP).kind, 1U);
        const std::string report(20000, 'r');
        for (const size_t sent : {1U, 2U})
        {
            EXPECT_TRUE(port->writers(1).at(0)(1, report.data(), report.size()));
            EXPECT_THAT(server.frames(sent), SizeIs(sent));
        }
        EXPECT_EQ(client.ask(AOI_MSG_RTSP_PLAY).kind, 1U);
        const auto requests = server.requests(counts ? 5 : 4);
        ASSERT_THAT(requests, SizeIs(counts ? 5 : 4));
        EXPECT_EQ(cookieOf(requests[1]), cookieOf(requests[counts ? 3 : 0]));
    }
}

} // namespace zr::test
