// The kit in a vehicle's mount, on the virtual phone: the attitude against a car's
// accelerations, whichever estimate gives the offset.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// In a car's mount the attitude takes the mount's recent gravity while the phone turns
// on its circle: the heading then holds through braking and cornering (0.4 g tilts the
// measured gravity by up to 22 degrees, several times the heading at a 60-degree dip)
// and follows the road's slopes. Over the drive's samples that took it, the double
// path's azimuth stays within 4.3 degrees RMS of the truth, where the measured gravity
// leaves about 9, and pitch and roll within 2.6 (the 40-second mean alone: 4.5 and 2.9).
// Never calibrated in the hand, the mount's slopes and wobble take the samples a little
// off their circle: a band the sphere fits, whose offset the soft iron a phone may have
// could move by many uT. Nothing confirms it: never medium or high. A car that adds no
// field of its own leaves the hand's offset trusted in the mount (a 20-degree dip,
// upward here): its attitude takes the measured gravity, so the rule that caps a tilted
// one carries the drive's turns and brakings. On either drive every event flagged with
// the tilt is at most low (without the cap, 13 of the second's are medium or high).
TEST_F(Kit, AMountedPhonesAttitudeTakesTheMountsRecentGravityAndATiltedOneIsAtMostLow) {
    const struct {
        const char *name;
        ScenarioSettings world;
        bool trusted;    // its offset may be medium or high
        int not_planar;  // tilted events of another estimate than the planar one, more than
    } cases[] = {
        {"a 60-degree dip: the offset never trusted", scenario("car-fresh"), false, 0},
        {"a car that adds no field, a 20-degree dip: the hand's offset in the mount",
         {.name = "car", .inclination_deg = -20, .seed = 4, .car_field_uT = {0, 0, 0}},
         true,
         200},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kCfg);
        const Trace r = run(c.world, 10);
        double sq = 0, sq_tilt = 0;
        int n = 0, tilted = 0, not_planar = 0;
        for (size_t i = 0; i < r.events.size(); ++i) {
            const KmxcServiceEvent &e = r.events[i];
            if (!c.trusted) { EXPECT_LE(e.accuracy, KMXC_SERVICE_LOW) << "event " << i; }
            if (e.flags & KMXC_SERVICE_MOUNT_TILT) {
                ++tilted;
                not_planar += e.estimator != KMXC_SERVICE_ESTIMATOR_PLANAR;
                EXPECT_LE(e.accuracy, KMXC_SERVICE_LOW) << "event " << i;
                // The measured gravity, but for a planar attitude on a mean its length calls tilted.
                if (e.estimator != KMXC_SERVICE_ESTIMATOR_PLANAR) {
                    EXPECT_EQ(e.flags & KMXC_SERVICE_MOUNT_GRAVITY, 0) << "event " << i;
                }
            }
            if ((e.flags & KMXC_SERVICE_MOUNT_GRAVITY) == 0 || (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0)
                continue;
            const double d = azimuth_error_deg(e, r.truths[i]);
            const TrueAngles t = true_angles(r.truths[i].attitude, HeadingAxis::kY);
            const double pitch = e.orientation_deg[1] - t.pitch,
                         roll = heading_difference(e.orientation_deg[2], t.roll);
            sq += d * d;
            sq_tilt += pitch * pitch + roll * roll;
            ++n;
        }
        EXPECT_GT(n, 2000) << "most of the drive after the first planar estimate";
        EXPECT_LT(std::sqrt(sq / std::max(n, 1)), 4.3);
        EXPECT_LT(std::sqrt(sq_tilt / std::max(n, 1)), 2.6) << "pitch and roll, whole degrees";
        EXPECT_GT(tilted, 200) << "the drive's turns and brakings";
        EXPECT_GT(not_planar, c.not_planar) << "a sphere's offset in the mount";
    }
}

