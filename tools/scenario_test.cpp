#include "tools/scenario.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace compass {
namespace {

constexpr double kB = 50.0, kIncl = 60.0;
const double kBh = kB * std::cos(kIncl * M_PI / 180), kBv = kB * std::sin(kIncl * M_PI / 180);

// Known attitudes, worked out by hand from where the phone's axes point.
struct KnownAttitude {
    const char *name;
    Pose pose;
    Vec3 field, gravity;
    double heading_int, azimuth_double, pitch, roll;
};
const KnownAttitude kKnown[] = {
    {"flat, top to north", {0, 0, 0}, {0, kBh, -kBv}, {0, 0, -1}, 0, 0, 0, 0},
    {"flat, top to east: north is the phone's -x", {90, 0, 0}, {-kBh, 0, -kBv}, {0, 0, -1}, 90, 90, 0, 0},
    {"flat, top to south-west", {225, 0, 0}, {kBh * M_SQRT1_2, -kBh * M_SQRT1_2, -kBv}, {0, 0, -1}, 225, 225, 0, 0},
    // Stood on its bottom edge facing north: y up, screen facing south; the integer
    // heading switches to the -z axis, which points north.
    {"upright, screen to south", {0, -90, 0}, {0, -kBv, -kBh}, {0, -1, 0}, 0, 0, -90, 0},
    // Rolled onto its right edge: x points down, the screen faces east.
    {"right edge down", {0, 0, 90}, {kBv, kBh, 0}, {1, 0, 0}, 0, 0, 0, 90},
    // Flipped over the x axis: the top points south, the screen down. The double
    // path's azimuth formula has atan2(0, 0) here, which is 0.
    {"face down", {0, 180, 0}, {0, -kBh, kBv}, {0, 0, 1}, 180, 0, -180, 0},
};

TEST(ScenarioPhysics, KnownAttitudesGiveHandWorkedVectorsAndAngles)
{
    for (const auto &c : kKnown) {
        SCOPED_TRACE(c.name);
        const Mat3 a = attitude_matrix(c.pose);
        const Vec3 f = to_phone(a, earth_field_uT(kB, kIncl));
        const Vec3 g = to_phone(a, Vec3{0, 0, -1});
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(f[k], c.field[k], 1e-9) << "field axis " << k;
            EXPECT_NEAR(g[k], c.gravity[k], 1e-12) << "gravity axis " << k;
        }
        const TrueAngles t = true_angles(a);
        EXPECT_NEAR(heading_difference(t.heading_int, c.heading_int), 0, 1e-6);
        EXPECT_NEAR(heading_difference(t.azimuth_double, c.azimuth_double), 0, 1e-6);
        EXPECT_NEAR(t.pitch, c.pitch, 1e-6);
        EXPECT_NEAR(t.roll, c.roll, 1e-6);
    }
}

TEST(ScenarioPhysics, RandomPosesKeepLengthsAndTheDipAngle)
{
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
        const Vec3 f = to_phone(a, earth_field_uT(kB, kIncl)), g = to_phone(a, Vec3{0, 0, -1});
        const double fg = f[0] * g[0] + f[1] * g[1] + f[2] * g[2];
        ASSERT_NEAR(fg / kB, std::sin(kIncl * M_PI / 180), 1e-12) << "dip angle changed by the attitude";
        // Pitch and heading of a phone whose y axis is not steep come back; roll
        // turns the phone about its y axis and leaves that axis' heading alone.
        const TrueAngles t = true_angles(a);
        ASSERT_NEAR(t.pitch, pose.pitch_deg, 1e-9);
        ASSERT_NEAR(heading_difference(t.heading_int, pose.heading_deg), 0, 1e-9) << "y-axis heading ignores roll";
    }
}

TEST(ScenarioPhysics, DeclinationTurnsTheMagneticHeading)
{
    ScenarioSettings s;
    s.name = "still";
    s.declination_deg = 40; // the still script lies at geographic heading 40
    s.hard_iron_uT = {0, 0, 0};
    const Truth t = Scenario(s).ideal(1.0);
    EXPECT_NEAR(t.field_uT[0], 0, 1e-9) << "magnetic north must lie along the phone's y axis";
    EXPECT_GT(t.field_uT[1], 0);
    EXPECT_NEAR(heading_difference(true_angles(t.attitude).heading_int, 0), 0, 1e-9);
}

