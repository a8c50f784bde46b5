// The kit's estimator rules at their thresholds, on synthetic fields (no phone): which
// samples the store takes, when a persisting anomaly empties it, when it is refitted,
// how a fit's determinacy, agreement and the recent samples decide its use, when the
// ellipsoid's soft-iron correction replaces the sphere, and when a stale store goes.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "calibration/calibration.h"
#include "service/kit_internal.h"

namespace kmxc_kit {
State g_state;  // the rules' state, here the test's own
}  // namespace kmxc_kit

namespace {

using namespace kmxc_kit;

constexpr Vec3 kDown{0, 0, -4096};
constexpr Vec3 kOffset{100, -50, 200};
constexpr double kRadius = 120;  // 48 uT

// A deterministic noise of about sd counts (sum of three uniform draws).
struct Noise {
    uint32_t state = 12345;
    double next(double sd) {
        double s = 0;
        for (int k = 0; k < 3; ++k) {
            state = state * 1664525u + 1013904223u;
            s += (state >> 8) / double(1 << 24) - 0.5;
        }
        return s * 2 * sd;
    }
};

// Field directions: the golden-angle spiral over the sphere, or the part of it within
// `cap_deg` of +z (a cap), in a scrambled order.
std::vector<std::array<double, 3>> directions(int n, double cap_deg = 180) {
    std::vector<std::array<double, 3>> v;
    const double zmin = std::cos(cap_deg * M_PI / 180);
    for (int k = 0; k < n; ++k) {
        const int i = k * 97 % n;
        const double z = 1 - (1 - zmin) * (i + 0.5) / n, r = std::sqrt(1 - z * z), a = i * 2.399963;
        v.push_back({r * std::cos(a), r * std::sin(a), z});
    }
    return v;
}

// A sample of the field along d, stretched by soft iron s (diagonal and an x-y skew),
// about offset o, with noise.
Vec3 sample(const std::array<double, 3> &d, const Vec3 &o, const double s[4], Noise &noise, double sd) {
    const double x = s[0] * d[0] + s[3] * d[1], y = s[3] * d[0] + s[1] * d[1], z = s[2] * d[2];
    return Vec3{o.x + static_cast<int32_t>(std::lround(kRadius * x + noise.next(sd))),
                o.y + static_cast<int32_t>(std::lround(kRadius * y + noise.next(sd))),
                o.z + static_cast<int32_t>(std::lround(kRadius * z + noise.next(sd)))};
}

constexpr double kNoSoftIron[4] = {1, 1, 1, 0};
constexpr double kSoftIron[4] = {1.10, 0.92, 1.0, 0.05};

// The kit with nothing trusted, the library's offset at `in_use`; the store and the
// ring of fed samples filled from `n` directions.
void set_kit(const Vec3 &in_use) {
    g_state = State{};
    const KmxAxesData o{in_use.x, in_use.y, in_use.z};
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
}

void fill(const std::vector<std::array<double, 3>> &dirs, const Vec3 &o, const double s[4], double sd) {
    Noise noise;
    for (const auto &d : dirs) {
        const Vec3 m = sample(d, o, s, noise, sd);
        field_store_offer(&g_state.est.store, m, kDown, nullptr, false, true);
    }
    for (size_t i = 0; i < dirs.size() && i < 2 * KMXC_SERVICE_FEED_HISTORY; i += 2)
        remember_fed(sample(dirs[i], o, s, noise, sd), kDown);
}

// A sphere fit due now: the fit in one cycle, its judgement in the next (the event of
// the judgement's cycle returned).
KmxcServiceEvent step() {
    KmxcServiceEvent e{};
    e.mag_result = 1;  // a clipped sample: offered nothing
    g_state.est.joined = KMXC_SERVICE_STORE_REFIT_JOINS;
    store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);
    e = KmxcServiceEvent{};
    e.mag_result = 1;
    store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);
    return e;
}

Vec3 offset_in_use() {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    return Vec3{o.x, o.y, o.z};
}

// ---- Admission and clearing -------------------------------------------------------------

