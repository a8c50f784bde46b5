// Charger offsets of the shipped library, on the virtual phone.
#include <climits>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

constexpr char kCharger[] = "/etc/kmxc_charger_offset.cfg";
constexpr char kProfile[] = "/sys/module/zorsensor/parameters/profile";
using D = std::vector<double>;
using I = std::vector<int32_t>;

const D kLeftD{-7, -7, -7};  // outputs start at -7 so a triple left alone shows
const I kLeftI{-7, -7, -7};

class ChargerOffsetTest : public vphone::PhoneTest {};

void set_file(const char *path, const char *content) {
    vphone::remove_file(path);
    if (content != nullptr) vphone::write_file(path, content);
}

// Doubles compare exactly: a division by 100000.0 is correctly rounded, while a
// multiplication by 0.00001 already differs for 3 and 6.
TEST_F(ChargerOffsetTest, ProfileLineFillsTheTriplesUpToTheFirstNull) {
    const char *const three = "11\n22\n33\n";
    const char *const twelve = "1,2,3,4,5,6,7,8,9,10,11,12";
    const std::string long_line = "1," + std::string(300, '0') + "\n44\n";  // 255 characters make a line
    const D k123{0.00001, 0.00002, 0.00003}, k456{0.00004, 0.00005, 0.00006}, kZero{0, 0, 0};
    const I kDef3{1000, 700, 500}, kDef4{2500, 1800, 1000};
    const struct {
        const char *name;
        const char *profile, *charger;  // nullptr: no such file
        unsigned nulls;                 // bit k set: triple k is null
        int result;
        D first, second;  // empty: left alone
        I third, fourth;
    } cases[] = {
        {"all twelve",
         nullptr,
         "100000,-250,0,1,2,3,0,350,-1,0,0,7\n",
         0,
         0,
         {1.0, -0.0025, 0},
         k123,
         {1000, 350, -1},
         {2500, 1800, 7}},
        {"three fields", nullptr, "1,2,3", 0, 0, k123, kZero, kDef3, kDef4},
        {"CRLF, more than twelve",
         nullptr,
         "1,2,3,6,6,6,3,3,3,4,4,4,5\r\n",
         0,
         0,
         k123,
         {0.00006, 0.00006, 0.00006},
         {3, 3, 3},
         {4, 4, 4}},
        {"missing trailing field", nullptr, "1,2,3,4,5,6,7,8,9,10,11", 0, 0, k123, k456, {7, 8, 9}, {10, 11, 1000}},
        {"non-numeric", nullptr, "x,y,z,1e5,,-,+,9q", 0, 0, kZero, {0.00001, 0, 0}, {9, 700, 500}, kDef4},
        {"beyond 32 bits saturates",
         nullptr,
         "2147483648,-2147483649,0,0,0,0,99999999999,0,0,0,0,-99999999999",
         0,
         0,
         {21474.83647, -21474.83648, 0},
         kZero,
         {2147483647, 700, 500},
         {2500, 1800, INT32_MIN}},
        {"empty profile file means 1", "", three, 0, 0, {0.00011, 0, 0}, kZero, kDef3, kDef4},
        {"profile 2, CRLF", "2\r\n", three, 0, 0, {0.00022, 0, 0}, kZero, kDef3, kDef4},
        {"profile 3, more text after it", " 3,1 (default)\n", three, 0, 0, {0.00033, 0, 0}, kZero, kDef3, kDef4},
        {"a line beyond 255 characters counts as two",
         "3\n",
         long_line.c_str(),
         0,
         0,
         {0.00044, 0, 0},
         kZero,
         kDef3,
         kDef4},
        {"profile beyond the lines", "4\n", three, 0, -1, {}, {}, {}, {}},
        {"profile beyond 32 bits", "99999999999\n", three, 0, -1, {}, {}, {}, {}},
        {"negative profile selects nothing", "-2\n", three, 0, -1, {}, {}, {}, {}},
        {"non-numeric profile reads as 0", "abc\n", three, 0, -1, {}, {}, {}, {}},
        {"no charger file", "1\n", nullptr, 0, -1, {}, {}, {}, {}},
        {"empty charger file", "1\n", "", 0, -1, {}, {}, {}, {}},
        {"null first", nullptr, twelve, 1, -2, {}, {}, {}, {}},
        {"null second", nullptr, twelve, 2, -3, k123, {}, {}, {}},
        {"null third", nullptr, twelve, 4, -4, k123, k456, {}, {}},
        {"null fourth", nullptr, twelve, 8, -5, k123, k456, {7, 8, 9}, {}},
        {"null first and fourth", nullptr, twelve, 9, -2, {}, {}, {}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        set_file(kProfile, c.profile);
        set_file(kCharger, c.charger);
        double a[3] = {-7, -7, -7}, b[3] = {-7, -7, -7};
        int32_t t[3] = {-7, -7, -7}, f[3] = {-7, -7, -7};
        vphone::LogCapture log;
        vphone::StderrCapture err;
        EXPECT_EQ(msmachdep_LoadChargerOffset(c.nulls & 1 ? nullptr : a, c.nulls & 2 ? nullptr : b,
                                              c.nulls & 4 ? nullptr : t, c.nulls & 8 ? nullptr : f),
                  c.result);
        EXPECT_TRUE(log.lines().empty());
        EXPECT_TRUE(err.text().empty());  // nothing is logged or printed on any path
        EXPECT_EQ(D(a, a + 3), c.first.empty() ? kLeftD : c.first);
        EXPECT_EQ(D(b, b + 3), c.second.empty() ? kLeftD : c.second);
        EXPECT_EQ(I(t, t + 3), c.third.empty() ? kLeftI : c.third);
        EXPECT_EQ(I(f, f + 3), c.fourth.empty() ? kLeftI : c.fourth);
    }
}

}  // namespace
