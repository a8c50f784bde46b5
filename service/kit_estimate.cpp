// The kit's own estimators on its store of samples: every measured sample is offered
// to the diversity store; when enough have joined, the store is fitted with a sphere
// (and, where the sphere's residual shows more than noise, an ellipsoid) and each fit is
// judged the way the kit judges the library's: by its own samples' strength agreement
// for its accuracy, by the recent fed samples for whether it still describes the field.
// Every estimate in use carries its offset's predicted covariance, which decides which
// estimate is used and caps the accuracy at each attitude by the heading's uncertainty.
// Integer arithmetic only. One fitting step per cycle at most (a sphere fit, its
// judgement, an ellipsoid fit, or an ellipsoid's judgement), each within the cost the
// kit allows a cycle.
#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

namespace {

constexpr int kQ4 = 4;  // the store's statistics are in 1/16 count
constexpr int kQ8 = 8;  // covariances in 1/256 count^2
constexpr int32_t kCentiUtPerCount = 1000 / kCountsPer10uT;
static_assert(kCentiUtPerCount * kCountsPer10uT == 1000, "a count is a whole number of 1/100 uT");

// What noise and rounding leave in a sphere fit's strengths where the field is a sphere:
// the noise along the radius and the count's rounding (a uniform step: 1/12 count^2),
// counts^2 in 1/256.
constexpr int64_t kExpectedResidualSqQ8 = int64_t{KMXC_SERVICE_MAG_NOISE_CENTI_UT} * KMXC_SERVICE_MAG_NOISE_CENTI_UT *
                                              (1 << kQ8) / (kCentiUtPerCount * kCentiUtPerCount) +
                                          (1 << kQ8) / 12;

// What does not average out over a fit's samples: the chip's offset wanders as its
// temperature changes (the library's drift correction rounds to whole counts: a count
// either way within a degree), so samples taken at temperatures a degree or more apart
// disagree by up to a count whatever their number. The wander b grows with the store's
// span of raw temperature (4 per degree) up to kWanderMaxRaw, where it is a count; each
// sample's error variance carries it once more per sample, which bounds what many
// samples on a thin band (a phone in a mount for minutes, tilted by the road alone) can
// tell along the band's axis.
constexpr int32_t kWanderMaxRaw = 4;

// The prior every estimate's covariance carries: each axis of the offset known to 50
// counts (20 uT) before any sample. An offset error that large turns the heading by 45
// degrees or more in any Earth field, so a direction no sample determines stays far
// beyond the low limit, and the covariance stays bounded (below 2500 * 256 < 2^20).
constexpr int64_t kPriorVarianceCounts2 = 50 * 50;

// The heading limits as squared angles, rad^2 in 2^-30: (cdeg pi / 18000)^2, pi as
// 355/113 (within 3e-7).
constexpr int64_t limit_sq_q30(int64_t cdeg) {
    const int64_t rad_q20 = cdeg * 355 * (int64_t{1} << 20) / (113 * 18000);
    return (rad_q20 * rad_q20) >> 10;
}
constexpr int64_t kLimitSqQ30[3] = {limit_sq_q30(KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG),
                                    limit_sq_q30(KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG),
                                    limit_sq_q30(KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG)};
constexpr int8_t kLimitLevel[3] = {KMXC_SERVICE_HIGH, KMXC_SERVICE_MEDIUM, KMXC_SERVICE_LOW};
static_assert(kLimitSqQ30[2] < (int64_t{1} << 27), "a squared limit times |e'|^4 (below 2^35.2) fits 63 bits");

Estimators &est() { return g_state.est; }

int8_t level_of(const StrengthStats &s) {
    if (!s.in_range || s.worst_permille > KMXC_SERVICE_FIT_MEDIUM_PERMILLE) return KMXC_SERVICE_UNRELIABLE;
    return s.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH : KMXC_SERVICE_MEDIUM;
}

bool agrees(const Agreement &a) { return a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE; }

KmxAxesData axes(const Vec3 &v) { return KmxAxesData{v.x, v.y, v.z}; }
Vec3 vec(const KmxAxesData &o) { return Vec3{o.x, o.y, o.z}; }

int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

// The store's samples as the library sees them through the correction in use.
void corrected_samples(const FieldStore &in, const SoftIron &soft, Vec3 *out) {
    for (int i = 0; i < in.count; ++i) out[i] = corrected(soft, stored_field(in, i));
}

// The store as the library sees it (a copy when a correction is in use).
const FieldStore &library_view(const FieldStore &in, const SoftIron &soft, FieldStore *copy) {
    if (!soft.in_use) return in;
    copy->count = in.count;
    for (int i = 0; i < in.count; ++i) {
        const Vec3 m = corrected(soft, stored_field(in, i));
        // Within int16: the correction's axes stay within 0.8..1.25 about a centre the
        // store's span allows (the fits refuse anything farther).
        copy->sample[i].m[0] = static_cast<int16_t>(m.x);
        copy->sample[i].m[1] = static_cast<int16_t>(m.y);
        copy->sample[i].m[2] = static_cast<int16_t>(m.z);
    }
    return *copy;
}

// ---- Covariance ------------------------------------------------------------------------------

// The predicted covariance of an offset that n samples u (counts, as the library sees
// them) determine, about a sphere of `radius` counts whose strengths scatter with
// variance var_q8 (counts^2 in 1/256): for the algebraic sphere fit
//   P = R^2 s^2 (sum (u - mean)(u - mean)^T)^-1,
// with the prior added to its inverse, P = R^2 s^2 (C + R^2 s^2 / s0^2 I)^-1, solved
// column by column as K (n C + n R^2 s^2 / s0^2 I)^-1 with K = n R^2 s^2 (1/256). C
// less the scatter the samples' noise puts into it (n times the expected noise variance
// per axis, as far as C's least eigenvalue allows, as the sphere fit's prior does): a
// direction spanned by noise alone is no information. Sums about the first sample: with
// |u - u0| <= 2^11 (any Earth field's sphere), n C stays below 2^33 per entry. False
// when the solve refuses.
// n C, C the n samples' scatter about their mean (upper triangle: xx, xy, xz, yy, yz,
// zz), from sums about the first sample: with |u - u0| <= 2^11 (any Earth field's
// sphere), n C stays below 2^33 per entry.
void scatter_of(const Vec3 *u, int n, int64_t m[6]) {
    int64_t s[3] = {0, 0, 0}, uu[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 0; i < n; ++i) {
        const Vec3 d = minus(u[i], u[0]);
        s[0] += d.x, s[1] += d.y, s[2] += d.z;
        uu[0] += int64_t{d.x} * d.x, uu[1] += int64_t{d.x} * d.y, uu[2] += int64_t{d.x} * d.z;
        uu[3] += int64_t{d.y} * d.y, uu[4] += int64_t{d.y} * d.z, uu[5] += int64_t{d.z} * d.z;
    }
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    for (int k = 0; k < 6; ++k) m[k] = n * uu[k] - s[kRow[k]] * s[kCol[k]];
}

bool covariance_of(const Vec3 *u, int n, int32_t radius, int64_t var_q8, OffsetCovariance *out) {
    out->valid = false;
    if (n < 2 || radius <= 0) return false;
    // K: R^2 below 2^17 (an Earth field's strength), var_q8 below 2^20 (the fits refuse
    // a residual of 8 % of the strength, 17 counts at most), n up to 32: below 2^42.
    const int64_t k_q8 = int64_t{n} * radius * radius * var_q8;
    const int64_t prior = k_q8 / (kPriorVarianceCounts2 << kQ8) + 1;  // n R^2 s^2 / s0^2, rounded up
    int64_t m[6];
    scatter_of(u, n, m);
    int64_t lambda[3];
    sym3_eigenvalues(m, lambda);
    int64_t noise = (int64_t{n} * n * kExpectedResidualSqQ8) >> kQ8;
    if (noise > lambda[2]) noise = lambda[2] > 0 ? lambda[2] : 0;
    m[0] += prior - noise, m[3] += prior - noise, m[5] += prior - noise;
    const int64_t a[9] = {m[0], m[1], m[2], m[1], m[3], m[4], m[2], m[4], m[5]};
    constexpr int8_t kFrac[3] = {0, 0, 0};
    const int64_t b[3][3] = {{k_q8, 0, 0}, {0, k_q8, 0}, {0, 0, k_q8}};
    int64_t col[3][3];
    if (solve_spd_columns(3, a, 3, b[0], kFrac, col[0]) != FitResult::kOk) return false;
    // The solve's columns are symmetric to its rounding; the upper triangle is kept. The
    // prior bounds every entry by s0^2 (2^19.3 in 1/256).
    const int64_t p[6] = {col[0][0], col[1][0], col[2][0], col[1][1], col[2][1], col[2][2]};
    for (int k = 0; k < 6; ++k) {
        if (p[k] >= (int64_t{1} << 20) || p[k] <= -(int64_t{1} << 20)) return false;
        out->p_q8[k] = static_cast<int32_t>(p[k]);
    }
    out->valid = true;
    return true;
}

void note_temperature(int16_t raw) {
    Estimators &s = est();
    if (!s.temp_known || raw < s.temp_low) s.temp_low = raw;
    if (!s.temp_known || raw > s.temp_high) s.temp_high = raw;
    s.temp_known = true;
}

// The wander's square b^2 over the store's temperature span, 1/256 count^2.
int64_t store_wander_sq_q8() {
    const Estimators &s = est();
    if (!s.temp_known) return 0;
    const int32_t span = s.temp_high - s.temp_low < kWanderMaxRaw ? s.temp_high - s.temp_low : kWanderMaxRaw;
    return (int64_t{span} * span << kQ8) / (kWanderMaxRaw * kWanderMaxRaw);
}

// The error variance per sample that a fit of `unknowns` from n samples leaves its
// offset: the residual's sum of squares over n - unknowns, never below what noise and
// rounding explain, plus n times the wander's square (P = R^2 (s^2 / n + b^2) (C / n)^-1:
// the wander's share does not shrink as samples are added). spread_q8: sum of squared
// strength deviations, 1/256 count^2.
int64_t residual_variance_q8(int64_t spread_q8, int n, int unknowns, int64_t wander_sq_q8) {
    const int64_t v = n > unknowns ? spread_q8 / (n - unknowns) : spread_q8;
    return (v > kExpectedResidualSqQ8 ? v : kExpectedResidualSqQ8) + n * wander_sq_q8;
}

// The offset's error variance in the plane across gravity g (the part that can turn a
// heading, summed over its two axes), 1/256 count^2: trace P - g^T P g / |g|^2. With g
// scaled to 9 bits, g^T P g stays below 2^41.
int64_t horizontal_variance(const OffsetCovariance &c, const Vec3 &g) {
    const int32_t *p = c.p_q8;
    const int64_t trace = int64_t{p[0]} + p[3] + p[5];
    const int bits = significant_bits(abs32(g.x) | abs32(g.y) | abs32(g.z));
    const int sh = bits > 9 ? bits - 9 : 0;
    const int64_t x = g.x >> sh, y = g.y >> sh, z = g.z >> sh;
    const int64_t gg = x * x + y * y + z * z;
    if (gg == 0) return trace;
    const int64_t gpg = x * (p[0] * x + p[1] * y + p[2] * z) + y * (p[1] * x + p[3] * y + p[4] * z) +
                        z * (p[2] * x + p[4] * y + p[5] * z);
    return trace - gpg / gg;
}

// The largest variance of P along any direction (1/256 count^2): its largest eigenvalue.
int64_t worst_variance(const OffsetCovariance &c) {
    const int64_t p[6] = {c.p_q8[0], c.p_q8[1], c.p_q8[2], c.p_q8[3], c.p_q8[4], c.p_q8[5]};
    int64_t lambda[3];
    sym3_eigenvalues(p, lambda);
    return lambda[0];
}

// Every direction must be the samples' more than the prior's (its variance at most a
// quarter of the prior's: three times the prior's information): a set of samples that
// leaves a direction to the prior (a phone only ever turned flat) confirms no offset.
// How well the heading is determined at each attitude is the cap's to say.
bool every_direction_determined(const OffsetCovariance &p) {
    return worst_variance(p) <= (kPriorVarianceCounts2 << kQ8) / 4;
}

// ---- Publishing ------------------------------------------------------------------------------

KmxAxesData offset_in_use() {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    return o;
}

bool moves(const Vec3 &candidate, const KmxAxesData &in_use) {
    return abs32(candidate.x - in_use.x) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE ||
           abs32(candidate.y - in_use.y) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE ||
           abs32(candidate.z - in_use.z) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE;
}

// Publishes an offset to the library (its calibration restarts its batch from it).
void publish(const Vec3 &offset, uint8_t estimator, KmxcServiceEvent *e) {
    const KmxAxesData o = axes(offset);
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
    g_state.estimator = estimator;
    e->flags |= KMXC_SERVICE_NEW_OFFSET | KMXC_SERVICE_FIT_3D | KMXC_SERVICE_KIT_ESTIMATE;
}

// The reference for anomalies: the candidate's recent-sample agreement (strength and
// dip), with the store's mean strength when too few samples have been fed since start
// or since a rough-offset change. fed: the fed samples through the candidate's correction.
Agreement reference_of(const Vec3 *fed, const Vec3 &offset, const StrengthStats &store) {
    Agreement a = agreement_of(fed, axes(offset), g_state.fed_count, true);
    if (g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES) a.mean = store.mean_q4 >> kQ4;
    return a;
}

// The recent fed samples' agreement with a candidate, strengths only.
Agreement ring_of(const SoftIron &soft, const KmxAxesData &offset) {
    return agreement(soft, offset, g_state.fed_count, false);
}

// The estimate in use's predicted horizontal error variance at gravity g; INT64_MAX when
// it has none or the recent fed samples no longer agree with it (its prediction is of a
// field that has gone: any agreeing candidate is better). fed: the fed samples through
// the correction in use, or null.
int64_t in_use_variance(const KmxAxesData &o, const Vec3 &g, const Vec3 *fed) {
    const OffsetCovariance &in_use = est().cov;
    if (!in_use.valid) return INT64_MAX;
    if (!agrees(fed != nullptr ? agreement_of(fed, o, g_state.fed_count, false) : ring_of(g_state.soft_iron, o)))
        return INT64_MAX;
    return horizontal_variance(in_use, g);
}

// What a better-determined candidate does to the offset in use.
enum class Take { kNo, kCovariance, kPublish };

// A candidate (offset, its covariance p) against the estimate in use at gravity g: taken
// when nothing is trusted yet; else only when the recent fed samples agree with it (it
// describes the field now) and its predicted horizontal error is no larger than the
// estimate in use's. It is then published when it moves the offset enough, brings a new
// correction, or is clearly better determined; when it leaves the offset where it is,
// only its covariance is taken. fed: the fed samples through the correction in use, or null.
Take take(bool new_correction, const Vec3 &offset, const Agreement &ring, const OffsetCovariance &p, const Vec3 &g,
          const Vec3 *fed) {
    if (!g_state.offset_trusted) return Take::kPublish;
    if (!agrees(ring)) return Take::kNo;
    const int64_t mine = horizontal_variance(p, g);
    const KmxAxesData o = offset_in_use();
    const int64_t theirs = in_use_variance(o, g, fed);
    if (mine > theirs) return Take::kNo;
    if (new_correction || moves(offset, o) ||
        (theirs != INT64_MAX && mine * KMXC_SERVICE_REPUBLISH_VARIANCE_FACTOR <= theirs))
        return offset.x == o.x && offset.y == o.y && offset.z == o.z && !new_correction ? Take::kCovariance
                                                                                        : Take::kPublish;
    return Take::kNo;
}

// ---- The fitting steps ------------------------------------------------------------------

// The prior a sphere fit of the store carries: the offset in use, each axis known to the
// prior's 50 counts, weighted as n R^2 s^2 / s0^2 with s the residual noise explains and
// R^2 the samples' mean squared distance from that centre.
SpherePrior sphere_prior(const FieldStore &view) {
    const Vec3 c = vec(offset_in_use());
    int64_t r2 = 0;
    for (int i = 0; i < view.count; ++i) {
        const Vec3 d = minus(stored_field(view, i), c);
        r2 += dot(d, d);
    }
    // r2 below 2^37 (32 samples within 2^15 per axis), times s^2 (below 2^8 in 1/256).
    const int64_t w = r2 * kExpectedResidualSqQ8 / (kPriorVarianceCounts2 << kQ8);
    return SpherePrior{c, w > 0 ? w : 1, kExpectedResidualSqQ8};
}

// The store (as the library sees it) fitted with a sphere; judged in a later cycle.
void sphere_step() {
    Estimators &s = est();
    s.joined = 0;
    FieldStore copy;
    const FieldStore &view = library_view(s.store, g_state.soft_iron, &copy);
    SphereFit fit;
    const SpherePrior prior = sphere_prior(view);
    if (sphere_fit(view, &fit, &prior) != FitResult::kOk) return;
    s.sphere = fit;
    s.sphere_pending = true;
    s.coverage = static_cast<uint8_t>(field_store_coverage(view, fit.offset));
}

void judge_sphere(const Vec3 &g, KmxcServiceEvent *e) {
    Estimators &s = est();
    s.sphere_pending = false;
    const SphereFit &fit = s.sphere;
    const SoftIron &soft = g_state.soft_iron;
    const int n = s.store.count;
    // A residual beyond what noise explains: the field is no sphere (soft iron).
    s.ellipsoid_due =
        n >= kEllipsoidMinSamples &&
        int64_t{fit.residual.rms_q4} * fit.residual.rms_q4 >
            KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR * KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR * kExpectedResidualSqQ8;
    const int8_t level = level_of(fit.residual);
    if (level == KMXC_SERVICE_UNRELIABLE) return;  // refused: its own samples disagree
    const KmxAxesData in_use = offset_in_use();
    // The fed samples through the correction in use, corrected once for every look below.
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(soft, g_state.fed_count, fed);
    const Agreement ring = agreement_of(fed, axes(fit.offset), g_state.fed_count, false);
    // Drift: a store that agrees with itself but not with a full ring of recent samples,
    // while the offset in use does, describes a field that has gone.
    if (g_state.offset_trusted && !g_state.in_anomaly && g_state.fed_count == KMXC_SERVICE_FEED_HISTORY &&
        !agrees(ring) && agrees(agreement_of(fed, in_use, g_state.fed_count, false))) {
        store_clear();
        return;
    }
    Vec3 u[kStoreCapacity];
    corrected_samples(s.store, soft, u);
    const int32_t radius = fit.radius_q4 >> kQ4;
    OffsetCovariance p;
    if (!covariance_of(u, n, radius, residual_variance_q8(fit.residual.spread_q8, n, 4, store_wander_sq_q8()), &p))
        return;
    if (!every_direction_determined(p)) return;
    const Take t = take(false, fit.offset, ring, p, g, fed);
    if (t == Take::kNo) return;
    s.cov = p;
    if (t == Take::kCovariance) {
        g_state.estimator = KMXC_SERVICE_ESTIMATOR_STORE_SPHERE;
        return;
    }
    publish(fit.offset, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, e);
    trust_estimate(level, reference_of(fed, fit.offset, fit.residual), fed);
    note_trusted_reference();
}

void ellipsoid_step() {
    Estimators &s = est();
    s.ellipsoid_due = false;
    // The raw store. The sphere (fitted through any correction in use) gives the fit its
    // starting centre and the ridge its radius, the same within the correction's percents.
    if (ellipsoid_fit(s.store, s.sphere, &s.ellipsoid) == FitResult::kOk) s.ellipsoid_pending = true;
}

void judge_ellipsoid(const Vec3 &g, KmxcServiceEvent *e) {
    Estimators &s = est();
    s.ellipsoid_pending = false;
    const EllipsoidFit &fit = s.ellipsoid;
    const int8_t level = level_of(fit.residual);
    if (level == KMXC_SERVICE_UNRELIABLE) return;
    // A first correction must beat the raw store's sphere by the factor; a new one must
    // do no worse than the sphere fitted through the correction in use.
    const int64_t beat = g_state.soft_iron.in_use ? 1 : KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR;
    if (int64_t{fit.residual.rms_q4} * beat > s.sphere.residual.rms_q4) return;
    SoftIron soft{true, fit.offset, {}};
    for (int k = 0; k < 9; ++k) soft.w_q14[k] = fit.w_q14[k];
    Vec3 u[kStoreCapacity];
    corrected_samples(s.store, soft, u);
    const int n = s.store.count;
    OffsetCovariance p;
    // Nine unknowns: the offset, W's five and the strength. W's own error is left out:
    // where the store cannot tell it, the ridge holds W at the sphere's.
    if (!covariance_of(u, n, fit.radius_q4 >> kQ4,
                       residual_variance_q8(fit.residual.spread_q8, n, 9, store_wander_sq_q8()), &p))
        return;
    // As for the sphere: a store turned mostly flat leaves its axis to the ridge.
    if (!every_direction_determined(p)) return;
    if (!ellipsoid_centre_plausible(fit, s.sphere)) return;
    // The fed samples through the new correction (the one in use once it is taken).
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(soft, g_state.fed_count, fed);
    const Agreement ring = agreement_of(fed, axes(fit.offset), g_state.fed_count, false);
    if (take(true, fit.offset, ring, p, g, nullptr) == Take::kNo) return;
    s.cov = p;
    g_state.soft_iron = soft;
    publish(fit.offset, KMXC_SERVICE_ESTIMATOR_ELLIPSOID, e);
    trust_estimate(level, reference_of(fed, fit.offset, fit.residual), fed);
    note_trusted_reference();
}

// The last n fed samples as the library sees them.
int ring_samples(int n, Vec3 *u) {
    for (int i = 0; i < n; ++i) {
        const int slot = (g_state.fed_next - 1 - i + 2 * KMXC_SERVICE_FEED_HISTORY) % KMXC_SERVICE_FEED_HISTORY;
        u[i] = corrected(g_state.soft_iron, g_state.fed[slot]);
    }
    return n;
}

bool ring_covariance(const KmxAxesData &o, int n, int unknowns, OffsetCovariance *p) {
    if (n > g_state.fed_count) n = g_state.fed_count;
    const Agreement a = agreement(g_state.soft_iron, o, n, false);
    Vec3 u[KMXC_SERVICE_FEED_HISTORY];
    ring_samples(n, u);
    return covariance_of(u, n, a.mean, residual_variance_q8(a.spread << (2 * kQ4), n, unknowns, 0), p);
}

}  // namespace

