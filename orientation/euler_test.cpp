#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

using namespace kmxc_test;

struct EulerCase {
    const char *name;
    double gravity[3], field[3];
    double matrix[9];
    double angles[3];  // azimuth (fresh filter passes it through), pitch, roll
};

TEST(RotationMatrixAndEuler, KnownAttitudes) {
    // clang-format off
    const EulerCase cases[] = {
        {"level, facing north", {0, 0, -9.80665}, {0, 20, -30}, {1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 0, 0}},
        {"nose up 36.87", {0, -3, -4}, {0, 20, -30}, {1, 0, 0, 0, 0.8, -0.6, 0, 0.6, 0.8}, {0, -36, 0}},
        {"facing down, folded pitch", {0, -3, 4}, {0, 20, 30}, {-1, 0, 0, 0, 0.8, 0.6, 0, 0.6, -0.8},
         {180, -143, 0}},
        {"rolled 36.87", {3, 0, -4}, {0, 20, -30},
         {0.5946353169977331, 0.6689647316224496, 0.4459764877482998,
          -0.5351717852979598, 0.7432941462471664, -0.4013788389734698, -0.6, 0, 0.8}, {41, 0, 36}},
        {"level, facing north-east", {0, 0, -9.80665}, {-20, 20, -30},
         {M_SQRT1_2, M_SQRT1_2, 0, -M_SQRT1_2, M_SQRT1_2, 0, 0, 0, 1}, {45, 0, 0}},
    };
    // clang-format on
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
}

TEST(RotationMatrix, RefusesNullAndDegenerateInputsWithoutWriting) {
    const double zero[3] = {0, 0, 0}, down[3] = {0, 0, -2}, up_field[3] = {0, 0, 7}, field[3] = {0, 20, -30};
    struct {
        const char *name;
        const double *gravity, *field;
    } const cases[] = {{"field parallel to gravity", down, up_field}, {"zero gravity", zero, field},
                       {"zero field", down, zero}, {"null gravity", nullptr, field}, {"null field", down, nullptr}};
    for (const auto &c : cases) {
        double m[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
        EXPECT_EQ(KmxAxesLibGetRotationMatrix(c.gravity, c.field, m), -1) << c.name;
        for (double v : m) EXPECT_EQ(v, 7) << c.name;
    }
    EXPECT_EQ(KmxAxesLibGetRotationMatrix(down, field, nullptr), -1);
}

TEST(Euler, TruncatesTowardZeroAndRefusesNull) {
    // Rotation about x by t: rows (1,0,0), (0,cos t,-sin t), (0,sin t,cos t).
    struct {
        const char *name;
        double tilt_degrees, pitch;
    } const cases[] = {{"-36.87 is -36", 36.87, -36},
                       {"-143.13 folds to -143", 143.13, -143},
                       {"+36.87 is 36", -36.87, 36},
                       {"-0.4 keeps the sign of zero", 0.4, -0.0}};
    for (const auto &c : cases) {
        const double t = c.tilt_degrees / kDeg;
        const double m[9] = {1, 0, 0, 0, std::cos(t), -std::sin(t), 0, std::sin(t), std::cos(t)};
        double angles[3];
        KmxAxesLibAzimuthFilterInit();
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0) << c.name;
        EXPECT_EQ(angles[1], c.pitch) << c.name;
        EXPECT_EQ(std::signbit(angles[1]), std::signbit(c.pitch)) << c.name;
    }
    double angles[3] = {7, 7, 7};
    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_EQ(KmxAxesLibGetEuler(nullptr, angles), -1);
    EXPECT_EQ(KmxAxesLibGetEuler(identity, nullptr), -1);
    EXPECT_EQ(angles[0], 7);
}

// A device attitude given by its azimuth (twist about the vertical, north toward
// east), the elevations of its x and y axes and whether its screen faces up. The
// world axes in device coordinates are S * T(azimuth) applied to the device axes:
// T turns about z, S is the shortest rotation carrying z onto the up direction.
// With S = I, east = (cos az, sin az, 0) and north = (-sin az, cos az, 0), so the
// device's y axis (east = sin az, north = cos az) heads at az.
struct Attitude {
    V3 east, north, up;
};

