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

// Rows are checked against the exact rotation by the property below; these pin the
// norms, the limiting and the cosine's clamp, and the default record.
TEST(Attitude, NormsLimitingCosineClampAndDegenerateInputs) {
    const struct {
        const char *name;
        KmxAxesData msOffset, gsOffset, ms, gs;
        int8_t result;
        KmxAxesAttitude want;
    } cases[] = {
        // clang-format off
        {"32-bit extremes limited to 16384 without overflow", {0, INT32_MIN, INT32_MAX}, {0, 0, INT32_MAX},
         {0, INT32_MAX, INT32_MIN}, {0, 0, INT32_MIN}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 23170, 16384, 2896, {0, 16384, -16384}, {0, 0, -16384}}},
        // Truncated norms make unit vectors long (|(0, 1, -1)| counts as 1), so the dot
        // product reaches +-6144; the cosine stops at +-4096.
        {"tiny samples: cosine stops at 4096", kZero, kZero, {0, 1, -1}, {0, 1, -2}, 0,
         {{4096, 0, 0, 0, 4096, 2048, 0, -2048, 4096}, 1, 2, 4096, {0, 1, -1}, {0, 1, -2}}},
        {"tiny samples: cosine stops at -4096", kZero, kZero, {0, -1, 1}, {0, 1, -2}, 0,
         {{-4096, 0, 0, 0, -4096, -2048, 0, -2048, 4096}, 1, 2, -4096, {0, -1, 1}, {0, 1, -2}}},
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

// Random poses against the exact rotation, the samples' size from 600 to 5000 counts.
// The rows' tolerance is the fixed point's: the norms truncate by under a count, so a
// unit vector may be long by 1/|v| (4096/|v| units), which the east's own normalisation
// doubles (the field is 30 degrees off gravity, sin = 1/2), plus a few 1/4096
// truncations in the unit vectors and the cross products.
//
// Truncation toward zero treats a value and its negative alike, so the same pose turned
// by 180 degrees about the screen normal (x, y negated in both samples) must negate the
// x and y of every row exactly and keep z; a division that rounded down would break this
// by a unit somewhere, well inside the tolerance above.
//
// The heading is that of the y axis, or of -z (+z when y points down) once the up row's
// y entry passes the threshold. Measured: exact - integer heading lies in [-0.255,
// 1.134] degrees (the heading truncates, so the ideal range is [0, 1); the rest is the
// table arctangent, the Q12 truncations and the samples' rounding).
TEST(AttitudeProperty, RandomPosesGiveTheRotationsRowsAndHeading) {
    using kmxc_test::kDeg;
    KmxAxesLibInit();
    std::mt19937 rng(2024);
    int headings = 0;
    for (int i = 0; i < 20000; ++i) {
        const double field = i % 2 ? 600 : 5000, gravity = i % 3 ? 1024 : 4096;
        const double slack = 4096 * (1 / field + 1 / gravity);
        const Pose p = random_pose(rng, field, gravity);
        const KmxAxesData ms2{-p.ms.x, -p.ms.y, p.ms.z}, gs2{-p.gs.x, -p.gs.y, p.gs.z};
        KmxAxesAttitude a, b;
        ASSERT_EQ(KmxAxesLibGetAttitude(&p.ms, &p.gs, &a), 0) << i;
        ASSERT_EQ(KmxAxesLibGetAttitude(&ms2, &gs2, &b), 0) << i;
        const V3 rows[3] = {p.east, p.north, p.up};
        for (int r = 0; r < 3; ++r) {
            const double want[3] = {rows[r].x, rows[r].y, rows[r].z};
            for (int k = 0; k < 3; ++k) {
                const int16_t v = a.matrix[3 * r + k];
                ASSERT_NEAR(v, want[k], 2 * slack + 4) << "pose " << i << " row " << r << " column " << k;
                ASSERT_EQ(b.matrix[3 * r + k], k < 2 ? -v : v) << "pose " << i << " row " << r << " column " << k;
            }
        }
        EXPECT_NEAR(a.msGsCos, 4096 * std::sin(60 / kDeg), slack + 3) << "pose " << i;

        if (std::fabs(std::fabs(p.up.y) - 3000) < 40) continue;  // branch choice ambiguous
        const double z = p.up.y >= 0 ? -1 : 1;
        const double exact = std::fabs(p.up.y) <= 3000 ? std::atan2(p.east.y, p.north.y) * kDeg
                                                       : std::atan2(z * p.east.z, z * p.north.z) * kDeg;
        uint16_t heading = 999;
        ASSERT_EQ(KmxAxesLibCalcDirectionWOF(&a, &heading, 3000), 0) << "pose " << i;
        ASSERT_LT(heading, 360) << "pose " << i;
        const double err = kmxc_test::angle_difference(exact, heading);
        ASSERT_GT(err, -0.3) << "pose " << i << ": exact " << exact << ", heading " << heading;
        ASSERT_LT(err, 1.15) << "pose " << i << ": exact " << exact << ", heading " << heading;
        ++headings;
    }
    EXPECT_GT(headings, 19000);
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