bool ellipsoid_centre_plausible(const EllipsoidFit &fit, const SphereFit &sphere) {
    const Vec3 shift = minus(fit.offset, sphere.offset);
    const int64_t radius = sphere.radius_q4 >> kQ4;
    return dot(shift, shift) * kEllipsoidShiftDivisor * kEllipsoidShiftDivisor <= radius * radius;
}

void store_clear() {
    field_store_clear(&g_state.est.store);
    Estimators &s = est();
    s.joined = 0;
    s.coverage = 0;
    s.sphere_pending = s.ellipsoid_due = s.ellipsoid_pending = false;
    s.temp_known = false;
}

bool library_fit_preferred(const KmxAxesData &o, const Vec3 &g) {
    OffsetCovariance p;
    if (!ring_covariance(o, KMXC_SERVICE_FEED_HISTORY, 4, &p)) return false;
    if (!agrees(ring_of(g_state.soft_iron, o))) return false;
    const int64_t theirs = in_use_variance(offset_in_use(), g, nullptr);
    if (theirs != INT64_MAX && horizontal_variance(p, g) > theirs) return false;
    est().cov = p;
    return true;
}

void use_ring_covariance(const KmxAxesData &o, int n, int unknowns) {
    if (!ring_covariance(o, n, unknowns, &est().cov)) est().cov.valid = false;
}

