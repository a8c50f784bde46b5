// Circle fit of the diversity store (circle_fit.h).
#include "service/circle_fit.h"

#include "service/kit_angle.h"

namespace kmxc_kit {

namespace {

constexpr int kQ30 = 30;
constexpr int kProjBits = 4;    // in-plane coordinates, 1/16 count
constexpr int kCentreBits = 8;  // in-plane centre, 1/256 count

int64_t round_shift(int64_t v, int s) { return (v + (int64_t{1} << (s - 1))) >> s; }

// The sums s of u = m - m0 and the covariance times n^2, n sum(u u^T) - s s^T, with
// |u| <= 2^11 (sums below 2^28.6); kOverflowRisk for a sample beyond the span.
FitResult centred_covariance(const FieldStore &store, const Vec3 &m0, int32_t s[3], int64_t cov[6]) {
    const int n = store.count;
    int32_t uu[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), m0);
        if (u.x > kCircleSpanLimit || u.x < -kCircleSpanLimit || u.y > kCircleSpanLimit || u.y < -kCircleSpanLimit ||
            u.z > kCircleSpanLimit || u.z < -kCircleSpanLimit)
            return FitResult::kOverflowRisk;
        s[0] += u.x, s[1] += u.y, s[2] += u.z;
        uu[0] += u.x * u.x, uu[1] += u.x * u.y, uu[2] += u.x * u.z;
        uu[3] += u.y * u.y, uu[4] += u.y * u.z, uu[5] += u.z * u.z;
    }
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    for (int k = 0; k < 6; ++k) cov[k] = int64_t{n} * uu[k] - int64_t{s[kRow[k]]} * s[kCol[k]];
    return FitResult::kOk;
}

// The plane's unit normal nv and in-plane axes e1, e2 (Q30); false when the covariance
// determines no plane.
bool plane_axes(const int64_t cov[6], const Vec3 &gravity, int64_t nv[3], int64_t e1[3], int64_t e2[3]) {
    // The normal, signed by gravity: |n| <= 2^30 and |g| < 2^31, so n.g < 2^63.
    if (!sym3_smallest_vector(cov, nv)) return false;
    if (nv[0] * (gravity.x >> 2) + nv[1] * (gravity.y >> 2) + nv[2] * (gravity.z >> 2) < 0) {
        for (int k = 0; k < 3; ++k) nv[k] = -nv[k];
    }

    // In-plane axes: e1 = n x (the coordinate axis least along n), normalised (its
    // length is at least sqrt(2/3)); e2 = n x e1.
    int least = 0;
    for (int k = 1; k < 3; ++k) {
        const int64_t ak = nv[k] < 0 ? -nv[k] : nv[k], al = nv[least] < 0 ? -nv[least] : nv[least];
        if (ak < al) least = k;
    }
    e1[0] = e1[1] = e1[2] = 0;
    const int a = (least + 1) % 3, b = (least + 2) % 3;
    e1[a] = nv[b], e1[b] = -nv[a];  // n x unit(least), up to the order of the cyclic pair
    const int64_t norm = isqrt64(static_cast<uint64_t>(e1[a] * e1[a] + e1[b] * e1[b]));
    const Reciprocal inv_norm = reciprocal(norm);
    for (int k = 0; k < 3; ++k) e1[k] = divide(e1[k], inv_norm, kQ30);
    e2[0] = (nv[1] * e1[2] - nv[2] * e1[1]) >> kQ30;
    e2[1] = (nv[2] * e1[0] - nv[0] * e1[2]) >> kQ30;
    e2[2] = (nv[0] * e1[1] - nv[1] * e1[0]) >> kQ30;
    return true;
}

