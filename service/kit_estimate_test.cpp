// The kit's estimator rules at their thresholds, on synthetic fields (no phone): which
// samples the store takes, when a persisting anomaly empties it, when it is refitted,
// how a fit's determinacy, agreement and the recent samples decide its use, when the
// ellipsoid's soft-iron correction replaces the sphere, and when a stale store goes.
#include <gtest/gtest.h>

#include <algorithm>

#include "service/kit_estimate_test_support.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {
State g_state;  // the rules' state, here the test's own
}  // namespace kmxc_kit

namespace {

using namespace kit_estimate_test;

// n cycles at `now` that offer nothing (a clipped sample), fits allowed or not; the last event.
KmxcServiceEvent idle(int n, bool fit_allowed = true, int64_t now = 1) {
    KmxcServiceEvent e{};
    e.mag_result = 1;
    while (n-- > 0) store_cycle(Vec3{0, 0, 0}, kDown, fit_allowed, now, &e);
    return e;
}

// The ring of fed samples: every direction about o, with noise of sd counts.
void feed_ring(const Vec3 &o, double sd) {
    Noise noise;
    for (const auto &d : directions(KMXC_SERVICE_FEED_HISTORY))
        remember_fed(sample(d, o, kNoSoftIron, noise, sd), kDown);
}

void trust(int8_t accuracy) {
    g_state.offset_trusted = true;
    g_state.base_accuracy = accuracy;
}

// ---- Admission and clearing -------------------------------------------------------------

TEST(KitEstimate, TheStoreTakesInRangeSamplesAndKeepsAnomaliesOutUntilTheReferenceIsStale) {
    const struct {
        const char *name;
        int8_t mag_result;
        uint8_t anomaly;
        bool stale, joins;
    } cases[] = {
        {"an in-range sample", 0, 0, false, true},
        {"a channel out of range", 1, 0, false, false},
        {"a strength anomaly", 0, KMXC_SERVICE_ANOMALY_STRENGTH, false, false},
        {"a dip anomaly", 0, KMXC_SERVICE_ANOMALY_DIP, false, false},
        {"a strength outside the estimate's band", 0, KMXC_SERVICE_ANOMALY_OUTSIDE_BAND, false, true},
        {"a strength anomaly against a stale reference", 0, KMXC_SERVICE_ANOMALY_STRENGTH, true, true},
        {"a range anomaly against a stale reference (a clip's new surrounding)", 0, KMXC_SERVICE_ANOMALY_RANGE, true,
         true},
    };
    for (const auto &c : cases) {
        set_kit(kOffset);
        g_state.est.reference_stale = c.stale;
        KmxcServiceEvent e{};
        e.mag_result = c.mag_result;
        e.anomaly = c.anomaly;
        store_cycle(Vec3{220, -50, 200}, kDown, false, 1, &e);
        EXPECT_EQ(g_state.est.store.count, c.joins ? 1 : 0) << c.name;
        EXPECT_EQ(g_state.est.joined, c.joins ? 1 : 0) << c.name;
    }
}

TEST(KitEstimate, AnAnomalyEmptiesTheStoreOnlyOnceItHasLastedItsPersistTime) {
    constexpr int64_t kPersist = int64_t{KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs;
    const struct {
        const char *name;
        bool in_anomaly;
        int64_t lasted_ns;
        bool cleared;
    } cases[] = {
        {"no anomaly", false, kPersist, false},
        {"an anomaly one nanosecond short", true, kPersist - 1, false},
        {"an anomaly of exactly the persist time", true, kPersist, true},
    };
    for (const auto &c : cases) {
        fill(kOffset, directions(40), kOffset, kNoSoftIron, 0.4);
        ASSERT_EQ(g_state.est.store.count, kStoreCapacity);
        g_state.in_anomaly = c.in_anomaly;
        const int64_t now = int64_t{100} * 1000 * kNsPerMs;
        g_state.anomaly_since_ns = now - c.lasted_ns;
        idle(1, false, now);
        EXPECT_EQ(g_state.est.store.count == 0, c.cleared) << c.name;
        EXPECT_EQ(g_state.est.reference_stale, c.cleared) << c.name;
    }
}

// ---- Fits and their judgement -----------------------------------------------------------

// Nor in a cycle where another fit ran (fits not allowed).
TEST(KitEstimate, TheStoreIsRefittedOnlyOnceEnoughSamplesHaveJoined) {
    for (int joined : {KMXC_SERVICE_STORE_REFIT_JOINS - 1, KMXC_SERVICE_STORE_REFIT_JOINS})
        for (bool allowed : {true, false}) {
            fill(Vec3{0, 0, 0}, directions(40), kOffset, kNoSoftIron, 0.4);
            g_state.est.joined = static_cast<uint8_t>(joined);
            // The fit, the soft iron shown, its share in two; then its judgement.
            EXPECT_FALSE(idle(4, allowed).flags & KMXC_SERVICE_KIT_ESTIMATE) << "judged in a cycle of its own";
            idle(1, allowed);
            const bool fitted = allowed && joined >= KMXC_SERVICE_STORE_REFIT_JOINS;
            EXPECT_EQ(g_state.estimator, fitted ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_NONE)
                << joined << (allowed ? "" : ", fits not allowed");
        }
}

// Whether the store's sphere fit is trusted (high, medium) or refused follows how well
// its samples determine the offset across gravity (what turns the heading of a phone
// held as the samples were) and whether they agree. Gravity along z throughout: a cap
// about z is a phone turned while held level.
TEST(KitEstimate, DeterminacyAndAgreementDecideHowFarASphereFitIsUsed) {
    const struct {
        const char *name;
        double cap_deg, noise;
        int8_t accuracy;  // high or medium, or unreliable: refused
    } cases[] = {
        {"the whole sphere, little noise: high", 180, 0.4, KMXC_SERVICE_HIGH},
        {"a 60-degree cap, little noise: determined, high", 60, 0.4, KMXC_SERVICE_HIGH},
        {"a 35-degree cap about gravity, 2 counts of noise: the horizontal offset determined, high", 35, 2,
         KMXC_SERVICE_HIGH},
        {"a 20-degree cap about gravity, 2 counts of noise: still determined across gravity", 20, 2,
         KMXC_SERVICE_MEDIUM},
        {"a 2-degree cap: no direction determined, refused", 2, 0.4, KMXC_SERVICE_UNRELIABLE},
        {"the whole sphere, 8 counts of noise: disagrees, refused", 180, 8, KMXC_SERVICE_UNRELIABLE},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(60, c.cap_deg), kOffset, kNoSoftIron, c.noise);
        step();
        const bool trusted = c.accuracy != KMXC_SERVICE_UNRELIABLE;
        EXPECT_EQ(accuracy_now(1), c.accuracy) << c.name;
        EXPECT_EQ(g_state.offset_trusted, trusted) << c.name;
        EXPECT_EQ(g_state.estimator, trusted ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_NONE)
            << c.name;
        if (trusted) {
            const Vec3 o = offset_in_use();
            EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y), 6) << c.name;
        }
    }
}

