#include <gtest/gtest.h>

#include <random>

#include "smb380/recording_bus.h"
#include "smb380/smb380.h"

using namespace smb380_test;

namespace {

using Setter = int32_t (*)(uint8_t);
using Getter = int32_t (*)(uint8_t *);

// Every settable field with its register and mask, written independently of the
// driver's own tables.
struct Field {
    const char *name;
    Setter set;
    Getter get;  // null: no getter
    uint8_t reg, mask;
    uint8_t max_arg;  // larger arguments are refused without a transfer
};
const Field kFields[] = {
    {"range", smb380_set_range, smb380_get_range, 0x14, 0x18, 2},
    {"bandwidth", smb380_set_bandwidth, smb380_get_bandwidth, 0x14, 0x07, 7},
    {"wake_up_pause", smb380_set_wake_up_pause, smb380_get_wake_up_pause, 0x15, 0x06, 255},
    {"low_g_countdown", smb380_set_low_g_countdown, smb380_get_low_g_countdown, 0x0B, 0x0C, 255},
    {"high_g_countdown", smb380_set_high_g_countdown, smb380_get_high_g_countdown, 0x0B, 0x30, 255},
    {"any_motion_count", smb380_set_any_motion_count, smb380_get_any_motion_count, 0x11, 0xC0, 255},
    {"low_g_int", smb380_set_low_g_int, nullptr, 0x0B, 0x01, 255},
    {"high_g_int", smb380_set_high_g_int, nullptr, 0x0B, 0x02, 255},
    {"any_motion_int", smb380_set_any_motion_int, nullptr, 0x0B, 0x40, 255},
    {"alert_int", smb380_set_alert_int, nullptr, 0x0B, 0x80, 255},
    {"latch_int", smb380_latch_int, nullptr, 0x15, 0x10, 255},
    {"new_data_int", smb380_set_new_data_int, nullptr, 0x15, 0x20, 255},
    {"advanced_int", smb380_set_advanced_int, nullptr, 0x15, 0x40, 255},
    {"low_g_threshold", smb380_set_low_g_threshold, smb380_get_low_g_threshold, 0x0C, 0xFF, 255},
    {"low_g_duration", smb380_set_low_g_duration, smb380_get_low_g_duration, 0x0D, 0xFF, 255},
    {"high_g_threshold", smb380_set_high_g_threshold, smb380_get_high_g_threshold, 0x0E, 0xFF, 255},
    {"high_g_duration", smb380_set_high_g_duration, smb380_get_high_g_duration, 0x0F, 0xFF, 255},
    {"any_motion_threshold", smb380_set_any_motion_threshold, smb380_get_any_motion_threshold, 0x10, 0xFF, 255},
    {"selftest", smb380_selftest, nullptr, 0x0A, 0x0C, 255},
};

int lowest_bit(uint8_t mask) { return __builtin_ctz(mask); }

// For random register contents and every argument: the field takes the argument's
// low bits, the rest of the register survives, the getter reads the field back, the
// transfers are one read and one write (whole registers: one write) of that register,
// and the results add up those calls (read 1, write 2; any-motion count: write only).
TEST(Smb380Settings, EveryFieldSetterChangesOnlyItsFieldAndReadsBack) {
    std::mt19937 rng(0x14);
    for (const auto &f : kFields) {
        SCOPED_TRACE(f.name);
        const bool whole = f.mask == 0xFF;
        for (int arg = 0; arg < 256; ++arg) {
            const auto before = static_cast<uint8_t>(rng());
            attach({{f.reg, before}});
            g_bus.results = whole ? std::vector<int8_t>{2} : std::vector<int8_t>{1, 2};
            const int32_t result = f.set(static_cast<uint8_t>(arg));
            if (arg > f.max_arg) {
                EXPECT_EQ(result, 0) << arg;
                EXPECT_TRUE(g_bus.calls.empty()) << arg;
                continue;
            }
            EXPECT_EQ(result, whole || f.set == smb380_set_any_motion_count ? 2 : 3);
            const auto field = static_cast<uint8_t>((arg << lowest_bit(f.mask)) & f.mask);
            const auto after = static_cast<uint8_t>((before & ~f.mask) | field);
            const std::vector<Call> expected =
                whole ? std::vector<Call>{W(f.reg, {after})}
                      : std::vector<Call>{R(static_cast<uint8_t>(f.reg | 0x80), {before}), W(f.reg, {after})};
            ASSERT_EQ(g_bus.calls, expected) << arg;
            if (f.get == nullptr) continue;
            g_bus.calls.clear();
            g_bus.results = {-5};
            g_bus.next_result = 0;
            uint8_t back = 0xEE;
            EXPECT_EQ(f.get(&back), -5);
            EXPECT_EQ(back, field >> lowest_bit(f.mask)) << arg;
            EXPECT_EQ(g_bus.calls, (std::vector<Call>{R(static_cast<uint8_t>(f.reg | 0x80), {after})}));
        }
    }
}

TEST(Smb380Settings, ModeAndInterruptSequences) {
    uint8_t mask = 0;
    const Sequence cases[] = {
        {"mask 0xFF drops bit 2",
         {},
         [] { return smb380_set_interrupt_mask(0xFF); },
         {R(0x8B, {0x00}), R(0x95, {0x00}), W(0x0B, {0xC3}), W(0x15, {0x70})},
         15},
        {"mask 0x29 keeps countdowns and wake-up bits",
         {{0x0B, 0xFF}, {0x15, 0xFF}},
         [] { return smb380_set_interrupt_mask(0x29); },
         {R(0x8B, {0xFF}), R(0x95, {0xFF}), W(0x0B, {0x3D}), W(0x15, {0xDF})},
         15},
        {"get mask reports 0 whatever the reads return",
         {{0x0B, 0xFF}, {0x15, 0xFF}},
         [&] { return smb380_get_interrupt_mask(&mask); },
         {R(0x8B, {0xFF}), R(0x95, {0xFF})},
         0},
        {"reset interrupt overwrites 0x0A", {{0x0A, 0xFF}}, smb380_reset_interrupt, {W(0x0A, {0x40})}, 1},
        {"mode 0xFD: bit 0 to 0x15, bit 1 to 0x0A, reads first",
         {{0x15, 0xFE}, {0x0A, 0xFF}},
         [] { return smb380_set_mode(0xFD); },
         {R(0x95, {0xFE}), R(0x8A, {0xFF}), W(0x15, {0xFF}), W(0x0A, {0xFE})},
         15},
    };
    for (const auto &c : cases) check(c);
    EXPECT_EQ(mask, 0xFB);
    g_bus.calls.clear();
    EXPECT_EQ(smb380_get_mode(), 0xFD);  // the whole argument, kept without a transfer
    EXPECT_TRUE(g_bus.calls.empty());
}

}  // namespace