// The circle within the plane: its centre c along e1, e2 about m0 and its radius, both
// 1/256 count, from the samples' projections.
FitResult in_plane_circle(const FieldStore &store, const Vec3 &m0, const int64_t e1[3], const int64_t e2[3],
                          int64_t c[2], int64_t *radius_q8) {
    const int n = store.count;
    // Projections p, q (1/16 count, below 2^16), w = p^2 + q^2 (below 2^33): sums of
    // w p below 2^54, times n below 2^59.
    int64_t sp = 0, sq = 0, spp = 0, spq = 0, sqq = 0, sw = 0, swp = 0, swq = 0;
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), m0);
        const int64_t p = round_shift(u.x * e1[0] + u.y * e1[1] + u.z * e1[2], kQ30 - kProjBits);
        const int64_t q = round_shift(u.x * e2[0] + u.y * e2[1] + u.z * e2[2], kQ30 - kProjBits);
        const int64_t w = p * p + q * q;
        sp += p, sq += q, spp += p * p, spq += p * q, sqq += q * q;
        sw += w, swp += w * p, swq += w * q;
    }
    const int64_t m2[4] = {n * spp - sp * sp, n * spq - sp * sq, n * spq - sp * sq, n * sqq - sq * sq};
    const int64_t r2[2] = {n * swp - sp * sw, n * swq - sq * sw};
    // The solve gives 2c in 1/16 count; 2^3 more gives c in 1/256 count.
    constexpr int8_t kFrac[2] = {kCentreBits - kProjBits - 1, kCentreBits - kProjBits - 1};
    const FitResult solved = solve_spd(2, m2, r2, kFrac, c);
    if (solved != FitResult::kOk) return solved;
    constexpr int64_t kCentreLimit = int64_t{kCircleSpanLimit} << kCentreBits;
    if (c[0] > kCentreLimit || c[0] < -kCentreLimit || c[1] > kCentreLimit || c[1] < -kCentreLimit)
        return FitResult::kNoSolution;
    // n R^2 in 2^-16 count^2 = 256 sum(w) - 32 s.c + n |c|^2 (w in 2^-8, s in 2^-4, c in
    // 2^-8 count): each term below 2^47.
    const int64_t r2_n = 256 * sw - 32 * (sp * c[0] + sq * c[1]) + n * (c[0] * c[0] + c[1] * c[1]);
    if (r2_n <= 0) return FitResult::kNoSolution;
    *radius_q8 = isqrt64(static_cast<uint64_t>(r2_n / n));
    return FitResult::kOk;
}

// The variance across the plane, 1/256 count^2: n^T cov n / n^2, cov first scaled to
// 2^29..2^30 (the product with a Q30 vector below 2^61.6).
int64_t variance_across(const int64_t cov[6], const int64_t nv[3], int n) {
    int64_t big = 0;
    for (int k = 0; k < 6; ++k) {
        const int64_t v = cov[k] < 0 ? -cov[k] : cov[k];
        if (v > big) big = v;
    }
    const int down = significant_bits(big) - 30;
    int64_t cs[6];
    for (int k = 0; k < 6; ++k) cs[k] = shift_down(cov[k], down);
    const int64_t mv0 = (cs[0] * nv[0] + cs[1] * nv[1] + cs[2] * nv[2]) >> kQ30;
    const int64_t mv1 = (cs[1] * nv[0] + cs[3] * nv[1] + cs[4] * nv[2]) >> kQ30;
    const int64_t mv2 = (cs[2] * nv[0] + cs[4] * nv[1] + cs[5] * nv[2]) >> kQ30;
    int64_t across = (nv[0] * mv0 + nv[1] * mv1 + nv[2] * mv2) >> kQ30;
    if (across < 0) across = 0;
    // Back to cov's scale, times 256 (1/256 count^2), over n^2: below 2^50 before the division.
    return shift_down(across, -down - 8) / (int64_t{n} * n);
}

}  // namespace