// A knock tilts the mount by 13 degrees about magnetic north on a straight stretch (the
// planar estimate at medium, its attitude on the mount's mean gravity): the field then
// stays on the mount's circle, the tilt only turning it like a turn would, and a pitch
// toward east turns the heading by about 20 degrees. The new tilt keeps gravity's
// length: within a second and a half it holds the accuracy at low, and once held the
// mean starts afresh from it and the heading is right again. (Before, the mean left the
// heading about 20 degrees off at medium.)
TEST_F(Kit, AMountKnockedToANewTiltIsNotTakenForAnAcceleration) {
    constexpr double kKnockS = 232, kShownS = 1.5, kHeldS = 5, kUntilS = 258;
    const double a = 13 * std::acos(-1.0) / 180;
    // The attitude's rows (east, north, up in phone axes) turned about north.
    const Mat3 turn{{{std::cos(a), 0, -std::sin(a)}, {0, 1, 0}, {std::sin(a), 0, std::cos(a)}}};
    const Trace r = run(scenario("car"), 10, kUntilS, [&](double t, Truth &truth) {
        if (t < kKnockS) return;
        const Vec3 earth = to_world(truth.attitude, truth.earth_uT), g = to_world(truth.attitude, truth.gravity_g);
        Vec3 noise;
        for (int k = 0; k < 3; ++k) noise[k] = truth.field_uT[k] - truth.earth_uT[k];
        truth.attitude = multiply(turn, truth.attitude);
        truth.earth_uT = to_phone(truth.attitude, earth);
        for (int k = 0; k < 3; ++k) truth.field_uT[k] = truth.earth_uT[k] + noise[k];
        truth.gravity_g = to_phone(truth.attitude, g);
    });
    const size_t knock = static_cast<size_t>(10 * kKnockS);
    ASSERT_GE(r.events.size(), static_cast<size_t>(10 * kUntilS) - 1);
    ASSERT_EQ(r.events[knock - 1].estimator, KMXC_SERVICE_ESTIMATOR_PLANAR);
    ASSERT_EQ(r.events[knock - 1].accuracy, KMXC_SERVICE_MEDIUM);
    ASSERT_STREQ(r.truths[knock].phase, "driving straight");
    ASSERT_STREQ(r.truths.back().phase, "driving straight");
    int medium = 0;
    for (size_t i = knock + static_cast<size_t>(10 * kShownS); i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        const double error = std::fabs(azimuth_error_deg(e, r.truths[i]));
        if (e.accuracy >= KMXC_SERVICE_MEDIUM) {
            ++medium;
            EXPECT_LT(error, 6.0) << "event " << i;
        }
        if (i >= knock + static_cast<size_t>(10 * kHeldS)) { EXPECT_LT(error, 6.0) << "event " << i; }
    }
    EXPECT_GT(medium, 100) << "medium again once the mean has started afresh";
}

// A phone mounted near 60 degrees (a dashboard mount's tilt, give or take a road's
// slopes): its integer heading changes axis only past the margin either side, so it
// keeps the axis it has, and the event says which. The phone rolled by 20 degrees sets
// the two axes' headings about 20 degrees apart; each hold ends on the heading of the
// axis the event names. (Without the margin, 62 degrees would give the z axis and 58
// the y axis.)
TEST_F(Kit, TheIntegerHeadingKeepsItsAxisWithinTheMarginAndSaysWhich) {
    const struct {
        double pitch_up_deg;  // the y axis this far above the horizontal, for 3 s
        HeadingAxis axis;
    } holds[] = {
        {50, HeadingAxis::kY}, {62, HeadingAxis::kY}, {67, HeadingAxis::kZ},
        {58, HeadingAxis::kZ}, {53, HeadingAxis::kY},
    };
    constexpr double kHoldS = 3;
    // Noiseless, and the offset known: none.
    const ScenarioSettings s{.name = "still", .hard_iron_uT = {0, 0, 0}, .noise_uT = 0, .accel_noise_g = 0};
    // The phone held in each pose in the scenario's undisturbed field (magnetic: no declination).
    const Trace r = run(s, 10, kHoldS * std::size(holds), [&](double t, Truth &truth) {
        const size_t k = std::min(static_cast<size_t>(t / kHoldS), std::size(holds) - 1);
        truth.attitude = attitude_matrix(Pose{40, -holds[k].pitch_up_deg, 20});
        truth.earth_uT = to_phone(truth.attitude, earth_field_uT(s.field_uT, s.inclination_deg));
        truth.field_uT = truth.earth_uT;
        truth.gravity_g = to_phone(truth.attitude, Vec3{0, 0, -1});
    });
    ASSERT_GE(r.events.size(), 10 * kHoldS * std::size(holds));
    for (size_t k = 0; k < std::size(holds); ++k) {
        SCOPED_TRACE(holds[k].pitch_up_deg);
        const size_t last = (k + 1) * 10 * kHoldS - 1;
        const KmxcServiceEvent &e = r.events[last];
        ASSERT_TRUE(e.flags & KMXC_SERVICE_HEADING_VALID);
        EXPECT_EQ((e.flags & KMXC_SERVICE_HEADING_Z_AXIS) != 0, holds[k].axis == HeadingAxis::kZ);
        const TrueAngles t = true_angles(r.truths[last].attitude, holds[k].axis);
        EXPECT_LE(std::fabs(heading_difference(e.heading_deg, t.integer_heading)), 1.5);
        EXPECT_GT(std::fabs(heading_difference(t.y_heading, t.z_heading)), 10) << "the axes' headings differ";
    }
}

// A car run's entries into the vehicle (each expected as the car pulls away) and its
// medium/high samples with an orientation from the first entry on, and how many of them
// are more than 15 degrees off.
struct AfterEntry {
    int entries = 0, trusted = 0, wrong = 0;
};
AfterEntry after_entry(const Trace &r) {
    AfterEntry a;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if ((e.anomaly & KMXC_SERVICE_ANOMALY_VEHICLE) != 0) {
            ++a.entries;
            EXPECT_STREQ(r.truths[i].phase, "driving: pulling away");
        }
        if (a.entries == 0 || e.accuracy < KMXC_SERVICE_MEDIUM || (e.flags & KMXC_SERVICE_ORIENTATION_VALID) == 0)
            continue;
        ++a.trusted;
        a.wrong += std::fabs(azimuth_error_deg(e, r.truths[i])) > 15;
    }
    return a;
}

