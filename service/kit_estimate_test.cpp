// The kit's estimator rules at their thresholds, on synthetic fields (no phone): which
// samples the store takes, when a persisting anomaly empties it, when it is refitted,
// how a fit's determinacy, agreement and the recent samples decide its use, when the
// ellipsoid's soft-iron correction replaces the sphere, and when a stale store goes;
// the accuracy the heading's predicted uncertainty allows at each attitude (against the
// double-precision formula), and the references and kit record the estimators keep.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

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

// ---- Admission and clearing -------------------------------------------------------------

// A full store offered one sample while the kit may be in an anomaly: an anomaly that
// has lasted its persist time empties the store and makes the reference stale; until
// then strength and dip anomalies stay out, and after it nothing the old reference says
// keeps a sample out (a clip's new surrounding) but a channel out of range.
TEST(KitEstimate, TheStoreKeepsAnomaliesOutUntilOneHasLastedItsPersistTimeAndEmptiedIt) {
    constexpr int64_t kPersist = int64_t{KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs;
    const struct {
        const char *name;
        int8_t mag_result;
        uint8_t anomaly;  // the sample's
        bool in_anomaly;  // the kit's, since lasted_ns
        int64_t lasted_ns;
        bool joins, cleared;
    } cases[] = {
        {"an in-range sample", 0, 0, false, kPersist, true, false},
        {"a channel out of range", 1, 0, false, 0, false, false},
        {"a strength anomaly, one nanosecond short of the persist time", 0, KMXC_SERVICE_ANOMALY_STRENGTH, true,
         kPersist - 1, false, false},
        {"a dip anomaly", 0, KMXC_SERVICE_ANOMALY_DIP, true, 0, false, false},
        {"a strength outside the estimate's band", 0, KMXC_SERVICE_ANOMALY_OUTSIDE_BAND, false, 0, true, false},
        {"a strength anomaly of exactly the persist time", 0, KMXC_SERVICE_ANOMALY_STRENGTH, true, kPersist, true,
         true},
        {"a range anomaly past it", 0, KMXC_SERVICE_ANOMALY_RANGE, true, 2 * kPersist, true, true},
        {"a channel out of range past it", 1, KMXC_SERVICE_ANOMALY_RANGE, true, 2 * kPersist, false, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fill(kOffset, directions(40, 60), kOffset, kNoSoftIron, 0.4);  // a cap about +z
        ASSERT_EQ(g_state.est.store.count, kStoreCapacity);
        g_state.in_anomaly = c.in_anomaly;
        const int64_t now = int64_t{100} * 1000 * kNsPerMs;
        g_state.anomaly_since_ns = now - c.lasted_ns;
        KmxcServiceEvent e{};
        e.mag_result = c.mag_result;
        e.anomaly = c.anomaly;
        store_cycle(Vec3{kOffset.x, kOffset.y, kOffset.z - 120}, kDown, false, now, &e);  // along -z
        EXPECT_EQ(g_state.est.joined, c.joins ? 1 : 0);
        EXPECT_EQ(g_state.est.store.count, c.cleared ? (c.joins ? 1 : 0) : kStoreCapacity);
        EXPECT_EQ(g_state.est.reference_stale, c.cleared);
    }
}

// ---- Fits and their judgement -----------------------------------------------------------

// Whether the store's sphere fit is trusted (high, medium) or refused follows how well
// its samples determine the offset across gravity (what turns the heading of a phone
// held as the samples were) and whether they agree. The judgement takes gravity along
// z: a cap about z is a phone turned while held level. Each sample carries the gravity
// a 60-degree dip gives its field, so the recent samples' dips agree unless a case
// makes them wobble; beyond the dips' limit a fit is worth low, used and not saved. The
// store is refitted only once enough samples have joined, and not in a cycle where
// another fit ran (fits not allowed). A fit waits cycles for its judgement while
// samples go on joining the store, and its covariance is taken from the store as it is
// then: a sample that joined late counts in its agreement as its own samples do (high
// within 40/1000 of their mean strength, medium within 80, refused beyond). The soft
// iron an ellipsoid fit shows scales the share of unmodelled soft iron every estimate
// carries: a store of a phone with 10 % soft iron widens its own sphere's prior to what
// it shows, a round one keeps the default. The same happens to the estimate in use
// when a later fit shows more.
TEST(KitEstimate, DueJoinsDeterminacyAgreementAndTheSoftIronShownDecideHowFarASphereFitIsUsed) {
    constexpr int32_t kDefault = KMXC_SERVICE_SOFT_IRON_PRIOR_PERMILLE, kNoLate = -1000;
    static const double kNoEarthField[4] = {1.8, 1.8, 1.8, 0};  // 216 counts
    constexpr int kJoins = KMXC_SERVICE_STORE_REFIT_JOINS;
    // A 45-degree cap about z lies within the cube's z face: its quadrants are cells.
    constexpr double kFaceCap = 45;
    const struct {
        const char *name;
        int n;
        double cap_deg, noise;
        const double *soft;
        int8_t accuracy;                       // high or medium, or unreliable: refused
        int32_t prior_min = 0, prior_max = 0;  // the prior of the share, where it is checked
        int32_t late = kNoLate;                // a late sample's strength from the fit's mean, permille
        int joined = kJoins;
        bool allowed = true;
        double wobble = 0;  // the recent samples' dips, degrees either side
        int quadrants = 4;  // the cap's quadrants about z kept (x >= 0, y >= 0 first), each a cell
    } cases[] = {
        {"a join short: no fit", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_UNRELIABLE, 0, 0, kNoLate, kJoins - 1},
        {"fits not allowed: no fit", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_UNRELIABLE, 0, 0, kNoLate, kJoins, false},
        {"a late sample on the sphere: high", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_HIGH, 0, 0, 0},
        {"a late sample 60/1000 off: medium", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_MEDIUM, 0, 0, 60},
        {"the recent samples' dips 1.5 degrees either side: high", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_HIGH, 0, 0,
         kNoLate, kJoins, true, 1.5},
        {"... 3 degrees either side: low", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_LOW, 0, 0, kNoLate, kJoins, true, 3},
        {"a field of 86 uT, no Earth's: low", 40, 180, 0.4, kNoEarthField, KMXC_SERVICE_LOW},
        {"a late sample 100/1000 off: refused", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_UNRELIABLE, 0, 0, 100},
        {"a late sample 100/1000 short: refused", 40, 180, 0.4, kNoSoftIron, KMXC_SERVICE_UNRELIABLE, 0, 0, -100},
        {"a 60-degree cap, little noise: determined, high, the default prior", 60, 60, 0.4, kNoSoftIron,
         KMXC_SERVICE_HIGH, kDefault, kDefault},
        {"a 35-degree cap, 2 counts of noise: the horizontal offset determined, high", 60, 35, 2, kNoSoftIron,
         KMXC_SERVICE_HIGH},
        {"a 20-degree cap, 1.5 counts of noise: still determined across gravity", 60, 20, 1.5, kNoSoftIron,
         KMXC_SERVICE_HIGH},
        {"a 2-degree cap: no direction determined, refused", 60, 2, 0.4, kNoSoftIron, KMXC_SERVICE_UNRELIABLE},
        {"the whole sphere, 8 counts of noise: disagrees, refused", 60, 180, 8, kNoSoftIron, KMXC_SERVICE_UNRELIABLE},
        // The showing fit counts what the samples tell clearly: one held less near the
        // sphere shows the noise of a 45-degree cap as 35 permille.
        {"round, a 45-degree cap, noise 1 count: four cells, the default prior", 40, kFaceCap, 1.0, kNoSoftIron,
         KMXC_SERVICE_HIGH, kDefault, kDefault},
        {"... three of its quadrants: three cells, too small a cap, low", 40, kFaceCap, 1.0, kNoSoftIron,
         KMXC_SERVICE_LOW, 0, 0, kNoLate, kJoins, true, 0, 3},
        // The cap of its ellipsoid is round about a centre a few counts off, and the
        // recent samples' dips about that centre spread beyond the limit.
        {"10 % soft iron: the prior it shows, the dips disagree: low", 60, 60, 0.4, kSoftIron, KMXC_SERVICE_LOW, 45,
         60},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        auto dirs = directions(c.n, c.cap_deg);
        std::erase_if(dirs, [&](const auto &d) { return (d[0] < 0 ? 1 : 0) + (d[1] < 0 ? 2 : 0) >= c.quadrants; });
        fill(Vec3{0, 0, 0}, dirs, kOffset, c.soft, c.noise, c.wobble);
        g_state.est.joined = static_cast<uint8_t>(c.joined);
        idle(1, c.allowed);  // the fit
        if (c.cap_deg == kFaceCap) { EXPECT_EQ(g_state.est.coverage, c.quadrants) << "cells"; }
        ASSERT_TRUE((c.allowed && c.joined >= kJoins) || !g_state.est.sphere_pending) << "no fit due";
        if (c.late != kNoLate) {
            // The newest slot now holds a sample that joined after the fit, along -x.
            FieldStore &st = g_state.est.store;
            const int newest = static_cast<int>(std::find(st.age, st.age + st.count, 0) - st.age);
            const int32_t len = g_state.est.sphere.residual.mean_q4 * (1000 + c.late) / 16000;
            st.sample[newest].m[0] = static_cast<int16_t>(g_state.est.sphere.offset.x - len);
            st.sample[newest].m[1] = static_cast<int16_t>(g_state.est.sphere.offset.y);
            st.sample[newest].m[2] = static_cast<int16_t>(g_state.est.sphere.offset.z);
            g_state.est.joined = 1;
        }
        // The soft iron shown, its share in two; then its judgement.
        EXPECT_FALSE(idle(3, c.allowed).flags & KMXC_SERVICE_KIT_ESTIMATE) << "judged in a cycle of its own";
        idle(1, c.allowed);
        const bool trusted = c.accuracy != KMXC_SERVICE_UNRELIABLE;
        EXPECT_EQ(accuracy_now(1), c.accuracy);
        EXPECT_EQ(g_state.offset_trusted, trusted);
        EXPECT_EQ(g_state.save_pending, c.accuracy >= KMXC_SERVICE_MEDIUM) << "saved from medium up";
        EXPECT_EQ(g_state.estimator, trusted ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_NONE);
        if (!trusted) continue;
        const Vec3 o = offset_in_use();
        EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y), 6);
        ASSERT_TRUE(g_state.est.cov.valid);
        EXPECT_EQ(g_state.est.cov.prior_permille, std::max(g_state.est.shown_permille, kDefault));
        if (c.prior_max == 0) continue;
        EXPECT_GE(g_state.est.cov.prior_permille, c.prior_min);
        EXPECT_LE(g_state.est.cov.prior_permille, c.prior_max);
    }
    // A later fit shows more: the share in use grows as the prior's square, the rest of
    // the covariance stays. Showing less never narrows it.
    for (const int32_t shown : {2 * g_state.est.cov.prior_permille, 0}) {
        const OffsetCovariance before = g_state.est.cov;
        const int32_t grows = shown > before.prior_permille ? 4 : 1;
        g_state.est.shown_permille = shown;
        rescale_share(&g_state.est.cov);
        for (int k = 0; k < 6; ++k) {
            EXPECT_EQ(g_state.est.cov.share_q8[k], before.share_q8[k] * grows) << shown << " " << k;
            EXPECT_EQ(g_state.est.cov.p_q8[k] - g_state.est.cov.share_q8[k], before.p_q8[k] - before.share_q8[k]) << k;
        }
        EXPECT_EQ(g_state.est.cov.prior_permille, std::max(shown, before.prior_permille));
    }
}