// A fit waits cycles for its judgement while samples go on joining the store, and its
// covariance is taken from the store as it is then: a sample that joined late counts in
// its agreement as its own samples do (high within 40/1000 of their mean strength,
// medium within 80, refused beyond).
TEST(KitEstimate, ASampleThatJoinedWhileTheFitWaitedCountsInItsAgreement) {
    const struct {
        const char *name;
        int32_t permille;  // the late sample's strength from the fit's mean
        int8_t accuracy;
    } cases[] = {
        {"a late sample on the sphere: high", 0, KMXC_SERVICE_HIGH},
        {"60/1000 off: medium", 60, KMXC_SERVICE_MEDIUM},
        {"100/1000 off: refused", 100, KMXC_SERVICE_UNRELIABLE},
        {"100/1000 short: refused", -100, KMXC_SERVICE_UNRELIABLE},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(40), kOffset, kNoSoftIron, 0.4);
        g_state.est.joined = KMXC_SERVICE_STORE_REFIT_JOINS;
        idle(1);  // the fit
        ASSERT_TRUE(g_state.est.sphere_pending) << c.name;
        // The newest slot now holds a sample that joined after the fit, along -x.
        FieldStore &st = g_state.est.store;
        const int newest = static_cast<int>(std::find(st.age, st.age + st.count, 0) - st.age);
        const int32_t len = g_state.est.sphere.residual.mean_q4 * (1000 + c.permille) / 16000;
        st.sample[newest].m[0] = static_cast<int16_t>(g_state.est.sphere.offset.x - len);
        st.sample[newest].m[1] = static_cast<int16_t>(g_state.est.sphere.offset.y);
        st.sample[newest].m[2] = static_cast<int16_t>(g_state.est.sphere.offset.z);
        g_state.est.joined = 1;
        idle(4);
        EXPECT_EQ(accuracy_now(1), c.accuracy) << c.name;
        EXPECT_EQ(g_state.offset_trusted, c.accuracy != KMXC_SERVICE_UNRELIABLE) << c.name;
    }
}