Attitude make_attitude(double azimuth, double x_elevation, double y_elevation, bool face_up) {
    const double sx = std::sin(x_elevation / kDeg), sy = std::sin(y_elevation / kDeg);
    const V3 up{sx, sy, (face_up ? 1.0 : -1.0) * std::sqrt(1 - sx * sx - sy * sy)};
    const V3 z{0, 0, 1};
    const double s = std::sqrt(up.x * up.x + up.y * up.y);
    const V3 k = s > 0 ? (1.0 / s) * cross(z, up) : V3{1, 0, 0};
    const double cos_t = up.z, sin_t = s;
    auto swing = [&](V3 v) { return cos_t * v + sin_t * cross(k, v) + ((1 - cos_t) * dot(k, v)) * k; };
    const double a = azimuth / kDeg;
    return {swing({std::cos(a), std::sin(a), 0}), swing({-std::sin(a), std::cos(a), 0}), up};
}

// Pitch is minus the elevation of the y axis, folded beyond +-90 when facing down.
double expected_pitch(double y_elevation, bool face_up) {
    if (face_up) return -y_elevation;
    return y_elevation >= 0 ? y_elevation - 180 : y_elevation + 180;
}

bool near_whole(double v) { return std::fabs(v - std::round(v)) < 1e-6; }

// Measured over about 3300 attitudes: rows within 1.1e-15 of the constructed
// ones, R * R^T within 5.6e-16 of the identity; every angle is the truncation of
// the constructed one.
TEST(EulerProperty, RecoversRandomAttitudes) {
    std::mt19937 rng(77);
    std::uniform_real_distribution<double> azimuth(0, 360), elevation(-75, 75), dip(20, 70), scale(0.2, 60);
    std::bernoulli_distribution face_up(0.5);
    double worst_row = 0, worst_orthonormal = 0;
    int checked = 0;
    for (int n = 0; n < 5000; ++n) {
        const double az = azimuth(rng), ex = elevation(rng), ey = elevation(rng), d = dip(rng) / kDeg;
        const bool up_face = face_up(rng);
        const double sx = std::sin(ex / kDeg), sy = std::sin(ey / kDeg);
        if (sx * sx + sy * sy > 0.97) continue;  // near the poles
        const Attitude w = make_attitude(az, ex, ey, up_face);
        const V3 g = -scale(rng) * w.up;  // gravity pulls down
        const V3 f = scale(rng) * (std::cos(d) * w.north - std::sin(d) * w.up);
        const double gravity[3] = {g.x, g.y, g.z}, field[3] = {f.x, f.y, f.z};
        double m[9], angles[3];
        ASSERT_EQ(KmxAxesLibGetRotationMatrix(gravity, field, m), 0);
        const V3 rows[3] = {w.east, w.north, w.up};
        for (int r = 0; r < 3; ++r) {
            const V3 got{m[3 * r], m[3 * r + 1], m[3 * r + 2]};
            worst_row = std::max(worst_row, std::sqrt(dot(got - rows[r], got - rows[r])));
            for (int c = 0; c < 3; ++c) {
                const V3 other{m[3 * c], m[3 * c + 1], m[3 * c + 2]};
                worst_orthonormal = std::max(worst_orthonormal, std::fabs(dot(got, other) - (r == c)));
            }
        }
        KmxAxesLibAzimuthFilterInit();  // a fresh filter passes the azimuth through
        ASSERT_EQ(KmxAxesLibGetEuler(m, angles), 0);
        const double pitch = expected_pitch(ey, up_face), roll = -ex;
        if (near_whole(az) || near_whole(pitch) || near_whole(roll)) continue;
        EXPECT_EQ(angles[0], std::floor(az)) << az << " " << ex << " " << ey;
        EXPECT_EQ(angles[1], std::trunc(pitch)) << az << " " << ex << " " << ey << " up " << up_face;
        EXPECT_EQ(angles[2], std::trunc(roll)) << az << " " << ex << " " << ey;
        ++checked;
    }
    std::printf("worst row error %.3g, worst orthonormality error %.3g, %d attitudes\n", worst_row,
                worst_orthonormal, checked);
    EXPECT_GT(checked, 3000);
    EXPECT_LT(worst_row, 1e-12);
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
        const Attitude w = make_attitude(azimuth(rng), tilt(rng), tilt(rng), true);
        const double d = dip(rng) / kDeg, fc = counts(rng);
        const V3 g = -4096.0 * w.up, f = fc * (std::cos(d) * w.north - std::sin(d) * w.up);
        const KmxAxesData gs = rounded(g), ms = rounded(f);

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