// A trusted offset is replaced by a store fit only when the recent samples agree with
// the fit and it is better determined than the offset in use, however little it moves
// it; a fit at the offset in use gives it its covariance, and its worth when that is
// more (never less). Recent samples that agree with the offset in use and not with the
// store make the store stale and it goes, but only when they were fed after that offset
// came into use (the library's fit of its own batch agrees with it whatever the field).
TEST(KitEstimate, ATrustedOffsetGivesWayToABetterDeterminedFitAndAStoreTheRecentSamplesContradictGoes) {
    constexpr int kRing = KMXC_SERVICE_FEED_HISTORY;
    // The offset in use's variance per axis, 1/256 count^2; kNone: no covariance known;
    // kFitsOwn: the fit's own covariance times 5/4 (a little worse than the fit).
    constexpr int32_t kLoose = 400 << kQ8, kTight = 1, kNone = 0, kFitsOwn = -1;
    const auto at = [](int dx, int dy, int dz) { return Vec3{kOffset.x + dx, kOffset.y + dy, kOffset.z + dz}; };
    const auto run = [](const Vec3 &in_use_at, const Vec3 &store_at, const OffsetCovariance &cov, int fed_before,
                        double wobble = 0) {
        fill(in_use_at, directions(60), store_at, kNoSoftIron, 0.3);
        const KmxAxesData store{store_at.x, store_at.y, store_at.z}, in_use{in_use_at.x, in_use_at.y, in_use_at.z};
        KmxAxesLibSetMsOffset(&store);
        Noise noise;
        int i = 0;
        for (const auto &d : directions(kRing)) {
            if (i == fed_before) KmxAxesLibSetMsOffset(&in_use);
            remember_fed(sample(d, kOffset, kNoSoftIron, noise, 0.3), gravity_for(d, i++, wobble));
        }
        KmxAxesLibSetMsOffset(&in_use);
        g_state.offset_trusted = true;
        g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
        g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
        g_state.est.cov = cov;
        return step();
    };
    const auto diagonal = [](int32_t v) { return OffsetCovariance{{v, 0, 0, v, 0, v}, v > 0, {}, 0}; };
    enum Outcome { kKept, kCovarianceTaken, kReplaced, kEmptied };
    const struct {
        const char *name;
        Vec3 in_use, store;  // the offset in use and the store's field's (the recent samples' at kOffset)
        int32_t in_use_q8;
        int fed_before;  // of the recent samples, those fed before the offset in use was set
        Outcome outcome;
        double wobble = 0;  // the recent samples' dips, degrees either side
        int8_t worth = -1;  // the offset in use's worth after (medium before), where checked
    } cases[] = {
        {"an offset in use without a covariance: replaced", at(5, 0, 0), kOffset, kNone, 0, kReplaced},
        {"a count off on every axis, a little worse known than the fit: replaced", at(1, -1, 1), kOffset, kFitsOwn, 0,
         kReplaced},
        {"... known better than the fit: kept", at(1, -1, 1), kOffset, kTight, 0, kKept},
        {"far off but known better than the fit: kept", at(5, 0, 0), kOffset, kTight, 0, kKept},
        {"the fit at the offset in use, loosely known: its covariance and its worth (high) taken", kOffset, kOffset,
         kLoose, 0, kCovarianceTaken, 0, KMXC_SERVICE_HIGH},
        {"... the recent dips 3 degrees either side (worth low): its covariance taken, medium kept", kOffset, kOffset,
         kLoose, 0, kCovarianceTaken, 3, KMXC_SERVICE_MEDIUM},
        {"a store the recent samples contradict: emptied", kOffset, at(30, 0, 0), kLoose, 0, kEmptied},
        {"... the offset set at their last sample (its own fit): kept", kOffset, at(30, 0, 0), kLoose, kRing, kKept},
        {"... one sample fed before it: kept", kOffset, at(30, 0, 0), kLoose, 1, kKept},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        OffsetCovariance cov = diagonal(c.in_use_q8);
        if (c.in_use_q8 == kFitsOwn) {
            run(kOffset, c.store, diagonal(kLoose), c.fed_before);
            cov = g_state.est.cov;
            ASSERT_TRUE(cov.valid);
            for (int32_t &p : cov.p_q8) p = p * 5 / 4;
        }
        const KmxcServiceEvent e = run(c.in_use, c.store, cov, c.fed_before, c.wobble);
        EXPECT_EQ((e.flags & KMXC_SERVICE_KIT_ESTIMATE) != 0, c.outcome == kReplaced);
        const bool store_sphere = c.outcome == kReplaced || c.outcome == kCovarianceTaken;
        EXPECT_EQ(g_state.estimator,
                  store_sphere ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_LIBRARY);
        EXPECT_EQ(g_state.est.cov.p_q8[0] != cov.p_q8[0], store_sphere);
        EXPECT_EQ(g_state.est.store.count == 0, c.outcome == kEmptied);
        const Vec3 o = offset_in_use();
        EXPECT_EQ(o.x == c.in_use.x && o.y == c.in_use.y && o.z == c.in_use.z, c.outcome != kReplaced);
        if (c.worth < 0) continue;
        EXPECT_EQ(g_state.base_accuracy, c.worth);
        EXPECT_EQ(g_state.save_pending, c.worth == KMXC_SERVICE_HIGH) << "saved once it is worth more";
    }
}

