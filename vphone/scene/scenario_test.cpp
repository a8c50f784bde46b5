// The scenarios' physics, each against a formulation of its own: known attitudes worked
// by hand, rotations that stay rotations, scripts that move the phone smoothly through
// their phases; soft iron against the ellipsoid its matrix defines, the car's
// accelerometer against the derivative of the car's velocity, and every seed's browse
// and drive against the limits their scripts state.
#include "vphone/scene/scenario.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>

#include "vphone/chip_model.h"

namespace vphone::scene {
namespace {

constexpr double kDegree = M_PI / 180, kB = 50.0, kIncl = 60.0;
const double kBh = kB * std::cos(kIncl * kDegree), kBv = kB * std::sin(kIncl * kDegree);

// Known attitudes, worked out by hand from where the phone's axes point.
const struct {
    const char *name;
    Pose pose;
    Vec3 field, gravity;
    double integer_heading, double_azimuth, pitch, roll;
    HeadingAxis axis = HeadingAxis::kY;  // the axis the integer heading is asked of
} kKnown[] = {
    {"flat, top to north", {0, 0, 0}, {0, kBh, -kBv}, {0, 0, -1}, 0, 0, 0, 0},
    {"flat, top to east: north is the phone's -x", {90, 0, 0}, {-kBh, 0, -kBv}, {0, 0, -1}, 90, 90, 0, 0},
    {"flat, top to south-west", {225, 0, 0}, {kBh * M_SQRT1_2, -kBh *M_SQRT1_2, -kBv}, {0, 0, -1}, 225, 225, 0, 0},
    // Stood on its bottom edge facing north: y up, screen facing south; the integer
    // heading switches to the -z axis, which points north.
    {"upright, screen to south", {0, -90, 0}, {0, -kBv, -kBh}, {0, -1, 0}, 0, 0, -90, 0, HeadingAxis::kZ},
    // Rolled onto its right edge: x points down, the screen faces east.
    {"right edge down", {0, 0, 90}, {kBv, kBh, 0}, {1, 0, 0}, 0, 0, 0, 90},
    // Flipped over the x axis: the top points south, the screen down. The double
    // path's azimuth formula has atan2(0, 0) here, which is 0.
    {"face down", {0, 180, 0}, {0, -kBh, kBv}, {0, 0, 1}, 180, 0, -180, 0},
};

TEST(ScenarioPhysics, KnownAttitudesGiveHandWorkedVectorsAndAngles) {
    for (const auto &c : kKnown) {
        SCOPED_TRACE(c.name);
        const Mat3 a = attitude_matrix(c.pose);
        const Vec3 f = to_phone(a, earth_field_uT(kB, kIncl));
        const Vec3 g = to_phone(a, Vec3{0, 0, -1});
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(f[k], c.field[k], 1e-9) << "field axis " << k;
            EXPECT_NEAR(g[k], c.gravity[k], 1e-12) << "gravity axis " << k;
        }
        const TrueAngles t = true_angles(a, c.axis);
        EXPECT_NEAR(heading_difference(t.integer_heading, c.integer_heading), 0, 1e-6);
        EXPECT_NEAR(heading_difference(t.double_azimuth, c.double_azimuth), 0, 1e-6);
        EXPECT_NEAR(t.pitch, c.pitch, 1e-6);
        EXPECT_NEAR(t.roll, c.roll, 1e-6);
    }
}

TEST(ScenarioPhysics, RandomPosesAreRotationsWhosePitchAndHeadingComeBack) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> h(0, 360), p(-59, 59), r(-80, 80);
    for (int i = 0; i < 500; ++i) {
        const Pose pose{h(rng), p(rng), r(rng)};
        const Mat3 a = attitude_matrix(pose);
        for (int x = 0; x < 3; ++x)
            for (int y = 0; y < 3; ++y) {
                const double dot = a[x][0] * a[y][0] + a[x][1] * a[y][1] + a[x][2] * a[y][2];
                ASSERT_NEAR(dot, x == y ? 1.0 : 0.0, 1e-12) << "rows " << x << "," << y << " not orthonormal";
            }
        // Pitch and heading of a phone whose y axis is not steep come back; roll
        // turns the phone about its y axis and leaves that axis' heading alone.
        const TrueAngles t = true_angles(a, HeadingAxis::kY);
        ASSERT_NEAR(t.pitch, pose.pitch_deg, 1e-9);
        ASSERT_NEAR(heading_difference(t.integer_heading, pose.heading_deg), 0, 1e-9) << "y-axis heading ignores roll";
    }
}

