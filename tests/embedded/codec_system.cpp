#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "tw_system.h"
#include "windows_kernel.h"

namespace
{

TEST(System, SearchesNoFurtherThanItMay)
{
    const struct
    {
        const char *haystack;
        const char *needle;
        size_t length;
        int at; ///< -1: not found
    } rows[] = {{"a=control:x", "control", 11, 2},
                {"a=control:x", "control", 8, -1},
                {"a=control:x", "", 0, 0},
                {"short", "tail", 1000, -1},
                {"", "a", 5, -1},
                {"aab", "ab", 3, 1}};
    for (const auto &row : rows)
    {
        // exactly as large as it must be, so that reading beyond is seen by the sanitizer
        const size_t size = std::min(std::strlen(row.haystack) + 1, std::max<size_t>(row.length, 1));
        const auto haystack = std::make_unique<char[]>(size);
        std::memcpy(haystack.get(), row.haystack, size);
        const char *const found = VELK_strnstr(haystack.get(), row.needle, row.length);
        EXPECT_EQ(found == nullptr ? -1 : found - haystack.get(), row.at) << row.haystack << ' ' << row.length;
    }
}

TEST(System, FormatsInTheCLocaleWhateverTheHosts)
{
    // not every machine has one with a decimal comma; the thread's own locale must come back in any case
    for (const char *name : {"de_DE.UTF-8", "fr_FR.UTF-8"})
        if (std::setlocale(LC_ALL, name) != nullptr)
            break;
    const std::string before = std::setlocale(LC_ALL, nullptr);
    char out[8];
    EXPECT_EQ(VELK_snprintf(out, sizeof(out), "%.2f", 1.5), 4);
    EXPECT_STREQ(out, "1.50");
    EXPECT_EQ(VELK_snprintf(out, sizeof(out), "%s", "longer than that"), 16);
    EXPECT_STREQ(out, "longer ");
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
    std::setlocale(LC_ALL, "C");
}

TEST(System, SendsWithoutASignalAndFreesOnce)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(VELK_sendto(pair[0], "abc", 3, 0, nullptr, 0), 3);
    EXPECT_EQ(VELK_sendto(pair[0], "abc", -1, 0, nullptr, 0), -1);
    EXPECT_EQ(VELK_getlasterr(), EINVAL);
    VELK_closesocket(pair[1]);
    EXPECT_EQ(VELK_sendto(pair[0], "abc", 3, 0, nullptr, 0), -1); // without MSG_NOSIGNAL the test would die here
    EXPECT_EQ(VELK_getlasterr(), EPIPE);
    VELK_closesocket(pair[0]);

    void *memory = std::malloc(1);
    VELK_free(&memory);
    EXPECT_EQ(memory, nullptr);
    VELK_free(&memory);
    EXPECT_EQ(VELK_atol("99999999999999999999"), std::numeric_limits<long>::max());
}

TEST(Kernel, CountsForwardAndKnowsTheTime)
{
    LARGE_INTEGER frequency;
    LARGE_INTEGER first;
    LARGE_INTEGER second;
    ASSERT_NE(QueryPerformanceFrequency(&frequency), 0);
    ASSERT_NE(QueryPerformanceCounter(&first), 0);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    ASSERT_NE(QueryPerformanceCounter(&second), 0);
    EXPECT_LE(first.QuadPart / frequency.QuadPart, now.tv_sec);
    EXPECT_GE(second.QuadPart / frequency.QuadPart, now.tv_sec);

    FILETIME file{};
    const auto unixNow = static_cast<uint64_t>(std::time(nullptr));
    GetSystemTimeAsFileTime(&file);
    const uint64_t ticks = (static_cast<uint64_t>(file.dwHighDateTime) << 32) | file.dwLowDateTime;
    const uint64_t seconds = ticks / 10'000'000 - 11'644'473'600; // 1601 to 1970
    EXPECT_GE(seconds, unixNow);
    EXPECT_LE(seconds, unixNow + 60);
}

} // namespace
