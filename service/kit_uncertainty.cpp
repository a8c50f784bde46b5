// The predicted uncertainty of the kit's offset estimates (kit_uncertainty.h). Integer
// arithmetic only.
#include "service/kit_uncertainty.h"

#include "service/soft_iron_share.h"

namespace kmxc_kit {

namespace {

// What does not average out over a fit's samples: the chip's offset wanders as its
// temperature changes (the library's drift correction rounds to whole counts: a count
// either way within a degree), so samples taken at temperatures a degree or more apart
// disagree by up to a count whatever their number. The wander b grows with the store's
// span of raw temperature (4 per degree) up to kWanderMaxRaw, where it is a count; each
// sample's error variance carries it once more per sample, which bounds what many
// samples on a thin band (a phone in a mount for minutes, tilted by the road alone) can
// tell along the band's axis.
constexpr int32_t kWanderMaxRaw = 4;

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

int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

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

// How far above the measured noise variance per axis a direction's scatter must lie
// before it tells anything, in halves: over a store's samples a noise-only direction's
// scatter comes out up to a third above the noise's. (The expected noise needs no
// margin: it is twice the chip's already.)
constexpr int64_t kNoiseScatterMarginHalves = 4;

// The most noise the meter reports, 1/256 count^2 (64 counts per axis: a field no fit
// accepts anyway): the products it enters stay within their formats.
constexpr int64_t kNoiseMaxQ8 = (int64_t{1} << 20) - 1;

// The noise the meter's recent windows show, 1/256 count^2 (INT64_MAX before the first):
// the second quietest once there are two (one window can read low: a run of repeated
// or smoothed readings), else the one.
int64_t measured_noise_q8() {
    const NoiseMeter &nm = g_state.est.noise;
    int64_t quietest = INT64_MAX, second = INT64_MAX;
    for (int i = 0; i < nm.windows; ++i) {
        const int64_t v = nm.window_q8[i];
        if (v < quietest) {
            second = quietest;
            quietest = v;
        } else if (v < second) {
            second = v;
        }
    }
    return nm.windows >= 2 ? second : quietest;
}

// A noise variance the estimators take: never below the expected, never above the most
// the meter reports; the expected before the meter's first window (INT64_MAX).
int64_t noise_within_bounds(int64_t v) {
    if (v == INT64_MAX || v <= kExpectedResidualSqQ8) return kExpectedResidualSqQ8;
    return v < kNoiseMaxQ8 ? v : kNoiseMaxQ8;
}

// The noise the scatter of a fit's samples is taken to carry (offset_information).
int64_t scatter_noise_q8() {
    const int64_t measured = measured_noise_q8();
    // measured below 2^31: the product within 64 bits.
    return noise_within_bounds(measured == INT64_MAX ? measured : measured * kNoiseScatterMarginHalves / 2);
}

// The largest variance of P along any direction (1/256 count^2): its largest eigenvalue.
int64_t worst_variance(const OffsetCovariance &c) {
    const int64_t p[6] = {c.p_q8[0], c.p_q8[1], c.p_q8[2], c.p_q8[3], c.p_q8[4], c.p_q8[5]};
    int64_t lambda[3];
    sym3_eigenvalues(p, lambda);
    return lambda[0];
}

// The matrix the covariance solves with, a = n C + n R^2 s^2 / s0^2 I less the noise's
// scatter (see covariance_of), and K = n R^2 s^2 (1/256). False for fewer than two
// samples or no radius.
bool offset_information(const Vec3 *u, int n, int32_t radius, int64_t var_q8, int64_t a[9], int64_t *k_q8) {
    if (n < 2 || radius <= 0) return false;
    // K: R^2 below 2^17 (an Earth field's strength), var_q8 below 2^20 (the fits refuse
    // a residual of 8 % of the strength, 17 counts at most), n up to 32: below 2^42.
    *k_q8 = int64_t{n} * radius * radius * var_q8;
    const int64_t prior = *k_q8 / (kPriorVarianceCounts2 << kQ8) + 1;  // n R^2 s^2 / s0^2, rounded up
    int64_t m[6];
    scatter_of(u, n, m);
    int64_t lambda[3];
    sym3_eigenvalues(m, lambda);
    int64_t noise = (int64_t{n} * n * scatter_noise_q8()) >> kQ8;
    if (noise > lambda[2]) noise = lambda[2] > 0 ? lambda[2] : 0;
    m[0] += prior - noise, m[3] += prior - noise, m[5] += prior - noise;
    const int64_t full[9] = {m[0], m[1], m[2], m[1], m[3], m[4], m[2], m[4], m[5]};
    for (int k = 0; k < 9; ++k) a[k] = full[k];
    return true;
}

// P = K a^-1 plus the share (when given), from offset_information's a and K.
bool covariance_from(const int64_t a[9], int64_t k_q8, const int32_t *share_q8, int32_t prior_permille,
                     OffsetCovariance *out) {
    out->valid = false;
    constexpr int8_t kFrac[3] = {0, 0, 0};
    const int64_t b[3][3] = {{k_q8, 0, 0}, {0, k_q8, 0}, {0, 0, k_q8}};
    int64_t col[3][3];
    if (solve_spd_columns(3, a, 3, b[0], kFrac, col[0]) != FitResult::kOk) return false;
    // The solve's columns are symmetric to its rounding; the upper triangle is kept. The
    // prior bounds every entry by s0^2 (2^19.3 in 1/256).
    int64_t p[6] = {col[0][0], col[1][0], col[2][0], col[1][1], col[2][1], col[2][2]};
    out->prior_permille = share_q8 != nullptr ? prior_permille : 0;
    for (int k = 0; k < 6; ++k) {
        out->share_q8[k] = share_q8 != nullptr ? share_q8[k] : 0;
        p[k] += out->share_q8[k];
        if (p[k] >= (int64_t{1} << 20) || p[k] <= -(int64_t{1} << 20)) return false;
        out->p_q8[k] = static_cast<int32_t>(p[k]);
    }
    out->valid = true;
    return true;
}

static_assert(kStoreCapacity <= kShareMaxSamples && KMXC_SERVICE_FEED_HISTORY <= kShareMaxSamples,
              "the store's and the fed ring's samples within the share's bounds");

// The share's prior per entry of D for samples through a correction or not: the
// default, or the soft iron the store shows when that is more.
int32_t prior_sd_permille(bool corrected) {
    const int32_t base = corrected ? KMXC_SERVICE_SOFT_IRON_LEFT_PERMILLE : KMXC_SERVICE_SOFT_IRON_PRIOR_PERMILLE;
    const int32_t shown = g_state.est.shown_permille;
    return shown > base ? shown : base;
}

SoftIronPrior prior_of(bool corrected, int64_t noise_q8) {
    return SoftIronPrior{prior_sd_permille(corrected), noise_q8};
}

// P's own bound (covariance_of): a share beyond it determines nothing.
bool share_within_bound(const int64_t share[6], int32_t share_q8[6]) {
    for (int k = 0; k < 6; ++k) {
        if (share[k] >= (int64_t{1} << 20) || share[k] <= -(int64_t{1} << 20)) return false;
        share_q8[k] = static_cast<int32_t>(share[k]);
    }
    return true;
}

}  // namespace

bool covariance_of(const Vec3 *u, int n, int32_t radius, int64_t var_q8, const int32_t *share_q8,
                   int32_t prior_permille, OffsetCovariance *out) {
    out->valid = false;
    int64_t a[9], k_q8 = 0;
    return offset_information(u, n, radius, var_q8, a, &k_q8) &&
           covariance_from(a, k_q8, share_q8, prior_permille, out);
}

void undetermined_along(const Vec3 &axis_q14, OffsetCovariance *out) {
    // s0^2 in 1/256 (below 2^20) times two Q14 components (below 2^28): below 2^48.
    const int64_t a[3] = {axis_q14.x, axis_q14.y, axis_q14.z};
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    for (int k = 0; k < 6; ++k) {
        out->p_q8[k] = static_cast<int32_t>(((kPriorVarianceCounts2 << kQ8) * a[kRow[k]] * a[kCol[k]]) >> 28);
        out->share_q8[k] = 0;
    }
    out->prior_permille = 0;
    out->valid = true;
}

void rescale_share(OffsetCovariance *c) {
    if (!c->valid || c->prior_permille <= 0) return;
    const int64_t now = prior_sd_permille(g_state.soft_iron.in_use), was = c->prior_permille;
    if (now <= was) return;
    // The share grows as the prior's square: p + share (now^2 / was^2 - 1). Priors below
    // 2^10, shares below 2^20: products below 2^40.
    int64_t p[6], share[6], largest = 0;
    for (int k = 0; k < 6; ++k) {
        share[k] = c->share_q8[k] * now * now / (was * was);
        p[k] = c->p_q8[k] - c->share_q8[k] + share[k];
        const int64_t m = p[k] < 0 ? -p[k] : p[k];
        if (m > largest) largest = m;
    }
    // Beyond P's bound, the whole matrix scaled into it (still positive): nothing there
    // is determined anyway.
    constexpr int64_t kBound = (int64_t{1} << 20) - 1;
    for (int k = 0; k < 6; ++k) {
        if (largest > kBound) p[k] = p[k] * kBound / largest, share[k] = share[k] * kBound / largest;
        c->p_q8[k] = static_cast<int32_t>(p[k]);
        c->share_q8[k] = static_cast<int32_t>(share[k]);
    }
    c->prior_permille = static_cast<int32_t>(now);
}

void share_step() {
    Estimators &s = g_state.est;
    const bool ellipsoid = s.ellipsoid_pending;
    const SoftIron soft = ellipsoid ? proposed_correction(s.ellipsoid) : g_state.soft_iron;
    const StrengthStats &r = ellipsoid ? s.ellipsoid.residual : s.sphere.residual;
    const Vec3 centre = ellipsoid ? s.ellipsoid.offset : s.sphere.offset;
    const int32_t radius = (ellipsoid ? s.ellipsoid.radius_q4 : s.sphere.radius_q4) >> kQ4;
    const int n = s.store.count, unknowns = ellipsoid ? 9 : 4;
    Vec3 u[kStoreCapacity];
    for (int i = 0; i < n; ++i) u[i] = corrected(soft, stored_field(s.store, i));
    if (s.share_steps == 0) {
        int64_t a[9], k_q8 = 0;
        const int64_t var = residual_variance_q8(r.spread_q8, n, unknowns, store_wander_sq_q8());
        s.share_valid = offset_information(u, n, radius, var, a, &k_q8) &&
                        soft_iron_share_columns(u, n, centre, a, s.share_x_q8) == FitResult::kOk;
        s.share_steps = s.share_valid ? 1 : 2;
        return;
    }
    const SoftIronPrior prior = prior_of(soft.in_use, residual_variance_q8(r.spread_q8, n, unknowns, 0));
    s.share_prior_permille = prior.sd_permille;
    int64_t share[6];
    s.share_valid = soft_iron_share_from_columns(u, n, centre, radius, prior, s.share_x_q8, share) == FitResult::kOk &&
                    share_within_bound(share, s.share_q8);
    s.share_steps = 2;
}

int32_t soft_iron_shown_permille(const EllipsoidFit &fit) {
    // The six entries of D = W - I (Q14): below 2^13 each, their squares' sum below 2^29.
    int64_t sum = 0;
    for (int r = 0; r < 3; ++r)
        for (int c = r; c < 3; ++c) {
            const int64_t d = fit.w_q14[3 * r + c] - (r == c ? 16384 : 0);
            sum += d * d;
        }
    // sqrt(sum / 6) in 1/1000: sqrt(sum * 10^6 / 6) / 2^14.
    return static_cast<int32_t>(isqrt64(static_cast<uint64_t>(sum * 1000000 / 6)) >> 14);
}

void note_noise(const Vec3 &m, bool steady) {
    NoiseMeter &nm = g_state.est.noise;
    const int32_t v[3] = {m.x, m.y, m.z};
    for (const int32_t c : v) {
        if (c < INT16_MIN || c > INT16_MAX) {
            break_noise_run();
            return;
        }
    }
    if (!steady) {
        nm.run = 0;  // no difference spans a motion
        return;
    }
    // The ring's newest field, the one before and the oldest (whose slot the new one takes).
    const int h0 = nm.newest, h1 = h0 == 0 ? 2 : h0 - 1, h2 = h1 == 0 ? 2 : h1 - 1;
    if (nm.run == 3) {
        // Third differences within 2^19 per axis; the window's sum saturates (a window
        // that large says nothing of the noise anyway).
        uint64_t sq = 0;
        for (int k = 0; k < 3; ++k) {
            const int32_t d = v[k] - 3 * nm.last[h0][k] + 3 * nm.last[h1][k] - nm.last[h2][k];
            sq += static_cast<uint64_t>(int64_t{d} * d);
        }
        sq += nm.window_sq;
        nm.window_sq = sq > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(sq);
        if (++nm.in_window == kNoiseWindow) {
            // E |d|^2 = 3 axes times 20 sigma^2 (1 + 9 + 9 + 1). (x << 8) / D as
            // (x / D) << 8 plus ((x % D) << 8) / D: 32-bit divisions by a constant, which
            // armel multiplies out, where a 64-bit one is a library call.
            constexpr uint32_t kDivisor = 60 * kNoiseWindow;
            const uint32_t x = nm.window_sq;
            nm.window_q8[nm.next] = static_cast<int32_t>((x / kDivisor << kQ8) + ((x % kDivisor) << kQ8) / kDivisor);
            nm.next = static_cast<uint8_t>((nm.next + 1) % kNoiseWindows);
            if (nm.windows < kNoiseWindows) ++nm.windows;
            nm.in_window = 0;
            nm.window_sq = 0;
        }
    }
    for (int k = 0; k < 3; ++k) nm.last[h2][k] = static_cast<int16_t>(v[k]);
    nm.newest = static_cast<uint8_t>(h2);
    if (nm.run < 3) ++nm.run;
}

void break_noise_run() { g_state.est.noise.run = 0; }

int64_t noise_variance_q8() { return noise_within_bounds(measured_noise_q8()); }

void note_temperature(int16_t raw) {
    Estimators &s = g_state.est;
    if (!s.temp_known || raw < s.temp_low) s.temp_low = raw;
    if (!s.temp_known || raw > s.temp_high) s.temp_high = raw;
    s.temp_known = true;
}

int64_t store_wander_sq_q8() {
    const Estimators &s = g_state.est;
    if (!s.temp_known) return 0;
    const int32_t span = s.temp_high - s.temp_low < kWanderMaxRaw ? s.temp_high - s.temp_low : kWanderMaxRaw;
    return (int64_t{span} * span << kQ8) / (kWanderMaxRaw * kWanderMaxRaw);
}

int64_t residual_variance_q8(int64_t spread_q8, int n, int unknowns, int64_t wander_sq_q8) {
    const int64_t v = n > unknowns ? spread_q8 / (n - unknowns) : spread_q8;
    const int64_t floor = noise_variance_q8();
    return (v > floor ? v : floor) + n * wander_sq_q8;
}

// With g scaled to 9 bits, g^T P g stays below 2^41.
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

bool every_direction_determined(const OffsetCovariance &p) {
    return worst_variance(p) <= (kPriorVarianceCounts2 << kQ8) / 5;
}

bool ring_covariance(const KmxAxesData &o, int n, int unknowns, OffsetCovariance *p) {
    if (n > g_state.fed_count) n = g_state.fed_count;
    Vec3 u[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(g_state.soft_iron, n, u);
    return ring_covariance_of(u, n, agreement_of(u, o, n, false), o, unknowns, p);
}

bool ring_covariance_of(const Vec3 *u, int n, const Agreement &a, const KmxAxesData &o, int unknowns,
                        OffsetCovariance *p) {
    // One step here, the share included (the samples' noise is the variance: no wander).
    const int64_t var = residual_variance_q8(a.spread << (2 * kQ4), n, unknowns, 0);
    int64_t m[9], k_q8 = 0, share[6];
    int32_t share_q8[6];
    const SoftIronPrior prior = prior_of(g_state.soft_iron.in_use, var);
    return offset_information(u, n, a.mean, var, m, &k_q8) &&
           soft_iron_share(u, n, Vec3{o.x, o.y, o.z}, a.mean, prior, m, share) == FitResult::kOk &&
           share_within_bound(share, share_q8) && covariance_from(m, k_q8, share_q8, prior.sd_permille, p);
}

int8_t heading_accuracy_cap(const Vec3 &v, const Vec3 &g, int32_t tilt_sd_cdeg) {
    const OffsetCovariance &c = g_state.est.cov;
    // No covariance: the offset's part is the other rules' to judge, the tilt's is still this.
    if (!c.valid && tilt_sd_cdeg <= 0) return KMXC_SERVICE_HIGH;
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
    int64_t a = !c.valid
                    ? 0
                    : int64_t{x} * (p[0] * x + p[1] * y + p[2] * z) + int64_t{y} * (p[1] * x + p[3] * y + p[4] * z) +
                          int64_t{z} * (p[2] * x + p[4] * y + p[5] * z);
    if (tilt_sd_cdeg > 0) {
        // A tilt error t about the horizontal field's direction leans the vertical field
        // (v.g/|g|) into east: the error of an offset t (v.g)/|g| along east, so a variance
        // V = t^2 (v.g)^2/|g|^2 joins e'^T P e' as V |e'|^2 (1/256 count^2). v.g below
        // 2^31 (the products above), its square below 2^62; V held within P's own bound
        // (beyond it the heading is unreliable anyway).
        const int64_t vg = int64_t{v.x} * g.x + int64_t{v.y} * g.y + int64_t{v.z} * g.z;
        const int64_t gg = int64_t{g.x} * g.x + int64_t{g.y} * g.y + int64_t{g.z} * g.z;
        const int64_t vertical_sq = vg * vg / gg;  // counts^2, below 2^32 for |v| below 2^16
        constexpr int64_t kVMaxQ8 = int64_t{1} << 20;
        const int64_t t2_q30 = limit_sq_q30(tilt_sd_cdeg);
        const int64_t v_q8 = vertical_sq > (kVMaxQ8 << 22) / t2_q30 ? kVMaxQ8 : vertical_sq * t2_q30 >> 22;
        a += v_q8 * b;
    }
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

}  // namespace kmxc_kit