TEST(ScenarioScripts, EveryScriptsHandlingIsContinuous) {
    for (const std::string &name : scenario_names()) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(is_scenario_name(name));
        const Scenario sc({.name = name});
        Truth prev = sc.ideal(0);
        for (double t = 0.05; t <= sc.duration_s(); t += 0.05) {
            const Truth now = sc.ideal(t);
            ASSERT_EQ(std::string(now.phase).find(','), std::string::npos) << "a phase is one CSV field";
            // Largest change of any phone axis in 50 ms: a hand turns the phone at
            // most a few hundred degrees per second.
            double worst = 0;
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j)
                    worst = std::max(worst, std::fabs(now.attitude[i][j] - prev.attitude[i][j]));
            ASSERT_LT(worst, 0.35) << "jump at t=" << t << " in " << now.phase;
            prev = now;
        }
    }
}

// Soft iron turns the sphere the Earth field sweeps into the ellipsoid |S^-1 f| = B of
// the matrix its six numbers XX,YY,ZZ,XY,XZ,YZ make.
TEST(SoftIron, TheFieldOverAllAttitudesLiesOnTheEllipsoidOfTheGivenMatrix) {
    const std::array<double, 6> cases[] = {
        {1, 1, 1, 0, 0, 0}, {0.6, 1.4, 1.0, 0, 0, 0}, {1.2, 0.8, 1.0, 0.25, -0.1, 0.15}, {0.5, 2, 1, 0, 0, 0}};
    for (const auto &c : cases) {
        const ScenarioSettings s{.name = "slow", .soft_iron = c};  // through every orientation
        ASSERT_EQ(soft_iron_problem(c), "");
        const Scenario scenario(s);
        std::array<double, 9> inverse{};
        ASSERT_TRUE(invert({c[0], c[3], c[4], c[3], c[1], c[5], c[4], c[5], c[2]}, &inverse));
        for (double t = 0; t < scenario.duration_s(); t += 0.7) {
            const Vec3 back = times(inverse, scenario.ideal(t).field_uT);
            ASSERT_NEAR(std::hypot(back[0], back[1], back[2]), s.field_uT, 1e-9) << "t " << t;
        }
    }
}

// The closed-form eigenvalues that bound a soft iron (its option's refusals are the
// world options' test's) against the characteristic polynomial.
TEST(SoftIron, ClosedFormEigenvaluesAreRootsOfTheCharacteristicPolynomialInOrder) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int i = 0; i < 200; ++i) {
        Mat3 s{};
        for (int r = 0; r < 3; ++r)
            for (int c = r; c < 3; ++c) s[r][c] = s[c][r] = u(rng);
        const Vec3 e = symmetric_eigenvalues(s);
        for (double l : e) {
            const double det = (s[0][0] - l) * ((s[1][1] - l) * (s[2][2] - l) - s[1][2] * s[2][1]) -
                               s[0][1] * (s[1][0] * (s[2][2] - l) - s[1][2] * s[2][0]) +
                               s[0][2] * (s[1][0] * s[2][1] - (s[1][1] - l) * s[2][0]);
            ASSERT_NEAR(det, 0, 1e-9);
        }
        ASSERT_GE(e[0], e[1]);
        ASSERT_GE(e[1], e[2]);
        ASSERT_NEAR(e[0] + e[1] + e[2], s[0][0] + s[1][1] + s[2][2], 1e-12);
    }
}

// The car's field grows over the last kCarFieldRampS of the mounting move, rising all
// the way along its own direction, and is the phone's whole from the moment it is
// clipped in.
TEST(Car, TheCarsFieldGrowsAsThePhoneNearsTheMountAndIsWholeOnceMounted) {
    for (const char *name : {"car", "car-fresh"}) {
        const ScenarioSettings s{.name = name};
        const Scenario car(s);
        EXPECT_EQ(car.mounted_s(), std::string(name) == "car" ? 17.0 : 0.0) << name;
        EXPECT_EQ(car.ideal(0).mounted_s, car.mounted_s());
        const double start = car.mounted_s() - kCarFieldRampS;
        double last = 0;
        for (double t = std::max(0.0, start - 0.25); t < car.mounted_s() + 0.5; t += 0.1) {
            SCOPED_TRACE(std::string(name) + " t " + std::to_string(t));
            const Vec3 h = car.ideal(t).hard_iron_uT;
            const double share = (h[0] - s.hard_iron_uT[0]) / s.car_field_uT[0];
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(h[k], s.hard_iron_uT[k] + share * s.car_field_uT[k], 1e-12);
            if (t < start || t >= car.mounted_s()) {
                EXPECT_NEAR(share, t < start ? 0 : 1, 1e-12);
            } else {
                EXPECT_TRUE(share > last && share < 1) << share;
            }
            last = share;
        }
    }
    EXPECT_EQ(Scenario(ScenarioSettings{.name = "default"}).ideal(0).mounted_s, -1);
}

