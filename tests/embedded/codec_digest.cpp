#include <string>

#include <gtest/gtest.h>

#include "tw_util.h"

namespace
{

// RFC 2617, 3.5
TEST(Digest, MatchesTheStandardsOwnExample)
{
    const char *const nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    char ha1[33];
    char response[128];
    ASSERT_EQ(TW_DigestCalcHA1("MD5", "Mufasa", "testrealm@host.com", "Circle Of Life", nonce, nullptr, ha1), 0U);
    EXPECT_STREQ(ha1, "939e7578ed9e3c518a452acee763bce9");
    ASSERT_EQ(TW_DigestCalcResponse(ha1, nonce, "00000001", "0a4f113b", "auth", "GET", "/dir/index.html", "", response),
              0U);
    EXPECT_STREQ(response, "6629fae49393a05397450978507c4ef1");
    // the same without qop (RFC 2069's computation)
    ASSERT_EQ(TW_DigestCalcResponse(ha1, nonce, nullptr, nullptr, nullptr, "GET", "/dir/index.html", "", response), 0U);
    EXPECT_STREQ(response, "670fd8c2df070c60b045671b8b24ff02");
}

TEST(Digest, HashesSessionAndEntityWhereTheyAreAskedFor)
{
    char plain[33];
    char session[33];
    char response[33];
    char integrity[33];
    ASSERT_EQ(TW_DigestCalcHA1("MD5", "u", "r", "p", "n", "c", plain), 0U);
    ASSERT_EQ(TW_DigestCalcHA1("md5-sess", "u", "r", "p", "n", "c", session), 0U);
    // what md5sum says of "u:r:p" and of that text with ":n:c" behind it
    EXPECT_STREQ(plain, "44add22b6f3179b751eafd68ee370f7d");
    EXPECT_STREQ(session, "8e0121e7dd930ca084eb6de15ca7c835");
    ASSERT_EQ(TW_DigestCalcResponse(plain, "n", "00000001", "c", "auth", "PLAY", "u", "", response), 0U);
    ASSERT_EQ(TW_DigestCalcResponse(plain, "n", "00000001", "c", "auth-int", "PLAY", "u", "e", integrity), 0U);
    EXPECT_STREQ(integrity, "a783eafebf855cd033bb3b48be4b8c46");
    EXPECT_STRNE(response, integrity);
}

TEST(Digest, RefusesWhatItCannotHashAndWritesNothing)
{
    char out[33] = "untouched";
    EXPECT_NE(TW_DigestCalcHA1("SHA-256", "u", "r", "p", "n", nullptr, out), 0U);
    EXPECT_NE(TW_DigestCalcHA1("MD5", nullptr, "r", "p", "n", nullptr, out), 0U);
    EXPECT_NE(TW_DigestCalcHA1("md5-sess", "u", "r", "p", "n", nullptr, out), 0U);
    EXPECT_NE(TW_DigestCalcResponse("h", nullptr, nullptr, nullptr, nullptr, "PLAY", "u", "", out), 0U);
    EXPECT_NE(TW_DigestCalcResponse("h", "n", nullptr, "c", "auth", "PLAY", "u", "", out), 0U);
    EXPECT_NE(TW_DigestCalcResponse("h", "n", "1", "c", "auth-other", "PLAY", "u", "", out), 0U);
    EXPECT_STREQ(out, "untouched");
}

TEST(Base64, WritesThePaddedTextAndNeverMoreThanTheBufferHolds)
{
    const struct
    {
        std::string in;
        std::string out;
    } rows[] = {{"", ""},
                {"f", "Zg=="},
                {"fo", "Zm8="},
                {"foo", "Zm9v"},
                {"user:pass", "dXNlcjpwYXNz"},
                {std::string("\0\xff\xfe", 3), "AP/+"},
                {std::string(93, 'a'), std::string()},
                {std::string(94, 'a'), std::string()},
                {std::string(100000, 'a'), std::string()}};
    for (const auto &row : rows)
    {
        std::string out(130, '#');
        ASSERT_EQ(TW_VODstr2Base64(row.in.data(), static_cast<ZR_ULONG>(row.in.size()), out.data()), 0U);
        EXPECT_EQ(out.substr(128), "##") << row.in.size();
        if (row.in.size() < 93)
            EXPECT_STREQ(out.c_str(), row.out.c_str());
        else
            EXPECT_EQ(std::string(out.c_str()).size(), 124U) << row.in.size();
    }
    char out[4];
    EXPECT_NE(TW_VODstr2Base64(nullptr, 1, out), 0U);
    EXPECT_NE(TW_VODstr2Base64("a", 1, nullptr), 0U);
}

} // namespace
