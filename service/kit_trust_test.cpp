// What the kit refuses to trust, on the virtual phone: an offset no three-dimensional
// fit confirms, a sphere's offset that the phone's own soft iron could have moved, and a
// circle a hand traced about an axis that is not the vertical.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "calibration/calibration.h"
#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// A phone whose own metal bends its field by up to 10 % (y stretched, z squeezed, a y-z
// skew), turned slowly by hand: a sphere fitted while the samples cover part of the
// sphere takes the bend for offset (18 uT off on this seed), as round as the truth.
// Until the samples go round far enough to tell, its predicted error carries what soft
// iron could do, and the kit does not trust it: of the high azimuths at most 1 in 10
// beyond 3 sigma (6 degrees), of the medium ones at most a quarter beyond 15 (with the
// error predicted from noise alone: 6 in 10 and every one).
TEST_F(Kit, SoftIronIsNotTrustedAsAnOffsetBeforeTheSamplesGoRound) {
    vphone::remove_file(kCfg);
    ScenarioSettings s = scenario("slow");
    s.soft_iron = {1.0, 1.08, 0.90, 0, 0, -0.07};
    const Trace r = run(s, 10);
    int high = 0, high_off = 0, medium = 0, medium_off = 0;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if (e.accuracy < KMXC_SERVICE_MEDIUM || (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0) continue;
        const double off = std::fabs(azimuth_error_deg(e, r.truths[i]));
        if (e.accuracy == KMXC_SERVICE_HIGH) {
            ++high;
            high_off += off > 6;
        } else {
            ++medium;
            medium_off += off > 15;
        }
    }
    EXPECT_GT(high + medium, 150) << "trusted once the samples go round";
    EXPECT_LE(high_off * 10, high) << high_off << " of " << high;
    EXPECT_LE(medium_off * 4, medium) << medium_off << " of " << medium;
}

// Lying still, only the first sample passes the feed gate; turned flat only, every
// library fit is a plane's with its normal along z, and the kit's circle (no reference
// strength and dip: a fresh phone) keeps the axial offset it started from. Both leave
// the z offset where it started (within 2 counts: a circle fitted on a quarter turn
// tilts its normal a little, and the axial offset is taken along it); neither is trusted (the circle gives low accuracy
// at most), and no magnetic offset is saved.
TEST_F(Kit, WithoutAThreeDimensionalFitNothingIsTrustedOrSaved) {
    for (const char *name : {"still", "planar"}) {
        SCOPED_TRACE(name);
        vphone::remove_file(kCfg);
        const Trace r = run(scenario(name), 20);
        int fed = 0;
        for (const auto &e : r.events) {
            fed += (e.flags & KMXC_SERVICE_FED) != 0;
            if (e.flags & KMXC_SERVICE_NEW_OFFSET) {
                if (e.flags & KMXC_SERVICE_KIT_ESTIMATE) {
                    EXPECT_EQ(e.estimator, KMXC_SERVICE_ESTIMATOR_PLANAR) << e.timestamp_ns;
                } else {
                    EXPECT_EQ(e.calib_result, KMXC_CALIB_PLANE_Z) << e.timestamp_ns;
                }
            }
            EXPECT_LE(std::abs(e.offset[2]), 2) << e.timestamp_ns;
            EXPECT_LE(e.accuracy, std::string(name) == "still" ? KMXC_SERVICE_UNRELIABLE : KMXC_SERVICE_LOW)
                << e.timestamp_ns;
        }
        if (std::string(name) == "still") { EXPECT_LE(fed, 1) << "only the first sample passes the gate"; }
        const auto cfg = vphone::read_file(kCfg);
        ASSERT_TRUE(cfg);
        EXPECT_NE(cfg->find(",2147483647,2147483647,2147483647"), std::string::npos) << *cfg;
    }
}

// A map reader's phone with a strong field of its own (150 uT), never calibrated: the
// store's circles come from the hand's turns. On this seed one is traced about an axis
// 22 to 26 degrees from the phone's mean gravity, near the field's direction: a small
// circle whose centre says nothing of the offset. Taken as a planar estimate it gave
// a heading at low accuracy that was more than 30 degrees off on every sample (RMS
// 123); the planar estimate without a reference now needs its axis within the mount's
// allowance of the mean gravity, and every low planar heading here is within 30.
TEST_F(Kit, AHandsCircleAboutAnAxisOtherThanTheVerticalGivesNoPlanarHeading) {
    vphone::remove_file(kCfg);
    ScenarioSettings s = scenario("browse");
    s.seed = 3;
    s.hard_iron_uT = Vec3{150, -120, 90};
    const Trace r = run(s, 10);
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if (e.estimator != KMXC_SERVICE_ESTIMATOR_PLANAR || e.accuracy < KMXC_SERVICE_LOW ||
            (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0)
            continue;
        EXPECT_LT(std::fabs(azimuth_error_deg(e, r.truths[i])), 30.0) << "event " << i;
    }
}

}  // namespace