// A weak car field (10 uT) moves the strength and the dip too little at most headings
// for the anomaly rules. On seed 1, clipped into the mount, it moves the strength by 8 %
// and the dip by 4 degrees: inside the anomaly tolerances, and the hand's offset was
// trusted at medium 18 degrees off until the car pulled away. The fit's band is its
// batch's: from 2 s after the phone enters the mount, nothing is medium or high, and no
// anomaly episode empties the store before the car moves. On seed 5 the band shows
// nothing: the hand's offset stayed trusted in the mount, 735 of the run's medium and
// high samples more than 15 degrees off. The car pulling away is an acceleration without
// a turn: the kit enters the vehicle once, there, demotes the hand's offset and starts
// the store afresh; the mount's own estimate takes over. None of seed 5's 1,769 medium
// and high samples after it is wrong (measured); the 60 before it, parked in the mount
// and in the pulling away's first second, nothing could tell.
TEST_F(Kit, AWeakCarFieldTakesTheHandsTrustOnceTheBandOrThePullingAwayShowsIt) {
    for (const uint32_t seed : {1, 5}) {
        SCOPED_TRACE(seed);
        const bool band = seed == 1;  // the strength leaves the fit's band in the mount
        const Trace r = run({.name = "car", .seed = seed, .car_field_uT = {6, -4, 7}}, 10);
        double mounted_s = -1;
        int trusted_in_hand = 0, outside = 0;
        for (size_t i = 0; i < r.events.size(); ++i) {
            const KmxcServiceEvent &e = r.events[i];
            const Truth &t = r.truths[i];
            if ((e.anomaly & KMXC_SERVICE_ANOMALY_VEHICLE) != 0) {
                EXPECT_EQ(e.accuracy, KMXC_SERVICE_UNRELIABLE) << "the car's own field not yet measured";
                EXPECT_EQ(e.coverage_cells, 0) << "the store starts afresh";
            }
            if (mounted_s < 0 && std::string(t.phase) == "mounted") mounted_s = t.t_s;
            if (mounted_s < 0) {
                trusted_in_hand += e.accuracy >= KMXC_SERVICE_MEDIUM;
                continue;
            }
            outside += (e.anomaly & KMXC_SERVICE_ANOMALY_OUTSIDE_BAND) != 0;
            if (band && std::string(t.phase) == "mounted") {
                EXPECT_EQ(e.flags & KMXC_SERVICE_ANOMALY, 0) << t.t_s;
                if (t.t_s >= mounted_s + 2) { EXPECT_LE(e.accuracy, KMXC_SERVICE_LOW) << t.t_s; }
            }
        }
        const AfterEntry a = after_entry(r);
        ASSERT_GT(mounted_s, 0);
        EXPECT_GT(trusted_in_hand, 0);
        EXPECT_EQ(outside > 0, band) << "the band's anomaly";
        EXPECT_EQ(a.entries, 1);
        EXPECT_GT(a.trusted, 1000) << "the mount's estimate is trusted";
        EXPECT_LE(a.wrong * 200, a.trusted) << a.wrong << " of " << a.trusted;
    }
}

// At a 70-degree dip (50 uT, the chip's noise 0.5 uT) the same weak car field hides from
// the anomaly rules, and the car pulls away heading across the field: gravity moves
// across the plane of field and gravity, its angle to the field by under 4 degrees. The
// turn about the field that move implies (25 degrees and more) is no hand's: the kit
// enters the vehicle while the car pulls away. Before the across-plane rule it entered
// only at the first turn (97 s at 10 Hz, 144 s at 50), the hand's offset 10 uT off and
// 724 and 3,643 medium and high samples more than 15 degrees off until then. With that
// noise the watch also needs the field smoothed before it is judged still, else a
// reading's noise restarts it within the hold: at 50 Hz (the rate's smoothing), and at
// 10 Hz at the demo's dip (the noise meter's), where seed 4 stayed trusted 10 uT off
// until 53 s.
TEST_F(Kit, ACarPullingAwayIsSeenAcrossASteepFieldAndThroughAChipsNoise) {
    const struct {
        const char *name;
        double field_uT, inclination_deg;
        uint32_t seed;
        int rate_hz;
    } cases[] = {
        {"a 70-degree dip at 10 Hz", 50, 70, 5, 10},
        {"a 70-degree dip at 50 Hz", 50, 70, 5, 50},
        {"the demo's dip at 10 Hz", 48, 60, 4, 10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Trace r = run({.name = "car",
                             .field_uT = c.field_uT,
                             .inclination_deg = c.inclination_deg,
                             .noise_uT = 0.5,
                             .seed = c.seed,
                             .car_field_uT = {6, -4, 7}},
                            c.rate_hz);
        const AfterEntry a = after_entry(r);
        EXPECT_EQ(a.entries, 1);
        EXPECT_GT(a.trusted, 300) << "the mount's estimate is trusted";
        EXPECT_LE(a.wrong * 200, a.trusted) << a.wrong << " of " << a.trusted;
    }
}

}  // namespace
