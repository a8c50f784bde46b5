// Integer angles against double precision: every centidegree of the sine, arctangents
// over the whole 64-bit range, angles between vectors and steps about a normal from
// random geometry, each within the header's stated bound.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "service/kit_angle.h"

namespace {

using namespace kmxc_kit;

constexpr double kPi = 3.14159265358979323846;
double cdeg_of(double rad) { return rad * 18000.0 / kPi; }
// Difference of two angles in centidegrees, folded into -18000..18000.
double angle_diff(double a, double b) {
    double d = std::fmod(a - b, 36000.0);
    if (d > 18000) d -= 36000;
    if (d < -18000) d += 36000;
    return d;
}

TEST(KitAngle, SineAndCosineOfEveryCentidegreeWithinOneQ14Unit) {
    for (int32_t c = -2 * kCdegPerTurn; c <= 2 * kCdegPerTurn; ++c) {
        const double rad = c * kPi / 18000.0;
        ASSERT_LE(std::fabs(sin_q14(c) - 16384.0 * std::sin(rad)), 1.0) << c;
        ASSERT_LE(std::fabs(cos_q14(c) - 16384.0 * std::cos(rad)), 1.0) << c;
    }
}

// Magnitudes from 1 to 2^62 on both axes and every octant; the worst error is the
// stated bound.
TEST(KitAngle, Atan2WithinItsBoundOverEveryMagnitudeAndOctant) {
    std::mt19937_64 rng(7);
    double worst = 0;
    for (int i = 0; i < 200000; ++i) {
        const int by = static_cast<int>(rng() % 63), bx = static_cast<int>(rng() % 63);
        int64_t y = static_cast<int64_t>(rng() >> (64 - by)), x = static_cast<int64_t>(rng() >> (64 - bx));
        if (rng() & 1) y = -y;
        if (rng() & 1) x = -x;
        if (x == 0 && y == 0) continue;
        const double want = cdeg_of(std::atan2(static_cast<double>(y), static_cast<double>(x)));
        const int32_t got = atan2_cdeg(y, x);
        ASSERT_GE(got, -18000);
        ASSERT_LE(got, 18000);
        worst = std::max(worst, std::fabs(angle_diff(got, want)));
    }
    EXPECT_LE(worst, kAtan2MaxErrorCdeg);
    std::printf("atan2_cdeg: largest error %.3f centidegrees\n", worst);
    const struct {
        int64_t y, x;
        int32_t cdeg;
    } axes[] = {{0, 0, 0},
                {0, 5, 0},
                {5, 0, 9000},
                {0, -5, 18000},
                {-5, 0, -9000},
                {7, 7, 4500},
                {-7, -7, -13500},
                {INT64_MAX, INT64_MAX, 4500},
                {-1, -INT64_MAX, -18000}};
    for (const auto &a : axes) EXPECT_EQ(atan2_cdeg(a.y, a.x), a.cdeg) << a.y << ", " << a.x;
}

TEST(KitAngle, AnglesBetweenVectorsAndStepsAboutANormalWithinTheirBound) {
    std::mt19937_64 rng(11);
    std::uniform_int_distribution<int32_t> big(-kAngleInputLimit, kAngleInputLimit), field(-32767, 32767);
    double worst_between = 0, worst_step = 0;
    for (int i = 0; i < 100000; ++i) {
        const int32_t limit = i % 2 ? kAngleInputLimit : 300;  // large inputs and fields of Earth size
        std::uniform_int_distribution<int32_t> comp(-limit, limit);
        const Vec3 a{comp(rng), comp(rng), comp(rng)}, b{comp(rng), comp(rng), comp(rng)};
        const double ad[3] = {double(a.x), double(a.y), double(a.z)}, bd[3] = {double(b.x), double(b.y), double(b.z)};
        const double cx = ad[1] * bd[2] - ad[2] * bd[1], cy = ad[2] * bd[0] - ad[0] * bd[2],
                     cz = ad[0] * bd[1] - ad[1] * bd[0];
        const double dt = ad[0] * bd[0] + ad[1] * bd[1] + ad[2] * bd[2];
        worst_between = std::max(worst_between,
                                 std::fabs(angle_between_cdeg(a, b) - cdeg_of(std::atan2(std::hypot(cx, cy, cz), dt))));

        // A random unit normal (Q14) and two field vectors about a centre.
        const double th = std::acos(2.0 * (rng() % 100001) / 100000.0 - 1), ph = (rng() % 36000) * kPi / 18000.0;
        const Vec3 n{static_cast<int32_t>(std::lround(16384 * std::sin(th) * std::cos(ph))),
                     static_cast<int32_t>(std::lround(16384 * std::sin(th) * std::sin(ph))),
                     static_cast<int32_t>(std::lround(16384 * std::cos(th)))};
        const Vec3 p{field(rng), field(rng), field(rng)}, q{field(rng), field(rng), field(rng)};
        const double nd[3] = {double(n.x), double(n.y), double(n.z)};
        const double pd[3] = {double(p.x), double(p.y), double(p.z)}, qd[3] = {double(q.x), double(q.y), double(q.z)};
        const double nn = std::sqrt(nd[0] * nd[0] + nd[1] * nd[1] + nd[2] * nd[2]);
        const double pn = (pd[0] * nd[0] + pd[1] * nd[1] + pd[2] * nd[2]) / nn,
                     qn = (qd[0] * nd[0] + qd[1] * nd[1] + qd[2] * nd[2]) / nn;
        const double sine = (nd[0] * (pd[1] * qd[2] - pd[2] * qd[1]) + nd[1] * (pd[2] * qd[0] - pd[0] * qd[2]) +
                             nd[2] * (pd[0] * qd[1] - pd[1] * qd[0])) /
                            nn;
        const double cosine = pd[0] * qd[0] + pd[1] * qd[1] + pd[2] * qd[2] - pn * qn;
        worst_step =
            std::max(worst_step, std::fabs(angle_diff(angle_step_cdeg(n, p, q), cdeg_of(std::atan2(sine, cosine)))));
    }
    EXPECT_LE(worst_between, kAngleMaxErrorCdeg);
    EXPECT_LE(worst_step, kAngleMaxErrorCdeg);
    std::printf("largest errors: angle_between_cdeg %.3f, angle_step_cdeg %.3f centidegrees\n", worst_between,
                worst_step);
    EXPECT_EQ(angle_between_cdeg(Vec3{0, 0, 0}, Vec3{1, 2, 3}), 0);
    EXPECT_EQ(angle_between_cdeg(Vec3{3, -4, 5}, Vec3{-6, 8, -10}), 18000);
}

// The step is right-handed about the normal, and the steps of a field turned once
// about gravity (tilted, off the centre's plane) add up to one turn.
TEST(KitAngle, StepsAreRightHandedAndSumToOneTurnAroundTheCircle) {
    const Vec3 z{0, 0, 16384};
    EXPECT_EQ(angle_step_cdeg(z, Vec3{100, 0, 0}, Vec3{0, 100, 0}), 9000);
    EXPECT_EQ(angle_step_cdeg(z, Vec3{0, 100, 0}, Vec3{100, 0, 0}), -9000);
    EXPECT_EQ(angle_step_cdeg(z, Vec3{0, 0, 100}, Vec3{100, 0, 0}), 0) << "along the normal: no angle";
    const double tilt = 0.3;  // the axis, tilted from z about x
    const Vec3 n{0, static_cast<int32_t>(std::lround(-16384 * std::sin(tilt))),
                 static_cast<int32_t>(std::lround(16384 * std::cos(tilt)))};
    int64_t total = 0;
    Vec3 prev{};
    for (int k = 0; k <= 37; ++k) {
        const double a = 2 * kPi * k / 37;
        // Radius 60 in the plane, 80 along the axis.
        const double e1[3] = {1, 0, 0}, e2[3] = {0, std::cos(tilt), std::sin(tilt)},
                     ax[3] = {0, -std::sin(tilt), std::cos(tilt)};
        double v[3];
        for (int i = 0; i < 3; ++i) v[i] = 60 * std::cos(a) * e1[i] + 60 * std::sin(a) * e2[i] + 80 * ax[i];
        const Vec3 cur{static_cast<int32_t>(std::lround(v[0])), static_cast<int32_t>(std::lround(v[1])),
                       static_cast<int32_t>(std::lround(v[2]))};
        if (k > 0) total += angle_step_cdeg(n, prev, cur);
        prev = cur;
    }
    EXPECT_NEAR(total, 36000, 37 * kAngleMaxErrorCdeg + 40) << "rounded samples move the steps a little";
}

}  // namespace
