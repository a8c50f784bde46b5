#include <gtest/gtest.h>

#include <cstdint>

#include "orientation/orientation.h"

namespace {

struct OffsetsTest : ::testing::Test {
    void SetUp() override {
        KmxAxesLibSetMsOffset(&KmxAxesData_Constructor);
        KmxAxesLibSetGsOffset(&KmxAxesData_Constructor);
    }
};

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

TEST(OffsetsAtLoad, BothOffsetsStartAtZero) {
    // Runs before any fixture writes g_AxesLib (gtest runs tests in declaration order).
    KmxAxesData ms{1, 1, 1}, gs{1, 1, 1};
    KmxAxesLibGetMsOffset(&ms);
    KmxAxesLibGetGsOffset(&gs);
    EXPECT_TRUE(same(ms, KmxAxesData_Constructor));
    EXPECT_TRUE(same(gs, KmxAxesData_Constructor));
}

TEST_F(OffsetsTest, SetMsOffsetLeavesGravityOffsetAlone) {
    const KmxAxesData ms{5, -6, 7}, gs{-1, 2, -3};
    KmxAxesLibSetGsOffset(&gs);
    EXPECT_EQ(KmxAxesLibSetMsOffset(&ms), 0);
    KmxAxesData out{};
    EXPECT_EQ(KmxAxesLibGetMsOffset(&out), 0);
    EXPECT_TRUE(same(out, ms));
    KmxAxesLibGetGsOffset(&out);
    EXPECT_TRUE(same(out, gs));
    EXPECT_TRUE(same(g_AxesLib.msOffset, ms));  // the exported record is the same state
}

struct MsValidityCase {
    const char *name;
    KmxAxesData offset;
    int8_t valid;
};

TEST(MsOffsetValidity, BoundsAreInclusive) {
    const MsValidityCase cases[] = {
        {"both bounds", {-16384, 16384, 0}, 1},
        {"z one above", {0, 0, 16385}, 0},
        {"x one below", {-16385, 0, 0}, 0},
        {"file marker", {INT32_MAX, INT32_MAX, INT32_MAX}, 0},
        {"most negative", {INT32_MIN, 0, 0}, 0},
    };
    for (const auto &c : cases) EXPECT_EQ(KmxAxesLibIsValidMsOffset(&c.offset), c.valid) << c.name;
    EXPECT_EQ(KmxAxesLibIsValidMsOffset(nullptr), 0);
}

TEST(RoughOffsetValidity, StepsUpTo31AreValid) {
    struct {
        uint8_t steps[3];
        int8_t valid;
    } const cases[] = {
        {{31, 0, 31}, 1}, {{32, 0, 0}, 0}, {{0, 0, 255}, 0}, {{0, 32, 0}, 0}, {{0, 0, 0}, 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(KmxAxesLibIsValidRoughOffset(c.steps), c.valid)
            << int(c.steps[0]) << "," << int(c.steps[1]) << "," << int(c.steps[2]);
    EXPECT_EQ(KmxAxesLibIsValidRoughOffset(nullptr), 0);
}

TEST(GravityOffset, IsTheDifferenceFromTheIdealRestingSample) {
    struct {
        KmxAxesData resting, offset;
    } const cases[] = {
        {{12, -7, -4100}, {12, -7, -4}},
        {{0, 0, -4096}, {0, 0, 0}},
        {{0, 0, INT32_MAX}, {0, 0, INT32_MIN + 4095}},  // wraps as 32-bit, no UB
    };
    for (const auto &c : cases) {
        KmxAxesData out{};
        EXPECT_EQ(KmxAxesGsCalibGetGsOffset(&c.resting, &out), 0);
        EXPECT_TRUE(same(out, c.offset)) << out.x << "," << out.y << "," << out.z;
    }
}

}  // namespace