// A trusted offset is replaced by a store fit only when the recent samples agree with
// the fit at least as well and the fit moves it by the republish distance.
TEST(KitEstimate, ATrustedOffsetGivesWayOnlyToAFitTheRecentSamplesPreferThatMovesIt) {
    const struct {
        const char *name;
        Vec3 in_use;
        bool replaced;
    } cases[] = {
        {"in use 6 counts off: replaced", Vec3{kOffset.x + 6, kOffset.y, kOffset.z}, true},
        {"in use one count off: kept (not worth restarting the library's batch)",
         Vec3{kOffset.x + 1, kOffset.y, kOffset.z}, false},
    };
    for (const auto &c : cases) {
        fill(c.in_use, directions(60), kOffset, kNoSoftIron, 0.3);
        trust(KMXC_SERVICE_MEDIUM);
        g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
        const KmxcServiceEvent e = step();
        EXPECT_EQ((e.flags & KMXC_SERVICE_KIT_ESTIMATE) != 0, c.replaced) << c.name;
        EXPECT_EQ(g_state.estimator, c.replaced ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_LIBRARY)
            << c.name;
    }
}

// The recent samples agree with the offset in use and not with the store: the store is
// stale and goes, but only when those samples were fed after that offset came into use
// (the library's fit of its own batch agrees with it whatever the field).
TEST(KitEstimate, AStoreTheRecentSamplesContradictGoesOnlyWhenTheyCameAfterTheOffset) {
    const struct {
        const char *name;
        int fed_before_change;  // of the ring's samples, those fed before the offset in use was set
        bool emptied;
    } cases[] = {
        {"the whole ring fed under the offset in use: emptied", 0, true},
        {"the offset set at the ring's last sample (its own fit): kept", KMXC_SERVICE_FEED_HISTORY, false},
        {"one sample fed before it: kept", 1, false},
    };
    for (const auto &c : cases) {
        fill(kOffset, directions(60), Vec3{kOffset.x + 30, kOffset.y, kOffset.z}, kNoSoftIron, 0.3);
        const KmxAxesData other{kOffset.x + 30, kOffset.y, kOffset.z}, o{kOffset.x, kOffset.y, kOffset.z};
        KmxAxesLibSetMsOffset(&other);
        Noise noise;
        int i = 0;
        for (const auto &d : directions(KMXC_SERVICE_FEED_HISTORY)) {
            if (i++ == c.fed_before_change) KmxAxesLibSetMsOffset(&o);
            remember_fed(sample(d, kOffset, kNoSoftIron, noise, 0.3), kDown);
        }
        KmxAxesLibSetMsOffset(&o);
        trust(KMXC_SERVICE_HIGH);
        step();
        EXPECT_EQ(g_state.est.store.count == 0, c.emptied) << c.name;
        EXPECT_EQ(offset_in_use().x, kOffset.x) << c.name;
    }
}