TEST(KitEstimate, TheStoreTakesInRangeSamplesAndKeepsAnomaliesOutUntilTheReferenceIsStale) {
    const struct {
        const char *name;
        int8_t mag_result;
        uint8_t anomaly;
        bool stale;
        bool joins;
    } cases[] = {
        {"an in-range sample", 0, 0, false, true},
        {"a channel out of range", 1, 0, false, false},
        {"a strength anomaly", 0, KMXC_SERVICE_ANOMALY_STRENGTH, false, false},
        {"a dip anomaly", 0, KMXC_SERVICE_ANOMALY_DIP, false, false},
        {"a strength anomaly against a stale reference", 0, KMXC_SERVICE_ANOMALY_STRENGTH, true, true},
        {"a range anomaly against a stale reference", 0, KMXC_SERVICE_ANOMALY_RANGE, true, false},
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
        set_kit(kOffset);
        fill(directions(40), kOffset, kNoSoftIron, 0.4);
        ASSERT_EQ(g_state.est.store.count, kStoreCapacity);
        g_state.in_anomaly = c.in_anomaly;
        const int64_t now = int64_t{100} * 1000 * kNsPerMs;
        g_state.anomaly_since_ns = now - c.lasted_ns;
        KmxcServiceEvent e{};
        e.mag_result = 1;  // offers nothing
        store_cycle(Vec3{0, 0, 0}, kDown, false, now, &e);
        EXPECT_EQ(g_state.est.store.count == 0, c.cleared) << c.name;
        EXPECT_EQ(g_state.est.reference_stale, c.cleared) << c.name;
    }
}

// ---- Fits and their judgement -----------------------------------------------------------

TEST(KitEstimate, TheStoreIsRefittedOnlyOnceEnoughSamplesHaveJoined) {
    for (int joined : {KMXC_SERVICE_STORE_REFIT_JOINS - 1, KMXC_SERVICE_STORE_REFIT_JOINS}) {
        set_kit(Vec3{0, 0, 0});
        fill(directions(40), kOffset, kNoSoftIron, 0.4);
        g_state.est.joined = static_cast<uint8_t>(joined);
        KmxcServiceEvent e{};
        e.mag_result = 1;
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);  // the fit, when due
        EXPECT_FALSE(e.flags & KMXC_SERVICE_KIT_ESTIMATE) << "judged in the next cycle, not the fit's";
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);  // its judgement
        const bool fitted = joined >= KMXC_SERVICE_STORE_REFIT_JOINS;
        EXPECT_EQ(g_state.estimator, fitted ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_NONE)
            << joined;
        // A fitting step never runs in a cycle where another fit ran.
        set_kit(Vec3{0, 0, 0});
        fill(directions(40), kOffset, kNoSoftIron, 0.4);
        g_state.est.joined = static_cast<uint8_t>(joined);
        store_cycle(Vec3{0, 0, 0}, kDown, false, 1, &e);
        EXPECT_EQ(g_state.estimator, KMXC_SERVICE_ESTIMATOR_NONE) << joined;
    }
}

