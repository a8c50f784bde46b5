// Internals of the configuration readers: integer conversion, field readers,
// profile number and file creation, on the virtual phone.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "platform/platform_internal.h"
#include "vphone/phone_fixture.h"

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
        {"empty", "", 0},
        {"hex is not read", "0x1F", 0},
        {"blank after the sign", "- 5", 0},
        {"leading zeros", "-000123", -123},
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

class ProfileNumberTest : public vphone::PhoneTest {};

TEST_F(ProfileNumberTest, FirstLinesLeadingIntegerOrOne) {
    constexpr char kProfile[] = "/sys/module/zorsensor/parameters/profile";
    const std::string long_line = std::string(254, ' ') + "77";  // the 7s after 255 characters are cut
    const struct {
        const char *name;
        const char *content;  // nullptr: no file
        int32_t number;
    } cases[] = {
        {"no file", nullptr, 1},
        {"empty file", "", 1},
        {"number and line end", "3\n", 3},
        {"second line ignored", "2\n5\n", 2},
        {"text", "abc", 0},
        {"zero", "0", 0},
        {"negative", "-4\r\n", -4},
        {"beyond 32 bits", "4294967297", INT32_MAX},
        {"longer than the buffer", long_line.c_str(), 7},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kProfile);
        if (c.content != nullptr) vphone::write_file(kProfile, c.content);
        EXPECT_EQ(msmachdep_ReadProfileNumber(), c.number);
    }
    vphone::write_file(kProfile, "5");
    vphone::fail_call(vphone::Call::Fgets, 1, EIO);
    EXPECT_EQ(msmachdep_ReadProfileNumber(), 1);  // an unreadable first line
}

TEST_F(ProfileNumberTest, EnsuringInPlaceCreatesTheFileWithoutOwnerModeOrRename) {
    constexpr char kMain[] = "/misc/sensor/kmxc_orvane.cfg";
    EXPECT_EQ(msmachdep_EnsureOffsetFileInPlace(), 0);
    EXPECT_EQ(vphone::read_file(kMain), "255,255,255,0,0,0,2147483647,2147483647,2147483647");
    EXPECT_EQ(vphone::calls(vphone::Call::Chown) + vphone::calls(vphone::Call::Rename), 0);
    vphone::write_file(kMain, "1");
    EXPECT_EQ(msmachdep_EnsureOffsetFile(), 0);  // an existing file is left as it is
    EXPECT_EQ(msmachdep_EnsureOffsetFileInPlace(), 0);
    EXPECT_EQ(vphone::read_file(kMain), "1");
}

}  // namespace
