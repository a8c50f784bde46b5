// The accelerometer glue on the virtual phone, against the shipped library: bus
// format, gravity through every mounting, failures, and the shared device.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "drivers/drivers.h"
#include "smb380/smb380.h"
#include "vphone/phone_fixture.h"
#include "drivers/kmxc_protocol.h"
#include "vphone/smb380_model.h"

namespace {

using Matrix = std::array<int8_t, 9>;
using Lines = std::vector<std::string>;

// Bus events as text: "sel 38", "w 14 E6", "r 02".
Lines bus_events() {
    Lines out;
    for (const auto &e : vphone::transcript()) {
        char text[8];
        std::snprintf(text, sizeof text, "sel %02lX", static_cast<unsigned long>(e.argument));
        std::string s = e.kind == vphone::Kind::SelectSlave ? text : e.kind == vphone::Kind::Write ? "w" : "r";
        for (uint8_t b : e.bytes) std::snprintf(text, sizeof text, " %02X", b), s += text;
        if (e.kind == vphone::Kind::SelectSlave || e.kind == vphone::Kind::Write || e.kind == vphone::Kind::Read)
            out.push_back(s);
    }
    return out;
}

class GsGlue : public vphone::PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        vphone::attach(vphone::Smb380Model::kAddress, &chip);
        vphone::attach(kmxc::kBusAddress, &magnetometer);
    }
    void TearDown() override {
        KmxAxesDrvGsTerm();
        KmxAxesDrvMsTerm();
        PhoneTest::TearDown();
    }
    // Line `number` of the transformation file; fields 1..9 are the accelerometer's.
    void use_profile(const char *number, const std::string &lines) {
        vphone::write_file("/sys/module/zorsensor/parameters/profile", number);
        vphone::write_file("/etc/kmxc_transformation.cfg", lines);
    }
    int8_t start_magnetometer() {
        for (int i = 0; i < 2; ++i) magnetometer.queue_read(std::vector<uint8_t>(9, 0x80));
        return KmxAxesDrvMsInit();
    }

    vphone::Smb380Model chip;
    vphone::ScriptedDevice magnetometer;
};

// Start-up reads the identification, then sets range 0 and bandwidth 0 by
// read-modify-write; every access selects 0x38; a register read is the address
// byte then the data; writes are (register, value) pairs in one transfer.
TEST_F(GsGlue, BusTransfersOfStartUpSampleAndRegisterWrites) {
    chip.set_reg(0x14, 0xEE);
    ASSERT_EQ(KmxAxesDrvGsInit(), 0);
    EXPECT_EQ(bus_events(), (Lines{"sel 38", "w 00", "r 02", "sel 38", "w 01", "r 12", "sel 38", "w 14", "r EE",
                                   "sel 38", "w 14 E6", "sel 38", "w 14", "r E6", "sel 38", "w 14 E0"}));

    vphone::clear_transcript();
    chip.set_counts(-512, 511, -3);
    KmxAxesData out{};
    KmxcDrvRawData raw{};
    EXPECT_EQ(KmxAxesDrvGsMeasure(&out, &raw), 0);
    EXPECT_EQ(bus_events(), (Lines{"sel 38", "w 02", "r 01 80 C1 7F 41 FF"}));
    EXPECT_EQ((std::array<int, 3>{raw.gs[0], raw.gs[1], raw.gs[2]}), (std::array<int, 3>{-512, 511, -3}));

    vphone::fail_call(vphone::Call::Read, 1, EIO);  // a read that delivers nothing: zero vector
    vphone::StderrCapture err;
    EXPECT_EQ(KmxAxesDrvGsMeasure(&out, nullptr), 0);
    EXPECT_EQ(err.text(), "read: Input/output error\n");
    EXPECT_EQ((std::array<int32_t, 3>{out.x, out.y, out.z}), (std::array<int32_t, 3>{}));

    vphone::clear_transcript();  // the count is taken modulo 128: 130 registers are 2
    const uint8_t many[130] = {0x11, 0x22};
    smb380_write_reg(0x20, many, 130);
    EXPECT_EQ(bus_events(), (Lines{"sel 38", "w 20 11 21 22"}));
}

// For every mounting (the 48 signed permutations) and random attitudes and
// magnitudes, the measured vector is the simulated gravity in 1/4096 g, within the
// quantisation: half a count (1/512 g) is 8 units after the factor 16.
TEST_F(GsGlue, GravityComesBackInPhoneAxesForEveryMounting) {
    std::mt19937 rng(4096);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> magnitude(0.2, 1.9);
    std::array<int, 3> perm = {0, 1, 2};
    do {
        for (int signs = 0; signs < 8; ++signs) {
            Matrix m{};
            std::string line;
            for (int row = 0; row < 3; ++row) m[3 * row + perm[row]] = (signs >> row & 1) ? -1 : 1;
            for (int v : m) line += std::to_string(v) + ",";
            use_profile("2\n", "1,0,0,0,1,0,0,0,1\n" + line + "1,0,0,0,1,0,0,0,1\n");
            ASSERT_TRUE(chip.set_mounting(m));
            ASSERT_EQ(KmxAxesDrvGsInit(), 0);
            for (int k = 0; k < 12; ++k) {
                double g[3] = {normal(rng), normal(rng), normal(rng)};
                const double scale = magnitude(rng) / std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
                for (double &v : g) v *= scale;
                chip.set_gravity_g(g[0], g[1], g[2]);
                KmxAxesData out{};
                ASSERT_EQ(KmxAxesDrvGsMeasure(&out, nullptr), 0);
                for (int i = 0; i < 3; ++i)
                    ASSERT_LE(std::fabs((&out.x)[i] - 4096.0 * g[i]), 8.0) << "axis " << i << " signs " << signs;
            }
        }
    } while (std::next_permutation(perm.begin(), perm.end()));
}

