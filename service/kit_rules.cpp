// The kit's rules: integer geometry of the fed samples, the sample-feed gate, and the
// accuracy and anomaly judgements.
#include "calibration/calibration.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {

static int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

int32_t strength_centi_uT(const Vec3 &v) {
    constexpr int64_t kCentiPerCount = 1000 / kCountsPer10uT;  // 40: 0.4 uT
    static_assert(kCentiPerCount * kCountsPer10uT == 1000, "a count is a whole number of hundredths");
    // The driver's corrected vector and a valid offset stay well within +-2^20 counts,
    // so dot(v, v) * 1600 < 2^52.
    return static_cast<int32_t>(isqrt64(static_cast<uint64_t>(dot(v, v)) * (kCentiPerCount * kCentiPerCount)));
}

// |g| (the truncated length) within KMXC_SERVICE_STEADY_GRAVITY_PERMILLE of 1 g: the
// whole lengths from kSteadyLow to kSteadyHigh, compared as squares (no root per cycle).
constexpr int64_t kSteadyLow =
    kGravityCounts - int64_t{KMXC_SERVICE_STEADY_GRAVITY_PERMILLE} * kGravityCounts / 1000;  // rounds the limit in
constexpr int64_t kSteadyHigh = kGravityCounts + int64_t{KMXC_SERVICE_STEADY_GRAVITY_PERMILLE} * kGravityCounts / 1000;
static_assert((kGravityCounts - kSteadyLow) * 1000 <= KMXC_SERVICE_STEADY_GRAVITY_PERMILLE * kGravityCounts &&
                  (kGravityCounts - kSteadyLow + 1) * 1000 > KMXC_SERVICE_STEADY_GRAVITY_PERMILLE * kGravityCounts,
              "kSteadyLow is the least whole length within the limit");
bool gravity_steady(const Vec3 &g) {
    const int64_t sq = dot(g, g);
    return sq >= kSteadyLow * kSteadyLow && sq < (kSteadyHigh + 1) * (kSteadyHigh + 1);
}

// The ring slot of the fed sample `age` feeds back (0: the last one).
static int fed_slot(int age) {
    return (g_state.fed_next - 1 - age + 2 * KMXC_SERVICE_FEED_HISTORY) % KMXC_SERVICE_FEED_HISTORY;
}

Vec3 corrected(const SoftIron &s, const Vec3 &m) {
    if (!s.in_use) return m;
    const Vec3 w = apply_q14(s.w_q14, minus(m, s.centre), 0);
    return Vec3{s.centre.x + w.x, s.centre.y + w.y, s.centre.z + w.z};
}

Agreement agreement(const KmxAxesData &o, int n) { return agreement(g_state.soft_iron, o, n, true); }

void fed_corrected(const SoftIron &soft, int n, Vec3 *u) {
    for (int i = 0; i < n; ++i) u[i] = corrected(soft, g_state.fed[fed_slot(i)]);
}