// The accelerometer reads the truth plus its zero-g offset, in the hand and in the car,
// and the engine's shake of a few hundredths of g (or as many times that as asked) from
// the mounting until the car is parked, not before or after; the truth stays gravity. In
// the mount that truth is gravity minus the car's acceleration, which is the derivative
// of the car's velocity (here numerically), in phone axes.
TEST(Accelerometer, ReadsTheTruthPlusItsOffsetAndTheEnginesShakeAndInTheMountTheCarsAcceleration) {
    const struct {
        const char *name;
        uint32_t seed;
        double vibration;
    } cases[] = {{"default", 1, 1}, {"car", 1, 1}, {"car", 2, 1}, {"car", 3, 1},
                 {"car", 4, 1},     {"car", 5, 1}, {"car", 1, 10}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + " seed " + std::to_string(c.seed) + " x" + std::to_string(c.vibration));
        ScenarioSettings s{.name = c.name, .accel_noise_g = 0, .seed = c.seed, .car_vibration = c.vibration};
        Scenario exact(s);
        s.accel_offset_mg = Vec3{40, -30, 20};
        Scenario offset(s);
        double still = 0, running = 0;  // the largest shake with the engine off, and running
        int driven = 0;                 // instants checked against the car's velocity
        for (double t = 0; t < exact.duration_s(); t += 0.05) {
            const Truth truth = exact.ideal(t);
            const Vec3 a = offset.sample(t).gravity_g, b = exact.sample(t).gravity_g, g = truth.gravity_g;
            for (int k = 0; k < 3; ++k) ASSERT_NEAR(a[k] - b[k], s.accel_offset_mg[k] / 1000, 1e-12) << "t " << t;
            ASSERT_EQ(offset.ideal(t).gravity_g, g) << "t " << t;
            const bool engine = truth.mounted_s >= 0 && t >= truth.mounted_s && std::string(truth.phase) != "parked";
            double &max = engine ? running : still;
            max = std::max(max, std::hypot(b[0] - g[0], b[1] - g[1], b[2] - g[2]));
            if (truth.mounted_s < 0 || t < truth.mounted_s + 3.3 || t >= exact.duration_s() - 5) continue;
            const double h = 1e-4;
            const Truth before = exact.ideal(t - h), after = exact.ideal(t + h);
            Vec3 down{0, 0, -1};
            for (int k = 0; k < 3; ++k)
                down[k] -= (after.velocity_mps[k] - before.velocity_mps[k]) / (2 * h) / kStandardGravity;
            const Vec3 expected = to_phone(truth.attitude, down);
            for (int k = 0; k < 3; ++k) ASSERT_NEAR(g[k], expected[k], 2e-5) << "t " << t << " " << truth.phase;
            ++driven;
        }
        EXPECT_EQ(still, 0);
        if (exact.mounted_s() >= 0) {
            EXPECT_TRUE(running > 0.01 * c.vibration && running < 0.04 * c.vibration) << running;
            EXPECT_GT(driven, 11000) << "the drive, not its first seconds";
        }
    }
}