// The ellipsoid: fitted once the store covers enough cells, used only when it beats the
// sphere by the stated factor with plausible axes; then the library sees the corrected
// field. A correction already in use that the field no longer matches (W stretching x by
// a quarter) gives way to a new one, judged, and the reference strength taken, from the
// recent samples through the correction it proposes, the one in use once it is taken.
// A correction in use is fitted again once the store covers more cells than it was
// fitted to, even where the field through it is a sphere (its residual at the noise):
// a wider store tells W's axes better. Not while the cells are as many.
// Under half the sphere (caps of 80 and 90 degrees about z, z squeezed by a tenth) the
// estimate's ellipsoid takes D from the samples: its centre lies within 2 counts of the
// truth, where a fit held nearer the sphere by the showing fit's ridge is 4 to 8 off
// and the sphere 18 to 20. The estimate's fit shows nothing: the soft iron the store
// shows stays what the showing fit found.
TEST(KitEstimate, TheEllipsoidReplacesTheSphereOnlyWhereSoftIronShowsAndTheStoreCoversEnough) {
    static const double kSqueezedZ[4] = {1.0, 1.08, 0.90, 0.0};
    const SoftIron kNone{}, kStretched{true, kOffset, {20480, 0, 0, 0, 13107, 0, 0, 0, 16384}},
        kIdentity{true, kOffset, {16384, 0, 0, 0, 16384, 0, 0, 0, 16384}};
    const struct {
        const char *name;
        int n;
        double cap_deg;
        const double *soft;
        bool joining;     // a sphere is due again every cycle: the phone still turns
        SoftIron in_use;  // the correction in use before
        int cells_short;  // -1, or the correction fitted to this many cells fewer than the store covers
        bool due, adopted;
        double wobble = 0;  // the recent samples' dips, degrees either side (beyond the limit: low)
    } cases[] = {
        {"soft iron, the whole sphere: adopted", 80, 180, kSoftIron, false, kNone, -1, true, true},
        {"... the recent samples' dips 3 degrees either side: adopted, low", 80, 180, kSoftIron, false, kNone, -1, true,
         true, 3},
        {"soft iron, samples still joining: the ellipsoid goes first", 80, 180, kSoftIron, true, kNone, -1, true, true},
        {"no soft iron, the whole sphere: none due", 80, 180, kNoSoftIron, false, kNone, -1, false, false},
        {"soft iron, a 30-degree cap: too few cells for an ellipsoid", 80, 30, kSoftIron, false, kNone, -1, false,
         false},
        {"a correction in use the field no longer matches: replaced", 80, 180, kSoftIron, false, kStretched, -1, true,
         true},
        {"a correction fitted to one cell fewer than the store covers: refitted", 80, 180, kNoSoftIron, false,
         kIdentity, 1, true, true},
        {"fitted to as many cells: not due", 80, 180, kNoSoftIron, false, kIdentity, 0, false, false},
        {"z squeezed, an 80-degree cap: the centre from the samples", 32, 80, kSqueezedZ, false, kNone, -1, true, true},
        {"z squeezed, a 90-degree cap", 32, 90, kSqueezedZ, false, kNone, -1, true, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fill(Vec3{0, 0, 0}, directions(c.n, c.cap_deg), kOffset, c.soft, 0.4, c.wobble);
        if (c.in_use.in_use) g_state.soft_iron = c.in_use;
        if (c.cells_short >= 0) {
            step();  // the cells the store covers
            g_state.est.ellipsoid_cells = static_cast<uint8_t>(g_state.est.coverage - c.cells_short);
            g_state.est.ellipsoid_due = false;  // the last judgement's: a due fit would go first
        }
        step();  // the sphere, and whether an ellipsoid is due
        ASSERT_EQ(g_state.est.ellipsoid_due, c.due) << "coverage " << int(g_state.est.coverage);
        const int32_t shown = g_state.est.shown_permille;
        for (int cycle = 0; cycle < 4; ++cycle) {  // the ellipsoid fit, its share in two cycles, its judgement
            if (c.joining) g_state.est.joined = KMXC_SERVICE_STORE_REFIT_JOINS;
            idle(1);
            if (cycle > 0 || !c.due) continue;
            ASSERT_TRUE(g_state.est.ellipsoid_pending);
            const Vec3 d = minus(g_state.est.ellipsoid.offset, kOffset);
            EXPECT_LE(dot(d, d), 4);
            EXPECT_EQ(g_state.est.shown_permille, shown);
        }
        EXPECT_EQ(g_state.soft_iron.in_use, c.adopted || c.in_use.in_use);
        EXPECT_EQ(g_state.estimator == KMXC_SERVICE_ESTIMATOR_ELLIPSOID, c.adopted);
        if (c.adopted) {
            EXPECT_EQ(g_state.base_accuracy == KMXC_SERVICE_LOW, c.wobble > 0);
            EXPECT_EQ(g_state.est.ellipsoid_cells, g_state.est.coverage) << "the cells it was fitted to";
            // The corrected field of every stored sample has one strength.
            const Vec3 o = offset_in_use();
            const Vec3 m = corrected(g_state.soft_iron, stored_field(g_state.est.store, 0));
            const Vec3 m2 = corrected(g_state.soft_iron, stored_field(g_state.est.store, 7));
            EXPECT_NEAR(length(minus(m, o)), length(minus(m2, o)), 3);
            EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y) + std::abs(o.z - kOffset.z), 4);
            EXPECT_NEAR(g_state.ref_strength, kRadius, 2) << "the strength through the new correction";
        }
    }
}