// Whether the store's sphere fit is trusted (high, medium), or refused follows how well
// its samples determine the offset across gravity (what turns the heading of a phone
// held as the samples were) and whether they agree. Gravity along z throughout: a cap
// about z is a phone turned while held level.
TEST(KitEstimate, DeterminacyAndAgreementDecideHowFarASphereFitIsUsed) {
    const struct {
        const char *name;
        double cap_deg, noise;
        int8_t accuracy;
        bool trusted;
        uint8_t estimator;
    } cases[] = {
        {"the whole sphere, little noise: high", 180, 0.4, KMXC_SERVICE_HIGH, true,
         KMXC_SERVICE_ESTIMATOR_STORE_SPHERE},
        {"a 60-degree cap, little noise: determined, high", 60, 0.4, KMXC_SERVICE_HIGH, true,
         KMXC_SERVICE_ESTIMATOR_STORE_SPHERE},
        {"a 35-degree cap about gravity, 2 counts of noise: the horizontal offset determined, high", 35, 2,
         KMXC_SERVICE_HIGH, true, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE},
        {"a 20-degree cap about gravity, 2 counts of noise: still determined across gravity", 20, 2, KMXC_SERVICE_HIGH,
         true, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE},
        {"a 2-degree cap: no direction determined, refused", 2, 0.4, KMXC_SERVICE_UNRELIABLE, false,
         KMXC_SERVICE_ESTIMATOR_NONE},
        {"the whole sphere, 8 counts of noise: disagrees, refused", 180, 8, KMXC_SERVICE_UNRELIABLE, false,
         KMXC_SERVICE_ESTIMATOR_NONE},
    };
    for (const auto &c : cases) {
        set_kit(Vec3{0, 0, 0});
        fill(directions(60, c.cap_deg), kOffset, kNoSoftIron, c.noise);
        step();
        EXPECT_EQ(accuracy_now(1), c.accuracy) << c.name;
        EXPECT_EQ(g_state.offset_trusted, c.trusted) << c.name;
        EXPECT_EQ(g_state.estimator, c.estimator) << c.name;
        if (c.estimator == KMXC_SERVICE_ESTIMATOR_STORE_SPHERE) {
            const Vec3 o = offset_in_use();
            EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y), 6) << c.name;
        }
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
        set_kit(c.in_use);
        g_state.offset_trusted = true;
        g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
        g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
        fill(directions(60), kOffset, kNoSoftIron, 0.3);
        const KmxcServiceEvent e = step();
        EXPECT_EQ((e.flags & KMXC_SERVICE_KIT_ESTIMATE) != 0, c.replaced) << c.name;
        EXPECT_EQ(g_state.estimator, c.replaced ? KMXC_SERVICE_ESTIMATOR_STORE_SPHERE : KMXC_SERVICE_ESTIMATOR_LIBRARY)
            << c.name;
    }
    // The recent samples come from another offset (the store is stale): the store goes.
    set_kit(kOffset);
    g_state.offset_trusted = true;
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    fill(directions(60), Vec3{kOffset.x + 30, kOffset.y, kOffset.z}, kNoSoftIron, 0.3);
    Noise noise;
    for (const auto &d : directions(KMXC_SERVICE_FEED_HISTORY))
        remember_fed(sample(d, kOffset, kNoSoftIron, noise, 0.3), kDown);
    step();
    EXPECT_EQ(g_state.est.store.count, 0) << "a store the recent samples contradict is emptied";
    EXPECT_EQ(offset_in_use().x, kOffset.x);
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
        set_kit(Vec3{0, 0, 0});
        fill(directions(80, c.cap_deg), kOffset, c.soft, 0.4);
        step();  // the sphere, and whether an ellipsoid is due
        KmxcServiceEvent e{};
        e.mag_result = 1;
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);  // the ellipsoid fit
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);  // its judgement
        EXPECT_EQ(g_state.soft_iron.in_use, c.adopted) << c.name << ", coverage " << int(g_state.est.coverage);
        EXPECT_EQ(g_state.estimator == KMXC_SERVICE_ESTIMATOR_ELLIPSOID, c.adopted) << c.name;
        if (c.adopted) {
            // The corrected field of every stored sample has one strength.
            const Vec3 o = offset_in_use();
            const Vec3 m = corrected(g_state.soft_iron, stored_field(g_state.est.store, 0));
            const Vec3 m2 = corrected(g_state.soft_iron, stored_field(g_state.est.store, 7));
            EXPECT_NEAR(length(minus(m, o)), length(minus(m2, o)), 3) << c.name;
            EXPECT_LE(std::abs(o.x - kOffset.x) + std::abs(o.y - kOffset.y) + std::abs(o.z - kOffset.z), 4);
        }
    }
}

