#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "media_mark.h"
#include "zr_platform.h"

namespace {

using namespace testing;

std::vector<std::string> linesOf(const std::filesystem::path &file)
{
    std::vector<std::string> all;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        all.push_back(line);
    return all;
}

void write(tagZrLogLevel level, const std::string &text)
{
    CZRWriteLog::writeLog(level, 13501, 0x6000003, "rtsp_mediactrl", 42, "%s", text.c_str());
}

/// The log goes into a file of the test's own.
class Log : public Test
{
protected:
    Log() { ZR_LogSetFile(m_file.c_str()); }
    ~Log() override
    {
        ZR_LogSetFile(nullptr);
        std::filesystem::remove_all(m_folder);
    }

    std::filesystem::path m_folder{TempDir() + "zr_log_test." + std::to_string(getpid())};
    std::filesystem::path m_file{m_folder / "log.txt"};
};

TEST_F(Log, HasOneLineForEachCallWhateverItsTextHolds)
{
    const std::pair<std::string, std::string> rows[] = {
        {"plain", " 0x6000003 13501 rtsp_mediactrl:42 plain"},
        {"a\r\n2030-01-01 error forged", "a\\x0d\\x0a2030-01-01 error forged"},
        {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
        {"tab\tand GBK \xa3\xac", "tab\tand GBK \xa3\xac"},
        {std::string(4096, 'x'), std::string(4096, 'x')},
        {std::string(4097, 'y'), std::string(4096, 'y') + "... (cut)"},
        {std::string(100000, '\n'), "\\x0a... (cut)"},
    };
    for (const auto &row : rows)
        write(ZR_LOG_ERROR, row.first);
    const std::vector<std::string> all = linesOf(m_file);
    ASSERT_EQ(all.size(), std::size(rows));
    for (size_t i = 0; i < all.size(); ++i)
        EXPECT_THAT(all[i], EndsWith(rows[i].second));
    EXPECT_THAT(all[0], MatchesRegex("....-..-.. ..:..:..\\.[0-9]+ error [0-9]+ 0x.*"));
}

TEST_F(Log, HidesWhatItIsToldToWhole)
{
    for (const char *secret : {"", "s3cret", "user:s3cret-and-more", "s3cret-and-more", "s3cret"})
        ZR_LogHide(secret);
    write(ZR_LOG_ERROR, "s3cret user:s3cret-and-more s3cret-and-more");
    EXPECT_THAT(linesOf(m_file), ElementsAre(EndsWith(":42 *** *** ***")));
}

std::string masked(const std::string &text)
{
    std::string safe(text.size() + 64, '\0');
    const auto size = [](const std::string &one) { return static_cast<ZR_ULONG>(one.size()); };
    safe.resize(ZR_TextMask(text.data(), size(text), safe.data(), size(safe)));
    return safe;
}

TEST(TextMask, HidesCredentialsWhereverAServerRepeatsThem)
{
    for (const char *secret : {"w0rd", "w0rd/pass", "~q"})
        ZR_LogHide(secret);
    const std::pair<const char *, const char *> cases[] = {
        {"a~q w0rde w0rd/passs w0r", "a*** ***e ***s w0r"}, // the longest that stands there
        {"to rtsp://a:p@h/x, rtsp://a:p/\"q@h\nrtsp://h:554/x@y", "to rtsp://***@h/x, rtsp://***@h\nrtsp://h:554/x@y"},
        {"rtsp://[::1]/x?to=rtsp://a:b@c", "rtsp://[::1]/x?to=rtsp://***@c"},
        {"rtsp://h/s?user=a&Password=x_y=z&ch=1: H264", "rtsp://h/s?user=a&Password=***&ch=1: H264"},
        {"rtsp://h/user=a_password=x_y_channel=1.sdp", "rtsp://h/user=a_password=***_channel=1.sdp"},
        {"Digest qop=auth, response=\"0123456789abcdef0123456789ABCDEF\", response=12",
         "Digest qop=auth, response=\"***\", response=12"},
        {"rtsp://h/s?%70assword=x: H264, not bypwd=x", "rtsp://h/s?%70assword=***: H264, not bypwd=x"},
        {"a\r\nAuthorization : Digest x,\r\n y\r\n\tz\r\nb: c",
         "a\r\nAuthorization : Digest ***\r\n ***\r\n\t***\r\nb: c"}};
    for (const auto &[text, safe] : cases)
    {
        EXPECT_EQ(masked(text), safe);
        EXPECT_EQ(masked(safe), safe);
    }
    char little[] = "....";
    EXPECT_EQ(ZR_TextMask("w0rd/", 5, little, 2), 4U);
    EXPECT_STREQ(little, "**..");
    for (const char *part :
         {"://", "://@", "?pwd=", "_pwd=_", "w0rd", "response=\\", "Authorization:\n"}) // minutes, if not linear
    {
        std::string much;
        while (much.size() < 1000000)
            much += part;
        EXPECT_FALSE(masked(much).empty());
    }
}

TEST_F(Log, TakesTheLevelsThatWereAskedFor)
{
    write(ZR_LOG_DEBUG, "off by default");
    errno = EAGAIN;
    write(ZR_LOG_INFO, "on in a file");
    EXPECT_EQ(errno, EAGAIN);
    ZR_LogSetLevel(ZR_LOG_DEBUG);
    write(ZR_LOG_DEBUG, "on");
    ZR_LogSetLevel(ZR_LOG_ERROR);
    write(ZR_LOG_WARNING, "off");
    write(ZR_LOG_ERROR, "on");
    EXPECT_EQ(linesOf(m_file).size(), 3U);
    ZR_LogSetLevel(ZR_LOG_INFO);
}

TEST(LogOfAProcess, GoesWhereTheEnvironmentSaysOrToStderr)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process of its own, whose log is made anew
    const auto writeAndExit = [] {
        write(ZR_LOG_INFO, "information");
        write(ZR_LOG_WARNING, "warning");
        std::exit(0);
    };
    const auto warningsOnly = AllOf(HasSubstr(":42 warning"), Not(HasSubstr("information")));
    EXPECT_EXIT(writeAndExit(), ExitedWithCode(0), AllOf(warningsOnly, Not(HasSubstr("stays on"))));
    setenv("ZR_RTSP_LOG_FILE", "/dev/null/log.txt", 1);
    EXPECT_EXIT(writeAndExit(), ExitedWithCode(0), AllOf(warningsOnly, HasSubstr("stays on stderr")));
    const std::string file = TempDir() + "zr_log_environment.txt";
    setenv("ZR_RTSP_LOG_FILE", file.c_str(), 1);
    EXPECT_EXIT(writeAndExit(), ExitedWithCode(0), Not(HasSubstr("warning")));
    EXPECT_THAT(linesOf(file), ElementsAre(EndsWith("information"), EndsWith("warning")));
    std::filesystem::remove(file);
    unsetenv("ZR_RTSP_LOG_FILE");
}

TEST(MediaAbility, IsCopiedBothWaysByTwoThreads)
{
    CMediaAbility left;
    left.setServerIP("192.0.2.1");
    CMediaAbility right(left);
    const auto work = [](CMediaAbility &to, const CMediaAbility &from) {
        for (int i = 0; i < 2000; ++i)
        {
            to = from;
            to.setSessionID(CMediaAbility(from).getSessionID());
        }
    };
    std::thread other([&] { work(left, right); });
    work(right, left);
    other.join();
    const CMediaAbility &self = left;
    left = self;
    EXPECT_EQ(left.init(), 0U);
    left.release();
    right.setServerIP("changed");
    EXPECT_EQ(left.getServerIP(), "192.0.2.1");
    for (const auto &[tag, onvif] : {std::pair{"onvif", 1U}, {"ONVIF", 0U}, {"onvif ", 0U}, {"", 0U}})
    {
        left.setDecoderTag(tag);
        EXPECT_EQ(left.isOnvif(), onvif) << tag;
    }
}

TEST(MediaKeepLive, TellsOncePerArrivalAndPerPort)
{
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
    const auto mark = zr::common::mediaMark(1);
    const auto neighbour = zr::common::mediaMark(2);
    zr::common::mediaMark(1)->store(true);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(2), 0U);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 1U);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
    mark->store(true);
    for (ZR_ULONG passing = 3; passing < 1000; ++passing)
        zr::common::mediaMark(passing)->store(true);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(999), 0U) << "nobody receives there any more";
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 1U);
    mark->store(true);
    CJugeMediaKeepLive::RefreshMediaKeepLive(1);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
}

} // namespace
