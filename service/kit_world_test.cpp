// What the kit refuses to trust, on the virtual phone (an offset no three-dimensional
// fit confirms, a sphere's offset that the phone's own soft iron could have moved, a
// circle a hand traced about an axis that is not the vertical, a walker's circle taken
// for a vehicle's), and the kit in worlds other than the demo's: weak and steep fields,
// a noisier chip, a phone whose surroundings change. Each world's case is a handling the
// kit got wrong there, played on the virtual phone and checked against the physics.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "calibration/calibration.h"
#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// The events at accuracy lo to hi with a valid orientation (the planar estimator's alone,
// if asked): how many, how many more than off_deg off, and the sum of their squared errors.
struct Tally {
    int count = 0, off = 0;
    double squares = 0;
    double rms() const { return std::sqrt(squares / std::max(count, 1)); }
};
Tally tally(const Trace &r, uint8_t lo, uint8_t hi, double off_deg, bool planar_only = false) {
    Tally t;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if (e.accuracy < lo || e.accuracy > hi || (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0) continue;
        if (planar_only && e.estimator != KMXC_SERVICE_ESTIMATOR_PLANAR) continue;
        const double d = azimuth_error_deg(e, r.truths[i]);
        ++t.count;
        t.off += std::fabs(d) > off_deg;
        t.squares += d * d;
    }
    return t;
}

// How many of a run's events carry `flag`.
int flagged(const Trace &r, uint16_t flag) {
    return std::count_if(r.events.begin(), r.events.end(), [&](const auto &e) { return (e.flags & flag) != 0; });
}

// A phone whose own metal bends its field by up to 10 % (y stretched, z squeezed, a y-z
// skew), turned slowly by hand: a sphere fitted while the samples cover part of the
// sphere takes the bend for offset (18 uT off on this seed), as round as the truth.
// Until the samples go round far enough to tell, its predicted error carries what soft
// iron could do, and the kit does not trust it: of the high azimuths at most 1 in 10
// beyond 3 sigma (6 degrees), of the medium ones at most a quarter beyond 15 (with the
// error predicted from noise alone: 6 in 10 and every one). Its uncertainty hovers at
// the limits as the phone tilts, yet the accuracy reported never rises within the rise
// time of its last fall (it did four times on this run when it followed every cycle).
TEST_F(Kit, SoftIronIsNotTrustedBeforeTheSamplesGoRoundAndTheAccuracyDoesNotFlicker) {
    const Trace r = run({.name = "slow", .soft_iron = {1.0, 1.08, 0.90, 0, 0, -0.07}}, 10);
    const Tally high = tally(r, KMXC_SERVICE_HIGH, KMXC_SERVICE_HIGH, 6);
    const Tally medium = tally(r, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_MEDIUM, 15);
    EXPECT_GT(high.count + medium.count, 150) << "trusted once the samples go round";
    EXPECT_LE(high.off * 10, high.count) << high.off << " of " << high.count;
    EXPECT_LE(medium.off * 4, medium.count) << medium.off << " of " << medium.count;
    int falls = 0;
    int64_t fell_ns = 0;
    for (size_t i = 1; i < r.events.size(); ++i) {
        const KmxcServiceEvent &before = r.events[i - 1], &e = r.events[i];
        if (e.accuracy < before.accuracy) {
            ++falls;
            fell_ns = e.timestamp_ns;
        } else if (e.accuracy > before.accuracy && falls > 0) {
            EXPECT_GE(e.timestamp_ns - fell_ns, int64_t{KMXC_SERVICE_ACCURACY_RISE_MS} * 1000000) << "event " << i;
        }
    }
    EXPECT_GT(falls, 0) << "the run tries the rule";
}

