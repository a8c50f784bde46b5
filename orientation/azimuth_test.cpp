#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

using namespace kmxc_test;

constexpr double kEighthsPerRadian = 1440.0 / kPi;

// Each entry is 16 i - atan(i/32) in eighths rounded up; the arctangent built on
// it stays within 1.06 eighths of the true one while |b| fits ten bits (measured),
// and within 1.75 once larger b are shifted down together with a.
TEST(Atan, TableEntriesAndMeasuredErrorBound) {
    for (int i = 0; i <= 32; ++i)
        EXPECT_EQ(KmxAxesLibAtanTable[i], 16 * i - int(std::ceil(std::atan(i / 32.0) * kEighthsPerRadian))) << i;
    const struct {
        int32_t b;
        double bound;
    } cases[] = {{1023, 1.06}, {-1000, 1.06}, {517, 1.06}, {33, 1.06}, {4096, 1.75}, {-8191, 1.75}, {70000, 1.75}};
    for (const auto &c : cases) {
        const int32_t span = std::abs(c.b);
        for (int32_t a = -span; a <= span; a += span > 8191 ? 7 : 1) {
            const double err = KmxAxesLibAtan(a, c.b) - std::atan(double(a) / c.b) * kEighthsPerRadian;
            ASSERT_LT(std::fabs(err), c.bound) << a << "/" << c.b;
        }
    }
}

TEST(Atan2, CoversTheFullTurnInEighths) {
    const struct {
        int32_t x, y;
        int16_t eighths;
    } cases[] = {{1, 0, 0},         {0, 1, 720},      {-1, 0, 1440},   {0, -1, 2160},      {1, 1, 360},
                 {100, -100, 2520}, {510, 419, 315},  {419, 510, 405}, {-510, -419, 1755}, {-1, 1, 1080},
                 {-4096, 0, 1440},  {0, -4096, 2160}, {1025, 3, 0}};  // 1025 is halved below 1024 together with 3
                                                                      // first, so the 1.3 eighths become 0
    for (const auto &c : cases) EXPECT_EQ(KmxAxesLibAtan2(c.x, c.y), c.eighths) << c.x << "," << c.y;
}

TEST(CalcDirectionWOF, HeadsTheYAxisOrTheZAxisWhenSteep) {
    const struct {
        const char *name;
        int16_t rows[9];
        int8_t result;
        uint16_t heading;
    } cases[] = {
        {"identity", {4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 0, 0},
        {"facing west", {0, -4096, 0, 4096, 0, 0, 0, 0, 4096}, 0, 270},
        {"facing south-east", {-2896, 2896, 0, -2896, -2896, 0, 0, 0, 4096}, 0, 135},
        {"upright, -z axis used", {-4096, 0, 0, 0, 0, 4096, 0, 4096, 0}, 0, 180},
        {"upside down, +z axis used", {4096, 0, 0, 0, 0, 4096, 0, -4096, 0}, 0, 0},
        {"up y equal to threshold: y axis", {0, 4096, 4096, 4096, 0, 0, 0, 3000, 0}, 0, 90},
        {"no y entries", {4096, 0, 0, 0, 0, 4096, 0, 100, 0}, 1, 0},
    };
    for (const auto &c : cases) {
        KmxAxesAttitude a{};
        std::copy(c.rows, c.rows + 9, a.matrix);
        uint16_t heading = 999;
        EXPECT_EQ(KmxAxesLibCalcDirectionWOF(&a, &heading, 3000), c.result) << c.name;
        EXPECT_EQ(heading, c.heading) << c.name;
    }
}

TEST(SmoothDirection, ConvergesFromZeroHistoryTheShortWayRound) {
    const struct {
        const char *name;
        std::vector<uint16_t> inputs, outputs;
    } cases[] = {
        {"90 seven times", {90, 90, 90, 90, 90, 90, 90}, {157, 132, 108, 96, 91, 90, 90}},
        {"0, then 180: an opposite history value is taken from above", {0, 180}, {135, 175}},
        {"10 ten times, then 350 eight times",
         {10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 350, 350, 350, 350, 350, 350, 350, 350},
         {137, 89, 44, 22, 13, 10, 10, 10, 10, 10, 5, 0, 354, 352, 351, 350, 349, 350}},
    };
    for (const auto &c : cases) {
        KmxAxesLibSmootherHistory h{0, 0, 0, 0};
        for (size_t i = 0; i < c.inputs.size(); ++i) {
            uint16_t out = 999;
            KmxAxesLibSmoothDirection(&h, c.inputs[i], &out);
            EXPECT_EQ(out, c.outputs[i]) << c.name << " step " << i;
        }
    }
}

// Random field and gravity directions; the reference heading is computed in double
// from the same integer vectors (fields of 100..1000 counts, at least 15 degrees
// from gravity). Measured: reference - integer heading lies in [-0.245, 1.077]
// degrees (the integer heading truncates, so the ideal range is [0, 1); the rest is
// the table arctangent and the Q12 truncations); row dot products stay within
// 0.00127 of a Q12 unit squared.
TEST(HeadingProperty, IntegerHeadingMatchesADoubleReference) {
    KmxAxesLibInit();
    std::mt19937 rng(2026);
    std::uniform_real_distribution<double> gravity_length(3500, 4700), field_length(100, 1000);
    double lowest = 0, highest = 0, worst_dot = 0;
    int checked = 0;
    for (int n = 0; n < 20000; ++n) {
        const V3 gd = random_direction(rng), md = random_direction(rng);
        const double gl = gravity_length(rng), ml = field_length(rng);
        if (std::fabs(dot(gd, md)) > std::cos(15 / kDeg)) continue;
        const KmxAxesData g = rounded(gl * gd), m = rounded(ml * md);
        const V3 up = unit(V3{-double(g.x), -double(g.y), -double(g.z)});
        const V3 field{double(m.x), double(m.y), double(m.z)};
        const V3 north = unit(field - dot(field, up) * up), east = cross(north, up);
        const double up_y = up.y * 4096;
        if (std::fabs(std::fabs(up_y) - 3000) < 40) continue;  // branch choice ambiguous
        const V3 axis = std::fabs(up_y) <= 3000 ? V3{0, 1, 0} : V3{0, 0, up_y >= 0 ? -1.0 : 1.0};
        const double reference = std::atan2(dot(east, axis), dot(north, axis)) * kDeg;

        KmxAxesAttitude a{};
        uint16_t heading = 999;
        ASSERT_EQ(KmxAxesLibGetAttitude(&m, &g, &a), 0);
        ASSERT_EQ(KmxAxesLibCalcDirectionWOF(&a, &heading, 3000), 0);
        ASSERT_LT(heading, 360);
        const double err = angle_difference(reference, heading);
        lowest = std::min(lowest, err);
        highest = std::max(highest, err);
        for (int r = 0; r < 3; ++r) {
            const int16_t *p = &a.matrix[3 * r], *q = &a.matrix[3 * ((r + 1) % 3)];
            const double d = (p[0] * q[0] + p[1] * q[1] + p[2] * q[2]) / (4096.0 * 4096.0);
            worst_dot = std::max(worst_dot, std::fabs(d));
        }
        ++checked;
    }
    std::printf("heading error [%.4f, %.4f] deg, worst row dot %.6f, %d cases\n", lowest, highest, worst_dot, checked);
    EXPECT_GT(checked, 15000);
    EXPECT_GT(lowest, -0.3);
    EXPECT_LT(highest, 1.15);
    EXPECT_LT(worst_dot, 0.0015);
}

}  // namespace