FitResult circle_fit(const FieldStore &store, const Vec3 &gravity, CircleFit *out) {
    const int n = store.count;
    if (n < kCircleMinSamples) return FitResult::kTooFew;
    const Vec3 m0 = store_mean(store);  // truncated: the fraction is kept in s
    int32_t s[3] = {0, 0, 0};
    int64_t cov[6];
    FitResult result = centred_covariance(store, m0, s, cov);
    if (result != FitResult::kOk) return result;
    int64_t nv[3], e1[3], e2[3];
    if (!plane_axes(cov, gravity, nv, e1, e2)) return FitResult::kIllConditioned;
    int64_t c[2], radius_q8;
    result = in_plane_circle(store, m0, e1, e2, c, &radius_q8);
    if (result != FitResult::kOk) return result;
    const int64_t variance_q8 = variance_across(cov, nv, n);

    // The centre: m0, the in-plane solution, and the plane's own offset from m0 (the
    // mean's fraction along n, s.n / n; s.n below 2^48, to 1/256 count below 2^10).
    const int64_t along_q8 = ((s[0] * nv[0] + s[1] * nv[1] + s[2] * nv[2]) >> (kQ30 - kCentreBits)) / n;
    const int32_t origin[3] = {m0.x, m0.y, m0.z};
    int64_t centre_q8[3];
    for (int k = 0; k < 3; ++k) {
        centre_q8[k] = (int64_t{origin[k]} << kCentreBits) + ((c[0] * e1[k] + c[1] * e2[k] + along_q8 * nv[k]) >> kQ30);
    }
    out->normal_q14 =
        Vec3{static_cast<int32_t>(round_shift(nv[0], kQ30 - 14)), static_cast<int32_t>(round_shift(nv[1], kQ30 - 14)),
             static_cast<int32_t>(round_shift(nv[2], kQ30 - 14))};
    out->centre_q4 =
        Vec3{static_cast<int32_t>(round_shift(centre_q8[0], 4)), static_cast<int32_t>(round_shift(centre_q8[1], 4)),
             static_cast<int32_t>(round_shift(centre_q8[2], 4))};
    out->radius_q4 = static_cast<int32_t>(radius_q8 >> 4);
    out->out_of_plane_q4 = static_cast<int32_t>(isqrt64(static_cast<uint64_t>(variance_q8)));
    return FitResult::kOk;
}

bool circle_offset_from_reference(const CircleFit &fit, int32_t strength, int32_t angle_cdeg, Vec3 *offset,
                                  int32_t *radius_mismatch_permille) {
    // F sin(theta) and F cos(theta), Q14 counts (F below 2^15: below 2^29).
    const int64_t radial_q14 = int64_t{strength} * sin_q14(angle_cdeg);
    const int64_t axial_q14 = int64_t{strength} * cos_q14(angle_cdeg);
    const int64_t expected_q4 = radial_q14 >> 10;
    if (expected_q4 <= 0) return false;
    // centre - axial n, in 2^-28 count: centre (1/16) shifted by 24, axial n below 2^43.
    const int32_t centre[3] = {fit.centre_q4.x, fit.centre_q4.y, fit.centre_q4.z};
    const int32_t normal[3] = {fit.normal_q14.x, fit.normal_q14.y, fit.normal_q14.z};
    int32_t o[3];
    for (int k = 0; k < 3; ++k)
        o[k] = static_cast<int32_t>(round_shift((int64_t{centre[k]} << 24) - axial_q14 * normal[k], 28));
    *offset = Vec3{o[0], o[1], o[2]};
    *radius_mismatch_permille = static_cast<int32_t>((fit.radius_q4 - expected_q4) * 1000 / expected_q4);
    return true;
}

Vec3 circle_offset_from_prior(const CircleFit &fit, const Vec3 &prior) {
    // t = (prior - centre) . n in 2^-18 count (below 2^35), then centre + t n in 2^-32.
    const Vec3 &c = fit.centre_q4, &nq = fit.normal_q14;
    const Vec3 d{prior.x * 16 - c.x, prior.y * 16 - c.y, prior.z * 16 - c.z};
    const int64_t t = dot(d, nq);
    return Vec3{static_cast<int32_t>(round_shift((int64_t{c.x} << 28) + t * nq.x, 32)),
                static_cast<int32_t>(round_shift((int64_t{c.y} << 28) + t * nq.y, 32)),
                static_cast<int32_t>(round_shift((int64_t{c.z} << 28) + t * nq.z, 32))};
}

}  // namespace kmxc_kit
