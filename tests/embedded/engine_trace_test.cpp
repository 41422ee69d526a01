#include "engine_fixture.h"
#include "zr_platform.h"

namespace zr::test {

using EngineTrace = EngineTest;

static void note(const ZrTraceEvent *event, void *notes)
{
    static constexpr const char *kinds[] = {"> ", "< ", "! ", "* ", "x "};
    const std::string counts = event->ullFramesReceived == 0
                                   ? ""
                                   : std::to_string(event->ullFramesReceived) + " frames of " +
                                         std::to_string(event->ullFrameBytes) + " bytes, ";
    const std::string cut = event->ullCut == 0 ? "" : " and more";
    static_cast<Notes<std::string> *>(notes)->add(kinds[event->ulKind] + counts +
                                                  std::string(event->pszText, event->ulLength).substr(0, 500) + cut);
    EXPECT_EQ(ZR_TraceSet(nullptr, nullptr), ZR_ULONG{ZR_SESSION_FAILED}) << "it would wait for itself";
}

/// All that is on the wire, as it is there and in its order, but no credentials, wherever a server repeats them; also
/// what cannot be read. Nothing before and after.
TEST_F(EngineTrace, TellsTheWireWithoutCredentials)
{
    const std::string echo = "Authentication-Info : Basic x,\r\n\tnextnonce=n, rspauth=r\nVia: rtsp://u:p/w@h/a?b@c, "
                             "rtsp://h:1/a@b?x=1&Password=p1&y=2 from h1dden /u=a_password=t_p_channel=1\r\n";
    const std::string shown = "Authentication-Info : Basic ***\r\n\t***\nVia: rtsp://***@c, "
                              "rtsp://h:1/a@b?x=1&Password=***&y=2 from *** /u=a_password=***_channel=1\r\n";
    const std::string body(70000, 'b');
    const std::string hello = "RTSP/1.0 200 OK\r\nCSeq: ";
    ScriptedServer server({{{"DESCRIBE", {hello + "{cseq}\r\n" + echo + "Content-Length: 0\r\n\n"}},
                            {"SETUP", {setupAnswer}},
                            {"PLAY", {"$", std::string("\0\0\3abc$\0\0\2de", 12), sessionAnswer}},
                            {"OPTIONS", {hello + "{cseq}\r\nContent-Length: 70001\r\n\r\n ", body}},
                            {"PAUSE", {hello + "no number: \1\r\nX: y\r\n"}}},
                           {{"DESCRIBE", {describeAnswer}}}});
    Client client(engine(), 7, server);
    client.authorization = "Digest username=\"u\", response=\"s3cret\"";
    ZR_LogHide("h1dden");
    Notes<std::string> events;
    ASSERT_EQ(ZR_TraceSet(note, &events), 0U);
    for (const ZR_ULONG message :
         {AOI_MSG_RTSP_DESCRIBE, AOI_MSG_RTSP_SETUP, AOI_MSG_RTSP_PLAY, AOI_MSG_RTSP_OPTIONS, AOI_MSG_RTSP_PAUSE})
        client.ask(message);
    ASSERT_EQ(ZR_TraceSet(nullptr, nullptr), 0U);
    const std::vector<std::string> told = events(12);
    using testing::StartsWith;
    ASSERT_EQ(told.size(), 12U);
    EXPECT_EQ(told[0], "* 127.0.0.1:" + std::to_string(server.port()));
    EXPECT_THAT(told[1],
                testing::AllOf(StartsWith("> DESCRIBE rtsp:"), testing::HasSubstr("Authorization: Digest ***\r\n"),
                               testing::Not(testing::HasSubstr("s3cret"))));
    EXPECT_EQ(told[2], "< " + hello + "1\r\n" + shown + "Content-Length: 0\r\n\n");
    EXPECT_THAT(told[3], StartsWith("> SETUP"));
    EXPECT_THAT(told[6], StartsWith("< 2 frames of 5 bytes, RTSP/1.0 200"));
    EXPECT_EQ(told[8], "< " + hello + "4\r\nContent-Length: 70001\r\n\r\n and more") << "no word is cut";
    EXPECT_THAT(told[9], StartsWith("> PAUSE"));
    EXPECT_THAT(told[10], StartsWith("! " + hello + "no number: \1\r\n"));
    EXPECT_THAT(told[11], StartsWith("x a control character in the line"));

    client.ask(AOI_MSG_RTSP_DESCRIBE);
    EXPECT_EQ(events(0).size(), 12U);
}

} // namespace zr::test
