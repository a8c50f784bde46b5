// The report's tallies on hand-made samples: which samples count toward each error,
// where the seconds at each accuracy go, what counts as a wrong trusted azimuth.
#include "tools/report.h"

#include "service/kmxc_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <sstream>

namespace compass {
namespace {

// Sample i, at i * 0.1 s, with both paths at `heading`, the truth (every heading) at
// true_heading, level.
SampleOutput sample(size_t i, int calib_rc, int heading, double true_heading, int accuracy = 0) {
    SampleOutput s{.time_us = static_cast<int64_t>(i) * 100000, .calib_rc = calib_rc, .integer_heading = heading};
    s.heading_valid = s.orientation_valid = s.has_truth = true;
    s.euler = {heading, 0, 0};
    s.truth = {true_heading, true_heading, true_heading, true_heading, 0, 0};
    s.accuracy = accuracy;
    s.flags = KMXC_SERVICE_HEADING_VALID | KMXC_SERVICE_ORIENTATION_VALID;
    return s;
}

// The summary of n samples, sample i being sample_at(i).
Summary summary_of(size_t n, const std::function<SampleOutput(size_t i)> &sample_at) {
    std::ostringstream out;
    Report r(out, true);
    for (size_t i = 0; i < n; ++i) r.add(sample_at(i));
    return r.summary();
}

TEST(Report, HeadingErrorsCountOnlyAfterTheFirstThreeDimensionalCalibration) {
    const SampleOutput samples[] = {sample(0, 0, 100, 10),   // uncalibrated: 90 degrees off, ignored
                                    sample(1, 24, 100, 10),  // planar: still ignored
                                    sample(2, 63, 359, 1),   // first 3-D: -2 across north
                                    sample(3, 7, 4, 0)};     // +4
    const Summary m = summary_of(std::size(samples), [&](size_t i) { return samples[i]; });
    EXPECT_EQ(m.first_3d_sample, 3);
    EXPECT_DOUBLE_EQ(m.first_3d_s, 0.2);
    EXPECT_EQ(m.planar_events, 1);
    EXPECT_EQ(m.three_d_events, 1);
    EXPECT_EQ(m.codes_seen, (std::vector<int>{24, 63}));
    EXPECT_EQ(m.integer_heading_error.count, 2);
    EXPECT_DOUBLE_EQ(m.integer_heading_error.max_abs, 4);
    EXPECT_NEAR(m.integer_heading_error.rms(), std::sqrt((4.0 + 16.0) / 2), 1e-12);
}

// Each interval between samples goes to the accuracy the later sample reports; a
// trusted (medium or high) azimuth is wrong only beyond 15 degrees.
TEST(Report, SecondsGoToTheLaterSamplesAccuracyAndTrustedAzimuthsAreWrongBeyondFifteenDegrees) {
    const struct {
        int accuracy, azimuth;
        double true_azimuth;
    } at[] = {{0, 140, 100}, {0, 140, 100}, {2, 115, 100}, {3, 115, 99.5}, {3, 84, 100}, {1, 130, 100}, {2, 85, 100}};
    const Summary m = summary_of(std::size(at), [&](size_t i) {
        SampleOutput s = sample(i, 0, 0, 0, at[i].accuracy);  // the integer path right
        s.euler[0] = at[i].azimuth, s.truth.double_azimuth = at[i].true_azimuth;
        return s;
    });
    for (int a : {0, 1}) EXPECT_NEAR(m.accuracy_s[a], 0.1, 1e-12) << a;
    for (int a : {2, 3}) EXPECT_NEAR(m.accuracy_s[a], 0.2, 1e-12) << a;
    EXPECT_EQ(m.trusted_samples, 4);
    EXPECT_EQ(m.trusted_wrong, 2) << "15.5 and 16 degrees off; 15 is not wrong";
}

// Held steady: the true attitude within 8 degrees for the last 2 s.
TEST(Report, SteadyErrorsCountTwoSecondsAfterTheAttitudeLastMovedMoreThanEightDegrees) {
    const Summary m = summary_of(51, [](size_t i) {
        const double truth = i < 10 ? 2.0 * i : (i < 20 ? 30 + 0.5 * i : 50);  // the last big move: sample 20
        return sample(i, i == 0 ? 63 : 0, 0, truth);
    });
    // Steady from 2.0 s (the reference taken at sample 20), counted from 4.0 s.
    EXPECT_EQ(m.steady_integer_error.count, 11);
    EXPECT_DOUBLE_EQ(m.steady_integer_error.max_abs, 50);
}

// The heading a held attitude keeps is the y axis', or the back's once the y axis stands
// beyond 60 degrees: whichever axis is steady counts, the other may swing (a steep y
// axis' heading does with every tremor, a flat phone's back points down).
TEST(Report, AHeldAttitudeIsJudgedByTheHeadingOfTheAxisThatIsNotSteep) {
    const struct {
        const char *name;
        double pitch;
        bool z_swings;  // else the y axis' heading swings
        int steady;
    } cases[] = {
        {"flat: y held, z swings", 0, true, 11},
        {"flat: y swings", 0, false, 0},
        {"75 degrees: z held, y swings", -75, false, 11},
        {"75 degrees: z swings", -75, true, 0},
    };
    for (const auto &c : cases) {
        const Summary m = summary_of(31, [&](size_t i) {
            SampleOutput s = sample(i, i == 0 ? 63 : 0, 40, 40);
            s.truth.pitch = c.pitch;
            (c.z_swings ? s.truth.z_heading : s.truth.y_heading) = i % 2 ? 60 : 20;
            return s;
        });
        EXPECT_EQ(m.steady_integer_error.count, c.steady) << c.name;
    }
}

// The summary's later additions come after its first lines: when the accuracy was first
// medium or high, when the phone was mounted, and the heading errors at each accuracy
// over the whole run, calibrated or not.
TEST(Report, ErrorsAreTalliedByTheAccuracyReportedWithThemAndListedAtTheEnd) {
    const struct { int accuracy, error; } samples[] = {{0, 30}, {0, -40}, {1, 10}, {2, 3}, {3, -4}, {3, 0}};
    std::ostringstream out;
    Report r(out, true);
    for (size_t i = 0; i < std::size(samples); ++i) {
        SampleOutput s = sample(i, 0, 100 + samples[i].error, 100, samples[i].accuracy);
        s.mounted_s = 0.25;
        r.add(s);
    }
    const Summary &m = r.summary();
    EXPECT_DOUBLE_EQ(m.first_trusted_s, 0.3);
    EXPECT_DOUBLE_EQ(m.mounted_s, 0.25);
    EXPECT_EQ(m.integer_error_at[0].count, 2);
    EXPECT_DOUBLE_EQ(m.integer_error_at[0].rms(), std::sqrt((900.0 + 1600.0) / 2));
    EXPECT_DOUBLE_EQ(m.double_error_at[1].rms(), 10);
    EXPECT_EQ(m.integer_error_trusted.count, 3);
    EXPECT_DOUBLE_EQ(m.double_error_trusted.rms(), std::sqrt((9.0 + 16.0) / 3));
    r.print_summary("here");
    const std::string text = out.str();
    const size_t persisted = text.find("  persisted                 here\n");
    ASSERT_NE(persisted, std::string::npos) << text;
    for (const char *line : {"  first medium/high         0.3 s\n", "  mounted                   0.2 s\n",
                             "    unreliable              RMS 35.36 / 35.36 deg, 2 samples\n",
                             "    medium/high             RMS 2.89 / 2.89 deg, 3 samples\n",
                             "  kit estimator             none at the end; 0 offset(s) from the kit's own estimators\n",
                             "  sample store coverage     0 of 24 cells at the last fit\n"})
        EXPECT_GT(text.find(line), persisted) << line << text;
}

TEST(Report, OneLinePerSimulatedSecond) {
    std::ostringstream out;
    Report r(out, false);
    for (size_t i = 0; i < 35; ++i) r.add(sample(i, 0, 10, 10));
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;  // seconds 0..3
}

}  // namespace
}  // namespace compass
