// The kit's rules on the virtual phone: the sample-feed gate, the first fit at every
// rate, accuracy, anomalies and the warm-up.
#include <gtest/gtest.h>

#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// ---- Sample feed: rate-independent first fit --------------------------------------

TEST_F(Kit, DefaultHandlingFitsInThreeDimensionsWithin20SecondsAtEveryRate) {
    for (int rate : {10, 20, 50, 100}) {
        SCOPED_TRACE(rate);
        vphone::remove_file(kCfg);
        const Trace r = run(scenario("default"), rate, 40);
        ASSERT_EQ(r.start_rc, 0);
        EXPECT_GT(r.first_fit_s, 0) << "no 3-D fit";
        EXPECT_LE(r.first_fit_s, 20.0);
        EXPECT_LT(offset_error_uT(r.events.back(), r.true_offsets.back()), 1.5);
        EXPECT_GE(r.events.back().accuracy, KMXC_SERVICE_MEDIUM);
    }
}

TEST_F(Kit, SlowHandTurningFitsWithin30SecondsAtEveryRate) {
    // Seeds whose first slow batch spreads just short of the library's own
    // three-dimensional threshold at 50 and 100 Hz.
    const struct {
        int rate;
        uint32_t seed;
    } cases[] = {{10, 1}, {20, 1}, {50, 2}, {100, 4}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rate);
        vphone::remove_file(kCfg);
        ScenarioSettings s = scenario("slow");
        s.seed = c.seed;
        const Trace r = run(s, c.rate, 40);
        EXPECT_GT(r.first_fit_s, 0) << "no 3-D fit";
        EXPECT_LE(r.first_fit_s, 30.0);
    }
}

TEST_F(Kit, StillPhoneFeedsNothingAndStaysUnreliable) {
    const Trace r = run(scenario("still"), 50);
    int fed = 0;
    for (const auto &e : r.events) {
        fed += (e.flags & KMXC_SERVICE_FED) != 0;
        EXPECT_EQ(e.accuracy, KMXC_SERVICE_UNRELIABLE);
    }
    EXPECT_LE(fed, 1) << "only the first sample passes the gate";
}

TEST_F(Kit, FedSamplesAreAtLeastTheGateApartFromTheLastFew) {
    const Trace r = run(scenario("default"), 100, 12);
    std::vector<const KmxcServiceEvent *> fed;
    for (const auto &e : r.events)
        if (e.flags & KMXC_SERVICE_FED) fed.push_back(&e);
    ASSERT_GT(fed.size(), 16u);
    for (size_t i = 1; i < fed.size(); ++i)
        for (size_t j = i >= KMXC_SERVICE_FEED_GATE_HISTORY ? i - KMXC_SERVICE_FEED_GATE_HISTORY : 0; j < i; ++j) {
            double sq = 0;
            for (int k = 0; k < 3; ++k) sq += std::pow(fed[i]->ms[k] - fed[j]->ms[k], 2);
            EXPECT_GE(std::sqrt(sq), KMXC_SERVICE_FEED_MIN_CHANGE) << "fed samples " << j << " and " << i;
        }
}

// ---- Accuracy and anomalies ---------------------------------------------------------

TEST_F(Kit, UnreliableUntilTheFirstFitThenHighWithRightHeadings) {
    const Trace r = run(scenario("default"), 20);
    ASSERT_GT(r.first_fit_s, 0);
    int trusted = 0, wrong = 0;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        const double t = static_cast<double>(e.time_us) / 1e6;
        if (t < r.first_fit_s) { EXPECT_EQ(e.accuracy, KMXC_SERVICE_UNRELIABLE) << t; }
        if (e.accuracy >= KMXC_SERVICE_MEDIUM && (e.flags & KMXC_SERVICE_ORIENTATION_VALID)) {
            ++trusted;
            const double truth = true_angles(r.truths[i].attitude).azimuth_double;
            wrong += std::fabs(heading_difference(static_cast<int>(e.orientation_deg[0]), truth)) > 15.0;
        }
    }
    EXPECT_EQ(r.events.back().accuracy, KMXC_SERVICE_HIGH);
    ASSERT_GT(trusted, 1000);
    EXPECT_LE(wrong * 50, trusted) << wrong << " of " << trusted << " medium/high azimuths more than 15 deg off";
}

// Field disturbances on a calibrated phone lying on the table: applied from 19 s to
// 21.5 s of the magnet scenario's script (calibrated by then, on the table from 17 s
// to 24 s; the test leaves the clip off).
struct Disturbance {
    const char *name;
    std::function<void(Truth &)> apply;
    uint8_t cause;
    int8_t cap;  // highest accuracy while it lasts
};

