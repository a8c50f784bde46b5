#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

constexpr double kEighthsPerRadian = 1440.0 / kmxc_test::kPi;

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

// The axes, where the quadrants' branches meet (the quadrants' insides are the attitude
// property's). (1025, 3) is halved below 1024 together with the 3 first, so its 1.3
// eighths become 0.
TEST(Atan2, AxesInEighths) {
    const struct {
        int32_t x, y;
        int16_t eighths;
    } cases[] = {{1, 0, 0}, {0, 1, 720}, {-1, 0, 1440}, {0, -1, 2160}, {1025, 3, 0}};
    for (const auto &c : cases) EXPECT_EQ(KmxAxesLibAtan2(c.x, c.y), c.eighths) << c.x << "," << c.y;
}

// Both branches over random poses are the attitude property's; here the threshold
// itself and an attitude whose chosen entries are both zero.
TEST(CalcDirectionWOF, ThresholdAndNoHeading) {
    const struct {
        const char *name;
        int16_t rows[9];
        int8_t result;
        uint16_t heading;
    } cases[] = {
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

}  // namespace