TEST(KitEstimate, TheEllipsoidMustBeatTheSphereByItsFactorAndHavePlausibleAxes) {
    static_assert(KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR == 2);
    const struct {
        const char *name;
        int32_t sphere_rms_q4, axis_q14;
        bool adopted;
    } cases[] = {
        {"half the sphere's RMS exactly", 2 * 10, 16384, true},
        {"just over half", 2 * 10 - 1, 16384, false},
        {"an axis of exactly 1.25", 2 * 10, kAxisMaxQ14, true},
    };
    for (const auto &c : cases) {
        set_kit(Vec3{0, 0, 0});
        fill(directions(80), kOffset, kNoSoftIron, 0.4);
        EllipsoidFit &f = g_state.est.ellipsoid;
        f = EllipsoidFit{};
        f.offset = kOffset;
        f.radius_q4 = static_cast<int32_t>(kRadius * 16);
        for (int k = 0; k < 9; ++k) f.w_q14[k] = k % 4 == 0 ? 16384 : 0;
        f.axes_q14[0] = c.axis_q14, f.axes_q14[1] = 16384, f.axes_q14[2] = 16384;
        field_store_strengths(g_state.est.store, kOffset, f.w_q14, &f.residual);
        f.residual.rms_q4 = 10;
        g_state.est.sphere.residual.rms_q4 = c.sphere_rms_q4;
        g_state.est.ellipsoid_pending = true;
        KmxcServiceEvent e{};
        e.mag_result = 1;
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);
        EXPECT_EQ(g_state.soft_iron.in_use, c.adopted) << c.name;
    }
    // An axis past the range never reaches the judgement: the fit returns kImplausible
    // and the kit keeps only kOk fits.
    const int32_t past[3] = {kAxisMaxQ14 + 1, 16384, 16384}, at[3] = {kAxisMaxQ14, 16384, kAxisMinQ14};
    EXPECT_FALSE(axes_plausible(past));
    EXPECT_TRUE(axes_plausible(at));
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
        g_state.offset_trusted = true;
        g_state.base_accuracy = KMXC_SERVICE_HIGH;
        Noise noise;
        for (const auto &d : directions(KMXC_SERVICE_FEED_HISTORY))
            remember_fed(sample(d, kOffset, kNoSoftIron, noise, 0.3), kDown);
        const KmxAxesData o{c.fit.x, c.fit.y, c.fit.z};
        EXPECT_EQ(library_fit_preferred(o, kDown), c.preferred) << c.name;
    }
}

// ---- The heading's uncertainty caps the accuracy --------------------------------------

// A covariance (counts^2) along the phone's axes: xx, yy, zz and an x-y term.
OffsetCovariance covariance(double xx, double yy, double zz, double xy = 0) {
    OffsetCovariance c{};
    const double q8[6] = {xx, xy, 0, yy, 0, zz};
    for (int k = 0; k < 6; ++k) c.p_q8[k] = static_cast<int32_t>(std::lround(q8[k] * 256));
    c.valid = true;
    return c;
}

// sigma_psi^2 = e^T P e |g|^2 / |e|^4, e = v x g, in double (rad^2): P in counts^2.
double heading_variance(const int32_t p_q8[6], const Vec3 &v, const Vec3 &g) {
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
    return epe * gg / (ee * ee);
}

double limit_rad(int cdeg) { return cdeg * M_PI / 18000; }

