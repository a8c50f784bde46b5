// Integer angles against double precision: every centidegree of the sine, arctangents
// over the whole 64-bit range, angles between vectors and steps about a normal from
// random geometry, each within the header's stated bound.
#include <gtest/gtest.h>

#include <Eigen/Dense>
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
        const int by = 1 + static_cast<int>(rng() % 62), bx = 1 + static_cast<int>(rng() % 62);
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
    constexpr int64_t kMax = INT64_MAX;
    const struct {
        int64_t y, x;
        int32_t cdeg;
    } axes[] = {{0, 0, 0},    {0, 5, 0},        {5, 0, 9000},       {0, -5, 18000},     {-5, 0, -9000},
                {7, 7, 4500}, {-7, -7, -13500}, {kMax, kMax, 4500}, {-1, -kMax, -18000}};
    for (const auto &a : axes) EXPECT_EQ(atan2_cdeg(a.y, a.x), a.cdeg) << a.y << ", " << a.x;
}

// Random vectors (components up to the input limit, and of Earth-field size) and random
// Q14 normals: both functions within their bound of the double formulas, the step
// right-handed about the normal.
TEST(KitAngle, AnglesBetweenVectorsAndStepsAboutANormalWithinTheirBound) {
    std::mt19937_64 rng(11);
    std::uniform_int_distribution<int32_t> field(-32767, 32767);
    const auto vec = [](const Vec3 &v) { return Eigen::Vector3d(v.x, v.y, v.z); };
    double worst_between = 0, worst_step = 0;
    for (int i = 0; i < 100000; ++i) {
        std::uniform_int_distribution<int32_t> comp(-(i % 2 ? kAngleInputLimit : 300), i % 2 ? kAngleInputLimit : 300);
        const Vec3 a{comp(rng), comp(rng), comp(rng)}, b{comp(rng), comp(rng), comp(rng)};
        const double between = cdeg_of(std::atan2(vec(a).cross(vec(b)).norm(), vec(a).dot(vec(b))));
        worst_between = std::max(worst_between, std::fabs(angle_between_cdeg(a, b) - between));
        const Eigen::Vector3d nd = Eigen::Vector3d::Random().normalized() * 16384;
        const Vec3 n{static_cast<int32_t>(std::lround(nd.x())), static_cast<int32_t>(std::lround(nd.y())),
                     static_cast<int32_t>(std::lround(nd.z()))};
        const Vec3 p{field(rng), field(rng), field(rng)}, q{field(rng), field(rng), field(rng)};
        const Eigen::Vector3d u = vec(n).normalized(), pp = vec(p) - vec(p).dot(u) * u, qp = vec(q) - vec(q).dot(u) * u;
        const double step = cdeg_of(std::atan2(u.dot(pp.cross(qp)), pp.dot(qp)));
        worst_step = std::max(worst_step, std::fabs(angle_diff(angle_step_cdeg(n, p, q), step)));
    }
    EXPECT_LE(worst_between, kAngleMaxErrorCdeg);
    EXPECT_LE(worst_step, kAngleMaxErrorCdeg);
    const Vec3 z{0, 0, 16384};
    EXPECT_EQ(angle_step_cdeg(z, Vec3{100, 0, 0}, Vec3{0, 100, 0}), 9000) << "counter-clockwise seen from the tip";
    EXPECT_EQ(angle_step_cdeg(z, Vec3{0, 100, 0}, Vec3{100, 0, 0}), -9000);
    EXPECT_EQ(angle_step_cdeg(z, Vec3{0, 0, 100}, Vec3{100, 0, 0}), 0) << "along the normal: no angle";
    EXPECT_EQ(angle_between_cdeg(Vec3{0, 0, 0}, Vec3{1, 2, 3}), 0);
    EXPECT_EQ(angle_between_cdeg(Vec3{3, -4, 5}, Vec3{-6, 8, -10}), 18000);
}

}  // namespace