TEST_F(GsGlue, FailedStartUpLeavesTheDriverUninitialisedAndTheDeviceClosed) {
    const struct {
        const char *name, *profile_number, *lines;
        bool open_fails;
        int8_t result;
    } cases[] = {
        {"profile beyond the file", "3\n", "1,0,0,0,1,0,0,0,1\n0,1,0,1,0,0,0,0,1\n", false, -3},
        {"column without +-1", "1\n", "1,0,0,1,0,0,0,0,1\n", false, -1},
        {"device does not open", "1\n", "1,0,0,0,1,0,0,0,1\n", true, -5},
    };
    for (const auto &c : cases) {
        use_profile(c.profile_number, c.lines);
        if (c.open_fails) vphone::fail_call(vphone::Call::Open, 1, ENOENT);
        vphone::StderrCapture err;
        EXPECT_EQ(KmxAxesDrvGsInit(), c.result) << c.name;
        KmxAxesData out{};
        EXPECT_EQ(KmxAxesDrvGsMeasure(&out, nullptr), -3) << c.name;
        EXPECT_EQ(KmxAxesDrvGsTerm(), -3) << c.name;
        EXPECT_EQ(vphone::open_compass_descriptors(), 0) << c.name;
    }
}

// A magnetometer start-up failure closes the device under both drivers; whichever
// stops last then finds it closed.
TEST_F(GsGlue, LastStopReportsADeviceClosedByAFailedMagnetometerStartUp) {
    for (bool gs_last : {false, true}) {
        ASSERT_EQ(KmxAxesDrvGsInit(), 0);
        ASSERT_EQ(start_magnetometer(), 0);
        vphone::StderrCapture err;
        EXPECT_EQ(KmxAxesDrvMsInit(), -5);  // nothing queued: the calibration read fails
        EXPECT_EQ(vphone::open_compass_descriptors(), 0);
        EXPECT_EQ(gs_last ? KmxAxesDrvMsTerm() : KmxAxesDrvGsTerm(), 0) << gs_last;
        EXPECT_EQ(gs_last ? KmxAxesDrvGsTerm() : KmxAxesDrvMsTerm(), -5) << gs_last;
    }
}

// Every order of starting and stopping the two drivers (each started before it is
// stopped) opens the device when the first starts and closes it when the last stops,
// once each time; repeated starts open nothing, repeated stops are -3, and the
// glue measures only while it is itself running.
TEST_F(GsGlue, EveryStartStopOrderOpensAtFirstStartAndClosesAtLastStop) {
    enum Step { GsInit, MsInit, GsTerm, MsTerm };
    const char *names[] = {"GsInit", "MsInit", "GsTerm", "MsTerm"};
    std::array<int, 4> order = {GsInit, MsInit, GsTerm, MsTerm};
    int orders = 0;
    do {
        auto at = [&](int step) { return std::find(order.begin(), order.end(), step); };
        if (at(GsInit) > at(GsTerm) || at(MsInit) > at(MsTerm)) continue;
        ++orders;
        std::string trace;
        vphone::clear_transcript();
        size_t running = 0, opens = 0, closes = 0;
        for (int step : order) {
            trace += std::string(names[step]) + " ";
            const int r = step == GsInit   ? KmxAxesDrvGsInit() + KmxAxesDrvGsInit()
                          : step == MsInit ? start_magnetometer()
                          : step == GsTerm ? KmxAxesDrvGsTerm() + KmxAxesDrvGsTerm() + 3
                                           : KmxAxesDrvMsTerm() + KmxAxesDrvMsTerm() + 3;
            EXPECT_EQ(r, 0) << trace;
            if (step == GsInit || step == MsInit)
                opens += running++ == 0;
            else
                closes += --running == 0;
            KmxAxesData out{};
            EXPECT_EQ(KmxAxesDrvGsMeasure(&out, nullptr), at(GsInit) <= at(step) && at(step) < at(GsTerm) ? 0 : -3)
                << trace;
            EXPECT_EQ(vphone::open_compass_descriptors(), running > 0 ? 1 : 0) << trace;
            EXPECT_EQ(vphone::transcript_of(vphone::Kind::Open).size(), opens) << trace;
            EXPECT_EQ(vphone::transcript_of(vphone::Kind::Close).size(), closes) << trace;
        }
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(orders, 6);
}

}  // namespace