// A phone held level (gravity along +z, the field 50 counts = 20 uT north along +y and
// 80 counts down): magnetic east is +x, the horizontal field 50 counts, so an offset
// error of s counts along x turns the heading by s / 50 rad. Each limit's variance along
// x is (limit * 50)^2; the cases sit 2 % each side of it, with the directions that do not
// turn the heading (north, down) left at the prior's 50 counts.
TEST(KitEstimate, TheHeadingsUncertaintyAtThisAttitudeCapsTheAccuracy) {
    const Vec3 level_g{0, 0, 4096}, level_v{0, 50, -80};
    const auto at = [](int cdeg, double f) { return std::pow(limit_rad(cdeg) * 50, 2) * f; };
    constexpr double kPrior = 2500;
    const struct {
        const char *name;
        OffsetCovariance p;
        Vec3 v, g;
        int8_t cap;
    } cases[] = {
        {"just within the high limit along east: high",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 0.98), kPrior, kPrior), level_v, level_g,
         KMXC_SERVICE_HIGH},
        {"just past the high limit: medium", covariance(at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 1.02), kPrior, kPrior),
         level_v, level_g, KMXC_SERVICE_MEDIUM},
        {"just within the medium limit: medium",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG, 0.98), kPrior, kPrior), level_v, level_g,
         KMXC_SERVICE_MEDIUM},
        {"just past the medium limit: low",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG, 1.02), kPrior, kPrior), level_v, level_g,
         KMXC_SERVICE_LOW},
        {"just within the low limit: low", covariance(at(KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG, 0.98), kPrior, kPrior),
         level_v, level_g, KMXC_SERVICE_LOW},
        {"just past the low limit: unreliable",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG, 1.02), kPrior, kPrior), level_v, level_g,
         KMXC_SERVICE_UNRELIABLE},
        // The same estimate (east determined, the rest at the prior) on a phone stood on
        // its side: gravity along +x, the field north along +y and down along -x, so
        // east is -z, the direction the samples never determined.
        {"tilted until the undetermined direction is east: unreliable",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 0.5), kPrior, kPrior), Vec3{-80, 50, 0}, Vec3{4096, 0, 0},
         KMXC_SERVICE_UNRELIABLE},
        {"tilted, the east error along the phone's z determined: high",
         covariance(kPrior, kPrior, at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 0.5)), Vec3{-80, 50, 0}, Vec3{4096, 0, 0},
         KMXC_SERVICE_HIGH},
        // A weaker horizontal field turns the same offset error into a larger heading
        // error: 25 counts north instead of 50 doubles it.
        {"half the horizontal field: the high limit's variance is past it",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 0.98), kPrior, kPrior), Vec3{0, 25, -80}, level_g,
         KMXC_SERVICE_MEDIUM},
        // Gravity's length enters as |g|^2 / |e|^2 = 1 / |h|^2: a phone accelerated to
        // 1.5 g reads the same heading uncertainty.
        {"gravity 1.5 g, just within the high limit: still high",
         covariance(at(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, 0.98), kPrior, kPrior), level_v, Vec3{0, 0, 6144},
         KMXC_SERVICE_HIGH},
        {"the field along gravity: no heading", covariance(1, 1, 1), Vec3{0, 0, -120}, level_g,
         KMXC_SERVICE_UNRELIABLE},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.est.cov = c.p;
        EXPECT_EQ(heading_accuracy_cap(c.v, c.g), c.cap) << c.name;
    }
    g_state = State{};
    EXPECT_EQ(heading_accuracy_cap(level_v, level_g), KMXC_SERVICE_HIGH) << "no covariance: the other rules decide";
}

// The integer cap against sigma_psi^2 = e^T P e |g|^2 / |e|^4 in double over random
// covariances (with cross terms), fields and attitudes: the same level wherever the
// double variance is more than 5 % from a limit (the integer one truncates e to 8
// bits: up to 1 part in 128 per component, some 3 % of the variance).
TEST(KitEstimate, TheIntegerHeadingCapMatchesTheDoubleFormula) {
    uint32_t state = 2024;
    const auto uniform = [&](double lo, double hi) {
        state = state * 1664525u + 1013904223u;
        return lo + (hi - lo) * ((state >> 8) / double(1 << 24));
    };
    const int limits[3] = {KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG,
                           KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG};
    const int8_t levels[3] = {KMXC_SERVICE_HIGH, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_LOW};
    int compared = 0, per_level[4] = {0, 0, 0, 0};
    for (int i = 0; i < 20000; ++i) {
        // P = A A^T + d I with entries up to the prior's 2500 counts^2.
        double a[3][3];
        const double scale = std::exp(uniform(std::log(0.05), std::log(28.0)));
        for (auto &row : a)
            for (double &x : row) x = uniform(-1, 1) * scale;
        double p[3][3];
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k) p[r][k] = a[r][0] * a[k][0] + a[r][1] * a[k][1] + a[r][2] * a[k][2];
        g_state = State{};
        OffsetCovariance &c = g_state.est.cov;
        const double packed[6] = {p[0][0], p[0][1], p[0][2], p[1][1], p[1][2], p[2][2]};
        for (int k = 0; k < 6; ++k) c.p_q8[k] = static_cast<int32_t>(std::lround(packed[k] * 256));
        c.valid = true;
        const auto draw = [&](double m) {
            return Vec3{static_cast<int32_t>(std::lround(uniform(-m, m))),
                        static_cast<int32_t>(std::lround(uniform(-m, m))),
                        static_cast<int32_t>(std::lround(uniform(-m, m)))};
        };
        const Vec3 v = draw(250), g = draw(4096 * 2.0);
        const double var = heading_variance(c.p_q8, v, g);
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
        ASSERT_EQ(heading_accuracy_cap(v, g), expected)
            << "sigma " << std::sqrt(var) * 180 / M_PI << " deg, v " << v.x << "," << v.y << "," << v.z << " g " << g.x
            << "," << g.y << "," << g.z;
    }
    EXPECT_GT(compared, 18000);
    for (int k = 0; k < 4; ++k) EXPECT_GT(per_level[k], 200) << "level " << k << " drawn too rarely";
}

