#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

struct AttitudeTest : ::testing::Test {
    void SetUp() override {
        KmxAxesLibSetMsOffset(&KmxAxesData_Constructor);
        KmxAxesLibSetGsOffset(&KmxAxesData_Constructor);
    }
};

struct AttitudeCase {
    const char *name;
    KmxAxesData ms, gs;
    int16_t matrix[9];
    uint16_t msNorm, gsNorm;
    int16_t msGsCos;
};

TEST_F(AttitudeTest, RowsNormsAndCosineOfKnownAttitudes) {
    const AttitudeCase cases[] = {
        {"level, facing north", {0, 200, -300}, {0, 0, -4096},
         {4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 360, 4096, 3413},
        {"level, facing west", {200, 0, -300}, {0, 0, -4096},
         {0, -4096, 0, 4096, 0, 0, 0, 0, 4096}, 360, 4096, 3413},
        {"level, facing south-east", {-100, -100, -300}, {0, 0, -4096},
         {-2896, 2896, 0, -2896, -2896, 0, 0, 0, 4096}, 331, 4096, 3712},
        {"standing upright, screen south", {0, 300, 200}, {0, -4096, 0},
         {-4096, 0, 0, 0, 0, 4096, 0, 4096, 0}, 360, 4096, -3413},
    };
    for (const auto &c : cases) {
        KmxAxesAttitude a{};
        EXPECT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), 0) << c.name;
        for (int i = 0; i < 9; ++i) EXPECT_EQ(a.matrix[i], c.matrix[i]) << c.name << " entry " << i;
        EXPECT_EQ(a.msNorm, c.msNorm) << c.name;
        EXPECT_EQ(a.gsNorm, c.gsNorm) << c.name;
        EXPECT_EQ(a.msGsCos, c.msGsCos) << c.name;
        EXPECT_EQ(a.ms.y, c.ms.y) << c.name;
        EXPECT_EQ(a.gs.z, c.gs.z) << c.name;
    }
}

TEST_F(AttitudeTest, DegenerateGeometryYieldsTheWholeDefaultRecord) {
    const KmxAxesData offset{7, -8, 9};
    KmxAxesLibSetMsOffset(&offset);
    struct {
        const char *name;
        KmxAxesData ms, gs;
    } const cases[] = {
        {"field equals its offset", {7, -8, 9}, {0, 0, -4096}},
        {"gravity zero", {0, 200, -300}, {0, 0, 0}},
        {"field parallel to gravity", {7, -8, 9 - 4096}, {0, 0, -4096}},
    };
    for (const auto &c : cases) {
        KmxAxesAttitude a;
        std::memset(&a, 0x5a, sizeof a);
        EXPECT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), 1) << c.name;
        EXPECT_EQ(std::memcmp(&a, &KmxAxesLibDefaultAttitude, sizeof a), 0) << c.name;
    }
    EXPECT_EQ(KmxAxesLibDefaultAttitude.matrix[8], 4096);
    EXPECT_EQ(KmxAxesLibDefaultAttitude.msGsCos, 4096);
}

TEST_F(AttitudeTest, DifferencesAreLimitedBeforeTheLengths) {
    struct {
        const char *name;
        KmxAxesData ms, msOffset, gs;
        KmxAxesData limitedMs;
        uint16_t msNorm;
    } const cases[] = {
        {"20000 on x", {20000, 0, 0}, {0, 0, 0}, {0, 0, -4096}, {16384, 0, 0}, 16384},
        {"-20000 on all", {-20000, -20000, -20000}, {0, 0, 0}, {0, 0, -4096},
         {-16384, -16384, -16384}, 28377},
        {"32-bit extremes", {INT32_MAX, INT32_MIN, 5}, {INT32_MIN, INT32_MAX, 0}, {0, 0, -4096},
         {16384, -16384, 5}, 23170},
    };
    for (const auto &c : cases) {
        KmxAxesLibSetMsOffset(&c.msOffset);
        KmxAxesAttitude a{};
        EXPECT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), 0) << c.name;
        EXPECT_EQ(a.ms.x, c.limitedMs.x) << c.name;
        EXPECT_EQ(a.ms.y, c.limitedMs.y) << c.name;
        EXPECT_EQ(a.ms.z, c.limitedMs.z) << c.name;
        EXPECT_EQ(a.msNorm, c.msNorm) << c.name;
    }
    // Gravity is limited the same way, with its own offset.
    const KmxAxesData gs_offset{0, 0, INT32_MAX}, ms{0, 200, -300}, gs{0, 0, INT32_MIN};
    KmxAxesLibSetMsOffset(&KmxAxesData_Constructor);
    KmxAxesLibSetGsOffset(&gs_offset);
    KmxAxesAttitude a{};
    EXPECT_EQ(KmxAxesLibGetAttitude(&ms, &gs, &a), 0);
    EXPECT_EQ(a.gs.z, -16384);
    EXPECT_EQ(a.gsNorm, 16384);
}

TEST(IntSqrt, IsTheLargestRootNotAboveTheArgument) {
    struct {
        uint32_t s, root;
    } const cases[] = {{0, 0}, {3, 1}, {4, 2}, {16777216, 4096}, {3u * 16384 * 16384, 28377},
                       {46340u * 46340 - 1, 46339}, {46340u * 46340, 46340}, {46341u * 46341 - 1, 46340}};
    for (const auto &c : cases) EXPECT_EQ(KmxAxesLibIntSqrt(c.s), c.root) << c.s;
    std::mt19937 rng(12);
    std::uniform_int_distribution<uint32_t> any(0, 46341u * 46341 - 1);
    for (int i = 0; i < 20000; ++i) {
        const uint64_t s = any(rng), r = KmxAxesLibIntSqrt(static_cast<uint32_t>(s));
        ASSERT_TRUE(r * r <= s && (r + 1) * (r + 1) > s) << s;
    }
}

}  // namespace
