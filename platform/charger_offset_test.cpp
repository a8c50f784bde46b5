// Charger offsets of the shipped library, on the virtual phone.
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

constexpr char kCharger[] = "/etc/kmxc_charger_offset.cfg";
constexpr char kProfile[] = "/sys/module/zorsensor/parameters/profile";
using D = std::vector<double>;
using I = std::vector<int32_t>;

const D kLeftD{-7, -7, -7}, kZero{0, 0, 0};  // outputs start at -7 so a triple left alone shows
const I kLeftI{-7, -7, -7}, kDef3{1000, 700, 500}, kDef4{2500, 1800, 1000};
const D k123{0.00001, 0.00002, 0.00003}, k456{0.00004, 0.00005, 0.00006}, k666{0.00006, 0.00006, 0.00006};

class ChargerOffsetTest : public vphone::PhoneTest {};

void set_file(const char *path, const char *content) {
    vphone::remove_file(path);
    if (content != nullptr) vphone::write_file(path, content);
}

struct Loaded {
    int result;
    D first, second;
    I third, fourth;
};
const Loaded kNothing{-1, kLeftD, kLeftD, kLeftI, kLeftI};
Loaded first_field(double x) { return {0, {x, 0, 0}, kZero, kDef3, kDef4}; }  // missing fields: 0 or default

// Doubles compare exactly: a division by 100000.0 is correctly rounded, while a
// multiplication by 0.00001 already differs for 3 and 6.
TEST_F(ChargerOffsetTest, ProfileLineFillsTheTriplesUpToTheFirstNull) {
    const char *const three = "11\n22\n33\n";
    const char *const twelve = "1,2,3,4,5,6,7,8,9,10,11,12";
    const std::string long_line = "1," + std::string(300, '0') + "\n44\n";  // 255 characters make a line
    const struct {
        const char *name;
        const char *profile, *charger;  // nullptr: no such file
        Loaded want;
        int null = -1;  // the triple passed as a null pointer; -1: none
    } cases[] = {
        {"signs and scale; a zero count takes its default",
         nullptr,
         "100000,-250,0,1,2,3,0,350,-1,0,0,7\n",
         {0, {1, -0.0025, 0}, k123, {1000, 350, -1}, {2500, 1800, 7}}},
        {"more than twelve", nullptr, "1,2,3,6,6,6,3,3,3,4,4,4,5\n", {0, k123, k666, {3, 3, 3}, {4, 4, 4}}},
        {"CRLF after the twelfth", nullptr, "1,2,3,6,6,6,3,3,3,4,4,-4\r\n", {0, k123, k666, {3, 3, 3}, {4, 4, -4}}},
        {"missing trailing field", nullptr, "1,2,3,4,5,6,7,8,9,10,11", {0, k123, k456, {7, 8, 9}, {10, 11, 1000}}},
        {"empty profile file means 1", "", three, first_field(0.00011)},
        {"profile 3, more text after it", " 3,1 (default)\n", three, first_field(0.00033)},
        {"a line beyond 255 characters counts as two", "3\n", long_line.c_str(), first_field(0.00044)},
        {"profile beyond the lines", "4\n", three, kNothing},
        {"profile 0 (non-numeric) selects nothing", "abc\n", three, kNothing},
        {"no charger file", "1\n", nullptr, kNothing},
        {"null first", nullptr, twelve, {-2, kLeftD, kLeftD, kLeftI, kLeftI}, 0},
        {"null second", nullptr, twelve, {-3, k123, kLeftD, kLeftI, kLeftI}, 1},
        {"null third", nullptr, twelve, {-4, k123, k456, kLeftI, kLeftI}, 2},
        {"null fourth", nullptr, twelve, {-5, k123, k456, {7, 8, 9}, kLeftI}, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        set_file(kProfile, c.profile);
        set_file(kCharger, c.charger);
        double a[3] = {-7, -7, -7}, b[3] = {-7, -7, -7};
        int32_t t[3] = {-7, -7, -7}, f[3] = {-7, -7, -7};
        vphone::LogCapture log;
        vphone::StderrCapture err;
        EXPECT_EQ(msmachdep_LoadChargerOffset(c.null == 0 ? nullptr : a, c.null == 1 ? nullptr : b,
                                              c.null == 2 ? nullptr : t, c.null == 3 ? nullptr : f),
                  c.want.result);
        EXPECT_TRUE(log.lines().empty());
        EXPECT_EQ(err.text(), "");  // nothing is logged or printed on any path
        EXPECT_EQ(D(a, a + 3), c.want.first);
        EXPECT_EQ(D(b, b + 3), c.want.second);
        EXPECT_EQ(I(t, t + 3), c.want.third);
        EXPECT_EQ(I(f, f + 3), c.want.fourth);
    }
}

}  // namespace