// Its centre may lie up to a quarter of the sphere's radius (taken in whole counts: 120
// here, so 30) from the sphere's, in any direction.
TEST(KitEstimate, TheEllipsoidMustBeatTheSphereByItsFactorAndHavePlausibleAxesAndCentre) {
    constexpr int32_t kBeat = KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR;  // the ellipsoid's RMS is 10 (1/16 count)
    const struct {
        const char *name;
        int32_t sphere_rms_q4, axis_q14;
        Vec3 shift;  // the store sphere's centre from the ellipsoid's
        bool adopted;
    } cases[] = {
        {"beating the sphere's RMS by exactly the factor", kBeat * 10, 16384, {0, 0, 0}, true},
        {"by just under it", kBeat * 10 - 1, 16384, {0, 0, 0}, false},
        {"an axis of exactly 1.25", kBeat * 10, kAxisMaxQ14, {0, 0, 0}, true},
        {"the centre a quarter of the radius from the sphere's", kBeat * 10, 16384, {0, 0, 30}, true},
        {"a count beyond", kBeat * 10, 16384, {0, 0, 31}, false},
        {"a quarter of the radius on a diagonal (18, 24)", kBeat * 10, 16384, {18, 0, -24}, true},
        {"a count beyond it (18, 25)", kBeat * 10, 16384, {18, 0, -25}, false},
    };
    for (const auto &c : cases) {
        fill(Vec3{0, 0, 0}, directions(80), kOffset, kNoSoftIron, 0.4);
        EllipsoidFit &f = g_state.est.ellipsoid = EllipsoidFit{
            kOffset, {16384, 0, 0, 0, 16384, 0, 0, 0, 16384}, {c.axis_q14, 16384, 16384}, int32_t(kRadius * 16), {}};
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

// A library fit's batch (the fed ring) is known as well as its own scatter says: above
// the expected noise, twice the scatter (the same noise drawn twice as large) is four
// times the offset's variance (the share of soft iron aside, which the scatter moves
// little); below it, the expected noise decides. The fit replaces a trusted offset only
// when its batch agrees with it, even when nothing predicts the error of the offset in use.
TEST(KitEstimate, ALibraryFitsBatchIsKnownAsWellAsItsOwnScatterSaysAndMustAgreeWithIt) {
    // The ring's covariance about its offset: every direction (or a cap's), with sd counts of noise.
    const auto ring = [](double sd, double cap_deg = 180) {
        set_kit(kOffset);
        Noise noise;
        for (const auto &d : directions(KMXC_SERVICE_FEED_HISTORY, cap_deg))
            remember_fed(sample(d, kOffset, kNoSoftIron, noise, sd), kDown);
        OffsetCovariance p;
        EXPECT_TRUE(ring_covariance(KmxAxesData{kOffset.x, kOffset.y, kOffset.z}, KMXC_SERVICE_FEED_HISTORY, 4, &p));
        return p;
    };
    const auto trace = [](const int32_t q8[6]) { return double(q8[0]) + q8[3] + q8[5]; };
    const double noisy = trace(ring(4).p_q8), noisier = trace(ring(8).p_q8);
    EXPECT_GT(noisier / noisy, 3.0);
    EXPECT_LT(noisier / noisy, 5.0);
    EXPECT_GT(noisy, trace(ring(0.2).p_q8) * 4) << "4 counts of scatter against the expected 0.3 uT";
    // A batch on a cap also carries what soft iron could do to its centre: the share is
    // part of its covariance, however little the samples scatter.
    const OffsetCovariance cap = ring(0.2, 60);
    EXPECT_GT(trace(cap.share_q8), 0.5 * trace(cap.p_q8)) << "the share on a cap";
    ring(0.3);
    g_state.offset_trusted = true;
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    const KmxAxesData off{kOffset.x + 30, kOffset.y, kOffset.z}, at{kOffset.x, kOffset.y, kOffset.z};
    EXPECT_FALSE(library_fit_preferred(off, kDown)) << "a fit 30 counts off: its batch disagrees";
    EXPECT_TRUE(library_fit_preferred(at, kDown)) << "a fit at the ring's offset";
    // Before anything is trusted the library's fit is used, and what predicted the error
    // of the offset in use goes; but the same offset again (the library's planar fit of
    // the circle whose estimate is in use) keeps it: the axis the circle left undetermined.
    for (const bool again : {true, false}) {
        SCOPED_TRACE(again ? "the same offset again: kept" : "another offset: dropped");
        set_kit(kOffset);
        undetermined_along(Vec3{0, 0, 16384}, &g_state.est.cov);
        const KmxAxesData fit{kOffset.x + (again ? 0 : 5), kOffset.y, kOffset.z};
        KmxAxesMsCalibSetOffset(&fit);
        KmxcServiceEvent e{};
        adopt_new_offset(false, kDown, &e);
        EXPECT_EQ(g_state.est.cov.valid, again);
        EXPECT_EQ(offset_in_use().x, fit.x);
    }
}

// ---- The heading's uncertainty caps the accuracy --------------------------------------

// A covariance (counts^2) along the phone's axes: xx, xy, xz, yy, yz, zz.
OffsetCovariance covariance(const std::array<double, 6> &p) {
    OffsetCovariance c{};
    for (int k = 0; k < 6; ++k) c.p_q8[k] = static_cast<int32_t>(std::lround(p[k] * 256));
    c.valid = true;
    return c;
}

double limit_rad(int cdeg) { return cdeg * M_PI / 18000; }

// sigma_psi^2 = e^T P e |g|^2 / |e|^4 + t^2 (v.g)^2 / |e|^2, e = v x g, in double (rad^2):
// P in counts^2, t the tilt error.
double heading_variance(const int32_t p_q8[6], const Vec3 &v, const Vec3 &g, int32_t tilt_cdeg) {
    const double e[3] = {double(v.y) * g.z - double(v.z) * g.y, double(v.z) * g.x - double(v.x) * g.z,
                         double(v.x) * g.y - double(v.y) * g.x};
    const double p[3][3] = {{p_q8[0] / 256.0, p_q8[1] / 256.0, p_q8[2] / 256.0},
                            {p_q8[1] / 256.0, p_q8[3] / 256.0, p_q8[4] / 256.0},
                            {p_q8[2] / 256.0, p_q8[4] / 256.0, p_q8[5] / 256.0}};
    double epe = 0, ee = 0;
    for (int r = 0; r < 3; ++r) {
        ee += e[r] * e[r];
        for (int k = 0; k < 3; ++k) epe += e[r] * p[r][k] * e[k];
    }
    const double gg = double(g.x) * g.x + double(g.y) * g.y + double(g.z) * g.z;
    const double vg = double(v.x) * g.x + double(v.y) * g.y + double(v.z) * g.z;
    return epe * gg / (ee * ee) + std::pow(limit_rad(tilt_cdeg) * vg, 2) / ee;
}

// A phone held level (gravity along +z, the field 50 counts = 20 uT north along +y and
// 80 counts down): magnetic east is +x, the horizontal field 50 counts, so an offset
// error of s counts along x turns the heading by s / 50 rad. Each limit's variance along
// x is (limit * 50)^2; its cases sit 2 % each side of it, with the directions that do not
// turn the heading (north, down) left at the prior's 50 counts. Other attitudes, fields
// and gravities: the integer cap against sigma_psi^2 = e^T P e |g|^2 / |e|^4 + t^2 (v.g)^2
// / |e|^2 in double (t a tilt error per horizontal axis, tan(dip) = v.g / |e| times it;
// none in half the draws) over random covariances (with cross terms), fields and
// attitudes: the same level wherever the double variance is more than 5 % from a limit
// (the integer one truncates e to 8 bits: up to 1 part in 128 per component, some 3 % of
// the variance).
TEST(KitEstimate, TheHeadingsUncertaintyCapsTheAccuracyAtEachLimitAndAsTheDoubleFormulaSays) {
    const int limits[3] = {KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG,
                           KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG};
    const int8_t levels[4] = {KMXC_SERVICE_HIGH, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_LOW, KMXC_SERVICE_UNRELIABLE};
    const Vec3 level_g{0, 0, 4096}, level_v{0, 50, -80};
    g_state = State{};  // the cap reads only the covariance kept
    for (int k = 0; k < 3; ++k) {
        for (const double f : {0.98, 1.02}) {
            // East determined at f times the limit's variance, the rest at the prior.
            g_state.est.cov = covariance({std::pow(limit_rad(limits[k]) * 50, 2) * f, 0, 0, 2500, 0, 2500});
            EXPECT_EQ(heading_accuracy_cap(level_v, level_g, 0), levels[f < 1 ? k : k + 1]) << k << " at " << f;
        }
    }
    // With no covariance the tilt's part alone caps it: the field 58 degrees below the
    // horizon (tan 1.6), a 2-degree tilt error turns the heading by 3.2 degrees, 10 by 16.
    const struct {
        const char *name;
        OffsetCovariance p;
        Vec3 v;
        int32_t tilt_cdeg;
        int8_t cap;
    } cases[] = {
        {"the field along gravity: no heading", covariance({1, 0, 0, 1, 0, 1}), Vec3{0, 0, -120}, 0,
         KMXC_SERVICE_UNRELIABLE},
        {"no covariance: the other rules decide", OffsetCovariance{}, level_v, 0, KMXC_SERVICE_HIGH},
        {"no covariance, a 2-degree tilt error", OffsetCovariance{}, level_v, 200, KMXC_SERVICE_MEDIUM},
        {"no covariance, a 10-degree tilt error", OffsetCovariance{}, level_v, 1000, KMXC_SERVICE_UNRELIABLE},
    };
    for (const auto &c : cases) {
        g_state.est.cov = c.p;
        EXPECT_EQ(heading_accuracy_cap(c.v, level_g, c.tilt_cdeg), c.cap) << c.name;
    }
    std::mt19937 rng(2024);
    const auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    int compared = 0, per_level[4] = {0, 0, 0, 0};
    for (int i = 0; i < 20000; ++i) {
        // P = A A^T with entries up to the prior's 2500 counts^2.
        double a[3][3];
        const double scale = std::exp(uniform(std::log(0.05), std::log(28.0)));
        for (auto &row : a)
            for (double &x : row) x = uniform(-1, 1) * scale;
        double p[3][3];
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k) p[r][k] = a[r][0] * a[k][0] + a[r][1] * a[k][1] + a[r][2] * a[k][2];
        const OffsetCovariance &c = g_state.est.cov =
            covariance({p[0][0], p[0][1], p[0][2], p[1][1], p[1][2], p[2][2]});
        const auto draw = [&](double m) {
            return Vec3{static_cast<int32_t>(std::lround(uniform(-m, m))),
                        static_cast<int32_t>(std::lround(uniform(-m, m))),
                        static_cast<int32_t>(std::lround(uniform(-m, m)))};
        };
        const Vec3 v = draw(250), g = draw(4096 * 2.0);
        const int32_t tilt_cdeg = i % 2 == 0 ? 0 : static_cast<int32_t>(uniform(1, 600));
        const double var = heading_variance(c.p_q8, v, g, tilt_cdeg);
        if (!std::isfinite(var)) continue;
        int8_t expected = KMXC_SERVICE_UNRELIABLE;
        bool near_limit = false;
        for (int k = 2; k >= 0; --k) {
            const double l2 = limit_rad(limits[k]) * limit_rad(limits[k]);
            near_limit |= std::fabs(var - l2) < 0.05 * l2;
            if (var <= l2) expected = levels[k];
        }
        if (near_limit) continue;
        ++compared;
        ++per_level[expected];
        ASSERT_EQ(heading_accuracy_cap(v, g, tilt_cdeg), expected)
            << "sigma " << std::sqrt(var) * 180 / M_PI << " deg, tilt " << tilt_cdeg << " cdeg, v " << v.x << "," << v.y
            << "," << v.z << " g " << g.x << "," << g.y << "," << g.z;
    }
    EXPECT_GT(compared, 18000);
    for (int k = 0; k < 4; ++k) EXPECT_GT(per_level[k], 200) << "level " << k << " drawn too rarely";
}

// An estimate that leaves the offset along a unit axis a to the prior: P = s0^2 a a^T
// (counts^2), every entry, over axes in every direction.
TEST(KitEstimate, AnUndeterminedAxisCarriesThePriorAlongItAndNothingAcross) {
    for (int i = 0; i < 200; ++i) {
        const double th = 0.0313 * i, ph = 0.71 * i;
        const double a[3] = {std::sin(th) * std::cos(ph), std::sin(th) * std::sin(ph), std::cos(th)};
        const Vec3 q{static_cast<int32_t>(std::lround(a[0] * 16384)), static_cast<int32_t>(std::lround(a[1] * 16384)),
                     static_cast<int32_t>(std::lround(a[2] * 16384))};
        OffsetCovariance c{};
        undetermined_along(q, &c);
        ASSERT_TRUE(c.valid);
        constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
        for (int k = 0; k < 6; ++k)
            ASSERT_NEAR(c.p_q8[k] / 256.0, kPriorVarianceCounts2 * a[kRow[k]] * a[kCol[k]], 0.5) << i << " entry " << k;
    }
}

// ---- The noise meter ------------------------------------------------------------------

// The meter against fields of a known noise (sd counts per axis, drawn and then rounded
// to counts: sd^2 + 1/12), 96 cycles: what the estimators take, in counts^2, within
// half to 1.2 times the truth (the second quietest of four windows reads low). A break,
// or a stretch of unsteady tilt, every 20 cycles restarts the run: no difference spans it.
TEST(KitEstimate, TheNoiseMeterReadsTheChipsNoiseAndNotTheMotion) {
    const struct {
        const char *name;
        double sd;
        double turn, turn_change;  // counts per cycle, and per cycle^2, on x and y
        bool steady, jumps;
        double low, high;  // the result's bounds, counts^2
    } cases[] = {
        {"a still phone: its noise", 1.5, 0, 0, true, false, 1.2, 2.8},
        {"a steady turn, and one that speeds up, show no more", 1.5, 4, 0.05, true, false, 1.2, 2.8},
        {"a chip quieter than expected: the expected", 0.3, 0, 0, true, false, 0.64, 0.66},
        {"a tilt never steady: nothing measured, the expected", 3, 0, 0, false, false, 0.64, 0.66},
        {"a jump after each break is no noise", 1.5, 0, 0, true, true, 1.2, 2.8},
        {"a motion between still stretches is no noise", 1.5, 0, 0, false, true, 1.2, 2.8},
    };
    for (const auto &c : cases) {
        g_state = State{};
        Noise noise;
        for (int t = 0; t < 96; ++t) {
            const double drift = c.turn * t + c.turn_change * t * t;
            const double jump = c.jumps ? 400.0 * (t / 20) : 0;
            // Jumps come after a break, or in a stretch of unsteady tilt.
            if (c.jumps && c.steady && t % 20 == 0) break_noise_run();
            const bool steady = c.jumps ? c.steady || t % 20 >= 3 : c.steady;
            const Vec3 m{static_cast<int32_t>(std::lround(100 + drift + jump + noise.next(c.sd))),
                         static_cast<int32_t>(std::lround(-40 - drift + noise.next(c.sd))),
                         static_cast<int32_t>(std::lround(-200 + noise.next(c.sd)))};
            note_noise(m, steady);
        }
        const double v = noise_variance_q8() / 256.0;
        EXPECT_GE(v, c.low) << c.name;
        EXPECT_LE(v, c.high) << c.name;
    }
}

// Each closed window's variance against its definition, in 64 bits: the window's squared
// third differences (axes summed; the run's first three fields give none) times 256,
// over 60 per difference, floored. Swings of the whole int16 range saturate the
// window's sum, whose variance is then the most the meter records.
TEST(KitEstimate, TheNoiseMetersWindowsAreTheirThirdDifferencesVarianceExactly) {
    const struct {
        const char *name;
        int32_t amplitude;  // counts: x alternates +-amplitude, y and z follow a pattern of it
    } cases[] = {
        {"quiet: a few counts", 3},
        {"loud: hundreds of counts", 700},
        {"the whole range: the window saturates", 32767},
    };
    for (const auto &c : cases) {
        g_state = State{};
        std::vector<Vec3> fields;
        for (int t = 0; t < 3 + kNoiseWindow * kNoiseWindows; ++t)
            fields.push_back(Vec3{t % 2 ? c.amplitude : -c.amplitude, (t * 7 % 5 - 2) * c.amplitude / 2,
                                  (t * t % 3 - 1) * c.amplitude});
        for (const Vec3 &m : fields) note_noise(m, true);
        for (int w = 0; w < kNoiseWindows; ++w) {
            uint64_t sum = 0;
            for (int t = 3 + w * kNoiseWindow; t < 3 + (w + 1) * kNoiseWindow; ++t) {
                const int64_t d[3] = {
                    int64_t{fields[t].x} - 3 * fields[t - 1].x + 3 * fields[t - 2].x - fields[t - 3].x,
                    int64_t{fields[t].y} - 3 * fields[t - 1].y + 3 * fields[t - 2].y - fields[t - 3].y,
                    int64_t{fields[t].z} - 3 * fields[t - 1].z + 3 * fields[t - 2].z - fields[t - 3].z};
                sum = std::min<uint64_t>(sum + d[0] * d[0] + d[1] * d[1] + d[2] * d[2], UINT32_MAX);
            }
            EXPECT_EQ(g_state.est.noise.window_q8[w], static_cast<int64_t>(sum * 256 / (60 * kNoiseWindow)))
                << c.name << ", window " << w;
        }
    }
}

// ---- References and the kit file ---------------------------------------------------------

// The references are an estimate's trusted at medium or high with a dip measured; the
// dip is the angle below the horizontal (1000 cos 30 degrees to the downward gravity:
// 60 degrees). They and the correction in use round trip through the kit record; a
// correction beyond what the ellipsoid fit accepts (an axis of 2) is never applied.
TEST(KitEstimate, ATrustedEstimatesReferencesAndAPlausibleCorrectionComeBackFromTheKitRecord) {
    const CalibRecord record{{16, 16, 16}, {0, 0, 0}, {45, -31, 24}};
    // Corrections: a plausible one, the identity, one axis of 1.3 or of 0.77 (the others within).
    constexpr int16_t kPlausible[9] = {18022, 819, 0, 819, 15073, 0, 0, 0, 16384},
                      kIdentity[9] = {16384, 0, 0, 0, 16384, 0, 0, 0, 16384},
                      kLong[9] = {21299, 0, 0, 0, 16384, 0, 0, 0, 14000},
                      kShort[9] = {18000, 0, 0, 0, 16384, 0, 0, 0, 12603};
    const struct {
        const char *name;
        int8_t accuracy;
        int32_t dip;  // 1000 cos(field, gravity)
        bool dip_valid, known;
        const int16_t *w;
        bool applied;
    } cases[] = {
        {"high with a dip, a plausible correction", KMXC_SERVICE_HIGH, 866, true, true, kPlausible, true},
        {"medium, the field upward; the identity: none", KMXC_SERVICE_MEDIUM, -866, true, true, kIdentity, false},
        {"low: plausible, not trusted; an axis of 1.3", KMXC_SERVICE_LOW, 866, true, false, kLong, false},
        {"high without a dip in steady gravity; an axis of 0.77", KMXC_SERVICE_HIGH, 866, false, false, kShort, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_state = State{};
        g_state.base_accuracy = c.accuracy;
        g_state.reference = true;
        g_state.ref_strength = 120;
        g_state.ref_dip = c.dip;
        g_state.ref_dip_valid = c.dip_valid;
        note_trusted_reference();
        g_state.soft_iron.in_use = true;
        for (int k = 0; k < 9; ++k) g_state.soft_iron.w_q14[k] = c.w[k];
        g_state.est.coverage = 17;
        const KitRecord saved = kit_record_for(record);
        EXPECT_TRUE(kit_belongs_to(saved, record));
        g_state = State{};
        apply_kit_record(saved);
        EXPECT_EQ(g_state.reference_known, c.known);
        if (c.known) {
            EXPECT_EQ(g_state.reference_strength_counts, 120);
            EXPECT_NEAR(g_state.reference_dip_cdeg, c.dip > 0 ? 6000 : -6000, 3);
        }
        EXPECT_EQ(g_state.soft_iron.in_use, c.applied);
        for (int k = 0; c.applied && k < 9; ++k) EXPECT_EQ(g_state.soft_iron.w_q14[k], c.w[k]) << k;
        const Vec3 &centre = g_state.soft_iron.centre;
        EXPECT_TRUE(!c.applied || (centre.x == 45 && centre.y == -31 && centre.z == 24)) << "about the record's offset";
        EXPECT_EQ(g_state.est.coverage, 17);
    }
    g_state = State{};
    const KitRecord none = kit_record_for(record);
    EXPECT_TRUE(none.reference == 0 && none.soft_iron[0] == 16384 && none.soft_iron[1] == 0 && none.coverage == 0)
        << "nothing known: the defaults";
}

}  // namespace