const Disturbance kDisturbances[] = {
    // (A disturbance that keeps both the strength and the dip is invisible to these
    // rules: +25 uT along x here would turn the heading by 60 degrees unnoticed.)
    {"magnet approaches from below (field +25 uT down)", [](Truth &t) { t.field_uT[2] -= 25; },
     KMXC_SERVICE_ANOMALY_STRENGTH, KMXC_SERVICE_LOW},
    {"field weakens to 60 %",
     [](Truth &t) {
         for (double &f : t.field_uT) f *= 0.6;
     },
     KMXC_SERVICE_ANOMALY_STRENGTH, KMXC_SERVICE_LOW},
    {"strong magnet (over 100 uT)", [](Truth &t) { t.field_uT[1] += 80; }, KMXC_SERVICE_ANOMALY_RANGE,
     KMXC_SERVICE_UNRELIABLE},
    {"dip turns by 35 degrees, strength kept",
     [](Truth &t) {
         // Rotate the field about the phone's x axis (the table's east-west line).
         const double a = 35 * 3.14159265358979 / 180, y = t.field_uT[1], z = t.field_uT[2];
         t.field_uT[1] = y * std::cos(a) - z * std::sin(a);
         t.field_uT[2] = y * std::sin(a) + z * std::cos(a);
     },
     KMXC_SERVICE_ANOMALY_DIP, KMXC_SERVICE_LOW},
};

TEST_F(Kit, FieldAnomaliesLowerTheAccuracyUntilTheyAreGone) {
    for (const Disturbance &d : kDisturbances) {
        SCOPED_TRACE(d.name);
        vphone::remove_file(kCfg);
        ScenarioSettings s = scenario("magnet");
        s.magnet_uT = {0, 0, 0};  // the clip stays off: the disturbance is the test's
        const Trace r = run(s, 20, 24, [&](double t, Truth &truth) {
            if (t >= 19 && t < 21.5) d.apply(truth);
        });
        int8_t before = -1;
        bool flagged = false;
        for (const auto &e : r.events) {
            const double t = static_cast<double>(e.time_us) / 1e6;
            if (t > 18 && t < 19) before = e.accuracy;
            if (t >= 19.2 && t < 21.5) {
                EXPECT_LE(e.accuracy, d.cap) << t;
                flagged |= (e.anomaly & d.cause) != 0;
            }
            if (t >= 21.5 + KMXC_SERVICE_ANOMALY_CLEAR_MS / 1000.0 + 0.2) { EXPECT_EQ(e.accuracy, before) << t; }
        }
        EXPECT_EQ(before, KMXC_SERVICE_HIGH);
        EXPECT_TRUE(flagged) << "cause not reported";
    }
}

TEST_F(Kit, MagnetClippedOnIsFlaggedAndANewFitRestoresTheAccuracy) {
    const Trace r = run(scenario("magnet"), 20);
    double clip_s = -1, refit_s = -1;
    bool rough_changed = false;
    for (const auto &e : r.events) {
        const double t = static_cast<double>(e.time_us) / 1e6;
        if (clip_s < 0 && (e.flags & KMXC_SERVICE_ANOMALY) && t > 15) clip_s = t;
        rough_changed |= (e.flags & KMXC_SERVICE_ROUGH_CHANGED) != 0;
        if (clip_s > 0 && refit_s < 0 && (e.flags & KMXC_SERVICE_FIT_3D)) refit_s = t;
        if (clip_s > 0 && refit_s < 0) { EXPECT_LE(e.accuracy, KMXC_SERVICE_LOW) << t; }
    }
    EXPECT_NEAR(clip_s, 20.0, 0.2) << "the clip goes on at 20 s";
    EXPECT_TRUE(rough_changed);
    EXPECT_GT(refit_s, clip_s);
    EXPECT_EQ(r.events.back().accuracy, KMXC_SERVICE_HIGH);
    EXPECT_LT(offset_error_uT(r.events.back(), r.true_offsets.back()), 1.5);
}

// ---- Warm-up ----------------------------------------------------------------------------

TEST_F(Kit, NoIntegerHeadingUntilTheSmootherHasHistory) {
    // The smoother's history outlives a restart; the worst case is a restart facing
    // the opposite way. (Turning the declination turns the magnetic heading.)
    ScenarioSettings s = scenario("still");
    s.noise_uT = 0;
    s.accel_noise_g = 0;
    run(s, 10, 3);
    s.declination_deg += 170;
    const Trace r = run(s, 10, 3);
    ASSERT_GT(r.events.size(), KMXC_SERVICE_WARMUP_CYCLES + 5u);
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if (i < KMXC_SERVICE_WARMUP_CYCLES) {
            EXPECT_EQ(e.heading_deg, -1) << i;
            EXPECT_FALSE(e.flags & KMXC_SERVICE_HEADING_VALID) << i;
            continue;
        }
        // The first heading reported agrees with the unsmoothed one of the same sample.
        const KmxAxesData ms{e.ms[0], e.ms[1], e.ms[2]}, gs{e.gs[0], e.gs[1], e.gs[2]};
        KmxAxesAttitude a;
        ASSERT_EQ(KmxAxesLibGetAttitude(&ms, &gs, &a), 0);
        uint16_t raw = 0;
        KmxAxesLibCalcDirectionWOF(&a, &raw, KMXC_SERVICE_DIRECTION_THRESHOLD);
        EXPECT_LE(std::abs(heading_difference(e.heading_deg, raw)), 1.0) << i;
    }
}

}  // namespace
