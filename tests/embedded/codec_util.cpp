#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "callback_thread.h"
#include "tw_system.h"
#include "tw_util.h"

namespace {

using namespace std::chrono_literals;
using Callback = std::function<void()>;

TEST(Digest, IsTheStandardsOrRefused)
{
    const char *const mufasa = "939e7578ed9e3c518a452acee763bce9";
    const char *const nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    // algorithm, user, realm, password, cnonce, expected; empty: refused
    const std::tuple<const char *, const char *, const char *, const char *, const char *, std::string> users[] = {
        {"MD5", "Mufasa", "testrealm@host.com", "Circle Of Life", nullptr, mufasa}, // RFC 2617, 3.5
        {"md5-sess", "u", "r", "p", "c", "8e0121e7dd930ca084eb6de15ca7c835"},       // what md5sum says
        {"md5-sess", "u", "r", "p", nullptr, ""},
        {"SHA-256", "u", "r", "p", "c", ""},
        {"MD5", nullptr, "r", "p", "c", ""},
    };
    for (const auto &[algorithm, user, realm, password, cnonce, expected] : users)
    {
        char ha1[33] = "";
        EXPECT_EQ(TW_DigestCalcHA1(algorithm, user, realm, password, "n", cnonce, ha1) == 0, !expected.empty());
        EXPECT_EQ(ha1, expected);
    }
    const std::tuple<const char *, const char *, const char *, const char *, std::string> responses[] = {
        {nonce, "00000001", "0a4f113b", "auth", "6629fae49393a05397450978507c4ef1"}, // RFC 2617, 3.5
        {nonce, nullptr, nullptr, nullptr, "670fd8c2df070c60b045671b8b24ff02"},      // RFC 2069's computation
        {nonce, "00000001", "0a4f113b", "auth-int", "289fdc38f1b25e1dc9e5e0846ce76641"},
        {nullptr, nullptr, nullptr, nullptr, ""},
        {nonce, nullptr, "c", "auth", ""},
        {nonce, "1", "c", "auth-other", ""},
    };
    for (const auto &[given, count, cnonce, qop, response] : responses)
    {
        char out[33] = "";
        EXPECT_EQ(TW_DigestCalcResponse(mufasa, given, count, cnonce, qop, "GET", "/dir/index.html", "body", out) == 0,
                  !response.empty());
        EXPECT_EQ(out, response);
    }
}

TEST(Base64, WritesThePaddedTextAndNeverMoreThanTheBufferHolds)
{
    std::string foo = "foo";
    std::string most = "Zm9v";
    for (; foo.size() < 100000; foo += "foo")
        most += most.size() < 124 ? "Zm9v" : ""; // what 93 bytes give
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"f", "Zg=="},
        {"user:pass", "dXNlcjpwYXNz"},
        {"\xff\xfe", "//4="},
        {foo, most},
        {foo.substr(0, 94), most},
    };
    for (const auto &[in, expected] : rows)
    {
        std::string out(130, '#');
        ASSERT_EQ(TW_VODstr2Base64(in.data(), static_cast<ZR_ULONG>(in.size()), out.data()), 0U);
        EXPECT_EQ(out.substr(128), "##") << in.size();
        EXPECT_STREQ(out.c_str(), expected.c_str());
    }
}

TEST(System, SearchesNoFurtherThanItMay)
{
    // haystack, needle, length, at; -1: not found
    const std::tuple<std::string, const char *, size_t, int> rows[] = {{"a=control:x", "control", 11, 2},
                                                                       {"a=control", "control", 8, -1},
                                                                       {"a=control:x", "", 0, 0},
                                                                       {"short", "tail", 1000, -1},
                                                                       {"", "a", 5, -1},
                                                                       {"aab", "ab", 3, 1}};
    for (const auto &[haystack, needle, length, at] : rows)
    {
        // exactly as large as it must be, so that reading beyond is seen by the sanitizer
        const size_t size = std::min(haystack.size() + 1, std::max<size_t>(length, 1));
        const std::vector<char> bytes(haystack.c_str(), haystack.c_str() + size);
        const char *const found = VELK_strnstr(bytes.data(), needle, length);
        EXPECT_EQ(found == nullptr ? -1 : found - bytes.data(), at) << haystack << ' ' << length;
    }
}

TEST(System, SendsWithoutASignal)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(VELK_sendto(pair[0], "abc", -1, 0, nullptr, 0), -1);
    EXPECT_EQ(VELK_getlasterr(), EINVAL);
    VELK_closesocket(pair[1]);
    EXPECT_EQ(VELK_sendto(pair[0], "abc", 3, 0, nullptr, 0), -1); // without MSG_NOSIGNAL the test would die here
    EXPECT_EQ(VELK_getlasterr(), EPIPE);
    VELK_closesocket(pair[0]);
}

void call(void *user)
{
    (*static_cast<const Callback *>(user))();
}

ZR_ULONG start(const Callback &callback)
{
    ZR_ULONG handle = 0;
    EXPECT_EQ(TW_StartIndependTimer(1, call, const_cast<Callback *>(&callback), &handle), 0U);
    EXPECT_NE(handle, 0U);
    return handle;
}

TEST(Timers, ThatAreStoppedHaveReturnedAndAreNotCalledAgain)
{
    std::promise<void> begun;
    std::promise<void> mayEnd;
    std::atomic<int> calls{0};
    std::atomic<bool> marked{false};
    std::atomic<bool> ended{false};
    const Callback held = [&] {
        if (calls++ > 0)
            return;
        marked = zr::common::onCallbackThread();
        begun.set_value();
        mayEnd.get_future().wait();
        ended = true;
    };
    const ZR_ULONG handle = start(held);
    begun.get_future().wait();
    std::future<bool> stopped = std::async(std::launch::async, [&] {
        EXPECT_EQ(TW_StopIndependTimer(handle), 0U);
        return ended.load();
    });
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout) << "stop came back while the callback ran";
    mayEnd.set_value();
    EXPECT_TRUE(stopped.get());
    EXPECT_TRUE(marked);
    EXPECT_FALSE(zr::common::onCallbackThread());
}

TEST(Timers, StopFromTheirOwnCallbackAndTheNextStillRuns)
{
    std::promise<ZR_ULONG> handle;
    std::promise<ZR_ULONG> stopped;
    std::atomic<int> calls{0};
    const Callback stopsItself = [&] {
        ++calls;
        stopped.set_value(TW_StopIndependTimer(handle.get_future().get()));
    };
    handle.set_value(start(stopsItself));
    EXPECT_EQ(stopped.get_future().get(), 0U);

    std::atomic<int> nextCalls{0};
    std::promise<void> third; // comes although the second throws
    const Callback next = [&] {
        const int number = ++nextCalls;
        if (number == 2)
            throw 2;
        if (number == 3)
            third.set_value();
    };
    const ZR_ULONG another = start(next);
    EXPECT_EQ(third.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(TW_StopIndependTimer(another), 0U);
}

} // namespace
