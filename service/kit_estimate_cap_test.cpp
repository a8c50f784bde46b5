// The accuracy the heading's predicted uncertainty allows at each attitude (against the
// double-precision formula), and the references and kit record the estimators keep.
#include <gtest/gtest.h>

#include "service/kit_estimate_test_support.h"
#include "service/kit_uncertainty.h"

namespace {

using namespace kit_estimate_test;

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
// x is (limit * 50)^2; the cases sit 2 % each side of it, with the directions that do not
// turn the heading (north, down) left at the prior's 50 counts. Other attitudes, fields
// and gravities: the comparison with the double formula below.
TEST(KitEstimate, TheHeadingsUncertaintyAtThisAttitudeCapsTheAccuracy) {
    const Vec3 level_g{0, 0, 4096}, level_v{0, 50, -80};
    // East determined at f times the limit's variance, the rest at the prior.
    const auto east = [](int cdeg, double f) {
        return covariance({std::pow(limit_rad(cdeg) * 50, 2) * f, 0, 0, 2500, 0, 2500});
    };
    constexpr int kHigh = KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG, kMedium = KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG,
                  kLow = KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG;
    const struct {
        const char *name;
        OffsetCovariance p;
        Vec3 v;
        int8_t cap;
    } cases[] = {
        {"just within the high limit along east: high", east(kHigh, 0.98), level_v, KMXC_SERVICE_HIGH},
        {"just past the high limit: medium", east(kHigh, 1.02), level_v, KMXC_SERVICE_MEDIUM},
        {"just within the medium limit: medium", east(kMedium, 0.98), level_v, KMXC_SERVICE_MEDIUM},
        {"just past the medium limit: low", east(kMedium, 1.02), level_v, KMXC_SERVICE_LOW},
        {"just within the low limit: low", east(kLow, 0.98), level_v, KMXC_SERVICE_LOW},
        {"just past the low limit: unreliable", east(kLow, 1.02), level_v, KMXC_SERVICE_UNRELIABLE},
        {"the field along gravity: no heading", covariance({1, 0, 0, 1, 0, 1}), Vec3{0, 0, -120},
         KMXC_SERVICE_UNRELIABLE},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.est.cov = c.p;
        EXPECT_EQ(heading_accuracy_cap(c.v, level_g, 0), c.cap) << c.name;
    }
    g_state = State{};
    EXPECT_EQ(heading_accuracy_cap(level_v, level_g, 0), KMXC_SERVICE_HIGH) << "no covariance: the other rules decide";
    // The field 58 degrees below the horizon (tan 1.6): a 2-degree tilt error alone turns
    // the heading by 3.2 degrees, 10 by 16.
    EXPECT_EQ(heading_accuracy_cap(level_v, level_g, 200), KMXC_SERVICE_MEDIUM) << "no covariance, a tilt's part";
    EXPECT_EQ(heading_accuracy_cap(level_v, level_g, 1000), KMXC_SERVICE_UNRELIABLE) << "no covariance, a tilt's part";
}

// The integer cap against sigma_psi^2 = e^T P e |g|^2 / |e|^4 + t^2 (v.g)^2 / |e|^2 in
// double (t a tilt error per horizontal axis, tan(dip) = v.g / |e| times it; none in
// half the draws) over random covariances (with cross terms), fields and attitudes: the
// same level wherever the double variance is more than 5 % from a limit (the integer
// one truncates e to 8 bits: up to 1 part in 128 per component, some 3 % of the
// variance).
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

// ---- References and the kit file ---------------------------------------------------------

// The references are an estimate's trusted at medium or high with a dip measured; the
// dip is the angle below the horizontal (1000 cos 30 degrees to the downward gravity:
// 60 degrees).
TEST(KitEstimate, OnlyATrustedEstimateWithADipBecomesTheReference) {
    const struct {
        const char *name;
        int8_t accuracy;
        bool dip_valid, known;
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
        for (int k = 0; c.applied && k < 9; ++k) EXPECT_EQ(g_state.soft_iron.w_q14[k], c.w[k]) << c.name << " " << k;
        const Vec3 &centre = g_state.soft_iron.centre;
        EXPECT_TRUE(!c.applied || (centre.x == 45 && centre.y == -31 && centre.z == 24)) << "about the record's offset";
        EXPECT_TRUE(g_state.reference_known && g_state.reference_strength_counts == 118 &&
                    g_state.reference_dip_cdeg == -4512 && g_state.est.coverage == 17)
            << c.name << ": the references and the coverage back";
    }
    g_state = State{};
    const KitRecord none = kit_record_for(record);
    EXPECT_TRUE(none.reference == 0 && none.soft_iron[0] == 16384 && none.soft_iron[1] == 0 && none.coverage == 0)
        << "nothing known: the defaults";
}

}  // namespace
