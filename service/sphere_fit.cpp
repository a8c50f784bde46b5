// Sphere fit of the diversity store (sphere_fit.h).
#include "service/sphere_fit.h"

namespace kmxc_kit {

namespace {

constexpr int kCentreBits = 8;  // the centre about m0 is solved to 1/256 count

}  // namespace

FitResult sphere_fit(const FieldStore &store, SphereFit *out, const SpherePrior *prior) {
    const int n = store.count;
    if (n < kSphereMinSamples) return FitResult::kTooFew;
    const Vec3 m0 = store_mean(store);  // truncated: the fraction is kept in s

    // With |u| <= 2^11: u u^T and |u|^2 below 2^23.6, their sums below 2^28.6 (32 bits);
    // u |u|^2 below 2^34.6, its sums below 2^39.6 (64 bits).
    int32_t s[3] = {0, 0, 0}, uu[6] = {0, 0, 0, 0, 0, 0}, sw = 0;
    int64_t suw[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), m0);
        if (u.x > kSphereSpanLimit || u.x < -kSphereSpanLimit || u.y > kSphereSpanLimit || u.y < -kSphereSpanLimit ||
            u.z > kSphereSpanLimit || u.z < -kSphereSpanLimit)
            return FitResult::kOverflowRisk;
        const int32_t w = u.x * u.x + u.y * u.y + u.z * u.z;
        s[0] += u.x, s[1] += u.y, s[2] += u.z;
        uu[0] += u.x * u.x, uu[1] += u.x * u.y, uu[2] += u.x * u.z;
        uu[3] += u.y * u.y, uu[4] += u.y * u.z, uu[5] += u.z * u.z;
        sw += w;
        suw[0] += int64_t{u.x} * w, suw[1] += int64_t{u.y} * w, suw[2] += int64_t{u.z} * w;
    }

    // n S - s s^T below 2^33.6 and n sum(u w) - s sum(w) below 2^45.6.
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    int64_t cov[6];
    for (int k = 0; k < 6; ++k) cov[k] = int64_t{n} * uu[k] - int64_t{s[kRow[k]]} * s[kCol[k]];
    const Spread spread = spread_ratios(cov);
    if (prior == nullptr && spread.ratio_min < kSphereMinSpread) return FitResult::kIllConditioned;
    int64_t r[3];
    for (int k = 0; k < 3; ++k) r[k] = n * suw[k] - int64_t{s[k]} * sw;
    if (prior != nullptr) {
        // w below 2^40 and the prior's centre within 2^15 of m0: each term below 2^56.
        const Vec3 cp = minus(prior->centre, m0);
        const int64_t w = prior->weight;
        int64_t lambda[3];
        sym3_eigenvalues(cov, lambda);
        int64_t noise = (int64_t{n} * n * prior->noise_q8) >> 8;  // below 2^32
        if (noise > lambda[2]) noise = lambda[2] > 0 ? lambda[2] : 0;
        cov[0] += w - noise, cov[3] += w - noise, cov[5] += w - noise;
        r[0] += 2 * w * cp.x, r[1] += 2 * w * cp.y, r[2] += 2 * w * cp.z;
    }
    const int64_t a[9] = {cov[0], cov[1], cov[2], cov[1], cov[3], cov[4], cov[2], cov[4], cov[5]};
    // The solve gives 2c; asking it for 2^7 gives c to 1/256 count.
    constexpr int8_t kFrac[3] = {kCentreBits - 1, kCentreBits - 1, kCentreBits - 1};
    int64_t c[3];
    const FitResult solved = solve_spd(3, a, r, kFrac, c);
    if (solved != FitResult::kOk) return solved;
    // A centre beyond the span from its samples is no Earth-field sphere (and would
    // leave the formats below).
    constexpr int64_t kCentreLimit = int64_t{kSphereSpanLimit} << kCentreBits;
    for (const int64_t ck : c) {
        if (ck > kCentreLimit || ck < -kCentreLimit) return FitResult::kNoSolution;
    }

    // n R^2 (Q16) = sum(w) 2^16 - 2 s.c 2^8 + n |c|^2: each term below 2^46 (|c| <= 2^19).
    const int64_t sc = int64_t{s[0]} * c[0] + int64_t{s[1]} * c[1] + int64_t{s[2]} * c[2];
    const int64_t r2_n =
        (int64_t{sw} << (2 * kCentreBits)) - (sc << (kCentreBits + 1)) + n * (c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
    if (r2_n <= 0) return FitResult::kNoSolution;
    const int64_t r2_q8 = (r2_n / n) >> kCentreBits;

    const int64_t half = int64_t{1} << (kCentreBits - 1);
    out->offset = Vec3{m0.x + static_cast<int32_t>((c[0] + half) >> kCentreBits),
                       m0.y + static_cast<int32_t>((c[1] + half) >> kCentreBits),
                       m0.z + static_cast<int32_t>((c[2] + half) >> kCentreBits)};
    out->radius_q4 = static_cast<int32_t>(isqrt64(static_cast<uint64_t>(r2_q8)));
    out->spread = spread;
    field_store_strengths(store, out->offset, nullptr, &out->residual);
    return FitResult::kOk;
}

}  // namespace kmxc_kit