int8_t heading_accuracy_cap(const Vec3 &v, const Vec3 &g) {
    const OffsetCovariance &c = est().cov;
    if (!c.valid) return KMXC_SERVICE_HIGH;
    // e = v x g: magnetic east, |e| = |h| |g| (h the horizontal field). Products below
    // 2^31 for any in-range field (|v| < 2^16) and gravity (|g| < 2^14).
    int64_t e[3] = {int64_t{v.y} * g.z - int64_t{v.z} * g.y, int64_t{v.z} * g.x - int64_t{v.x} * g.z,
                    int64_t{v.x} * g.y - int64_t{v.y} * g.x};
    // e to 8 bits (e' = e 2^-s): P e' below 2^30 per row, e'^T P e' below 2^40. The OR of
    // the magnitudes has the largest one's bit length.
    const int bits =
        significant_bits((e[0] < 0 ? -e[0] : e[0]) | (e[1] < 0 ? -e[1] : e[1]) | (e[2] < 0 ? -e[2] : e[2]));
    const int s = bits > 8 ? bits - 8 : 0;
    const int32_t x = static_cast<int32_t>(e[0] >> s), y = static_cast<int32_t>(e[1] >> s),
                  z = static_cast<int32_t>(e[2] >> s);
    const int64_t b = int64_t{x} * x + int64_t{y} * y + int64_t{z} * z;  // |e'|^2 below 2^17.6
    if (b == 0) return KMXC_SERVICE_UNRELIABLE;                          // the field along gravity: no heading
    const int32_t *p = c.p_q8;
    const int64_t a = int64_t{x} * (p[0] * x + p[1] * y + p[2] * z) + int64_t{y} * (p[1] * x + p[3] * y + p[4] * z) +
                      int64_t{z} * (p[2] * x + p[4] * y + p[5] * z);
    // sigma^2 = e^T P e |g|^2 / |e|^4 = a |g|^2 / (256 b^2 2^2s). With g' = g / 16 (|g'|^2
    // below 2^21.6), sigma^2 <= T^2 reads a |g'|^2 <= T^2_q30 b^2 2^(2s - 30).
    const int64_t gx = g.x >> 4, gy = g.y >> 4, gz = g.z >> 4;
    const int64_t lhs = (a < 0 ? 0 : a) * (gx * gx + gy * gy + gz * gz);
    const int k = 2 * s - 30;
    const int64_t b2 = b * b;
    for (int i = 0; i < 3; ++i) {
        const int64_t rhs = kLimitSqQ30[i] * b2;
        if (k >= 0 ? (lhs >> k) <= rhs : lhs <= (rhs >> -k)) return kLimitLevel[i];
    }
    return KMXC_SERVICE_UNRELIABLE;
}

