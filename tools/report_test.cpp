#include "tools/report.h"

#include "service/kmxc_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace compass {
namespace {

SampleOutput sample(int64_t t_us, int calib_rc, int heading, double true_heading) {
    return {.time_us = t_us,
            .calib_rc = calib_rc,
            .heading_int = heading,
            .euler = {heading, 0, 0},
            .has_truth = true,
            .truth = {true_heading, true_heading, 0, 0},
            .flags = KMXC_SERVICE_HEADING_VALID | KMXC_SERVICE_ORIENTATION_VALID};
}

TEST(Report, HeadingErrorsCountOnlyAfterTheFirstThreeDimensionalCalibration) {
    std::ostringstream out;
    Report r(out, true);
    r.add(sample(0, 0, 100, 10));        // uncalibrated: 90 degrees off, ignored
    r.add(sample(100000, 24, 100, 10));  // planar: still ignored
    r.add(sample(200000, 63, 359, 1));   // first 3-D: -2 across north
    r.add(sample(300000, 7, 4, 0));      // +4
    const Summary &m = r.summary();
    EXPECT_EQ(m.first_3d_sample, 3);
    EXPECT_DOUBLE_EQ(m.first_3d_s, 0.2);
    EXPECT_EQ(m.planar_events, 1);
    EXPECT_EQ(m.three_d_events, 1);
    EXPECT_EQ(m.codes_seen, (std::vector<int>{24, 63}));
    EXPECT_EQ(m.heading_int.count, 2);
    EXPECT_DOUBLE_EQ(m.heading_int.max_abs, 4);
    EXPECT_NEAR(m.heading_int.rms(), std::sqrt((4.0 + 16.0) / 2), 1e-12);
}

TEST(Report, OneLinePerSimulatedSecond) {
    std::ostringstream out;
    Report r(out, false);
    for (int i = 0; i < 35; ++i) r.add(sample(i * 100000, 0, 10, 10));
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;  // seconds 0..3
}

}  // namespace
}  // namespace compass