// The ellipsoid: fitted once the store covers enough cells, used only when it beats the
// sphere by the stated factor with plausible axes; then the library sees the corrected
// field.
TEST(KitEstimate, TheEllipsoidReplacesTheSphereOnlyWhereSoftIronShowsAndTheStoreCoversEnough) {
    const struct {
        const char *name;
        double cap_deg;
        const double *soft;
        bool adopted;
    } cases[] = {
        {"soft iron, the whole sphere: adopted", 180, kSoftIron, true},
        {"no soft iron, the whole sphere: the sphere is as good", 180, kNoSoftIron, false},
        {"soft iron, a 30-degree cap: too few cells for an ellipsoid", 30, kSoftIron, false},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(80, c.cap_deg), kOffset, c.soft, 0.4);
        step();   // the sphere, and whether an ellipsoid is due
        idle(4);  // the ellipsoid fit, its share in two cycles, its judgement
        EXPECT_EQ(g_state.soft_iron.in_use, c.adopted) << c.name << ", coverage " << int(g_state.est.coverage);
        EXPECT_EQ(g_state.estimator == KMXC_SERVICE_ESTIMATOR_ELLIPSOID, c.adopted) << c.name;
        if (c.adopted) {
            EXPECT_EQ(g_state.est.ellipsoid_cells, g_state.est.coverage) << c.name << ": the cells it was fitted to";
            // The corrected field of every stored sample has one strength.
            const Vec3 o = offset_in_use();
            const Vec3 m = corrected(g_state.soft_iron, stored_field(g_state.est.store, 0));
            const Vec3 m2 = corrected(g_state.soft_iron, stored_field(g_state.est.store, 7));
            EXPECT_NEAR(length(minus(m, o)), length(minus(m2, o)), 3) << c.name;
            EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y) + std::abs(o.z - kOffset.z), 4);
        }
    }
}

// A correction already in use that the field no longer matches (W stretching x by a
// quarter): the new ellipsoid is judged, and the reference strength taken, from the
// recent samples through the correction it proposes, the one in use once it is taken.
TEST(KitEstimate, ANewCorrectionIsJudgedByTheRecentSamplesThroughItself) {
    fill(Vec3{0, 0, 0}, directions(80), kOffset, kSoftIron, 0.4);
    g_state.soft_iron = SoftIron{true, kOffset, {20480, 0, 0, 0, 13107, 0, 0, 0, 16384}};
    step();   // the sphere through the old correction: its residual asks for an ellipsoid
    idle(4);  // fit, share, judge
    ASSERT_EQ(g_state.estimator, KMXC_SERVICE_ESTIMATOR_ELLIPSOID);
    EXPECT_NE(g_state.soft_iron.w_q14[0], 20480) << "the new correction in use";
    EXPECT_NEAR(g_state.ref_strength, kRadius, 2) << "the strength through the new correction";
}

// Its centre may lie up to a quarter of the sphere's radius (taken in whole counts: 120
// here, so 30) from the sphere's, in any direction.
TEST(KitEstimate, TheEllipsoidMustBeatTheSphereByItsFactorAndHavePlausibleAxesAndCentre) {
    static_assert(KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR == 2);
    const struct {
        const char *name;
        int32_t sphere_rms_q4, axis_q14;
        Vec3 shift;  // the store sphere's centre from the ellipsoid's
        bool adopted;
    } cases[] = {
        {"half the sphere's RMS exactly", 2 * 10, 16384, {0, 0, 0}, true},
        {"just over half", 2 * 10 - 1, 16384, {0, 0, 0}, false},
        {"an axis of exactly 1.25", 2 * 10, kAxisMaxQ14, {0, 0, 0}, true},
        {"the centre a quarter of the radius from the sphere's", 2 * 10, 16384, {0, 0, 30}, true},
        {"a count beyond", 2 * 10, 16384, {0, 0, 31}, false},
        {"a quarter of the radius on a diagonal (18, 24)", 2 * 10, 16384, {18, 0, -24}, true},
        {"a count beyond it (18, 25)", 2 * 10, 16384, {18, 0, -25}, false},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(80), kOffset, kNoSoftIron, 0.4);
        EllipsoidFit &f = g_state.est.ellipsoid;
        f = EllipsoidFit{};
        f.offset = kOffset;
        f.radius_q4 = static_cast<int32_t>(kRadius * 16);
        for (int k = 0; k < 9; ++k) f.w_q14[k] = k % 4 == 0 ? 16384 : 0;
        f.axes_q14[0] = c.axis_q14, f.axes_q14[1] = 16384, f.axes_q14[2] = 16384;
        field_store_strengths(g_state.est.store, kOffset, f.w_q14, &f.residual);
        f.residual.rms_q4 = 10;
        g_state.est.sphere.residual.rms_q4 = c.sphere_rms_q4;
        g_state.est.sphere.offset = Vec3{kOffset.x + c.shift.x, kOffset.y + c.shift.y, kOffset.z + c.shift.z};
        g_state.est.sphere.radius_q4 = static_cast<int32_t>(kRadius * 16) + 15;
        g_state.est.ellipsoid_pending = true;
        g_state.est.share_steps = 0;
        idle(3);  // share, judgement
        EXPECT_EQ(g_state.soft_iron.in_use, c.adopted) << c.name;
    }
}

