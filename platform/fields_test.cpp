// The configuration files' integer conversion. (The field readers and the profile
// number are exercised through the files' own tests on the virtual phone.)
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <random>
#include <string>

#include "platform/platform_internal.h"
#include <gtest/gtest.h>

namespace {

TEST(ParseInt, EqualsAtoiOnEveryInRangeTextAndKeepsErrno) {
    for (const char *text : {"abc", "-", "0x1F", "- 5", " \t\n\v\f\r-17", "12abc", "2147483647", "-2147483648"})
        EXPECT_EQ(msmachdep_ParseInt(text), std::atoi(text)) << text;
    std::mt19937 random(77);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    const char *const prefixes[] = {"", " ", "\t", "+", "  +", "0", "\n"};
    const char *const suffixes[] = {"", "\r\n", ",", "x", " 5", "\n"};
    for (int i = 0; i < 2000; ++i) {
        int32_t v = any(random);
        std::string text = std::string(prefixes[i % 7]) + std::to_string(v) + suffixes[i % 6];
        if (v < 0 && text.find('+') != std::string::npos) text = std::to_string(v);
        ASSERT_EQ(msmachdep_ParseInt(text.c_str()), std::atoi(text.c_str())) << text;
    }
    // Beyond 32 bits, where atoi is undefined, the value saturates (checked through the
    // files) without the range error reaching a later perror.
    for (const char *text : {"2147483648", "-99999999999999999999999"}) {
        errno = 1234;
        msmachdep_ParseInt(text);
        EXPECT_EQ(errno, 1234) << text;
    }
}

}  // namespace