void store_cycle(const Vec3 &m, const Vec3 &g, bool fit_allowed, int64_t now, KmxcServiceEvent *e) {
    Estimators &s = est();
    if (g_state.in_anomaly && !s.anomaly_cleared &&
        now - g_state.anomaly_since_ns >= int64_t{KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs) {
        store_clear();
        s.anomaly_cleared = true;
        s.reference_stale = true;
    }
    if (e->mag_result == 0) {
        // After a persisting anomaly the reference is the old surrounding's: only a field
        // outside the Earth's range keeps a sample out until a new estimate is trusted.
        const uint8_t causes = s.reference_stale ? (e->anomaly & KMXC_SERVICE_ANOMALY_RANGE) : e->anomaly;
        const KmxAxesData o = offset_in_use();
        const Vec3 centre = vec(o);
        const bool judged = g_state.offset_trusted && !s.reference_stale;
        const Offer r = field_store_offer(&s.store, m, g, judged ? &centre : nullptr, causes != 0, gravity_steady(g));
        if (r == Offer::kJoined || r == Offer::kJoinedReplacing) {
            if (s.joined < UINT8_MAX) ++s.joined;
            note_temperature(e->raw_temperature);
        }
    }
    if (planar_cycle(fit_allowed, e)) return;  // the mounted phone's estimator (kit_planar.cpp) took the fit
    if (!fit_allowed) return;
    if (s.ellipsoid_pending) {
        judge_ellipsoid(g, e);
    } else if (s.sphere_pending) {
        judge_sphere(g, e);
    } else if (s.joined >= KMXC_SERVICE_STORE_REFIT_JOINS && s.store.count >= kSphereMinSamples) {
        sphere_step();
    } else if (s.ellipsoid_due) {
        ellipsoid_step();
    }
}

// ---- References and the kit file ---------------------------------------------------------------

void note_trusted_reference() {
    if (!g_state.reference || !g_state.ref_dip_valid || g_state.base_accuracy < KMXC_SERVICE_MEDIUM) return;
    // The dip below the horizontal from 1000 cos(field, gravity): gravity as the kit
    // keeps it points down, so sin(dip) = cos and cos(dip) = sin >= 0.
    const int32_t c = g_state.ref_dip < -1000 ? -1000 : g_state.ref_dip > 1000 ? 1000 : g_state.ref_dip;
    const int32_t s = static_cast<int32_t>(isqrt32(static_cast<uint32_t>(1000000 - c * c)));
    g_state.reference_known = true;
    g_state.reference_strength_counts = g_state.ref_strength;
    g_state.reference_dip_cdeg = atan2_cdeg(c, s);
}

// W's symmetric entries in the kit file's order: xx, xy, xz, yy, yz, zz.
constexpr int kKitSoftIronEntry[6] = {0, 1, 2, 4, 5, 8};

KitRecord kit_record_for(const CalibRecord &record) {
    KitRecord k = default_kit(record);
    const SoftIron &soft = g_state.soft_iron;
    if (soft.in_use)
        for (int i = 0; i < 6; ++i) k.soft_iron[i] = soft.w_q14[kKitSoftIronEntry[i]];
    if (g_state.reference_known) {
        k.reference = 1;
        k.strength = g_state.reference_strength_counts;
        k.dip_centideg = g_state.reference_dip_cdeg;
    }
    k.coverage = est().coverage;
    // A planar estimate is saved only when checked against the references (trust_planar).
    k.planar = g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR ? 1 : 0;
    return k;
}

void apply_kit_record(const KitRecord &kit) {
    // Used only when its axes are ones the ellipsoid fit itself accepts (the file's wider
    // range would let a diagonal of 2, beyond Q14 in 16 bits, through).
    const int64_t packed[6] = {kit.soft_iron[0], kit.soft_iron[1], kit.soft_iron[2],
                               kit.soft_iron[3], kit.soft_iron[4], kit.soft_iron[5]};
    int64_t lambda[3];
    sym3_eigenvalues(packed, lambda);
    const int32_t axes_q14[3] = {static_cast<int32_t>(lambda[0]), static_cast<int32_t>(lambda[1]),
                                 static_cast<int32_t>(lambda[2])};
    bool identity = true;
    for (int i = 0; i < 6; ++i) identity = identity && kit.soft_iron[i] == kIdentityQ14[kKitSoftIronEntry[i]];
    if (!identity && axes_plausible(axes_q14)) {
        SoftIron soft{true, vec(kit.magnetic), {}};
        constexpr int kPackedOf[9] = {0, 1, 2, 1, 3, 4, 2, 4, 5};  // row-major W from xx, xy, xz, yy, yz, zz
        for (int i = 0; i < 9; ++i) soft.w_q14[i] = static_cast<int16_t>(kit.soft_iron[kPackedOf[i]]);
        g_state.soft_iron = soft;
    }
    if (kit.reference != 0) {
        g_state.reference_known = true;
        g_state.reference_strength_counts = kit.strength;
        g_state.reference_dip_cdeg = kit.dip_centideg;
    }
    est().coverage = kit.coverage;
}

}  // namespace kmxc_kit