TEST(ScenarioScripts, HandlingIsContinuousAndEveryScriptHasItsPhases)
{
    struct Case {
        const char *name;
        std::vector<std::string> phases;
    } cases[] = {
        {"default", {"on table", "picked up", "figure-eight", "walking", "turned flat", "set down"}},
        {"planar", {"on table", "turned flat"}},
        {"two-planes", {"turned flat", "stood up", "turned upright"}},
        {"magnet", {"figure-eight", "magnet clipped on"}},
        {"still", {"on table"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ScenarioSettings s;
        s.name = c.name;
        const Scenario sc(s);
        std::set<std::string> seen;
        Truth prev = sc.ideal(0);
        for (double t = 0.05; t <= sc.duration_s(); t += 0.05) {
            const Truth now = sc.ideal(t);
            seen.insert(now.phase);
            // Largest change of any phone axis in 50 ms: a hand turns the phone at
            // most a few hundred degrees per second.
            double worst = 0;
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j) worst = std::max(worst, std::fabs(now.attitude[i][j] - prev.attitude[i][j]));
            ASSERT_LT(worst, 0.35) << "jump at t=" << t << " in " << now.phase;
            prev = now;
        }
        for (const auto &p : c.phases) EXPECT_TRUE(seen.count(p)) << "missing phase " << p;
    }
}

TEST(ScenarioScripts, NoiseIsSeededAndOnlyNoiseDiffers)
{
    ScenarioSettings s;
    Scenario a(s), b(s);
    s.seed = 2;
    Scenario c(s);
    bool differs = false;
    for (double t = 0; t < 5; t += 0.1) {
        const Truth x = a.sample(t), y = b.sample(t), z = c.sample(t), ideal = a.ideal(t);
        for (int k = 0; k < 3; ++k) {
            ASSERT_EQ(x.field_uT[k], y.field_uT[k]) << "same seed must give the same run";
            ASSERT_NEAR(x.field_uT[k], ideal.field_uT[k], 6 * s.noise_uT);
            ASSERT_NEAR(x.gravity_g[k], ideal.gravity_g[k], 6 * s.accel_noise_g);
            differs = differs || x.field_uT[k] != z.field_uT[k];
        }
    }
    EXPECT_TRUE(differs) << "another seed must give other noise";
}

TEST(ScenarioScripts, TheMagnetAddsToTheHardIronFromItsPhaseOn)
{
    ScenarioSettings s;
    s.name = "magnet";
    const Scenario sc(s);
    bool before = false, after = false;
    for (double t = 0; t < sc.duration_s(); t += 0.5) {
        const Truth tr = sc.ideal(t);
        const bool on = tr.hard_iron_uT[0] == s.hard_iron_uT[0] + s.magnet_uT[0];
        if (!on) {
            EXPECT_FALSE(after) << "magnet came off at " << t;
            EXPECT_EQ(tr.hard_iron_uT, s.hard_iron_uT) << t;
        } else if (!after) {
            EXPECT_STREQ(tr.phase, "magnet clipped on") << "magnet on before its phase";
        }
        before = before || !on;
        after = after || on;
    }
    EXPECT_TRUE(before && after);
}

TEST(ScenarioScripts, HardIronAndTemperatureDriftAreApplied)
{
    ScenarioSettings s;
    s.name = "still";
    s.hard_iron_uT = {10, -20, 30};
    s.temperature_C = 20;
    s.temp_drift_C_per_min = 3;
    const Truth t = Scenario(s).ideal(10);
    s.hard_iron_uT = {0, 0, 0};
    const Truth u = Scenario(s).ideal(10);
    EXPECT_EQ(t.field_uT, u.field_uT);
    EXPECT_EQ(t.hard_iron_uT, (Vec3{10, -20, 30}));
    EXPECT_NEAR(t.temperature_C, 20.5, 1e-9);
}

} // namespace
} // namespace compass
