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

// Level, facing north: the identity with up's zero components negated (-0.0), and all
// angles 0 (angles in general are the property's below). Each call advances the azimuth
// filter, which holds the azimuth at its smoothed 3 from the fifth heading of 0 on (the
// filter's own steps are its test's).
TEST(RotationMatrixAndEuler, LevelAttitudeAndAHoldingFilter) {
    const double gravity[3] = {0, 0, -9.80665}, field[3] = {0, 20, -30};
    double m[9], angles[3];
    ASSERT_EQ(KmxAxesLibGetRotationMatrix(gravity, field, m), 0);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(m[i], i % 4 == 0 ? 1 : 0) << "R" << i;
    EXPECT_TRUE(std::signbit(m[6]));
    EXPECT_TRUE(std::signbit(m[7]));
    KmxAxesLibAzimuthFilterInit();
    for (int step = 0; step < 5; ++step) {
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0);
        EXPECT_EQ((std::vector<double>(angles, angles + 3)), (std::vector<double>{step < 4 ? 0.0 : 3, 0, 0})) << step;
    }
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
        auto row = [&m](int r) { return V3{m[3 * r], m[3 * r + 1], m[3 * r + 2]}; };
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) ASSERT_NEAR(dot(row(r), row(c)), r == c, 1e-12) << "rows " << r << ", " << c;
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
    EXPECT_GT(checked, 3000);
}

}  // namespace
