#include <gtest/gtest.h>

#include <cstdint>

#include "orientation/orientation.h"

namespace {

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

// Runs before any other test writes the offsets (this file is linked first).
TEST(Offsets, StartAtZeroAndAreSetIndependently) {
    const KmxAxesData zero{0, 0, 0}, new_ms{5, -6, 7}, new_gs{-1, 2, -3};
    KmxAxesData ms{1, 1, 1}, gs{1, 1, 1};
    EXPECT_EQ(KmxAxesLibGetMsOffset(&ms) | KmxAxesLibGetGsOffset(&gs), 0);
    EXPECT_TRUE(same(ms, zero));
    EXPECT_TRUE(same(gs, zero));
    EXPECT_EQ(KmxAxesLibSetGsOffset(&new_gs) | KmxAxesLibSetMsOffset(&new_ms), 0);
    KmxAxesLibGetMsOffset(&ms);
    KmxAxesLibGetGsOffset(&gs);
    EXPECT_TRUE(same(ms, new_ms));
    EXPECT_TRUE(same(gs, new_gs));
    EXPECT_TRUE(same(g_AxesLib.msOffset, new_ms));
    KmxAxesLibInit();
}

TEST(OffsetValidity, MagneticWithin16384AndRoughStepsUpTo31) {
    const struct {
        const char *name;
        KmxAxesData offset;
        int8_t valid;
    } ms_cases[] = {{"both bounds", {-16384, 16384, 0}, 1},
                    {"z one above", {0, 0, 16385}, 0},
                    {"x one below", {-16385, 0, 0}, 0},
                    {"file marker", {INT32_MAX, INT32_MAX, INT32_MAX}, 0}};
    for (const auto &c : ms_cases) EXPECT_EQ(KmxAxesLibIsValidMsOffset(&c.offset), c.valid) << c.name;
    const struct {
        uint8_t steps[3];
        int8_t valid;
    } rough_cases[] = {{{31, 0, 31}, 1}, {{32, 0, 0}, 0}, {{0, 0, 255}, 0}, {{0, 32, 0}, 0}};
    for (const auto &c : rough_cases)
        EXPECT_EQ(KmxAxesLibIsValidRoughOffset(c.steps), c.valid)
            << int(c.steps[0]) << "," << int(c.steps[1]) << "," << int(c.steps[2]);
    EXPECT_EQ(KmxAxesLibIsValidMsOffset(nullptr), 0);
    EXPECT_EQ(KmxAxesLibIsValidRoughOffset(nullptr), 0);
}

TEST(GravityOffset, IsTheDifferenceFromTheIdealRestingSample) {
    const struct {
        KmxAxesData resting, offset;
    } cases[] = {{{12, -7, -4100}, {12, -7, -4}}, {{0, 0, INT32_MAX}, {0, 0, INT32_MIN + 4095}}};  // the latter wraps
    for (const auto &c : cases) {
        KmxAxesData out{};
        EXPECT_EQ(KmxAxesGsCalibGetGsOffset(&c.resting, &out), 0);
        EXPECT_TRUE(same(out, c.offset)) << out.x << "," << out.y << "," << out.z;
    }
}

}  // namespace
