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

struct Filled {
    int result;
    std::vector<double> first, second;
    std::vector<int32_t> third, fourth;
};

// Outputs start at -7 so a triple left alone is visible.
Filled load(bool null_first = false, bool null_second = false, bool null_third = false, bool null_fourth = false) {
    double first[3] = {-7, -7, -7}, second[3] = {-7, -7, -7};
    int32_t third[3] = {-7, -7, -7}, fourth[3] = {-7, -7, -7};
    Filled f;
    f.result = msmachdep_LoadChargerOffset(null_first ? nullptr : first, null_second ? nullptr : second,
                                          null_third ? nullptr : third, null_fourth ? nullptr : fourth);
    f.first.assign(first, first + 3);
    f.second.assign(second, second + 3);
    f.third.assign(third, third + 3);
    f.fourth.assign(fourth, fourth + 3);
    return f;
}

const std::vector<double> kUntouchedD{-7, -7, -7};
const std::vector<int32_t> kUntouchedI{-7, -7, -7};

class ChargerOffsetTest : public vphone::PhoneTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(log.lines().empty());  // nothing is ever logged or printed
        EXPECT_EQ(err.text(), "");
        PhoneTest::TearDown();
    }
    vphone::LogCapture log;
    vphone::StderrCapture err;
};

struct LineCase {
    const char *name;
    const char *line;
    std::vector<double> first, second;
    std::vector<int32_t> third, fourth;
};

TEST_F(ChargerOffsetTest, LineFieldsFillTheFourTriples) {
    const LineCase cases[] = {
        {"all twelve", "100000,-250,0,1,2,3,0,350,-1,0,0,7\n", {1.0, -0.0025, 0.0}, {0.00001, 0.00002, 0.00003},
         {1000, 350, -1}, {2500, 1800, 7}},
        {"three fields", "1,2,3", {0.00001, 0.00002, 0.00003}, {0, 0, 0}, {1000, 700, 500}, {2500, 1800, 1000}},
        {"CRLF and more than twelve", "1,1,1,2,2,2,3,3,3,4,4,4,5\r\n", {0.00001, 0.00001, 0.00001},
         {0.00002, 0.00002, 0.00002}, {3, 3, 3}, {4, 4, 4}},
        {"line end after a last comma", "0,0,0,0,0,0,0,0,0,0,0,\n", {0, 0, 0}, {0, 0, 0}, {1000, 700, 500}, {2500, 1800, 1000}},
        {"non-numeric", "x,y,z,1e5,,-,+,9q", {0, 0, 0}, {0.00001, 0, 0}, {9, 700, 500}, {2500, 1800, 1000}},
        {"beyond 32 bits saturates", "2147483648,-2147483649,0,0,0,0,99999999999,0,0,0,0,-99999999999",
         {21474.83647, -21474.83648, 0}, {0, 0, 0}, {2147483647, 700, 500}, {2500, 1800, INT32_MIN}},
        {"empty line", "\n", {0, 0, 0}, {0, 0, 0}, {1000, 700, 500}, {2500, 1800, 1000}},
    };
    for (const LineCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kCharger, c.line);
        Filled f = load();
        EXPECT_EQ(f.result, 0);
        EXPECT_EQ(f.first, c.first);  // exact: a division by 100000.0 is correctly rounded
        EXPECT_EQ(f.second, c.second);
        EXPECT_EQ(f.third, c.third);
        EXPECT_EQ(f.fourth, c.fourth);
    }
}

TEST_F(ChargerOffsetTest, DoublesAreTheIntegerDividedNotMultiplied) {
    // strtod of "<n>e-5" rounds the exact decimal once, as a division of the exact
    // integer by 100000 does; a multiplication by 0.00001 rounds twice and differs.
    std::mt19937 random(5301);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    for (int i = 0; i < 200; ++i) {
        const int32_t v[3] = {any(random), any(random), i};
        vphone::write_file(kCharger, std::to_string(v[0]) + "," + std::to_string(v[1]) + "," + std::to_string(v[2]));
        Filled f = load();
        for (int k = 0; k < 3; ++k)
            ASSERT_EQ(f.first[k], std::strtod((std::to_string(v[k]) + "e-5").c_str(), nullptr)) << v[k];
    }
}