Agreement agreement(const SoftIron &soft, const KmxAxesData &o, int n, bool with_dip) {
    Vec3 u[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(soft, n, u);
    return agreement_of(u, o, n, with_dip);
}

// Below this sine of the mean angle between field and gravity (1/1000: 5 degrees), the
// dips' spread is not judged.
constexpr int32_t kDipSpreadMinSine = 87;
// Centidegrees per radian, 18000 / pi = 5729.58, to the nearest.
constexpr int64_t kCdegPerRadian = 5730;

// The RMS of the angles whose cosines (1/1000) sum to sum and their squares to sum_sq
// over n: the cosines' RMS over the mean angle's sine, centidegrees; -1 when not judged.
static int32_t dip_sd_cdeg(int64_t sum, int64_t sum_sq, int n) {
    if (n < KMXC_SERVICE_FIT_DIP_MIN_SAMPLES) return -1;
    // n^2 times the cosines' variance (below 2^30 for n up to 16); its root over n is
    // their RMS, here in 1/256.
    const int64_t var_n2 = n * sum_sq - sum * sum;
    // A cosine's length floor may lift it just past 1000: no sine, not judged.
    const int64_t mean = sum / n, sine_sq = 1000000 - mean * mean;
    const int32_t sine = static_cast<int32_t>(isqrt64(static_cast<uint64_t>(sine_sq > 0 ? sine_sq : 0)));
    if (sine < kDipSpreadMinSine) return -1;
    const int64_t rms_q8 = static_cast<int64_t>(isqrt64(static_cast<uint64_t>(var_n2 > 0 ? var_n2 : 0) << 16)) / n;
    // rms / sine radians.
    return static_cast<int32_t>(rms_q8 * kCdegPerRadian / (int64_t{sine} << 8));
}

bool confirms(const Agreement &a) {
    return dips_agree(a) && strength_within(a.mean, KMXC_SERVICE_TRUST_FIELD_MIN_UT, KMXC_SERVICE_TRUST_FIELD_MAX_UT);
}

bool dips_agree(const Agreement &a) {
    if (a.dip_sd_cdeg < 0 || a.mean <= 0) return true;
    // The chip's noise s turns each field's direction by about s / |B| radians: the
    // limit's square and KMXC_SERVICE_FIT_DIP_NOISE_FACTOR times that in centidegrees,
    // squared (kCdegPerRadian^2 times a noise variance below 2^20: below 2^46).
    constexpr int64_t kBase = KMXC_SERVICE_FIT_DIP_SD_CDEG, kFactor = KMXC_SERVICE_FIT_DIP_NOISE_FACTOR;
    const int64_t noise =
        kFactor * kFactor * kCdegPerRadian * kCdegPerRadian * noise_variance_q8() / ((int64_t{a.mean} * a.mean) << kQ8);
    const int64_t sd = a.dip_sd_cdeg;
    return sd * sd <= kBase * kBase + noise;
}

Agreement agreement_of(const Vec3 *u, const KmxAxesData &o, int n, bool with_dip) {
    Agreement a{0, 0, 0, true, 0, false};
    int64_t sum = 0, dip_sum = 0, dip_sq = 0;
    int dips = 0;
    int32_t s[KMXC_SERVICE_FEED_HISTORY];
    for (int i = 0; i < n; ++i) {
        const int slot = fed_slot(i);
        const Vec3 v = minus(u[i], o);
        if (with_dip && gravity_steady(g_state.fed_g[slot])) {
            // One root for both: the length in 1/16 count, its whole counts the strength.
            const int32_t q4 = length_q4(v);
            s[i] = q4 >> 4;
            const int64_t c = dip_cos(v, q4, g_state.fed_g[slot]);
            dip_sum += c;
            dip_sq += c * c;
            ++dips;
        } else {
            s[i] = length(v);
        }
        sum += s[i];
        if (!in_earth_range(s[i])) a.in_range = false;
    }
    if (n == 0) return a;
    // Lengths below 2^16, so the sums and the permille below 2^31: 32-bit divisions (a
    // 64-bit one is a library call of some 340 instructions on the target), and one for
    // the worst deviation, its permille rising with the deviation.
    a.mean = static_cast<int32_t>(static_cast<int32_t>(sum) / n);
    int32_t worst = 0;
    for (int i = 0; i < n; ++i) {
        if (abs32(s[i] - a.mean) > worst) worst = abs32(s[i] - a.mean);
        a.spread += int64_t{s[i] - a.mean} * (s[i] - a.mean);
    }
    a.worst_permille = a.mean > 0 ? worst * 1000 / a.mean : 1000;
    if (dips > 0) {
        a.dip = static_cast<int32_t>(dip_sum) / dips;
        a.dip_valid = true;
        a.dip_sd_cdeg = dip_sd_cdeg(dip_sum, dip_sq, dips);
    }
    return a;
}

// ---- Steady tilt ----------------------------------------------------------------------

namespace {

// The running mean's weight of a new sample at the session's rate, Q12: the cycle's
// share of KMXC_SERVICE_STEADY_TILT_MS (at most all of it).
// The rate is 1..KMXC_SERVICE_RATE_MAX_HZ once started (0 before): a 32-bit division,
// where a 64-bit one was a library call of some 150 armel instructions every cycle.
static_assert(uint64_t{KMXC_SERVICE_RATE_MAX_HZ} * KMXC_SERVICE_STEADY_TILT_MS <= UINT32_MAX, "the divisor in 32 bits");
int32_t tilt_weight_q12() {
    const uint32_t rate = g_state.rate_hz > 0 ? g_state.rate_hz : 1;
    const uint32_t w = uint32_t{4096} * 1000 / (rate * uint32_t{KMXC_SERVICE_STEADY_TILT_MS});
    return w > 4096 ? 4096 : static_cast<int32_t>(w);
}

}  // namespace

void track_tilt(const Vec3 &g) {
    Vec3 &mean = g_state.gravity_mean_q4;
    const Vec3 g16{g.x * 16, g.y * 16, g.z * 16};  // |g| within 2^15: below 2^19
    if (!g_state.gravity_mean_valid) {
        mean = g16;
        g_state.gravity_mean_valid = true;
    }
    // Within the angle of the mean so far: |g x mean|^2 <= sin^2 |g|^2 |mean|^2 and
    // g . mean > 0. |g| below 2^15 and the mean taken to whole counts (a sixteenth of a
    // count is no angle): the cross product's square below 3 * 2^60.
    const Vec3 b{mean.x >> 4, mean.y >> 4, mean.z >> 4};
    const int64_t cx = int64_t{g.y} * b.z - int64_t{g.z} * b.y, cy = int64_t{g.z} * b.x - int64_t{g.x} * b.z,
                  cz = int64_t{g.x} * b.y - int64_t{g.y} * b.x;
    const uint64_t cross_sq =
        static_cast<uint64_t>(cx * cx) + static_cast<uint64_t>(cy * cy) + static_cast<uint64_t>(cz * cz);
    constexpr int64_t s = sin_q14(KMXC_SERVICE_STEADY_TILT_CDEG);
    // |g|^2 |mean|^2 below 2^62, each scaled by 2^-14 against the sine's square (Q28):
    // lengths below 9 * 2^32. cross_sq / s^2 <= lengths, floored, is cross_sq < (lengths
    // + 1) s^2, below 9 * 2^60 (s within 2^14): a product where a 64-bit division was.
    const uint64_t lengths = (static_cast<uint64_t>(dot(g, g)) >> 14) * (static_cast<uint64_t>(dot(b, b)) >> 14);
    g_state.tilt_steady = gravity_steady(g) && dot(g, b) > 0 && cross_sq < (lengths + 1) * static_cast<uint64_t>(s * s);
    // Then the mean takes the sample's share (rounded toward minus infinity by the shift:
    // under 1/16 count, far below the angle it is compared at).
    const int32_t w = tilt_weight_q12();
    mean = Vec3{mean.x + static_cast<int32_t>((int64_t{g16.x - mean.x} * w) >> 12),
                mean.y + static_cast<int32_t>((int64_t{g16.y - mean.y} * w) >> 12),
                mean.z + static_cast<int32_t>((int64_t{g16.z - mean.z} * w) >> 12)};
}

// ---- References -------------------------------------------------------------------------

// The samples in steady tilt when there are any; else (a phone turned by hand, whose
// gravity turns with it) those whose |g| is steady, their hand accelerations averaged.
bool ring_dip_cdeg(const Vec3 *fed, const KmxAxesData &o, int n, int32_t *cdeg) {
    int64_t sum[2] = {0, 0};
    int count[2] = {0, 0};
    for (int i = 0; i < n; ++i) {
        const int slot = fed_slot(i);
        if (!gravity_steady(g_state.fed_g[slot])) continue;
        const int k = (g_state.fed_tilt_steady & (1u << slot)) != 0 ? 0 : 1;
        sum[k] += angle_between_cdeg(minus(fed[i], o), g_state.fed_g[slot]);
        ++count[k];
    }
    const int k = count[0] > 0 ? 0 : 1;
    if (count[k] == 0) return false;
    *cdeg = static_cast<int32_t>(sum[k] / count[k]);
    return true;
}

// The anomaly bounds of 1000 cos(field, gravity) about the reference angle: the full
// tolerance and its half (the hysteresis), the angles kept within 0..180 degrees.
static void set_dip_bounds(int32_t cdeg) {
    g_state.ref_dip_cdeg = cdeg;
    const int32_t tol[2] = {KMXC_SERVICE_DIP_TOLERANCE_CDEG,
                            KMXC_SERVICE_DIP_TOLERANCE_CDEG / KMXC_SERVICE_ANOMALY_HYSTERESIS_DIVISOR};
    for (int k = 0; k < 2; ++k) {
        const int32_t wide = cdeg + tol[k] > kCdegHalfTurn ? kCdegHalfTurn : cdeg + tol[k];
        const int32_t narrow = cdeg - tol[k] < 0 ? 0 : cdeg - tol[k];
        // cos falls with the angle: the wider angle bounds 1000 cos from below.
        g_state.dip_cos_bound[2 * k] = cos_q14(wide) * 1000 / 16384;
        g_state.dip_cos_bound[2 * k + 1] = cos_q14(narrow) * 1000 / 16384;
    }
}

int32_t strength_band_permille(int32_t worst_permille) {
    const int32_t band = KMXC_SERVICE_STRENGTH_BAND_FACTOR * worst_permille;
    return band < KMXC_SERVICE_STRENGTH_BAND_MIN_PERMILLE    ? KMXC_SERVICE_STRENGTH_BAND_MIN_PERMILLE
           : band > KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE ? KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE
                                                             : band;
}

// The reference for anomalies: the agreement's mean strength, and the mean angle of the
// last fed samples in steady tilt about the offset in use. (The last trusted 3-D fit's
// references for the planar estimator follow from it: note_trusted_reference.)
// fed: the fed samples through the correction in use (fed_corrected).
static void set_reference(const Agreement &a, const Vec3 *fed) {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    int32_t cdeg = 0;
    const bool dip = ring_dip_cdeg(fed, o, g_state.fed_count, &cdeg);
    g_state.reference = true;
    g_state.ref_strength = a.mean;
    g_state.ref_dip = a.dip;
    g_state.ref_dip_valid = dip;
    if (dip) set_dip_bounds(cdeg);
    g_state.strength_band_permille = strength_band_permille(a.worst_permille);
    g_state.outside_band_until_ns = 0;
    g_state.in_anomaly = false;
    g_state.demoted = false;
    g_state.est.reference_stale = false;
}

// ---- Sample-feed gate ---------------------------------------------------------------

// Far enough from each of the last few fed samples. (Against the last one only, a
// phone rocked to and fro across the gate would feed the same two places; against the
// whole batch, a figure-eight's return to its centre would wait for a new place.)
bool passes_gate(const Vec3 &m) {
    const int64_t min_sq = int64_t{KMXC_SERVICE_FEED_MIN_CHANGE} * KMXC_SERVICE_FEED_MIN_CHANGE;
    for (int j = 0; j < g_state.fed_count && j < KMXC_SERVICE_FEED_GATE_HISTORY; ++j) {
        const Vec3 &f = g_state.fed[fed_slot(j)];
        const Vec3 d{m.x - f.x, m.y - f.y, m.z - f.z};
        if (dot(d, d) < min_sq) return false;
    }
    return true;
}

void remember_fed(const Vec3 &m, const Vec3 &g) {
    KmxAxesData in_use;
    KmxAxesLibGetMsOffset(&in_use);
    if (!same(in_use, g_state.fed_offset)) {
        g_state.fed_offset = in_use;
        g_state.fed_since_offset = 0;
    }
    if (g_state.fed_since_offset < KMXC_SERVICE_FEED_HISTORY) ++g_state.fed_since_offset;
    g_state.fed[g_state.fed_next] = m;
    g_state.fed_g[g_state.fed_next] = g;
    const uint16_t bit = static_cast<uint16_t>(1u << g_state.fed_next);
    g_state.fed_tilt_steady =
        static_cast<uint16_t>(g_state.tilt_steady ? g_state.fed_tilt_steady | bit : g_state.fed_tilt_steady & ~bit);
    g_state.fed_next = (g_state.fed_next + 1) % KMXC_SERVICE_FEED_HISTORY;
    if (g_state.fed_count < KMXC_SERVICE_FEED_HISTORY) ++g_state.fed_count;
}

bool ring_fed_under(const KmxAxesData &o) {
    return g_state.fed_since_offset == KMXC_SERVICE_FEED_HISTORY && same(o, g_state.fed_offset);
}

// ---- Accuracy -------------------------------------------------------------------------

void on_fit(const KmxAxesData &o) {
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(g_state.soft_iron, g_state.fed_count, fed);
    const Agreement a = agreement_of(fed, o, g_state.fed_count, true);
    const bool agrees = a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE && confirms(a);
    g_state.base_accuracy = !agrees                                           ? KMXC_SERVICE_LOW
                            : a.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH
                                                                              : KMXC_SERVICE_MEDIUM;
    g_state.offset_trusted = true;
    g_state.stored_pending = false;
    g_state.provisional = false;
    set_reference(a, fed);
    if (agrees) g_state.save_pending = true;  // saved in the cycle when it differs from the stored one
}

void trust_estimate(int8_t level, const Agreement &a, const Vec3 *fed) {
    g_state.base_accuracy = level;
    g_state.offset_trusted = true;
    g_state.stored_pending = false;
    g_state.provisional = false;
    set_reference(a, fed);
    if (level >= KMXC_SERVICE_MEDIUM) g_state.save_pending = true;
}

void trust_planar(int8_t level) {
    const bool confirmed = level >= KMXC_SERVICE_MEDIUM;
    g_state.base_accuracy = level;
    g_state.offset_trusted = confirmed;
    g_state.provisional = !confirmed;
    g_state.stored_pending = false;
    g_state.in_anomaly = false;
    g_state.demoted = false;
    g_state.est.reference_stale = false;
    g_state.save_pending = confirmed;
    if (!confirmed) return;
    // Judged from now on against the references it was checked with.
    const int32_t angle = reference_angle_cdeg();
    g_state.reference = true;
    g_state.ref_strength = g_state.reference_strength_counts;
    g_state.ref_dip = cos_q14(angle) * 1000 / 16384;
    g_state.ref_dip_valid = true;
    // Its batch is the circle's, which says nothing of the strength elsewhere.
    g_state.strength_band_permille = KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE;
    g_state.outside_band_until_ns = 0;
    set_dip_bounds(angle);
}

void try_confirm(const KmxAxesData &o, KmxcServiceEvent *e) {
    if (g_state.confirm_count < KMXC_SERVICE_CONFIRM_SAMPLES) return;
    const int n = g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES ? g_state.fed_count : KMXC_SERVICE_CONFIRM_SAMPLES;
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(g_state.soft_iron, g_state.fed_count, fed);
    const Agreement a = agreement_of(fed, o, n, true);
    if (!a.in_range || a.worst_permille > KMXC_SERVICE_AGREE_PERMILLE) return;
    g_state.stored_pending = false;
    g_state.offset_trusted = true;
    g_state.provisional = false;
    g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
    set_reference(a, fed);
    e->flags |= KMXC_SERVICE_CONFIRMED;
}

// A strength more than permille / divisor of the reference strength from it (strengths
// below 2^16 counts: the products below 2^40).
static bool strength_beyond(int32_t strength, int32_t permille, int divisor) {
    return int64_t{abs32(strength - g_state.ref_strength)} * 1000 * divisor > int64_t{permille} * g_state.ref_strength;
}

// Causes against the reference at 1/divisor of each tolerance (1: the anomaly itself; the
// hysteresis' divisor: a sample too near the limits to end an episode).
static uint8_t causes_at(const Vec3 &g, int32_t strength, int32_t dip, int divisor) {
    uint8_t causes = 0;
    if (!in_earth_range(strength)) causes |= KMXC_SERVICE_ANOMALY_RANGE;
    if (!g_state.reference) return causes;
    if (strength_beyond(strength, KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE, divisor))
        causes |= KMXC_SERVICE_ANOMALY_STRENGTH;
    // The angle judged through its cosine's bounds, only in steady tilt: outside it an
    // acceleration (a hand's, a vehicle's) may be what moved it, and the sample's field is
    // no less good for the store and the fits.
    const int k = divisor == 1 ? 0 : 2;
    if (g_state.ref_dip_valid && g_state.tilt_steady && gravity_steady(g) &&
        (dip < g_state.dip_cos_bound[k] || dip > g_state.dip_cos_bound[k + 1]))
        causes |= KMXC_SERVICE_ANOMALY_DIP;
    return causes;
}

uint8_t anomaly_of(const Vec3 &g, int32_t strength, int32_t dip) { return causes_at(g, strength, dip, 1); }

void note_anomaly(uint8_t causes, int64_t now, KmxcServiceEvent *e) {
    // A strength off the reference is a field off by a disturbance of at least the
    // tolerance (7 uT in 48), whose direction nothing tells: the heading may be anything
    // up to tens of degrees off. A dip alone may be a tilt the accelerometer misread.
    const uint8_t cap = (causes & (KMXC_SERVICE_ANOMALY_RANGE | KMXC_SERVICE_ANOMALY_STRENGTH)) != 0
                            ? KMXC_SERVICE_UNRELIABLE
                            : KMXC_SERVICE_LOW;
    const bool in_range = (causes & KMXC_SERVICE_ANOMALY_RANGE) == 0;
    if (!g_state.in_anomaly || cap < g_state.anomaly_level_cap) g_state.anomaly_level_cap = cap;
    g_state.anomaly_in_range = (!g_state.in_anomaly || g_state.anomaly_in_range) && in_range;
    // The episode counts toward persistence (anomaly_since_ns) from its first strength or
    // range cause; dip causes alone from KMXC_SERVICE_DIP_PERSIST_MS on, and only in
    // steady tilt (else never: an acceleration is no new surrounding).
    constexpr int64_t kNever = INT64_MAX / 2;
    const int64_t since =
        causes != KMXC_SERVICE_ANOMALY_DIP ? now
        : g_state.tilt_steady
            ? now + int64_t{KMXC_SERVICE_DIP_PERSIST_MS - KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs
            : kNever;
    if (!g_state.in_anomaly) {
        g_state.anomaly_since_ns = since;
        g_state.est.anomaly_cleared = false;
    } else if (since < g_state.anomaly_since_ns) {
        g_state.anomaly_since_ns = since;
    }
    g_state.in_anomaly = true;
    g_state.last_anomaly_ns = now;
    e->flags |= KMXC_SERVICE_ANOMALY;
}

// A demoted offset regains its trust (medium) when KMXC_SERVICE_CONFIRM_SAMPLES fed
// samples in a row, none anomalous, agree with it as a stored offset's confirmation
// requires and with the reference strength: the field fits it again from several sides,
// not merely at the heading of the moment.
static void try_restore(const Vec3 &g, int32_t strength, int32_t dip, const KmxAxesData &offset, KmxcServiceEvent *e) {
    if ((e->flags & KMXC_SERVICE_FED) == 0) return;
    if (e->mag_result != 0 || causes_at(g, strength, dip, 1) != 0) {
        g_state.restore_count = 0;
        return;
    }
    if (++g_state.restore_count < KMXC_SERVICE_CONFIRM_SAMPLES) return;
    const Agreement a = agreement(offset, KMXC_SERVICE_CONFIRM_SAMPLES);
    if (!a.in_range || a.worst_permille > KMXC_SERVICE_AGREE_PERMILLE ||
        strength_beyond(a.mean, KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE, 1))
        return;
    g_state.offset_trusted = true;
    g_state.provisional = false;
    g_state.demoted = false;
    g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
    e->flags |= KMXC_SERVICE_CONFIRMED;
}

void judge_anomaly(const Vec3 &g, int32_t strength, int32_t dip, const KmxAxesData &offset, int64_t now,
                   KmxcServiceEvent *e) {
    if (!g_state.offset_trusted) {
        if (g_state.demoted) try_restore(g, strength, dip, offset, e);
        return;
    }
    e->anomaly = e->mag_result == 0 ? anomaly_of(g, strength, dip) : uint8_t{KMXC_SERVICE_ANOMALY_RANGE};
    if (e->anomaly == 0 && g_state.reference && strength_beyond(strength, g_state.strength_band_permille, 1)) {
        // Not an episode: the surrounding may be the same, the estimate not what it
        // seemed (a batch on part of the sphere), and the sample is as good for the
        // store and the fits as any.
        e->anomaly = KMXC_SERVICE_ANOMALY_OUTSIDE_BAND;
        g_state.outside_band_until_ns = now + int64_t{KMXC_SERVICE_ANOMALY_CLEAR_MS} * kNsPerMs;
    } else if (e->anomaly != 0) {
        note_anomaly(e->anomaly, now, e);
    } else if (g_state.in_anomaly && causes_at(g, strength, dip, KMXC_SERVICE_ANOMALY_HYSTERESIS_DIVISOR) != 0) {
        g_state.last_anomaly_ns = now;  // near a limit: the episode goes on, unflagged
    }
}

void demote_offset() {
    g_state.offset_trusted = false;
    g_state.provisional = true;
    g_state.demoted = true;
    g_state.restore_count = 0;
    g_state.save_pending = false;
    g_state.in_anomaly = false;
    // The fed samples and the library's batch straddle the change: later fits and
    // judgements start from the new field alone.
    KmxAxesData in_use;
    KmxAxesLibGetMsOffset(&in_use);
    KmxAxesMsCalibSetOffset(&in_use);
    g_state.fed_count = 0;
}

int8_t accuracy_now(int64_t now) {
    // An episode of strength or dip anomalies that has lasted
    // KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS is a new surrounding (a clip, a mount): the
    // offset in use no longer describes the field. (A field outside the Earth's range is
    // the rough offset's business: the library moves it, and the store starts afresh.)
    if (g_state.offset_trusted && g_state.in_anomaly && g_state.anomaly_in_range &&
        now - g_state.anomaly_since_ns >= int64_t{KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs)
        demote_offset();
    // A demoted offset is off by the new surrounding's field, which nothing has measured
    // yet: its heading may be tens of degrees off (a car's 20 uT, 37 degrees), beyond
    // what low promises.
    if (!g_state.offset_trusted)
        return g_state.provisional && !g_state.demoted ? KMXC_SERVICE_LOW : KMXC_SERVICE_UNRELIABLE;
    if (g_state.in_anomaly) {
        if (now - g_state.last_anomaly_ns < int64_t{KMXC_SERVICE_ANOMALY_CLEAR_MS} * kNsPerMs) {
            return g_state.base_accuracy < g_state.anomaly_level_cap ? g_state.base_accuracy
                                                                     : static_cast<int8_t>(g_state.anomaly_level_cap);
        }
        g_state.in_anomaly = false;
    }
    if (now < g_state.outside_band_until_ns && g_state.base_accuracy > KMXC_SERVICE_LOW) return KMXC_SERVICE_LOW;
    return g_state.base_accuracy;
}

int8_t settled_accuracy(int8_t level, int64_t now) {
    if (level < g_state.reported_accuracy) {
        g_state.accuracy_fell = true;
        g_state.accuracy_fell_ns = now;
    } else if (level > g_state.reported_accuracy && g_state.accuracy_fell &&
               now - g_state.accuracy_fell_ns < int64_t{KMXC_SERVICE_ACCURACY_RISE_MS} * kNsPerMs) {
        return g_state.reported_accuracy;
    }
    g_state.reported_accuracy = level;
    return level;
}

}  // namespace kmxc_kit
