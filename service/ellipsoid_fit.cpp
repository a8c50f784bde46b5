// Ellipsoid fit of the diversity store (ellipsoid_fit.h).
#include "service/ellipsoid_fit.h"

namespace kmxc_kit {

namespace {

constexpr int kUnknowns = 9;  // D: p, q, s1, s2, s3; b: 3; k
constexpr int kQ30 = 30;
constexpr int kQ24 = 24;         // the square root's matrices: products of three stay in 64 bits
constexpr int kCentreBits = 16;  // b and the centre, 1/65536 count
constexpr int kConstBits = 8;    // k and radius^2, 1/256 count^2
constexpr int64_t kOneQ30 = int64_t{1} << kQ30;

// Cube root of a Q30 value below 2^33 (8), Q30, by bisection in Q20: (t^2 >> 20) t is
// below 2^43 and compared with v in Q40.
int64_t cbrt_q30(int64_t v) {
    int64_t h = 0;
    for (int bit = 20; bit >= 0; --bit) {
        const int64_t t = h | (int64_t{1} << bit);
        if (((t * t) >> 20) * t <= (v << 10)) h = t;
    }
    return h << 10;
}

// Packed symmetric 3x3 index of (i, j).
constexpr int kPacked[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};

}  // namespace

bool axes_plausible(const int32_t axes_q14[3]) {
    for (int k = 0; k < 3; ++k) {
        if (axes_q14[k] < kAxisMinQ14 || axes_q14[k] > kAxisMaxQ14) return false;
    }
    return true;
}

FitResult ellipsoid_fit(const FieldStore &store, const SphereFit &sphere, EllipsoidFit *out) {
    const int n = store.count;
    if (n < kEllipsoidMinSamples) return FitResult::kTooFew;
    const Vec3 c0 = sphere.offset;

    // Normal equations of the features f = (x^2 - z^2, y^2 - z^2, 2xy, 2xz, 2yz, -2x,
    // -2y, -2z, 1) against t = -|u|^2. With |u| <= 2^10 per axis every feature is below
    // 2^21 and every sum of products below 2^47. Upper triangle only; the constant
    // feature's column is a plain sum.
    int64_t a[kUnknowns * kUnknowns] = {};
    int64_t r[kUnknowns] = {};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), c0);
        if (u.x > kEllipsoidSpanLimit || u.x < -kEllipsoidSpanLimit || u.y > kEllipsoidSpanLimit ||
            u.y < -kEllipsoidSpanLimit || u.z > kEllipsoidSpanLimit || u.z < -kEllipsoidSpanLimit)
            return FitResult::kOverflowRisk;
        const int32_t xx = u.x * u.x, yy = u.y * u.y, zz = u.z * u.z;
        const int32_t f[kUnknowns - 1] = {xx - zz,       yy - zz,  2 * u.x * u.y, 2 * u.x * u.z,
                                          2 * u.y * u.z, -2 * u.x, -2 * u.y,      -2 * u.z};
        const int32_t t = -(xx + yy + zz);
        for (int j = 0; j < kUnknowns - 1; ++j) {
            int64_t *row = &a[j * kUnknowns];
            for (int k = j; k < kUnknowns - 1; ++k) row[k] += int64_t{f[j]} * f[k];
            row[kUnknowns - 1] += f[j];
            r[j] += int64_t{f[j]} * t;
        }
        r[kUnknowns - 1] += t;
    }
    a[kUnknowns * kUnknowns - 1] = n;
    // The ridge: lambda times the Frobenius form of D = [[p, s1, s2], [s1, q, s3],
    // [s2, s3, -p-q]]: 2p^2 + 2q^2 + 2pq + 2(s1^2 + s2^2 + s3^2). R^4 below 2^40.
    const int64_t r2_q8 = int64_t{sphere.radius_q4} * sphere.radius_q4;
    const int64_t lambda = (n * ((r2_q8 * r2_q8) >> 16)) >> kEllipsoidRidgeBits;
    a[0 * kUnknowns + 0] += 2 * lambda;
    a[1 * kUnknowns + 1] += 2 * lambda;
    a[0 * kUnknowns + 1] += lambda;
    for (int j = 2; j < 5; ++j) a[j * kUnknowns + j] += 2 * lambda;
    for (int j = 0; j < kUnknowns; ++j) {
        for (int k = 0; k < j; ++k) a[j * kUnknowns + k] = a[k * kUnknowns + j];
    }

    constexpr int8_t kFrac[kUnknowns] = {kQ30,        kQ30,        kQ30,        kQ30,      kQ30,
                                         kCentreBits, kCentreBits, kCentreBits, kConstBits};
    int64_t x[kUnknowns];
    FitResult solved = solve_spd(kUnknowns, a, r, kFrac, x);
    if (solved != FitResult::kOk) return solved;

    // A = I + D (Q30), its eigenvalues, and the centre A^-1 b (1/65536 count).
    const int64_t am[6] = {kOneQ30 + x[0], x[2], x[3], kOneQ30 + x[1], x[4], kOneQ30 - x[0] - x[1]};
    for (const int64_t v : am) {
        if (v > 4 * kOneQ30 || v < -4 * kOneQ30) return FitResult::kNoSolution;  // no near-sphere quadric
    }
    int64_t lambda3[3];
    sym3_eigenvalues(am, lambda3);
    if (lambda3[2] <= 0) return FitResult::kNoSolution;
    const int64_t afull[9] = {am[0], am[1], am[2], am[1], am[3], am[4], am[2], am[4], am[5]};
    constexpr int8_t kCentreFrac[3] = {kQ30, kQ30, kQ30};
    int64_t c[3];
    solved = solve_spd(3, afull, &x[5], kCentreFrac, c);
    if (solved != FitResult::kOk) return FitResult::kNoSolution;
    // The centre within the span (b and c below 2^27 in their format, b.c below 2^56).
    constexpr int64_t kCentreLimit = int64_t{kEllipsoidSpanLimit} << kCentreBits;
    for (int k = 0; k < 3; ++k) {
        if (c[k] > kCentreLimit || c[k] < -kCentreLimit || x[5 + k] > 4 * kCentreLimit || x[5 + k] < -4 * kCentreLimit)
            return FitResult::kNoSolution;
    }
    const int64_t radius2_q8 =
        ((x[5] * c[0] + x[6] * c[1] + x[7] * c[2]) >> (2 * kCentreBits - kConstBits)) - x[kUnknowns - 1];
    if (radius2_q8 <= 0) return FitResult::kNoSolution;

    // Roots of the eigenvalues (below 4, so lambda << 30 stays below 2^62), their
    // elementary symmetric functions, and the normalisation g = III^(1/3) = det(A)^(1/6).
    int64_t mu[3];
    for (int k = 0; k < 3; ++k) mu[k] = isqrt64(static_cast<uint64_t>(lambda3[k] << kQ30));
    const int64_t i1 = mu[0] + mu[1] + mu[2];
    const int64_t i2 = (mu[0] * mu[1] + mu[0] * mu[2] + mu[1] * mu[2]) >> kQ30;
    const int64_t i3 = (((mu[0] * mu[1]) >> kQ30) * mu[2]) >> kQ30;
    const int64_t g = cbrt_q30(i3);
    if (g <= 0) return FitResult::kNoSolution;
    const Reciprocal inv_g = reciprocal(g);

    // A^(1/2) = (A + II I)^-1 (I1 A + III I), in Q24: P = A + II I below 2^26.6, its
    // cofactors below 2^30 after their shift, Q = I1 A + III I below 2^28; adj(P) Q below
    // 2^59.6 before its shift. Both commute with A, so the product is symmetric.
    int64_t p[6], q[6];
    for (int k = 0; k < 6; ++k) {
        const bool diagonal = k == 0 || k == 3 || k == 5;
        const int64_t a24 = am[k] >> (kQ30 - kQ24);
        p[k] = a24 + (diagonal ? i2 >> (kQ30 - kQ24) : 0);
        q[k] = ((a24 * (i1 >> (kQ30 - kQ24))) >> kQ24) + (diagonal ? i3 >> (kQ30 - kQ24) : 0);
    }
    const int64_t adj[6] = {(p[3] * p[5] - p[4] * p[4]) >> kQ24, (p[2] * p[4] - p[1] * p[5]) >> kQ24,
                            (p[1] * p[4] - p[2] * p[3]) >> kQ24, (p[0] * p[5] - p[2] * p[2]) >> kQ24,
                            (p[1] * p[2] - p[0] * p[4]) >> kQ24, (p[0] * p[3] - p[1] * p[1]) >> kQ24};
    const int64_t det = (p[0] * adj[0] + p[1] * adj[1] + p[2] * adj[2]) >> kQ24;
    if (det <= 0) return FitResult::kNoSolution;
    // W = adj(P) Q / (det(P) g), to Q15 and then rounded to Q14.
    const Reciprocal inv_dg = reciprocal(mul_shift(det, g, kQ30));
    for (int i = 0; i < 3; ++i) {
        for (int j = i; j < 3; ++j) {
            int64_t m = 0;
            for (int k = 0; k < 3; ++k) m += adj[kPacked[i][k]] * q[kPacked[k][j]];
            const int64_t w15 = divide(m >> kQ24, inv_dg, 15);
            const int16_t w = static_cast<int16_t>((w15 + 1) >> 1);
            out->w_q14[3 * i + j] = w;
            out->w_q14[3 * j + i] = w;
        }
    }
    for (int k = 0; k < 3; ++k) out->axes_q14[k] = static_cast<int32_t>((divide(mu[k], inv_g, 15) + 1) >> 1);
    const int64_t half = int64_t{1} << (kCentreBits - 1);
    out->offset = Vec3{c0.x + static_cast<int32_t>((c[0] + half) >> kCentreBits),
                       c0.y + static_cast<int32_t>((c[1] + half) >> kCentreBits),
                       c0.z + static_cast<int32_t>((c[2] + half) >> kCentreBits)};
    // The root to 1/256 count (radius^2 below 2^40, shifted below 2^48), divided by g, then
    // truncated to 1/16.
    const int64_t radius_q8 = isqrt64(static_cast<uint64_t>(radius2_q8) << 8);
    out->radius_q4 = static_cast<int32_t>(divide(radius_q8, inv_g, kQ30) >> 4);
    field_store_strengths(store, out->offset, out->w_q14, &out->residual);
    return axes_plausible(out->axes_q14) ? FitResult::kOk : FitResult::kImplausible;
}

}  // namespace kmxc_kit