// A library fit replaces a trusted offset only when its batch (the fed ring) agrees
// with it, even when nothing predicts the error of the offset in use.
TEST(KitEstimate, ALibraryFitReplacesATrustedOffsetOnlyWhenItsBatchAgrees) {
    const struct {
        const char *name;
        Vec3 fit;
        bool preferred;
    } cases[] = {
        {"a fit at the ring's offset: preferred", kOffset, true},
        {"a fit 30 counts off: its batch disagrees", Vec3{kOffset.x + 30, kOffset.y, kOffset.z}, false},
    };
    for (const auto &c : cases) {
        set_kit(kOffset);
        trust(KMXC_SERVICE_HIGH);
        feed_ring(kOffset, 0.3);
        const KmxAxesData o{c.fit.x, c.fit.y, c.fit.z};
        EXPECT_EQ(library_fit_preferred(o, kDown), c.preferred) << c.name;
    }
}

// A library fit's batch (the fed ring) is known as well as its own scatter says: above
// the expected noise, twice the scatter (the same noise drawn twice as large) is four
// times the offset's variance (the share of soft iron aside, which the scatter moves
// little); below it, the expected noise decides.
TEST(KitEstimate, ALibraryFitsBatchIsKnownAsWellAsItsOwnScatterSays) {
    const auto trace_at = [](double sd) {
        set_kit(kOffset);
        feed_ring(kOffset, sd);
        OffsetCovariance p;
        EXPECT_TRUE(ring_covariance(KmxAxesData{kOffset.x, kOffset.y, kOffset.z}, KMXC_SERVICE_FEED_HISTORY, 4, &p));
        return double(p.p_q8[0]) + p.p_q8[3] + p.p_q8[5];
    };
    const double noisy = trace_at(4), noisier = trace_at(8);
    EXPECT_GT(noisier / noisy, 3.0);
    EXPECT_LT(noisier / noisy, 5.0);
    EXPECT_GT(noisy, trace_at(0.2) * 4) << "4 counts of scatter against the expected 0.3 uT";
}

}  // namespace

// A correction in use is fitted again once the store covers more cells than it was
// fitted to, even where the field through it is a sphere (its residual at the noise):
// a wider store tells W's axes better. Not while the cells are as many.
TEST(KitEstimate, ACorrectionIsRefittedOnceTheStoreCoversMoreCellsThanItsFit) {
    fill(kOffset, directions(60), kOffset, kNoSoftIron, 0.3);
    g_state.soft_iron = SoftIron{true, kOffset, {16384, 0, 0, 0, 16384, 0, 0, 0, 16384}};
    step();
    const int cells = g_state.est.coverage;
    ASSERT_GT(cells, 1);
    const struct {
        const char *name;
        int fitted_cells;
        bool due;
    } cases[] = {
        {"fitted to one cell fewer than the store covers: due", cells - 1, true},
        {"fitted to as many cells: not due", cells, false},
    };
    for (const auto &c : cases) {
        g_state.est.ellipsoid_cells = static_cast<uint8_t>(c.fitted_cells);
        step();
        EXPECT_EQ(g_state.est.coverage, cells) << c.name;
        EXPECT_EQ(g_state.est.ellipsoid_due, c.due) << c.name;
    }
    g_state.soft_iron.in_use = false;
    g_state.est.ellipsoid_cells = 0;
    step();
    EXPECT_FALSE(g_state.est.ellipsoid_due) << "no correction in use and a sphere's residual: none due";
}

