// The host's parts that need no device: URLs and credentials, speeds, descriptions.

#include <tuple>

#include <gtest/gtest.h>

#include "base64.h"
#include "failure.h"
#include "notices.h"
#include "position.h"
#include "sdp.h"
#include "speed.h"
#include "sps.h"
#include "url.h"

namespace zr::host {
namespace {

struct Cut
{
    std::string url, user, password;
};

// How the plug-in cuts the argument of describe.
Cut cutAsThePluginDoes(const std::string &argument)
{
    const size_t auth = argument.find("auth");
    if (auth == std::string::npos)
    {
        return {argument, "", ""};
    }
    const size_t user = argument.find("username=");
    const size_t password = argument.find("password=");
    return {argument.substr(0, auth - 1), argument.substr(user + 9, password - user - 10),
            argument.substr(password + 9, argument.size() - password - 10)};
}

TEST(HostUrl, reachesThePluginWithItsCredentials)
{
    struct Case
    {
        const char *typed, *user, *password, *cutUrl;
    };
    const Case cases[] = {
        {"rtsp://h/live", "u", "p", "rtsp://h/live"},
        {"rtsp://h/live", "u", "", "rtsp://h/live"},
        {"rtsp://h/live", "", "", "rtsp://h/live"},
        {"rtsp://h:8554/auth/author?x=auth", "", "", "rtsp://h:8554/%61uth/%61uthor?x=%61uth"},
        {"rtsp://h/a?auth&username=x&password=y&", "u", "p", "rtsp://h/a?%61uth&%75sername=x&%70assword=y&"},
        {"rtsp://auth.example/a", "u", "p", "rtsp://Auth.example/a"},
        {"rtsp://h/s?username=x&password=y", "", "", "rtsp://h/s?username=x&password=y"},
        {"rtsp://h/s", "auth&username=", "auth&password=&username=", "rtsp://h/s"},
        {"rtsp://h/s", "u&", "p&&", "rtsp://h/s"},
        {"rtsp://h/s#part", "u", "p", "rtsp://h/s"},
    };
    for (const Case &one : cases)
    {
        SCOPED_TRACE(one.typed);
        const Cut cut = cutAsThePluginDoes(urlForDescribe(parseUrl(one.typed).text, {one.user, one.password}));
        EXPECT_EQ(cut.url, one.cutUrl);
        EXPECT_EQ(cut.user, one.user);
        EXPECT_EQ(cut.password, one.password);
    }
    EXPECT_EQ(urlForSetup("rtsp://h/auth/track?username=1"), "rtsp://h/%61uth/track?username=1");
    EXPECT_THROW(urlForDescribe("rtsp://h/", {"a&password=b", "c"}), Failure);
    EXPECT_THROW(urlForDescribe("rtsp://h/", {"a", "b\r\nX: y"}), Failure);
}

TEST(HostUrl, isTakenApart)
{
    struct Case
    {
        const char *typed, *text, *host;
        int port;
        const char *user, *password;
    };
    const Case cases[] = {
        {"rtsp://h", "rtsp://h", "h", 554, "", ""},
        {"rtsps://h/x", "rtsps://h/x", "h", 322, "", ""},
        {"rtsp://h:1?q", "rtsp://h:1?q", "h", 1, "", ""},
        {"rtsp://u:p%40:q@h:65535/x@y", "rtsp://h:65535/x@y", "h", 65535, "u", "p@:q"},
        {"rtsp://u@v@h/", "rtsp://h/", "h", 554, "u@v", ""},
    };
    for (const Case &one : cases)
    {
        SCOPED_TRACE(one.typed);
        const Url url = parseUrl(one.typed);
        EXPECT_EQ(url.text, one.text);
        EXPECT_EQ(url.host, one.host);
        EXPECT_EQ(url.port, one.port);
        EXPECT_EQ(url.credentials.user, one.user);
        EXPECT_EQ(url.credentials.password, one.password);
    }
    for (const char *wrong :
         {"", "h", "http://h/", "rtsp://", "rtsp:///x", "rtsp://h:/", "rtsp://h:0/", "rtsp://h:65536/", "rtsp://h:-1/",
          "rtsp://[::1]/", "rtsp://u:%4@h/", "rtsp://h/a b", "rtsp://h/\r\nX: y"})
    {
        EXPECT_THROW(parseUrl(wrong), Failure) << wrong;
    }
}

TEST(HostSpeed, isAFactorOrACode)
{
    EXPECT_EQ(speedCode("1"), std::nullopt);
    EXPECT_EQ(speedCode("1.0x"), std::nullopt);
    EXPECT_EQ(speedCode("0.125"), 19u);
    EXPECT_EQ(speedCode("16x"), 15u);
    EXPECT_EQ(speedCode("-0.25"), 8u);
    EXPECT_EQ(speedCode("-16"), 2u);
    EXPECT_EQ(speedCode("code:0"), 0u);
    EXPECT_EQ(speedCode("code:11"), 11u);
    EXPECT_EQ(speedFactor(speedCode("-4")), -4);
    EXPECT_EQ(speedFactor(std::nullopt), 1);
    EXPECT_EQ(nextSpeed(10u, true), std::nullopt);
    EXPECT_EQ(nextSpeed(19u, false), 8u);
    EXPECT_EQ(nextSpeed(15u, true), 15u);
    for (const char *wrong : {"", "x", "3", "0", "nan", "2y", "code:", "code:20", "code:-1", "code:1.5"})
    {
        EXPECT_THROW(speedCode(wrong), Failure) << wrong;
    }
}

TEST(HostPosition, isOfARecordingOrOfADay)
{
    const Span span = parseSpan("clock=20260228T235950Z-20260301T000010.25Z");
    ASSERT_TRUE(span.begin && span.end);
    EXPECT_EQ(span.end->seconds - span.begin->seconds, 20.25);
    EXPECT_EQ(positionText({span.begin->seconds + 10.5, true}), "20260301T000000.500Z");
    EXPECT_EQ(parsePosition("1:02:03.5")->seconds, 3723.5);
    EXPECT_EQ(positionText(*parsePosition("12")), "12.000");
    EXPECT_FALSE(parsePosition("now") || parsePosition("") || parsePosition("20260228T2359Z") || parsePosition("1s") ||
                 parsePosition("20260230T000000Z"));
    EXPECT_FALSE(parsePosition("1e11") || parsePosition("-1e300") || parsePosition("nan"));
    EXPECT_EQ(positionShown(parsePosition("99999999999").value()), "27777777:46:39");
    EXPECT_EQ(clockText("2026-02-28T23:59:50.5Z"), "20260228T235950.5Z");
    EXPECT_EQ(clockText("20260228T235950Z"), "20260228T235950Z");
    EXPECT_EQ(isoText({1795168799.9996, true}), "2026-11-20T10:00:00.000Z");
    for (const char *wrong :
         {"", "12", "2026-02-28", "2026-02-28T23:59:50", "2026-02-28 23:59:50Z", "20260228T-1:+1:50Z"})
        EXPECT_FALSE(clockText(wrong)) << wrong;
}

TEST(HostBackoff, growsUntilASessionLasts)
{
    Backoff backoff;
    for (const int pause : {1, 2, 4, 8, 16, 30, 30})
    {
        EXPECT_EQ(backoff.next(9.9).count(), pause);
    }
    EXPECT_EQ(backoff.next(10).count(), 1);
    EXPECT_EQ(backoff.next(0).count(), 2);
    EXPECT_EQ(noticeText(101), "the server ended the session (101, end of stream)");
}

TEST(HostDescription, isReadAsFarAsItIsUnderstood)
{
    const Description described = parseDescription(
        "v=0\r\ns=Camera\r\na=tool:t 1\r\na=range:npt=0-24.5\r\na=control:*\r\n"
        "m=audio 0 RTP/AVP 0\na=control:rtsp://h/a\n"
        "m=video 0 RTP/AVP 96 97\r\na=rtpmap:97 H265/90000\r\na=rtpmap:96 H264/90000\r\na=control:v\r\n"
        "m=application\r\na=rtpmap:\r\n");
    ASSERT_EQ(described.tracks.size(), 3u);
    EXPECT_EQ(described.name, "Camera");
    EXPECT_EQ(described.length(), 24.5);
    const Track *video = described.first("video");
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->codec, "H264");
    EXPECT_EQ(video->clockRate, 90000);
    EXPECT_EQ(controlUrl("rtsp://h/x", video->control), "rtsp://h/x/v");
    EXPECT_EQ(controlUrl("rtsp://h/x/", video->control), "rtsp://h/x/v");
    EXPECT_EQ(controlUrl("rtsp://h/x", described.first("audio")->control), "rtsp://h/a");
    EXPECT_EQ(controlUrl("rtsp://h/x", "*"), "rtsp://h/x");
    EXPECT_EQ(described.first("text"), nullptr);
    EXPECT_EQ(parseDescription("a=range:npt=0:01:00-0:01:02.5\r\n").length(), 2.5);
    for (const char *range : {"npt=now-", "npt=5-5", "npt=9-5", "npt=0-20260228T235950Z"})
    {
        EXPECT_FALSE(parseDescription(std::string("a=range:") + range + "\r\n").length()) << range;
    }
    const auto pictureOf = [](const std::string &payloadType) { // of the first that is offered, which is 96
        return parseDescription("m=video 0 RTP/AVP 96 97\r\na=rtpmap:96 H264/90000\r\na=fmtp:" + payloadType +
                                " sprop-parameter-sets=Z2QAKKzZQHgCJ+XAWoCAgKAAAH0gAB1MEeMGMsA=\r\n")
            .tracks.at(0);
    };
    EXPECT_EQ(details(pictureOf("96")), "H264 High 1920x1080 8 bit, 29.97 frames/s");
    EXPECT_EQ(details(pictureOf("97")), "H264");
    EXPECT_TRUE(parseDescription("").tracks.empty());
}

TEST(HostParameterSet, tellsThePicturesWhateverComes)
{
    using Told = std::tuple<unsigned, unsigned, unsigned, std::optional<double>>;
    const std::tuple<const char *, decltype(&parseH264Sps), Told> cases[] = {
        {"Z2QAKKzZQHgCJ+XAWoCAgKAAAH0gAB1MEeMGMsA=", parseH264Sps, {1920, 1080, 8, 30000 / 1001.0}}, // cropped
        {"Z/QAHpDZsoFoSbAUoMDAyAAAAwAIAAADAZT4oUyw", parseH264Sps, {720, 576, 10, 25}},              // 4:4:4, fields
        {"QgEBBAgAAAMAmAgAAAMAAHiQAHgQAhzuylLKzSSZX/4AAgAC1AQEBBAAAAMAEAAAAwGQgA==",
         parseH265Sps,
         {1918, 1078, 12, 25}},
        {"QgEBAWAAAAMAkAAAAwAAAwBdoAUCAWllleSRLunTp06ZERFdOnTp06dOnTp06dOnTp06dOnTK6dOnTp06dOnTp06dOnTp06dOmV06dOnTp06dOnTp06d"
         "OnTp06dMoQdOnTp06dOnTp06dOnTp06dOnTKEHTp06dOnTp06dOnTp06dOnTp0yhB06dOnTp06dOnTp06dOnTp06dMoQdOnTp06dOnTp06dOnTp06dOnT"
         "Ju/K1quvnT/YPCX/4ACAAHagICA0hTJgAAB9IAAdTAE",
         parseH265Sps, // scaling lists, references that others tell, and all else that lies before the rate
         {640, 360, 8, 60000 / 1001.0}}};
    EXPECT_FALSE(parseH264Sps(fromBase64("Z2QAKKAAAAMAH////zLQFAWi").value())); // the luma's 8 and 4294967288 bits
    for (const auto &[text, parse, told] : cases)
    {
        const std::string nal = fromBase64(text).value();
        const PictureFormat read = parse(nal).value();
        EXPECT_EQ(Told(read.width, read.height, read.bitDepth, read.framesPerSecond), told);
        EXPECT_FALSE(parse(nal.substr(0, 9)));
        for (size_t bit = 0; bit < nal.size() * 8; ++bit) // the sanitizers watch
        {
            std::string damaged = nal;
            damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
            parse(damaged);
        }
    }
}

} // namespace
} // namespace zr::host
