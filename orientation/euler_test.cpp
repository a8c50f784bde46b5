#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

using namespace kmxc_test;

TEST(RotationMatrixAndEuler, KnownAttitudes) {
    const struct {
        const char *name;
        double gravity[3], field[3], matrix[9];
        double angles[3];  // azimuth (a fresh filter passes it through), pitch, roll
    } cases[] = {
        // clang-format off
        {"level, facing north", {0, 0, -9.80665}, {0, 20, -30}, {1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 0, 0}},
        {"nose up 36.87: pitch truncated, not rounded", {0, -3, -4}, {0, 20, -30}, {1, 0, 0, 0, 0.8, -0.6, 0, 0.6, 0.8}, {0, -36, 0}},
        {"facing down, folded pitch", {0, -3, 4}, {0, 20, 30}, {-1, 0, 0, 0, 0.8, 0.6, 0, 0.6, -0.8}, {180, -143, 0}},
        {"rolled 36.87", {3, 0, -4}, {0, 20, -30},
         {0.5946353169977331, 0.6689647316224496, 0.4459764877482998,
          -0.5351717852979598, 0.7432941462471664, -0.4013788389734698, -0.6, 0, 0.8}, {41, 0, 36}},
        {"level, facing north-east", {0, 0, -9.80665}, {-20, 20, -30},
         {M_SQRT1_2, M_SQRT1_2, 0, -M_SQRT1_2, M_SQRT1_2, 0, 0, 0, 1}, {45, 0, 0}},
        // clang-format on
    };
    for (const auto &c : cases) {
        double m[9], angles[3];
        ASSERT_EQ(KmxAxesLibGetRotationMatrix(c.gravity, c.field, m), 0) << c.name;
        for (int i = 0; i < 9; ++i) EXPECT_NEAR(m[i], c.matrix[i], 1e-12) << c.name << " R" << i;
        for (int i = 0; i < 3; ++i)  // up is the negated gravity direction, zeros included
            EXPECT_NE(std::signbit(m[6 + i]), std::signbit(c.gravity[i])) << c.name << " R" << 6 + i;
        KmxAxesLibAzimuthFilterInit();
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0) << c.name;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(angles[i], c.angles[i]) << c.name << " angle " << i;
    }
    // A holding filter replaces the azimuth: ten headings of 0 hold it at 3.
    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    double angles[3];
    KmxAxesLibAzimuthFilterInit();
    for (int i = 0; i < 10; ++i) KmxAxesLibGetAzimuthFiltered(0.0, &angles[0]);
    ASSERT_EQ(KmxAxesLibGetEuler(identity, angles), 0);
    EXPECT_EQ(angles[0], 3);
}