// Lying still, only the first sample passes the feed gate; turned flat only, every
// library fit is a plane's with its normal along z, and the kit's circle (no reference
// strength and dip: a fresh phone) keeps the axial offset it started from. Both leave
// the z offset where it started (within a few counts: a circle fitted on a quarter turn
// tilts its normal a little, and the axial offset is taken along it, the more so the
// farther the circle's centre lies from the origin); neither is
// trusted (the circle gives low accuracy at most, on any seed), and no magnetic offset
// is saved. A chip noisier than the kit expects (0.45 uT per axis, common in phones)
// scatters the flat turn's circle into a band whose thickness looks like a third
// dimension: the store's sphere then put the offset 25-50 uT off along the vertical and
// was trusted; the noise the fields themselves show keeps the band's thickness from
// counting. With a field of the phone's own (78 uT) whose vertical part no calibration
// has measured, the store's sphere took its vertical offset from the prior (the offset
// in use, whose vertical part is still the default's) and from the thin band the
// turning's wobble draws, and at 100 Hz was trusted high 25 uT off: the prior steadies
// a fit, it determines no direction.
TEST_F(Kit, WithoutAThreeDimensionalFitNothingIsTrustedOrSaved) {
    const struct {
        const char *name;
        ScenarioSettings world;
        std::vector<uint32_t> seeds;
        int rate_hz;
        int z_counts;  // the z offset's drift from where it started, at most
    } cases[] = {
        {"lying still", {.name = "still"}, {1}, 20, 2},
        {"turned flat", {.name = "planar"}, {1}, 20, 2},
        {"turned flat, a noisier chip", {.name = "planar", .noise_uT = 0.45}, {1, 2, 3, 4, 5}, 10, 2},
        {"turned flat, a 78 uT field of its own", {.name = "planar", .hard_iron_uT = {60, -40, 30}}, {4}, 100, 4},
    };
    for (const auto &c : cases)
        for (const uint32_t seed : c.seeds) {
            SCOPED_TRACE(std::string(c.name) + ", seed " + std::to_string(seed));
            const bool still = c.world.name == "still";
            vphone::remove_file(kCfg);
            ScenarioSettings s = c.world;
            s.seed = seed;
            const Trace r = run(s, c.rate_hz);
            for (const auto &e : r.events) {
                const bool published = e.flags & KMXC_SERVICE_NEW_OFFSET, kit = e.flags & KMXC_SERVICE_KIT_ESTIMATE;
                if (published && kit) { EXPECT_EQ(e.estimator, KMXC_SERVICE_ESTIMATOR_PLANAR) << e.timestamp_ns; }
                if (published && !kit) { EXPECT_EQ(e.calib_result, KMXC_CALIB_PLANE_Z) << e.timestamp_ns; }
                EXPECT_LE(std::abs(e.offset[2]), c.z_counts) << e.timestamp_ns;
                EXPECT_LE(e.accuracy, still ? KMXC_SERVICE_UNRELIABLE : KMXC_SERVICE_LOW) << e.timestamp_ns;
            }
            if (still) { EXPECT_LE(flagged(r, KMXC_SERVICE_FED), 1) << "only the first sample passes the gate"; }
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
    const ScenarioSettings s{.name = "browse", .hard_iron_uT = {150, -120, 90}, .seed = 3};
    EXPECT_EQ(tally(run(s, 10), KMXC_SERVICE_LOW, KMXC_SERVICE_HIGH, 30, true).off, 0);
}

// A phone read while walking and turned with the walker traces a circle too, and once a
// 3-D calibration has given the references (here the one the default scenario saved
// before) its planar estimate is medium. But a hand's tilt wanders, and the mount's
// recent gravity would lag it (3.6 degrees RMS at medium, 15 samples beyond 15 at 50
// Hz): with no acceleration held to show a vehicle, the attitude keeps the measured
// gravity.
TEST_F(Kit, APhoneTurnedWithAWalkerKeepsItsOwnGravity) {
    run({.name = "default"}, 10);
    power_on();
    const Trace r = run({.name = "browse", .seed = 5}, 10);
    EXPECT_EQ(flagged(r, KMXC_SERVICE_MOUNT_GRAVITY), 0);
    EXPECT_GT(tally(r, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_HIGH, 0, true).count, 200)
        << "the walker's circle, confirmed by the references";
    EXPECT_LT(tally(r, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_HIGH, 0).rms(), 3.0);
}

// A magnet clipped on at 20 s moves the offset by far more than an Earth field. Its
// samples with a channel out of range move the rough offset, are flagged for the range
// alone (their field is wrong, whatever its strength) and never fed; right after the
// move the offset is off by the magnet alone (the rough offset's step, about 90 uT, was
// carried over), and the accuracy stays low until a new fit. Every sample then lies
// outside the Earth's range about the old offset, and in a weak field the library's
// batches (fed 12.8 uT apart) fill too slowly to recalibrate within the second
// figure-eight: the store must take the new surrounding's samples, fit them without a
// prior at the old offset (which would pull a cap's centre back toward it) and give the
// new offset. Meanwhile no heading more than 15 degrees off is shown as medium or high.
TEST_F(Kit, MagnetClippedOnIsFlaggedAndANewFitRestoresTheAccuracy) {
    const struct {
        const char *name;
        double field_uT;
        int rate_hz;
        uint32_t seed;
    } cases[] = {
        {"a weak field (25 uT): only the store recalibrates", 25, 10, 1},
        {"a weak field at 50 Hz", 25, 50, 2},
        {"the demo's field at 50 Hz: the store's cap fitted without the old prior", 48, 50, 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kCfg);
        const ScenarioSettings s{.name = "magnet", .field_uT = c.field_uT, .seed = c.seed};
        const Trace r = run(s, c.rate_hz);
        double clip_s = -1, refit_s = -1;
        size_t moved = 0;  // the first event after the rough offset moved
        int clipped = 0, wrong = 0, trusted_on_clip = 0;
        for (size_t i = 0; i < r.events.size(); ++i) {
            const KmxcServiceEvent &e = r.events[i];
            const double t = r.truths[i].t_s;
            if (clip_s < 0 && (e.flags & KMXC_SERVICE_ANOMALY) && t > 15) clip_s = t;
            if (moved == 0 && (e.flags & KMXC_SERVICE_ROUGH_CHANGED)) moved = i + 1;
            if (clip_s > 0 && refit_s < 0 && (e.flags & KMXC_SERVICE_FIT_3D)) refit_s = t;
            if (clip_s > 0 && refit_s < 0) { EXPECT_LE(e.accuracy, KMXC_SERVICE_LOW) << t; }
            if (e.mag_result > 0) {
                EXPECT_FALSE(e.flags & KMXC_SERVICE_FED) << "a channel out of range was fed at " << t;
                if (e.flags & KMXC_SERVICE_ANOMALY) {
                    ++clipped;
                    EXPECT_EQ(e.anomaly, KMXC_SERVICE_ANOMALY_RANGE) << t;
                }
            }
            if (std::string(r.truths[i].phase) == "magnet clipped on") continue;
            if (e.accuracy < KMXC_SERVICE_MEDIUM || (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0) continue;
            trusted_on_clip += t > 20;
            wrong += std::fabs(azimuth_error_deg(e, r.truths[i])) > 15;
        }
        EXPECT_GT(clipped, 0);
        EXPECT_NEAR(clip_s, 20.0, 0.2) << "the clip goes on at 20 s";
        ASSERT_GT(moved, 0u) << "the rough offset never moved";
        ASSERT_LT(moved, r.events.size());
        EXPECT_NEAR(offset_error_uT(r.events[moved], r.true_offsets[moved]),
                    std::hypot(s.magnet_uT[0], s.magnet_uT[1], s.magnet_uT[2]), 3.0);
        EXPECT_GT(refit_s, clip_s);
        // The second figure-eight's first turns give the store its fit, 5.8 to 6.4 s after
        // the clip; a prior at the old offset, pulling the cap's centre back toward it,
        // delays it to 6.7 to 8.3 s (the dips keep that fit from being trusted).
        EXPECT_LE(refit_s - clip_s, 6.5) << "the store refits the new surrounding";
        EXPECT_GT(trusted_on_clip, 0) << "trusted again with the clip on";
        EXPECT_EQ(wrong, 0);
        EXPECT_GE(r.events.back().accuracy, KMXC_SERVICE_MEDIUM);
        EXPECT_LT(offset_error_uT(r.events.back(), r.true_offsets.back()), 1.0);
    }
}

// A phone turned flat first gets a circle's offset at low accuracy: its component along
// the vertical is whatever was in use, which nothing has determined (a phone's own field
// of 78 uT here, 30 uT of it left along that axis). Stood on its edge, that component
// turns into the horizontal and the heading goes tens of degrees off: the accuracy must
// fall to unreliable as it does, so the low-accuracy headings keep to what low promises
// (one sigma within 15 degrees), even when the library republishes the same offset.
TEST_F(Kit, ACirclesOffsetIsLowOnlyWhileItsUndeterminedAxisStaysVertical) {
    for (const uint32_t seed : {2u, 3u}) {
        SCOPED_TRACE(seed);
        vphone::remove_file(kCfg);
        const Trace r = run({.name = "two-planes", .hard_iron_uT = {60, -40, 30}, .seed = seed}, 10);
        EXPECT_GT(tally(r, KMXC_SERVICE_LOW, KMXC_SERVICE_LOW, 0, true).count, 50)
            << "the circle's offset serves the flat turns";
        EXPECT_LT(tally(r, KMXC_SERVICE_LOW, KMXC_SERVICE_LOW, 0).rms(), 15.0);
    }
}

// A mount's gravity misses the road's slopes and takes in the traffic's gentle
// accelerations (about 2 degrees), and at a steep dip (75 degrees) a tilt error turns the
// heading by 3.7 times itself: the planar estimate's headings were 10-22 degrees off at
// medium through the turns (123 of this drive's 4,117 medium and high samples, with the
// 40-second mean). With the tilt's part in the heading's uncertainty they are low.
TEST_F(Kit, AMountsMeanGravityAtASteepDipIsWorthNoMoreThanItsSlopesAllow) {
    const Trace r = run({.name = "car", .inclination_deg = 75, .seed = 1, .car_field_uT = {0, 15, 15}}, 10);
    EXPECT_GT(flagged(r, KMXC_SERVICE_MOUNT_GRAVITY), 2000) << "the drive's planar attitude";
    EXPECT_EQ(tally(r, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_HIGH, 15).off, 0);
}

}  // namespace
