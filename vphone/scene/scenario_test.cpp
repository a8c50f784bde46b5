#include "vphone/scene/scenario.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace vphone::scene {
namespace {

constexpr double kB = 50.0, kIncl = 60.0;
const double kBh = kB * std::cos(kIncl * M_PI / 180), kBv = kB * std::sin(kIncl * M_PI / 180);

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

TEST(ScenarioScripts, HandlingIsContinuousAndEveryScriptHasItsPhases) {
    const struct {
        const char *name;
        std::vector<std::string> phases;
    } cases[] = {
        {"default", {"on table", "picked up", "figure-eight", "walking", "turned flat", "set down"}},
        {"planar", {"on table", "turned flat"}},
        {"two-planes", {"turned flat", "stood up", "turned upright"}},
        {"magnet", {"figure-eight", "magnet clipped on"}},
        {"still", {"on table"}},
        {"slow", {"turned slowly by hand", "laid down"}},
        {"browse",
         {"on table", "picked up", "reading while walking", "reading while standing", "turning left while reading",
          "turning right while reading", "put down"}},
        {"car",
         {"in hand", "figure-eight in hand", "mounting", "mounted", "driving: pulling away", "driving straight",
          "driving: braking", "driving: turning left", "driving: turning right", "driving: roundabout",
          "driving: accelerating", "driving: stopping", "parked"}},
        {"car-fresh", {"mounted", "driving straight", "parked"}},
    };
    // Every scenario the command line offers has a case here, and no case is extra.
    ASSERT_EQ(scenario_names().size(), std::size(cases));
    for (const auto &c : cases) EXPECT_TRUE(is_scenario_name(c.name)) << c.name;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Scenario sc(ScenarioSettings{.name = c.name});
        std::set<std::string> seen;
        Truth prev = sc.ideal(0);
        for (double t = 0.05; t <= sc.duration_s(); t += 0.05) {
            const Truth now = sc.ideal(t);
            seen.insert(now.phase);
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
        for (const auto &p : c.phases) EXPECT_TRUE(seen.count(p)) << "missing phase " << p;
    }
}

}  // namespace
}  // namespace vphone::scene