// ---- References and the kit file ---------------------------------------------------------

// The references are an estimate's trusted at medium or high with a dip measured; the
// dip is the angle below the horizontal (1000 cos 30 degrees to the downward gravity:
// 60 degrees).
TEST(KitEstimate, OnlyATrustedEstimateWithADipBecomesTheReference) {
    const struct {
        const char *name;
        int8_t accuracy;
        bool dip_valid;
        bool known;
    } cases[] = {
        {"high with a dip", KMXC_SERVICE_HIGH, true, true},
        {"medium with a dip", KMXC_SERVICE_MEDIUM, true, true},
        {"low: plausible, not trusted", KMXC_SERVICE_LOW, true, false},
        {"high without a dip in steady gravity", KMXC_SERVICE_HIGH, false, false},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.base_accuracy = c.accuracy;
        g_state.reference = true;
        g_state.ref_strength = 120;
        g_state.ref_dip = 866;  // cos 30 degrees
        g_state.ref_dip_valid = c.dip_valid;
        note_trusted_reference();
        EXPECT_EQ(g_state.reference_known, c.known) << c.name;
        if (c.known) {
            EXPECT_EQ(g_state.reference_strength_counts, 120) << c.name;
            EXPECT_NEAR(g_state.reference_dip_cdeg, 6000, 3) << c.name;
        }
    }
}

// The kit record round trip through the estimators' state: what is saved comes back;
// a correction beyond what the ellipsoid fit accepts (an axis of 2) is never applied.
TEST(KitEstimate, TheKitRecordRoundTripsAndAnImplausibleCorrectionIsRefused) {
    const CalibRecord record{{16, 16, 16}, {0, 0, 0}, {45, -31, 24}};
    const struct {
        const char *name;
        int16_t w[9];
        bool applied;
    } cases[] = {
        {"a plausible correction", {18022, 819, 0, 819, 15073, 0, 0, 0, 16384}, true},
        {"the identity: no correction in use", {16384, 0, 0, 0, 16384, 0, 0, 0, 16384}, false},
        {"axes of 1.3 and 0.77, past the fit's range", {21299, 0, 0, 0, 16384, 0, 0, 0, 12603}, false},
        {"one axis of 1.3, the others within", {21299, 0, 0, 0, 16384, 0, 0, 0, 14000}, false},
        {"one axis of 0.77, the others within", {18000, 0, 0, 0, 16384, 0, 0, 0, 12603}, false},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.soft_iron.in_use = true;
        for (int k = 0; k < 9; ++k) g_state.soft_iron.w_q14[k] = c.w[k];
        g_state.reference_known = true;
        g_state.reference_strength_counts = 118;
        g_state.reference_dip_cdeg = -4512;
        g_state.est.coverage = 17;
        const KitRecord saved = kit_record_for(record);
        EXPECT_TRUE(kit_belongs_to(saved, record)) << c.name;
        g_state = State{};
        apply_kit_record(saved);
        EXPECT_EQ(g_state.soft_iron.in_use, c.applied) << c.name;
        if (c.applied) {
            for (int k = 0; k < 9; ++k) EXPECT_EQ(g_state.soft_iron.w_q14[k], c.w[k]) << c.name << " " << k;
            EXPECT_EQ(g_state.soft_iron.centre.x, 45) << "about the record's offset";
            EXPECT_EQ(g_state.soft_iron.centre.z, 24);
        }
        EXPECT_TRUE(g_state.reference_known) << c.name;
        EXPECT_EQ(g_state.reference_strength_counts, 118) << c.name;
        EXPECT_EQ(g_state.reference_dip_cdeg, -4512) << c.name;
        EXPECT_EQ(g_state.est.coverage, 17) << c.name;
    }
    // Nothing known: the defaults.
    g_state = State{};
    const KitRecord none = kit_record_for(record);
    EXPECT_EQ(none.reference, 0);
    EXPECT_EQ(none.soft_iron[0], 16384);
    EXPECT_EQ(none.soft_iron[1], 0);
    EXPECT_EQ(none.coverage, 0);
}

}  // namespace