TEST(RotationMatrixAndEuler, RefuseNullAndDegenerateInputsWithoutWriting) {
    const double zero[3] = {0, 0, 0}, down[3] = {0, 0, -2}, up_field[3] = {0, 0, 7}, field[3] = {0, 20, -30};
    const struct {
        const char *name;
        const double *gravity, *field;
        bool matrix;
    } cases[] = {{"field parallel to gravity", down, up_field, true},
                 {"zero gravity", zero, field, true},
                 {"zero field", down, zero, true},
                 {"null gravity", nullptr, field, true},
                 {"null field", down, nullptr, true},
                 {"null matrix", down, field, false}};
    for (const auto &c : cases) {
        double m[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
        EXPECT_EQ(KmxAxesLibGetRotationMatrix(c.gravity, c.field, c.matrix ? m : nullptr), -1) << c.name;
        EXPECT_TRUE(std::all_of(m, m + 9, [](double v) { return v == 7; })) << c.name;
    }
    double angles[3] = {7, 7, 7};
    EXPECT_EQ(KmxAxesLibGetEuler(nullptr, angles), -1);
    EXPECT_EQ(KmxAxesLibGetEuler(down, nullptr), -1);
    EXPECT_EQ(angles[0], 7);
}

// Unit gravity and field in device axes for a device with the given azimuth (north
// toward east), elevations of its x and y axes, screen up or down, and a field
// dipping below north by dip. North is S * T(azimuth) applied to the device's y
// axis, T a turn about z, S the shortest rotation carrying z onto up; with S = I,
// north = (-sin az, cos az, 0), so the device's y axis heads at az.
struct Directions {
    V3 gravity, field;
};

Directions make_attitude(double azimuth, double x_elevation, double y_elevation, bool face_up, double dip) {
    const double sx = std::sin(x_elevation / kDeg), sy = std::sin(y_elevation / kDeg);
    const V3 up{sx, sy, (face_up ? 1.0 : -1.0) * std::sqrt(1 - sx * sx - sy * sy)};
    const double s = std::sqrt(up.x * up.x + up.y * up.y), a = azimuth / kDeg;
    const V3 k = s > 0 ? (1.0 / s) * cross(V3{0, 0, 1}, up) : V3{1, 0, 0}, v{-std::sin(a), std::cos(a), 0};
    const V3 north = up.z * v + s * cross(k, v) + ((1 - up.z) * dot(k, v)) * k;
    return {-1.0 * up, std::cos(dip / kDeg) * north - std::sin(dip / kDeg) * up};
}

// Measured over about 3300 attitudes: R * R^T within 4.5e-16 of the identity;
// every angle is the truncation of the constructed one (pitch is minus the y
// axis' elevation, folded beyond +-90 when facing down; roll is minus the x
// axis' elevation).
TEST(EulerProperty, RecoversRandomAttitudes) {
    std::mt19937 rng(77);
    std::uniform_real_distribution<double> azimuth(0, 360), elevation(-75, 75), dip(20, 70), scale(0.2, 60);
    std::bernoulli_distribution face_up(0.5);
    double worst_orthonormal = 0;
    int checked = 0;
    for (int n = 0; n < 5000; ++n) {
        const double az = azimuth(rng), ex = elevation(rng), ey = elevation(rng);
        const bool up_face = face_up(rng);
        const double sx = std::sin(ex / kDeg), sy = std::sin(ey / kDeg);
        if (sx * sx + sy * sy > 0.97) continue;  // near the poles
        const Directions w = make_attitude(az, ex, ey, up_face, dip(rng));
        const V3 g = scale(rng) * w.gravity, f = scale(rng) * w.field;
        const double gravity[3] = {g.x, g.y, g.z}, field[3] = {f.x, f.y, f.z};
        double m[9], angles[3];
        ASSERT_EQ(KmxAxesLibGetRotationMatrix(gravity, field, m), 0);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                const double d_rc = m[3 * r] * m[3 * c] + m[3 * r + 1] * m[3 * c + 1] + m[3 * r + 2] * m[3 * c + 2];
                worst_orthonormal = std::max(worst_orthonormal, std::fabs(d_rc - (r == c)));
            }
        KmxAxesLibAzimuthFilterInit();  // a fresh filter passes the azimuth through
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0);
        const double want[3] = {az, up_face ? -ey : (ey >= 0 ? ey - 180 : ey + 180), -ex};
        if (std::any_of(want, want + 3, [](double v) { return std::fabs(v - std::round(v)) < 1e-6; })) continue;
        for (int i = 0; i < 3; ++i) {  // truncated toward zero, keeping the sign of a zero result
            EXPECT_EQ(angles[i], std::trunc(want[i])) << i << ": " << angles[i] << " for " << want[i];
            EXPECT_EQ(std::signbit(angles[i]), std::signbit(want[i])) << i << ": " << angles[i] << " for " << want[i];
        }
        ++checked;
    }
    std::printf("worst orthonormality error %.3g, %d attitudes\n", worst_orthonormal, checked);
    EXPECT_GT(checked, 3000);
    EXPECT_LT(worst_orthonormal, 1e-12);
}

// Near level (tilt up to 5 degrees), the same integer samples through both paths.
// Measured: the integer heading and the double-path azimuth never differ by more
// than one whole degree (both truncate nearly the same angle).
TEST(PathConsistency, IntegerHeadingAgreesWithDoubleAzimuthNearLevel) {
    KmxAxesLibInit();
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> azimuth(0, 360), tilt(-5, 5), dip(20, 70), counts(100, 400);
    int worst = 0;
    for (int n = 0; n < 3000; ++n) {
        const double az = azimuth(rng), x_tilt = tilt(rng), y_tilt = tilt(rng);
        const Directions w = make_attitude(az, x_tilt, y_tilt, true, dip(rng));
        const KmxAxesData gs = rounded(4096.0 * w.gravity), ms = rounded(counts(rng) * w.field);
        KmxAxesAttitude a{};
        uint16_t heading = 999;
        ASSERT_EQ(KmxAxesLibGetAttitude(&ms, &gs, &a), 0);
        ASSERT_EQ(KmxAxesLibCalcDirectionWOF(&a, &heading, 3000), 0);
        double gravity[3], field[3], m[9], angles[3];
        ASSERT_EQ(KmxAxesLibGetGravityEarth(&gs, gravity), 0);
        ASSERT_EQ(KmxAxesLibGetMagneticT(&ms, field), 0);
        ASSERT_EQ(KmxAxesLibGetRotationMatrix(gravity, field, m), 0);
        KmxAxesLibAzimuthFilterInit();
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0);
        const int diff = int(std::lround(std::fabs(angle_difference(heading, angles[0]))));
        worst = std::max(worst, diff);
        EXPECT_LE(diff, 1) << heading << " vs " << angles[0];
    }
    std::printf("worst integer/double heading difference %d degree(s)\n", worst);
}

}  // namespace
