// DESCRIBE and what is taken from its answers: SDP, challenges, Authorization values.
#include "core_fixture.h"

namespace zr::test {
namespace {

const char *const SDP = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                        "a=fmtp:96 sprop-parameter-sets=Z0IA,aM4;packetization-mode=1\r\na=control:track1\r\n"
                        "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\na=control:rtsp://x/track2\r\n";
const char *const CHALLENGE = "Digest realm=\"cam\", nonce=\"ab12\"";

class DescriptionTest : public CoreTest
{
protected:
    static Answer described(const std::string &sdp)
    {
        return Answer(AOI_MSG_RTSP_DESCRIBE, SUCCESS).with(AOI_IE_DATA, sdp);
    }
    static Answer challenged(const std::string &challenge)
    {
        return failure(AOI_MSG_RTSP_DESCRIBE, 401).with(AOI_IE_AUTHORIZATION_ID, challenge);
    }
    static std::string line(int level, ZR_ULONG code, const std::string &text,
                            const std::string &function = "AOIProcRtspDescribeRsp")
    {
        return CoreTest::line(std::to_string(level) + ":" + std::to_string(code), function, text);
    }
};

TEST_F(DescriptionTest, credentialsAreCutFromTheUrl)
{
    // the argument; the URL; the digest URI, user and password that are kept
    const std::tuple<const char *, std::string, const char *> rows[] = {
        {"rtsp://h/s?auth&username=ab&password=cd&", "rtsp://h/s", "rtsp://h/s,ab,cd"},
        {"rtsp://h/s?auth&username=ab&password=cd", "rtsp://h/s", "rtsp://h/s,ab,c"},
        {"rtsp://h/s?auth&username=&password=", "rtsp://h/s", "rtsp://h/s,,"},
        {"rtsp://h/s", "rtsp://h/s", "old,oldUser,oldPassword"},
        {"rtsp://h/s?username=ab&password=cd&", "rtsp://h/s?username=ab&password=cd&", "old,oldUser,oldPassword"},
        {"rtsp://h?auth&password=cd&username=ab&", "rtsp://h", "rtsp://h,ab&,cd&username=ab"},
        {"rtsp://h/s?auth=1", "rtsp://h/s", "rtsp://h/s,/s?auth=1,/s?auth="},
        {"?auth", "", ",,"},
        {"auth", "auth", "auth,,"},
        {"rtsp://author/auth&username=a&password=b&", "rtsp:/", "rtsp:/,a,b"}};
    platform.expireWaits();
    for (const auto &[argument, url, kept] : rows)
    {
        SCOPED_TRACE(argument);
        Session session;
        session.changeInfo([](COnvifInfo &info) {
            info.m_strOnvifURL = "old";
            info.m_strUserName = "oldUser";
            info.m_strPassword = "oldPassword";
        });
        EXPECT_EQ(13503U, session.main->describe(argument));
        EXPECT_EQ(url, session.probe.url);
        EXPECT_EQ("URL=" + url, platform.requests().back().elements.front());
        const COnvifInfo info = session.probe.ability.getOnvifInfo();
        EXPECT_EQ(kept, listed(info.m_strOnvifURL, info.m_strUserName, info.m_strPassword));
    }
}

TEST_F(DescriptionTest, theKeepLivePeriodFollowsTheTimeout)
{
    platform.expireWaits();
    const std::map<ZR_ULONG, ZR_ULONG> periods = {{0, 25}, {1, 0}, {2, 0}, {3, 1}, {30, 12}, {60, 25}};
    for (const auto &[timeout, period] : periods)
    {
        Session session("onvif");
        session.changeInfo([seconds = timeout](COnvifInfo &info) { info.m_ulTimeout = seconds; });
        session.main->describe("u");
        EXPECT_THAT(session.probe.keepLive(), ElementsAre(3, period, period)) << timeout;
    }
    Session session("guobiao");
    session.ex2->setKeepLiveInterval(8000);
    session.main->describe("u");
    EXPECT_THAT(session.probe.keepLive(), ElementsAre(150, 10, 10));
}

TEST_F(DescriptionTest, answersAreTakenApart)
{
    // logs: but for AOIMsgPro's own, which follows when the result is not 0
    const auto takes = [](const char *name, const char *tag, const Answer &answer, ZR_ULONG result, Texts logs,
                          ZR_ULONG rspResult) {
        SCOPED_TRACE(name);
        Session session(tag, 16);
        session.probe.rspResult = 7;
        EXPECT_EQ(result, session.take(answer));
        if (result != 0)
            logs.push_back(line(4, result, "AOIProcRtspDescribeRsp brings an error", "AOIMsgPro"));
        EXPECT_EQ(logs, platform.logs());
        EXPECT_EQ(rspResult, session.probe.rspResult);
        EXPECT_EQ(16U, session.probe.state());
    };
    const std::string rtpmap = line(3, 1, "get video rtpmap failed");
    const Answer empty(AOI_MSG_RTSP_DESCRIBE, SUCCESS);
    takes("good", "", described("sdp").with(AOI_IE_URL, "tv"), 0, {}, 0);
    takes("good and empty", "", empty, 0,
          {line(3, 2561, "Get AOI_IE_URL IE from describ failed"),
           line(3, 2560, "get AOI_IE_DATA IE failed, it does not matter.")},
          0);
    takes("good ONVIF", "onvif", described(SDP), 0, {}, 0);
    takes("ONVIF without SDP", "onvif", empty, 2560,
          {line(4, 2560, "get AOI_IE_DATA IE failed", "getOnvifInfoFromSdp"),
           line(3, 2560, "Get onvifinfo from sdp from describ failed")},
          7);
    takes("refused", "", failure(AOI_MSG_RTSP_DESCRIBE, 454), 0, {}, 454);
    takes("refused without status", "onvif", Answer(AOI_MSG_RTSP_DESCRIBE, FAILURE), 0,
          {line(4, 2572, "Get AOI_IE_ERRCODE from describ failed")}, 2572);
    takes("challenged, not ONVIF", "", challenged(CHALLENGE), 0, {}, 401);
    takes("challenged", "onvif", challenged(CHALLENGE), 0, {}, 0);
    takes("challenged, Basic", "onvif", challenged("Basic realm=\"cam\""), 0, {rtpmap, rtpmap}, 0);
    takes("challenged, no nonce", "onvif", challenged("Digest realm=\"cam\""), 0, {rtpmap}, 0);
    takes("of another kind", "", Answer(AOI_MSG_RTSP_DESCRIBE, 3), 0,
          {line(3, 1, "describe response failed, msg type 3")}, 7);
    takes("401 without challenge", "onvif", failure(AOI_MSG_RTSP_DESCRIBE, 401), 10240,
          {line(4, 10240, "Get AOI_IE_AUTHORIZATION_ID from describ failed")}, 401);
    platform.fail("HA1");
    takes("no digest", "onvif", challenged(CHALLENGE), INJECTED,
          {line(4, 777, "Calc md5 step1 failed", "calcAuth"), line(4, 777, "calc auth info failed")}, 401);
}

TEST_F(DescriptionTest, aPlainAnswerIsKept)
{
    Session session;
    const auto describes = [&](const Answer &answer) {
        platform.answer(answer);
        return session.main->describe("u");
    };
    EXPECT_EQ(0U, describes(described("the sdp").with(AOI_IE_URL, "tv").with(AOI_IE_SERVER, "MSRelayer2")));
    EXPECT_EQ("tv,the sdp,0",
              listed(session.probe.vodToTvUrl, session.probe.ability.getDescribeRspSdp(), session.probe.msRelayer));
    EXPECT_EQ(0U, describes(Answer(AOI_MSG_RTSP_DESCRIBE, SUCCESS).with(AOI_IE_SERVER, "MSRelayer")));
    EXPECT_EQ(",1", listed(session.probe.ability.getDescribeRspSdp(), session.probe.msRelayer));
    EXPECT_EQ(1U, describes(Answer(AOI_MSG_RTSP_DESCRIBE, 3))); // a result does not stand for the next request
}

TEST_F(DescriptionTest, elementsCutShortAreNotReadBeyondTheirEnd)
{
    Session session("onvif", 16);
    const std::string lead(84, '\0'), video = "m=video\na=rtpmap:96 H264\na=control:x";
    for (const std::string &bytes : {std::string(), std::string(40, 'x'), lead, lead + video, video})
    {
        EXPECT_NE(0U, session.take(Answer(AOI_MSG_RTSP_DESCRIBE, SUCCESS).raw(AOI_IE_DATA, bytes)));
    }
    EXPECT_EQ("", session.probe.ability.getOnvifInfo().m_strVideoRtpmap);
    for (const std::string &bytes :
         {std::string(), std::string("xxxx"), std::string(8, 'x'), lead + "Digest realm=\"a"})
    {
        session.take(failure(AOI_MSG_RTSP_DESCRIBE, 401).raw(AOI_IE_AUTHORIZATION_ID, bytes));
        EXPECT_EQ("", session.probe.ability.getOnvifInfo().m_strRealm);
    }
}

TEST_F(DescriptionTest, aChallengeIsAnsweredOnce)
{
    const char *const url = "rtsp://h/s?auth&username=u&password=p&";
    Session session("onvif");
    platform.answer(challenged(CHALLENGE));
    platform.answer(described(SDP));
    EXPECT_EQ(0U, session.main->describe(url));
    auto requests = platform.requests();
    ASSERT_EQ(2U, requests.size());
    EXPECT_EQ("Auth=", requests[0].elements.back());
    EXPECT_EQ("Auth=Digest username=\"u\", realm=\"cam\", nonce=\"ab12\", uri=\"rtsp://h/s\", "
              "response=\"d564acb1da3056ef78d7e22f3c47bdd0\"",
              requests[1].elements.back());

    platform.answer(described(SDP)); // the stored value is sent twice, challenge or not
    platform.answer(failure(AOI_MSG_RTSP_DESCRIBE, 500));
    EXPECT_EQ(500U, session.main->describe(url));
    EXPECT_EQ(4U, platform.requests().size());

    Session wrong("onvif");
    platform.clearRecord();
    platform.answer(described("m=video\na=rtpmap:1\na=control:c"));
    EXPECT_EQ(0U, wrong.main->describe(url)); // no challenge, nothing stored: once
    EXPECT_EQ(1U, platform.requests().size());
    wrong.changeInfo([](COnvifInfo &info) { info = {}; });
    platform.clearRecord();
    platform.answer(challenged(CHALLENGE));
    platform.answer(challenged(CHALLENGE));
    EXPECT_EQ(2U, wrong.main->describe(url));
    EXPECT_EQ(2U, platform.requests().size());
    EXPECT_THAT(platform.logs('3'),
                ElementsAre(line(4, 2, "Not exist video rtpmap and control in AOI_MSG_RTSP_DESCRIBE response Message",
                                 "describe")));

    Session plain;
    platform.answer(challenged(CHALLENGE));
    EXPECT_EQ(401U, plain.main->describe(url));
}

TEST_F(DescriptionTest, textIsFoundInSdpAndChallenges)
{
    const char *const rtpmap = "a=rtpmap:", *const sets = "sprop-parameter-sets=", *const control = "a=control:";
    const std::tuple<const char *, const char *, const char *, ZR_ULONG, ZR_ULONG, const char *> rows[] = {
        {SDP, "m=audio", sets, 32, 1, ""},
        {SDP, "m=text", rtpmap, 32, 1, ""},
        {"m=video\na=rtpmap:96 H264;x\n", "m=video", rtpmap, 32, 0, "96 H264"},
        {"m=video\na=control:a/b;c\n", "m=video", control, 32, 0, "a/b;c"},
        {"m=video sprop-parameter-sets=a/b", "m=video", sets, 32, 0, "a/b"},
        {"a=rtpmap:1\nm=video\nm=audio\na=rtpmap:2", "m=video", rtpmap, 32, 0, "2"},
        {"m=video\na=rtpmap:", "m=video", rtpmap, 1, 0, ""},
        {"m=video\na=rtpmap:1", "m=video", rtpmap, 1, 1, ""},
        {"m=video\na=rtpmap:12345\n", "m=video", rtpmap, 6, 0, "12345"},
        {"m=video\na=rtpmap:123456\n", "m=video", rtpmap, 6, 1, ""},
        {"m=video\na=rtpmap:12345/\n", "m=video", rtpmap, 6, 0, "12345"},
        {"m=video\na=rtpmap:a,\"b\"", "m=video", rtpmap, 32, 0, "a,\"b\""},
        {"Digest nonce=\"a/b;c\",realm=\"r\"\r\n", "Digest", "nonce=", 128, 0, "a/b;c"},
        {"Digest realm=\"\"\"\"\"\"\"ab\"\"", "Digest", "realm=", 3, 0, "ab"},
        {"Digest realm=\"a, b\"", "Digest", "realm=", 128, 0, "a"},
        {"Basic realm=\"cam\"", "Digest", "realm=", 128, 1, ""},
    };
    Session session("", 0);
    for (const auto &[text, section, key, limit, result, value] : rows)
    {
        SCOPED_TRACE(text);
        std::vector<char> out(limit, '#'); // exactly as long as it may be
        EXPECT_EQ(result, session.probe.dataFromSdp(text, section, key, limit, out.data()));
        EXPECT_TRUE(result != 0 || std::string(value) == out.data());
    }
    char out[32];
    const char *const null = nullptr;
    for (const auto &[text, section, key] : {std::tuple(null, "s", "k"), {"t", null, "k"}, {"t", "s", null}})
        EXPECT_EQ(2U, session.probe.dataFromSdp(text, section, key, 32, out));
    EXPECT_EQ(2U, session.probe.dataFromSdp("t", "s", "k", 32, nullptr));
    EXPECT_EQ(Texts(4, line(4, 2, "Invalid param", "getDataFromSDP")), platform.logs());
}

TEST_F(DescriptionTest, onvifInformationIsTakenFromTheSdp)
{
    // logs: those of getOnvifInfoFromSdp; values: video rtpmap, sets and control, audio rtpmap and control
    const auto takes = [](const char *name, const char *base, const std::string &sdp, ZR_ULONG result,
                          const std::string &logs, const std::string &values) {
        SCOPED_TRACE(name);
        Session session("onvif", 16);
        COnvifInfo info;
        std::tie(info.m_strVideoRtpmap, info.m_strVideoSps, info.m_strVideoControl, info.m_strAudioRtpmap,
                 info.m_strAudioControl) = std::make_tuple("old1", "old2", "old3", "old4", "old5");
        session.probe.ability.setOnvifInfo(info);
        Answer answer = described(sdp);
        if (*base != '\0')
            answer.with(AOI_IE_CONTENT_BASE, base);
        EXPECT_EQ(result, session.take(answer));
        Texts logged = platform.logs();
        if (result != 0)
            logged.resize(logged.size() - 2); // those of the two callers
        EXPECT_EQ(logs, joined(logged));
        info = session.probe.ability.getOnvifInfo();
        EXPECT_EQ(values, joined({info.m_strVideoRtpmap, info.m_strVideoSps, info.m_strVideoControl,
                                  info.m_strAudioRtpmap, info.m_strAudioControl}));
        EXPECT_EQ(*base != '\0' ? base : "rtsp://h/s", session.probe.url);
    };
    const auto log = [](int level, const char *text) { return line(level, 1, text, "getOnvifInfoFromSdp") + "|"; };
    const std::string old = "old1|old2|old3|old4|old5|", noVideo = log(4, "get video rtpmap failed");
    const std::string noSets = log(3, "Failed to get video SPS"), noAudio = log(3, "get audio rtpmap failed");
    const std::string noControl = log(4, "get get video control failed");
    const std::string name31(31, 'n'), name32(32, 'n'), control512(512, 'c');
    const std::string video = "96 H264|sprop-parameter-sets=Z0IA,aM4|", audio = "|0 PCMU|rtsp://x/track2|";
    takes("whole", "", SDP, 0, "", video + "rtsp://h/s/track1" + audio);
    takes("a content base is joined as it is", "rtsp://base", SDP, 0, "", video + "rtsp://basetrack1" + audio);
    takes("no audio", "", "m=video\na=rtpmap:" + name31 + "\na=control:*", 0,
          noSets + noAudio + log(3, "get get audio control failed"), name31 + "|old2|rtsp://h/s/*|old4|old5|");
    takes("the audio's control", "", "m=video\na=rtpmap:1\nm=audio\na=control:c", 0, noSets + noAudio,
          "1|old2|rtsp://h/s/c|old4|rtsp://h/s/c|");
    takes("no video", "", "m=audio\na=rtpmap:1", 1, noVideo, old);
    takes("a long rtpmap", "", "m=video\na=rtpmap:" + name32 + "\na=control:c", 1, noVideo, old);
    takes("no control", "", "m=video\na=rtpmap:1", 1, noSets + noControl, old);
    takes("a long control", "", "m=video\na=rtpmap:1\na=control:" + control512, 1, noSets + noControl, old);
}

/// The Authorization values that an information's credentials give, in the order DESCRIBE, SETUP, PLAY, OPTIONS,
/// TEARDOWN.
Texts authorizations(Session &session, COnvifInfo &info, ZR_ULONG result = 0)
{
    EXPECT_EQ(result, session.probe.calcAuth(info));
    return {info.m_strDescribeAuth, info.m_strSetupAuth, info.m_strPlayAuth, info.m_strOptionsAuth,
            info.m_strTeardownAuth};
}

TEST_F(DescriptionTest, digestFollowsTheStandardsExample)
{
    COnvifInfo info;
    info.m_strOnvifURL = "/dir/index.html";
    info.m_strUserName = "Mufasa";
    info.m_strPassword = "Circle Of Life";
    info.m_strRealm = "testrealm@host.com";
    info.m_strNonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    const auto header = [](const std::string &response) {
        return "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
               "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\", response=\"" +
               response + "\"";
    };
    Session session("", 0);
    platform.fail("response", INJECTED, 3);
    const Texts values = authorizations(session, info);
    EXPECT_THAT(values,
                ElementsAre(header("940cc31422a2affa69a5b5fa9f271673"), header("c0007f542d25f96aa3cd51301a1972ac"), "",
                            header("218416e71227d5f8e51c429c248b7d62"), header("9247e28bff811d76d9988e91a0bbafd5")));
    EXPECT_THAT(platform.logs(), ElementsAre(line(4, 777, "Calc md5 step2 failed, method is PLAY", "calcMethodAuth")));
    platform.fail("HA1");
    EXPECT_EQ(values, authorizations(session, info, INJECTED));

    info.m_strOnvifURL.assign(400, 'u');
    EXPECT_EQ(383U, authorizations(session, info).back().size());
    EXPECT_EQ('u', info.m_strTeardownAuth.back());
}

TEST_F(DescriptionTest, basicIsCutAtItsBuffers)
{
    Session session;
    COnvifInfo info;
    info.m_strNonce = "not enough for Digest";
    info.m_strUserName = "Aladdin";
    info.m_strPassword = "open sesame";
    EXPECT_EQ(Texts(5, "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ=="), authorizations(session, info));

    for (const size_t length : {89U, 90U, 91U, 93U, 94U, 127U, 128U, 1000U})
    {
        info.m_strUserName = "u";
        info.m_strPassword.assign(length - 2, 'p');
        std::string whole = "Basic dTpw";
        for (size_t i = 3; i + 3 <= length; i += 3)
            whole += "cHBw";
        whole += length % 3 == 1 ? "cA==" : length % 3 == 2 ? "cHA=" : "";
        EXPECT_EQ(Texts(5, whole.substr(0, 127)), authorizations(session, info)) << length;
    }
    const Texts before = authorizations(session, info);
    info.m_strPassword = "secret";
    platform.fail("base64");
    EXPECT_EQ(before, authorizations(session, info, INJECTED));
    EXPECT_EQ(line(4, 777, "Calc str to base64 failed, string is u:secret", "calcAuth"), platform.logs().back());
}

} // namespace
} // namespace zr::test
