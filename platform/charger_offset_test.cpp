// Charger offsets of the shipped library, on the virtual phone.
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

constexpr char kCharger[] = "/etc/kmxc_charger_offset.cfg";
constexpr char kProfile[] = "/sys/module/zorsensor/parameters/profile";
using D = std::vector<double>;
using I = std::vector<int32_t>;

struct Filled {
    int result;
    D first, second;
    I third, fourth;
};

// Outputs start at -7 so a triple left alone shows; mask bit k set passes null for triple k.
Filled load(unsigned null_mask = 0) {
    double a[3] = {-7, -7, -7}, b[3] = {-7, -7, -7};
    int32_t c[3] = {-7, -7, -7}, d[3] = {-7, -7, -7};
    const int r = msmachdep_LoadChargerOffset(null_mask & 1 ? nullptr : a, null_mask & 2 ? nullptr : b,
                                              null_mask & 4 ? nullptr : c, null_mask & 8 ? nullptr : d);
    return {r, D(a, a + 3), D(b, b + 3), I(c, c + 3), I(d, d + 3)};
}

const D kLeftD{-7, -7, -7};
const I kLeftI{-7, -7, -7};

class ChargerOffsetTest : public vphone::PhoneTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(log.lines().empty());  // nothing is logged or printed on any path
        EXPECT_EQ(err.text(), "");
        PhoneTest::TearDown();
    }
    vphone::LogCapture log;
    vphone::StderrCapture err;
};

TEST_F(ChargerOffsetTest, LineFieldsFillTheFourTriples) {
    const struct {
        const char *name, *line;
        D first, second;
        I third, fourth;
    } cases[] = {
        {"all twelve", "100000,-250,0,1,2,3,0,350,-1,0,0,7\n", {1.0, -0.0025, 0}, {0.00001, 0.00002, 0.00003},
         {1000, 350, -1}, {2500, 1800, 7}},
        {"three fields", "1,2,3", {0.00001, 0.00002, 0.00003}, {0, 0, 0}, {1000, 700, 500}, {2500, 1800, 1000}},
        {"CRLF, more than twelve", "1,1,1,2,2,2,3,3,3,4,4,4,5\r\n", {0.00001, 0.00001, 0.00001},
         {0.00002, 0.00002, 0.00002}, {3, 3, 3}, {4, 4, 4}},
        {"line end after a last comma", "0,0,0,0,0,0,0,0,0,0,0,\n", {0, 0, 0}, {0, 0, 0}, {1000, 700, 500}, {2500, 1800, 1000}},
        {"non-numeric", "x,y,z,1e5,,-,+,9q", {0, 0, 0}, {0.00001, 0, 0}, {9, 700, 500}, {2500, 1800, 1000}},
        {"beyond 32 bits saturates", "2147483648,-2147483649,0,0,0,0,99999999999,0,0,0,0,-99999999999",
         {21474.83647, -21474.83648, 0}, {0, 0, 0}, {2147483647, 700, 500}, {2500, 1800, INT32_MIN}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kCharger, c.line);
        const Filled f = load();
        EXPECT_EQ(f.result, 0);
        EXPECT_EQ(f.first, c.first);  // exact: a division by 100000.0 is correctly rounded
        EXPECT_EQ(f.second, c.second);
        EXPECT_EQ(f.third, c.third);
        EXPECT_EQ(f.fourth, c.fourth);
    }
}

TEST_F(ChargerOffsetTest, DoublesAreTheIntegerDividedNotMultiplied) {
    // strtod of "<n>e-5" rounds the exact decimal once, as the division of the exact
    // integer by 100000 does; a multiplication by 0.00001 rounds twice and often differs.
    std::mt19937 random(5301);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    for (int i = 0; i < 100; ++i) {
        const int32_t v[3] = {any(random), any(random), i};
        vphone::write_file(kCharger, std::to_string(v[0]) + "," + std::to_string(v[1]) + "," + std::to_string(v[2]));
        const Filled f = load();
        for (int k = 0; k < 3; ++k) ASSERT_EQ(f.first[k], std::strtod((std::to_string(v[k]) + "e-5").c_str(), nullptr)) << v[k];
    }
}

TEST_F(ChargerOffsetTest, ProfileNumberSelectsTheLine) {
    const char *const three_lines = "0,0,0,0,0,0,11\n0,0,0,0,0,0,22\n0,0,0,0,0,0,33\n";
    const std::string long_line = "1," + std::string(300, '0') + "\n0,0,0,0,0,0,44\n";  // 255 characters make a line
    const struct {
        const char *name, *profile;  // nullptr: no profile-number file
        std::string charger;         // "-": no charger file
        int result;
        int32_t third0;
    } cases[] = {
        {"no profile file means 1", nullptr, three_lines, 0, 11},
        {"empty profile file means 1", "", three_lines, 0, 11},
        {"profile 2", "2\n", three_lines, 0, 22},
        {"profile 3 with text after it", " 3 (default)\n", three_lines, 0, 33},
        {"profile beyond the lines", "4\n", three_lines, -1, -7},
        {"far beyond", "99999999999\n", three_lines, -1, -7},
        {"zero selects nothing", "0\n", three_lines, -1, -7},
        {"negative selects nothing", "-2\n", three_lines, -1, -7},
        {"non-numeric reads as 0", "abc\n", three_lines, -1, -7},
        {"no charger file", "1\n", "-", -1, -7},
        {"empty charger file", "1\n", "", -1, -7},
        {"long line counts as two", "3\n", long_line, 0, 44},
        {"rest of a long line", "2\n", long_line, 0, 1000},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kProfile);
        if (c.profile != nullptr) vphone::write_file(kProfile, c.profile);
        vphone::remove_file(kCharger);
        if (c.charger != "-") vphone::write_file(kCharger, c.charger);
        const Filled f = load();
        EXPECT_EQ(f.result, c.result);
        EXPECT_EQ(f.third[0], c.third0);
        EXPECT_EQ(f.first == kLeftD && f.fourth == kLeftI, c.result != 0);  // a failure fills nothing
    }
}

TEST_F(ChargerOffsetTest, NullTripleStopsTheFillInOrder) {
    const struct {
        unsigned nulls;
        int result;
        int filled;  // triples filled before the stop
    } cases[] = {{1, -2, 0}, {2, -3, 1}, {4, -4, 2}, {8, -5, 3}, {9, -2, 0}};
    vphone::write_file(kCharger, "1,2,3,4,5,6,7,8,9,10,11,12");
    for (const auto &c : cases) {
        SCOPED_TRACE("null mask " + std::to_string(c.nulls));
        const Filled f = load(c.nulls);
        EXPECT_EQ(f.result, c.result);
        EXPECT_EQ(f.first, (c.filled >= 1 ? D{0.00001, 0.00002, 0.00003} : kLeftD));
        EXPECT_EQ(f.second, (c.filled >= 2 ? D{0.00004, 0.00005, 0.00006} : kLeftD));
        EXPECT_EQ(f.third, (c.filled >= 3 ? I{7, 8, 9} : kLeftI));
        EXPECT_EQ(f.fourth, kLeftI);
    }
}

}  // namespace
