#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "tw_system.h"

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

TEST(System, SendsWithoutASignal)
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
}

} // namespace
