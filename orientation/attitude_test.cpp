#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

constexpr KmxAxesData kZero{0, 0, 0};
// Written whole, ms and norms included, when no attitude can be formed.
constexpr KmxAxesAttitude kDefault{{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 0, 0, 4096, {0, 0, 0}, {0, 0, 0}};

TEST(Attitude, RowsNormsCosineLimitingAndDegenerateInputs) {
    const struct {
        const char *name;
        KmxAxesData msOffset, gsOffset, ms, gs;
        int8_t result;
        KmxAxesAttitude want;
    } cases[] = {
        // clang-format off
        {"level, facing north", kZero, kZero, {0, 200, -300}, {0, 0, -4096}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 360, 4096, 3413, {0, 200, -300}, {0, 0, -4096}}},
        {"level, facing west", kZero, kZero, {200, 0, -300}, {0, 0, -4096}, 0,
         {{0, -4096, 0, 4096, 0, 0, 0, 0, 4096}, 360, 4096, 3413, {200, 0, -300}, {0, 0, -4096}}},
        {"level, facing south-east", kZero, kZero, {-100, -100, -300}, {0, 0, -4096}, 0,
         {{-2896, 2896, 0, -2896, -2896, 0, 0, 0, 4096}, 331, 4096, 3712, {-100, -100, -300}, {0, 0, -4096}}},
        {"upright, screen south: negative cosine", kZero, kZero, {0, 300, 200}, {0, -4096, 0}, 0,
         {{-4096, 0, 0, 0, 0, 4096, 0, 4096, 0}, 360, 4096, -3413, {0, 300, 200}, {0, -4096, 0}}},
        {"differences limited to 16384", kZero, kZero, {0, 20000, -30000}, {0, 0, -4096}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 23170, 4096, 2896, {0, 16384, -16384}, {0, 0, -4096}}},
        {"32-bit extremes limited without overflow", {0, INT32_MIN, INT32_MAX}, {0, 0, INT32_MAX},
         {0, INT32_MAX, INT32_MIN}, {0, 0, INT32_MIN}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 23170, 16384, 2896, {0, 16384, -16384}, {0, 0, -16384}}},
        {"field equals its offset", {7, -8, 9}, kZero, {7, -8, 9}, {0, 0, -4096}, 1, kDefault},
        {"zero gravity", kZero, {1, 2, 3}, {0, 200, -300}, {1, 2, 3}, 1, kDefault},
        {"field parallel to gravity", kZero, kZero, {0, 0, -4096}, {0, 0, -4096}, 1, kDefault},
        // clang-format on
    };
    for (const auto &c : cases) {
        KmxAxesLibSetMsOffset(&c.msOffset);
        KmxAxesLibSetGsOffset(&c.gsOffset);
        KmxAxesAttitude a;
        std::memset(&a, 0x5a, sizeof a);
        EXPECT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), c.result) << c.name;
        EXPECT_EQ(std::memcmp(&a, &c.want, sizeof a), 0)
            << c.name << ": " << testing::PrintToString(a.matrix) << " norms " << a.msNorm << "," << a.gsNorm << " cos "
            << a.msGsCos;
    }
    KmxAxesLibInit();
}

using kmxc_test::V3;

// A phone held in a random attitude in a field of dip 60 degrees: its samples (field of
// `field` counts, gravity of `gravity` counts, rounded) and, in exact arithmetic, the
// rows the attitude should hold (east, north, up in phone axes, Q12).
struct Pose {
    KmxAxesData ms, gs;
    V3 east, north, up;
};
Pose random_pose(std::mt19937 &rng, double field, double gravity) {
    using namespace kmxc_test;
    // The phone's axes in world (east, north, up) coordinates: a random orthonormal frame.
    const V3 px = random_direction(rng), py = unit(cross(random_direction(rng), px)), pz = cross(px, py);
    const double dip = 60 / kDeg;
    const V3 m{0, field * std::cos(dip), -field * std::sin(dip)}, g{0, 0, -gravity};
    auto in_phone = [&](V3 w) { return V3{dot(px, w), dot(py, w), dot(pz, w)}; };
    return {rounded(in_phone(m)), rounded(in_phone(g)), 4096 * in_phone({1, 0, 0}), 4096 * in_phone({0, 1, 0}),
            4096 * in_phone({0, 0, 1})};
}

