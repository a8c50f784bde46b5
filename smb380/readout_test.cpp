#include <gtest/gtest.h>

#include "smb380/recording_bus.h"
#include "smb380/smb380.h"

using namespace smb380_test;

namespace {

// Every 10-bit pattern, with junk in the LSB's six low bits, decodes to its two's
// complement value through each single-axis reader, in one 2-byte read of its pair.
TEST(Smb380Readout, EveryPatternSignExtendsOnEveryAxis) {
    const struct {
        int32_t (*read)(int16_t *);
        uint8_t reg;
    } readers[] = {{smb380_read_accel_x, 0x02}, {smb380_read_accel_y, 0x04}, {smb380_read_accel_z, 0x06}};
    for (const auto &r : readers) {
        for (int v = -512; v < 512; ++v) {
            const auto lsb = static_cast<uint8_t>((v & 3) << 6 | (v & 0x3F)),
                       msb = static_cast<uint8_t>((v & 0x3FF) >> 2);
            attach({{r.reg, lsb}, {static_cast<uint8_t>(r.reg + 1), msb}});
            g_bus.results = {-7};
            int16_t out = 1000;
            ASSERT_EQ(r.read(&out), -7);
            ASSERT_EQ(out, v) << "register " << int(r.reg);
            ASSERT_EQ(g_bus.calls, (std::vector<Call>{R(static_cast<uint8_t>(r.reg | 0x80), {lsb, msb})}));
        }
    }
}

TEST(Smb380Readout, XyzTemperatureAndStatusAreSingleReads) {
    smb380_accel a{};
    uint8_t t = 0, s = 0;
    const Sequence cases[] = {
        {"xyz: one six-byte read",
         {{0x02, 0x02}, {0x03, 0x80}, {0x04, 0xC0}, {0x05, 0x7F}, {0x06, 0x40}, {0x07, 0xFF}},
         [&] { return smb380_read_accel_xyz(&a); },
         {R(0x82, {0x02, 0x80, 0xC0, 0x7F, 0x40, 0xFF})},
         1},
        {"temperature: raw byte", {{0x08, 0xFF}}, [&] { return smb380_read_temperature(&t); }, {R(0x88, {0xFF})}, 1},
        {"status: raw byte", {{0x09, 0x81}}, [&] { return smb380_get_interrupt_status(&s); }, {R(0x89, {0x81})}, 1},
    };
    for (const auto &c : cases) check(c);
    EXPECT_EQ((std::vector<int>{a.x, a.y, a.z, t, s}), (std::vector<int>{-512, 511, -3, 0xFF, 0x81}));
}

// Leaves recognisable junk on the stack where the next call's locals will live.
__attribute__((noinline)) void dirty_stack() {
    volatile uint8_t junk[512];
    for (auto &b : junk) b = 0xA5;
}

TEST(Smb380Readout, UnfilledReadsGiveZeroValues) {
    attach();
    g_bus.fill_reads = false;
    smb380_accel a{7, 7, 7};
    int16_t y = 7;
    uint8_t range = 7;
    dirty_stack();
    smb380_read_accel_xyz(&a);
    dirty_stack();
    smb380_read_accel_y(&y);
    dirty_stack();
    smb380_get_range(&range);
    EXPECT_EQ((std::vector<int>{a.x, a.y, a.z, y, range}), std::vector<int>(5, 0));
}

}  // namespace
