#include <gtest/gtest.h>

#include <cstring>

#include "smb380/recording_bus.h"
#include "smb380/smb380.h"

using namespace smb380_test;

namespace {

struct AxisCase {
    const char *name;
    uint8_t lsb, msb;
    int16_t value;
};
const AxisCase kAxisCases[] = {
    {"largest", 0xC0, 0x7F, 511},          {"smallest", 0x00, 0x80, -512},
    {"minus three", 0x40, 0xFF, -3},       {"low six LSB bits ignored", 0xFF, 0x00, 3},
    {"minus one", 0xFF, 0xFF, -1},         {"one g at range 0", 0x00, 0x40, 256},
};

TEST(Smb380Readout, SingleAxisReadsItsPairInOneTransfer) {
    const struct {
        const char *axis;
        int32_t (*read)(int16_t *);
        uint8_t reg;
    } readers[] = {{"x", smb380_read_accel_x, 0x02}, {"y", smb380_read_accel_y, 0x04}, {"z", smb380_read_accel_z, 0x06}};
    for (const auto &r : readers) {
        for (const auto &c : kAxisCases) {
            attach({{r.reg, c.lsb}, {static_cast<uint8_t>(r.reg + 1), c.msb}});
            g_bus.results = {-7};
            int16_t v = 1000;
            EXPECT_EQ(r.read(&v), -7) << r.axis << " " << c.name;
            EXPECT_EQ(v, c.value) << r.axis << " " << c.name;
            EXPECT_EQ(g_bus.calls, (std::vector<Call>{R(static_cast<uint8_t>(r.reg | 0x80), {c.lsb, c.msb})}));
        }
    }
}

// Every 10-bit pattern, with junk in the LSB's low six bits, decodes to its two's
// complement value.
TEST(Smb380Readout, AllTenBitPatternsSignExtend) {
    for (int v = -512; v < 512; ++v) {
        const auto bits = static_cast<uint16_t>(v & 0x3FF);
        attach({{0x02, static_cast<uint8_t>(((bits & 3) << 6) | (v & 0x3F))},
                {0x03, static_cast<uint8_t>(bits >> 2)}});
        int16_t x = 0;
        smb380_read_accel_x(&x);
        ASSERT_EQ(x, v);
    }
}

TEST(Smb380Readout, XyzIsOneSixByteRead) {
    attach({{0x02, 0x02}, {0x03, 0x80}, {0x04, 0xC0}, {0x05, 0x7F}, {0x06, 0x40}, {0x07, 0xFF}});
    g_bus.results = {5};
    smb380_accel a{};
    EXPECT_EQ(smb380_read_accel_xyz(&a), 5);
    EXPECT_EQ(a.x, -512);
    EXPECT_EQ(a.y, 511);
    EXPECT_EQ(a.z, -3);
    EXPECT_EQ(g_bus.calls, (std::vector<Call>{R(0x82, {0x02, 0x80, 0xC0, 0x7F, 0x40, 0xFF})}));
}

// Leaves recognisable junk on the stack where the next call's locals will live.
__attribute__((noinline)) void dirty_stack() {
    volatile uint8_t junk[512];
    for (auto &b : junk) b = 0xA5;
}

TEST(Smb380Readout, UnfilledReadsGiveZeroValues) {
    attach({});
    g_bus.fill_reads = false;
    g_bus.results = {-1, -1, -1};
    smb380_accel a{7, 7, 7};
    int16_t y = 7;
    uint8_t range = 7;
    dirty_stack();
    EXPECT_EQ(smb380_read_accel_xyz(&a), -1);
    dirty_stack();
    EXPECT_EQ(smb380_read_accel_y(&y), -1);
    dirty_stack();
    EXPECT_EQ(smb380_get_range(&range), -1);
    EXPECT_EQ(a.x | a.y | a.z | y | range, 0);
}

TEST(Smb380Readout, TemperatureAndStatusAreRawBytes) {
    attach({{0x08, 0xFF}, {0x09, 0x81}});
    uint8_t t = 0, s = 0;
    EXPECT_EQ(smb380_read_temperature(&t), 0);
    EXPECT_EQ(smb380_get_interrupt_status(&s), 0);
    EXPECT_EQ(t, 0xFF);
    EXPECT_EQ(s, 0x81);
    EXPECT_EQ(g_bus.calls, (std::vector<Call>{R(0x88, {0xFF}), R(0x89, {0x81})}));
}

}  // namespace