// Arbitrary attitudes against the rows of the exact rotation, the samples' size from
// 600 to 5000 counts. The tolerance is the fixed point's: the norms truncate by under a
// count, so a unit vector may be long by 1/|v| (4096/|v| units), which the east's own
// normalisation doubles (the field is 30 degrees off gravity, sin = 1/2), plus a few
// 1/4096 truncations in the unit vectors and the cross products.
TEST(Attitude, ArbitraryAttitudesGiveTheRotationsRowsWithinTheFixedPointsResolution) {
    KmxAxesLibInit();
    std::mt19937 rng(2024);
    for (int i = 0; i < 2000; ++i) {
        const double field = i % 2 ? 600 : 5000, gravity = i % 3 ? 1024 : 4096;
        const double slack = 4096 * (1 / field + 1 / gravity);
        const Pose p = random_pose(rng, field, gravity);
        KmxAxesAttitude a;
        ASSERT_EQ(KmxAxesLibGetAttitude(&p.ms, &p.gs, &a), 0) << i;
        const V3 rows[3] = {p.east, p.north, p.up};
        for (int r = 0; r < 3; ++r) {
            const double want[3] = {rows[r].x, rows[r].y, rows[r].z};
            for (int k = 0; k < 3; ++k)
                ASSERT_NEAR(a.matrix[3 * r + k], want[k], 2 * slack + 4)
                    << "pose " << i << " row " << r << " column " << k;
        }
        EXPECT_NEAR(a.msGsCos, 4096 * std::sin(60 / kmxc_test::kDeg), slack + 3) << "pose " << i;
    }
}

// Truncation toward zero treats a value and its negative alike, so turning the phone by
// 180 degrees about its screen normal (x, y negated in both samples) negates the x and y
// of every row exactly and keeps z; a division that rounded down would break this by a
// unit somewhere.
TEST(Attitude, HalfTurnAboutTheScreenNormalNegatesXAndYExactly) {
    KmxAxesLibInit();
    std::mt19937 rng(7);
    for (int i = 0; i < 2000; ++i) {
        const Pose p = random_pose(rng, i % 2 ? 700 : 3000, 4096);
        const KmxAxesData ms2{-p.ms.x, -p.ms.y, p.ms.z}, gs2{-p.gs.x, -p.gs.y, p.gs.z};
        KmxAxesAttitude a, b;
        ASSERT_EQ(KmxAxesLibGetAttitude(&p.ms, &p.gs, &a), 0);
        ASSERT_EQ(KmxAxesLibGetAttitude(&ms2, &gs2, &b), 0);
        for (int r = 0; r < 3; ++r) {
            ASSERT_EQ(b.matrix[3 * r], -a.matrix[3 * r]) << "pose " << i << " row " << r;
            ASSERT_EQ(b.matrix[3 * r + 1], -a.matrix[3 * r + 1]) << "pose " << i << " row " << r;
            ASSERT_EQ(b.matrix[3 * r + 2], a.matrix[3 * r + 2]) << "pose " << i << " row " << r;
        }
        ASSERT_EQ(b.msGsCos, a.msGsCos) << "pose " << i;
    }
}

// Truncated norms make unit vectors long (tiny samples: |(0, 1, -1)| counts as 1), so
// the dot product can pass 4096 (here 6144); the cosine stops at +-4096.
TEST(Attitude, CosineStopsAtOne) {
    KmxAxesLibInit();
    const struct {
        KmxAxesData ms, gs;
        int16_t cosine;
    } cases[] = {
        {{0, 1, -1}, {0, 1, -2}, 4096},
        {{0, -1, 1}, {0, 1, -2}, -4096},
    };
    for (const auto &c : cases) {
        KmxAxesAttitude a;
        ASSERT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), 0);
        EXPECT_EQ(a.msGsCos, c.cosine);
    }
}

TEST(IntSqrt, IsTheLargestRootNotAboveTheArgument) {
    // The ends of the domain, an exact square, then random arguments.
    const uint32_t fixed[] = {0, 3, 16777216, 46340u * 46340, 46341u * 46341 - 1};
    std::mt19937 rng(12);
    std::uniform_int_distribution<uint32_t> any(0, 46341u * 46341 - 1);
    for (int i = 0; i < 20005; ++i) {
        const uint64_t s = i < 5 ? fixed[i] : any(rng), r = KmxAxesLibIntSqrt(static_cast<uint32_t>(s));
        ASSERT_LE(r * r, s) << s << " gave " << r;
        ASSERT_GT((r + 1) * (r + 1), s) << s << " gave " << r;
    }
}

}  // namespace