struct ProfileCase {
    const char *name;
    const char *profile;  // nullptr: no profile-number file
    int result;
    int32_t third0;       // first value of the third triple when filled
};

TEST_F(ChargerOffsetTest, ProfileNumberSelectsTheLine) {
    const std::string long_first = std::string(300, '5') + "\n";  // 255 characters read as one line, the rest as another
    const ProfileCase cases[] = {
        {"no profile file means 1", nullptr, 0, 11},
        {"empty profile file means 1", "", 0, 11},
        {"profile 2", "2\n", 0, 22},
        {"profile 3 with text after it", " 3 (default)\n", 0, 33},
        {"profile beyond the lines", "4\n", -1, -7},
        {"far beyond", "99999999999\n", -1, -7},
        {"zero selects nothing", "0\n", -1, -7},
        {"negative selects nothing", "-2\n", -1, -7},
        {"non-numeric reads as 0", "abc\n", -1, -7},
    };
    vphone::write_file(kCharger, "0,0,0,0,0,0,11\n0,0,0,0,0,0,22\n0,0,0,0,0,0,33\n");
    for (const ProfileCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kProfile);
        if (c.profile != nullptr) vphone::write_file(kProfile, c.profile);
        Filled f = load();
        EXPECT_EQ(f.result, c.result);
        EXPECT_EQ(f.third[0], c.third0);
        if (c.result != 0) {
            EXPECT_EQ(f.first, kUntouchedD);
        }
    }
    SCOPED_TRACE("a line longer than 255 characters counts as two");
    vphone::write_file(kCharger, "1," + std::string(300, '0') + "\n0,0,0,0,0,0,44\n");
    vphone::write_file(kProfile, "3\n");
    EXPECT_EQ(load().third[0], 44);
    vphone::write_file(kProfile, "2\n");
    EXPECT_EQ(load().first[0], 0.0);  // the 45 zeros after the first 255 characters
}

TEST_F(ChargerOffsetTest, MissingFileFillsNothing) {
    Filled f = load();
    EXPECT_EQ(f.result, -1);
    EXPECT_EQ(f.first, kUntouchedD);
    EXPECT_EQ(f.fourth, kUntouchedI);
    vphone::write_file(kCharger, "");
    EXPECT_EQ(load().result, -1);
}

TEST_F(ChargerOffsetTest, NullTripleStopsTheFillInOrder) {
    const struct {
        const char *name;
        bool nulls[4];
        int result;
        int filled;  // triples filled before the stop
    } cases[] = {
        {"first null", {true, false, false, false}, -2, 0},
        {"second null", {false, true, false, false}, -3, 1},
        {"third null", {false, false, true, false}, -4, 2},
        {"fourth null", {false, false, false, true}, -5, 3},
        {"first and fourth null", {true, false, false, true}, -2, 0},
    };
    vphone::write_file(kCharger, "1,2,3,4,5,6,7,8,9,10,11,12");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Filled f = load(c.nulls[0], c.nulls[1], c.nulls[2], c.nulls[3]);
        EXPECT_EQ(f.result, c.result);
        EXPECT_EQ(f.first != kUntouchedD, c.filled >= 1 && !c.nulls[0]);
        EXPECT_EQ(f.second != kUntouchedD, c.filled >= 2);
        EXPECT_EQ(f.third != kUntouchedI, c.filled >= 3);
        EXPECT_EQ(f.fourth, kUntouchedI);
        if (c.filled >= 2) {
            EXPECT_EQ(f.second, (std::vector<double>{0.00004, 0.00005, 0.00006}));
        }
        if (c.filled >= 3) {
            EXPECT_EQ(f.third, (std::vector<int32_t>{7, 8, 9}));
        }
    }
}

}  // namespace