// The soft iron an ellipsoid fit shows scales the share of unmodelled soft iron every
// estimate carries: a store of a phone with 10 % soft iron widens its own sphere's
// prior to what it shows, a round one keeps the default. The same happens to the
// estimate in use when a later fit shows more.
TEST(KitEstimate, TheSoftIronAStoreShowsIsThePriorOfItsShare) {
    constexpr int32_t kDefault = KMXC_SERVICE_SOFT_IRON_PRIOR_PERMILLE;
    const struct {
        const char *name;
        int n;
        double cap_deg, noise;
        const double *soft;
        int32_t prior_min, prior_max;
    } cases[] = {
        {"round: the default prior", 60, 60, 0.4, kNoSoftIron, kDefault, kDefault},
        // The showing fit counts what the samples tell clearly: one held less near the
        // sphere shows the noise of a 45-degree cap as 35 permille.
        {"round, a 45-degree cap, noise 1 count: the default prior", 40, 45, 1.0, kNoSoftIron, kDefault, kDefault},
        {"10 % soft iron: what it shows", 60, 60, 0.4, kSoftIron, 45, 60},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(c.n, c.cap_deg), kOffset, c.soft, c.noise);
        step();
        ASSERT_TRUE(g_state.est.cov.valid) << c.name;
        EXPECT_GE(g_state.est.cov.prior_permille, c.prior_min) << c.name;
        EXPECT_LE(g_state.est.cov.prior_permille, c.prior_max) << c.name;
        EXPECT_EQ(g_state.est.cov.prior_permille, std::max(g_state.est.shown_permille, kDefault)) << c.name;
    }
    // A later fit shows more: the share in use grows as the prior's square, the rest of
    // the covariance stays.
    const OffsetCovariance before = g_state.est.cov;
    g_state.est.shown_permille = 2 * before.prior_permille;
    rescale_share(&g_state.est.cov);
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(g_state.est.cov.share_q8[k], before.share_q8[k] * 4) << k;
        EXPECT_EQ(g_state.est.cov.p_q8[k] - g_state.est.cov.share_q8[k], before.p_q8[k] - before.share_q8[k]) << k;
    }
    EXPECT_EQ(g_state.est.cov.prior_permille, 2 * before.prior_permille);
    // Showing less never narrows it.
    const OffsetCovariance wide = g_state.est.cov;
    g_state.est.shown_permille = 0;
    rescale_share(&g_state.est.cov);
    for (int k = 0; k < 6; ++k) EXPECT_EQ(g_state.est.cov.p_q8[k], wide.p_q8[k]) << k;
}

// Under half the sphere (caps of 80 and 90 degrees about z, z squeezed by a tenth) the
// estimate's ellipsoid takes D from the samples: its centre lies within 2 counts of the
// truth, where a fit held nearer the sphere by the showing fit's ridge is 4 to 8 off
// and the sphere 18 to 20. The estimate's fit shows nothing: the soft iron the store
// shows stays what the showing fit found.
TEST(KitEstimate, TheEstimatesEllipsoidTakesItsCentreFromTheSamplesUnderHalfTheSphere) {
    static const double kSqueezedZ[4] = {1.0, 1.08, 0.90, 0.0};
    for (double cap : {80.0, 90.0}) {
        fill(Vec3{0, 0, 0}, directions(32, cap), kOffset, kSqueezedZ, 0.4);
        step();
        ASSERT_TRUE(g_state.est.ellipsoid_due) << cap;
        const int32_t shown = g_state.est.shown_permille;
        idle(1);  // the ellipsoid fit
        ASSERT_TRUE(g_state.est.ellipsoid_pending) << cap;
        const Vec3 d = minus(g_state.est.ellipsoid.offset, kOffset);
        EXPECT_LE(dot(d, d), 4) << cap;
        EXPECT_EQ(g_state.est.shown_permille, shown) << cap;
    }
}
