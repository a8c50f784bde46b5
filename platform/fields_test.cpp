// Internals of the configuration readers: integer conversion and field readers. (The
// profile number is read through msmachdep_LoadChargerOffset in its phone test.)
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "platform/platform_internal.h"
#include <gtest/gtest.h>

namespace {

struct ParseCase {
    const char *name;
    const char *text;
    int32_t value;
};

TEST(ParseInt, ReadsLikeAtoiAndSaturatesBeyond32Bits) {
    const ParseCase cases[] = {
        {"plain", "42", 42},
        {"blanks, tabs and line ends first", " \t\n\v\f\r-17", -17},
        {"plus sign", "+8", 8},
        {"stops at the first non-digit", "12abc", 12},
        {"no digits", "abc", 0},
        {"sign only", "-", 0},
        {"hex is not read", "0x1F", 0},
        {"blank after the sign", "- 5", 0},
        {"largest", "2147483647", INT32_MAX},
        {"smallest", "-2147483648", INT32_MIN},
        {"one above", "2147483648", INT32_MAX},
        {"one below", "-2147483649", INT32_MIN},
        {"beyond 64 bits", "123456789012345678901234567890", INT32_MAX},
        {"far below", "-99999999999999999999999", INT32_MIN},
    };
    for (const ParseCase &c : cases) {
        SCOPED_TRACE(c.name);
        errno = 1234;
        EXPECT_EQ(msmachdep_ParseInt(c.text), c.value);
        EXPECT_EQ(errno, 1234);  // a saturated value must not disturb a later perror
    }
}

TEST(ParseInt, EqualsAtoiOnEveryInRangeText) {
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
}

TEST(FieldReaders, SplitOnCommasWithTheirDefaultsWhenNoneIsLeft) {
    char line[] = "a,,b,c\r\n";
    EXPECT_STREQ(msmachdep_TokenOr255(line), "a");
    EXPECT_STREQ(msmachdep_TokenOrZero(nullptr), "b");  // consecutive commas count as one
    EXPECT_STREQ(msmachdep_TokenOrMax(), "c\r\n");        // the last field keeps the line end
    EXPECT_STREQ(msmachdep_TokenOr255(nullptr), "255");
    EXPECT_STREQ(msmachdep_TokenOrZero(nullptr), "0");
    EXPECT_STREQ(msmachdep_TokenOrMax(), "2147483647");
    char empty[] = "";
    EXPECT_STREQ(msmachdep_TokenOrZero(empty), "0");
    char commas[] = ",,,";
    EXPECT_STREQ(msmachdep_TokenOr255(commas), "255");
}

}  // namespace
