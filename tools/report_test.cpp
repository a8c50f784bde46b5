#include "tools/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace compass {
namespace {

SampleOutput sample(int64_t t_us, int calib_rc, int heading, double true_heading)
{
    SampleOutput s;
    s.time_us = t_us;
    s.calib_rc = calib_rc;
    s.heading_int = heading;
    s.euler = {heading, 0, 0};
    s.has_truth = true;
    s.truth = TrueAngles{true_heading, true_heading, 0, 0};
    return s;
}

TEST(Report, NewOffsetCodesAreRecognised)
{
    struct Case {
        int rc;
        bool new_offset, three_d;
    } cases[] = {{0, false, false}, {7, false, false}, {-1, false, false}, {63, true, true},
                 {24, true, false}, {40, true, false}, {48, true, false}, {31, true, false}, {55, true, false}};
    for (const auto &c : cases) {
        EXPECT_EQ(is_new_offset(c.rc), c.new_offset) << c.rc;
        EXPECT_EQ(is_three_d(c.rc), c.three_d) << c.rc;
    }
}

TEST(Report, HeadingErrorsCountOnlyAfterTheFirstThreeDimensionalCalibration)
{
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

TEST(Report, OneLinePerSimulatedSecond)
{
    std::ostringstream out;
    Report r(out, false);
    for (int i = 0; i < 35; ++i) r.add(sample(i * 100000, 0, 10, 10));
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text; // seconds 0..3
}

} // namespace
} // namespace compass