TEST(Car, EverySeedsRouteKeepsItsStatedLimitsAndNoTwoAreAlike) {
    std::set<std::vector<std::string>> routes;
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        const Drive drive(rng, 30);
        EXPECT_NEAR(drive.duration_s(), kDriveS, 1e-9);
        EXPECT_EQ(drive.at(0).speed_mps, 0);
        EXPECT_EQ(drive.at(kDriveS).speed_mps, 0);
        double peak = 0, traffic = 0;
        for (double t = 0; t <= drive.duration_s(); t += 0.05) {
            const CarMotion m = drive.at(t);
            const double horizontal = std::hypot(m.accel_mps2[0], m.accel_mps2[1]) / kStandardGravity;
            ASSERT_LE(horizontal, kDriveMaxAccelG + 1e-9) << "t " << t << " " << m.phase;
            ASSERT_LE(std::fabs(m.slope_deg), kDriveMaxSlopeDeg) << "t " << t;
            peak = std::max(peak, horizontal);
        }
        EXPECT_GT(peak, 0.3) << "braking and cornering reach their limits";
        // A left turns -90 degrees, a right +90, a roundabout its own angle; at least one
        // of each, once round the island.
        std::vector<std::string> legs;
        std::map<std::string, int> turns;
        for (const DriveLeg &leg : drive.legs()) {
            const std::string phase = leg.phase;
            legs.push_back(phase + std::to_string(std::lround(leg.duration_s)));
            // The speed and the road's slope (taken at the distance driven) run on
            // smoothly across the legs' ends.
            const CarMotion before = drive.at(leg.start_s - 1e-6), after = drive.at(leg.start_s + 1e-6);
            ASSERT_NEAR(after.speed_mps, before.speed_mps, 1e-4) << phase;
            ASSERT_NEAR(after.slope_deg, before.slope_deg, 1e-4) << phase;
            const double turned =
                drive.at(leg.start_s + leg.duration_s).heading_deg - drive.at(leg.start_s).heading_deg;
            const bool left = phase == "driving: turning left", right = phase == "driving: turning right";
            EXPECT_NEAR(turned, left ? -90 : right ? 90 : leg.turn_deg, 1e-9) << phase;
            turns[phase] += phase != "driving: roundabout" || leg.turn_deg < 0;
            for (double u = 0; phase == "driving straight" && u <= leg.duration_s; u += 0.25) {
                const double off = drive.at(leg.start_s + u).speed_mps - leg.v0_mps;
                ASSERT_LE(std::fabs(off), kDriveMaxTrafficMps) << "u " << u;
                traffic = std::max(traffic, std::fabs(off));
            }
        }
        EXPECT_GT(traffic, 1.0) << "the straight stretches follow the traffic";
        EXPECT_GE(turns["driving: turning left"], 1);
        EXPECT_GE(turns["driving: turning right"], 1);
        EXPECT_EQ(turns["driving: roundabout"], 1);
        routes.insert(legs);
    }
    EXPECT_EQ(routes.size(), 5u);
}

// Read while walking: the phone within 30 degrees of level all the way, the walker's
// turns of at most 45 degrees in any second, some each way; the steps shake it, standing
// does not; put down and picked up again; every seed another handling.
TEST(Browse, EverySeedsHandlingStaysWithinItsEnvelopeAndNoTwoAreAlike) {
    std::set<std::vector<std::string>> handlings;
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const Scenario browse({.name = "browse", .seed = seed});
        EXPECT_NEAR(browse.duration_s(), kBrowseS, 1e-9);
        std::vector<std::string> phases;
        std::map<std::string, int> entered;
        double walking_shake = 0;
        for (double t = 0; t <= browse.duration_s(); t += 0.05) {
            const Truth now = browse.ideal(t);
            const std::string phase = now.phase;
            const double tilt = std::acos(std::clamp(now.attitude[2][2], -1.0, 1.0)) / kDegree;
            ASSERT_LE(tilt, kBrowseMaxTiltDeg) << "t " << t << " " << phase;
            const double turned =
                t + 1 <= browse.duration_s() ? browse.ideal(t + 1).pose.heading_deg - now.pose.heading_deg : 0;
            ASSERT_LE(std::fabs(turned), 45) << "t " << t;
            if (phases.empty() || phases.back().find(phase) != 0) {
                phases.push_back(phase + "@" + std::to_string(std::lround(t)));
                ++entered[phase];
            }
            const double shake = std::fabs(std::hypot(now.gravity_g[0], now.gravity_g[1], now.gravity_g[2]) - 1);
            if (phase == "reading while walking") walking_shake = std::max(walking_shake, shake);
            if (phase == "reading while standing") {
                ASSERT_LT(shake, 1e-12) << "t " << t << ": standing shakes nothing";
            }
        }
        EXPECT_GE(entered["picked up"], 2);
        EXPECT_GE(entered["put down"], 2);
        EXPECT_GE(entered["turning left while reading"], 1);
        EXPECT_GE(entered["turning right while reading"], 1);
        EXPECT_GT(walking_shake, 0.08) << "the steps reach the accelerometer";
        handlings.insert(phases);
    }
    EXPECT_EQ(handlings.size(), 5u);
}

}  // namespace
}  // namespace vphone::scene
