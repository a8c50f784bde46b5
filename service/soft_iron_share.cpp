// The share of unmodelled soft iron in a fit's offset covariance (see the header).
#include "service/soft_iron_share.h"

namespace kmxc_kit {

namespace {

constexpr int kQ8 = 8;
// C X^T is asked this much finer than X (Q8): its entries are at most sd^2 times X's.
constexpr int kCFracBits = 16;
constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};

// The sums about the centre: v, w, v w^T and (fourth) w w^T. |v| below 2^10, |w| below
// 2^21, |v w| below 2^31, |w w| below 2^42; over 32 samples below 2^47.
struct Moments {
    int64_t sv[3], sw[6], svw[3][6], sww[6][6];
};

FitResult moments_of(const Vec3 *u, int n, const Vec3 &centre, bool fourth, Moments *m) {
    *m = Moments{};
    for (int i = 0; i < n; ++i) {
        const Vec3 d = minus(u[i], centre);
        if (d.x >= kShareSpanLimit || d.x <= -kShareSpanLimit || d.y >= kShareSpanLimit || d.y <= -kShareSpanLimit ||
            d.z >= kShareSpanLimit || d.z <= -kShareSpanLimit)
            return FitResult::kOverflowRisk;
        // 32-bit factors, 64-bit products: one multiplication each on a 32-bit target.
        const int32_t v[3] = {d.x, d.y, d.z};
        const int32_t w[6] = {v[0] * v[0], v[1] * v[1], v[2] * v[2], 2 * v[0] * v[1], 2 * v[0] * v[2], 2 * v[1] * v[2]};
        for (int r = 0; r < 3; ++r) {
            m->sv[r] += v[r];
            for (int k = 0; k < 6; ++k) m->svw[r][k] += int64_t{v[r]} * w[k];
        }
        for (int k = 0; k < 6; ++k) {
            m->sw[k] += w[k];
            if (fourth)
                for (int l = k; l < 6; ++l) m->sww[k][l] += int64_t{w[k]} * w[l];
        }
    }
    return FitResult::kOk;
}

// n G = n sum v w - sum v sum w (below 2^41), a column per entry of d.
void g_of(const Moments &m, int n, int64_t g[6][3]) {
    for (int k = 0; k < 6; ++k)
        for (int r = 0; r < 3; ++r) g[k][r] = n * m.svw[r][k] - m.sv[r] * m.sw[k];
}

// X = (n S)^-1 n G, Q8.
FitResult columns_of(const Moments &m, int n, const int64_t a[9], int32_t x_q8[kShareColumns]) {
    int64_t g[6][3], x[6][3];
    g_of(m, n, g);
    constexpr int8_t kFrac[3] = {kQ8, kQ8, kQ8};
    const FitResult fx = solve_spd_columns(3, a, 6, g[0], kFrac, x[0]);
    if (fx != FitResult::kOk) return fx;
    for (int k = 0; k < 6; ++k)
        for (int r = 0; r < 3; ++r) {
            if (x[k][r] >= kShareMaxXQ8 || x[k][r] <= -kShareMaxXQ8) return FitResult::kOverflowRisk;
            x_q8[3 * k + r] = static_cast<int32_t>(x[k][r]);
        }
    return FitResult::kOk;
}

// The share from the moments (fourth included) and X.
FitResult share_of(const Moments &m, int n, int32_t radius, const SoftIronPrior &prior,
                   const int32_t x_q8[kShareColumns], int64_t share_q8[6]) {
    int64_t g[6][3];
    g_of(m, n, g);
    // The information, times n 4 R^2 s^2 (= n K; below 2^35 for R below 2^8 and s^2
    // below 2^12 count^2):
    //   L = n K / sd^2 I + n H - n G^T X,
    // n H = n sum w w^T - sum w sum w^T below 2^53, each term of n G^T X below 2^57 once
    // X's Q8 is shifted out, n K / sd^2 below 2^55.
    const int64_t nk = (int64_t{n} * 4 * radius * radius * prior.noise_q8) >> kQ8;
    if (nk <= 0) return FitResult::kTooFew;
    const int64_t prior_info = nk * 1000000 / (int64_t{prior.sd_permille} * prior.sd_permille);
    int64_t l[36];
    for (int k = 0; k < 6; ++k) {
        for (int j = k; j < 6; ++j) {
            int64_t f = n * m.sww[k][j] - m.sw[k] * m.sw[j];
            for (int r = 0; r < 3; ++r) f -= mul_shift(g[k][r], x_q8[3 * j + r], kQ8);
            if (k == j) f += prior_info;
            l[6 * k + j] = l[6 * j + k] = f;
        }
    }
    // C X^T = n K L^-1 X^T: the right-hand sides X (Q8) times n K taken to 31 bits
    // (2^-s of it), the solution asked 2^(s + kCFracBits) finer: Q(8 + kCFracBits).
    const int s = significant_bits(nk) > 31 ? significant_bits(nk) - 31 : 0;
    const int64_t scale = nk >> s;
    int8_t frac[6];
    for (int8_t &f : frac) f = static_cast<int8_t>(s + kCFracBits);
    int64_t b[3][6], c[3][6];
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 6; ++k) b[r][k] = x_q8[3 * k + r] * scale;  // below 2^55
    const FitResult fc = solve_spd_columns(6, l, 3, b[0], frac, c[0]);
    if (fc != FitResult::kOk) return fc;
    // X C X^T: Q8 times Q(8 + kCFracBits) brought back to Q8 (each term below 2^40).
    for (int e = 0; e < 6; ++e) {
        int64_t sum = 0;
        for (int k = 0; k < 6; ++k) sum += mul_shift(c[kCol[e]][k], x_q8[3 * k + kRow[e]], kQ8 + kCFracBits);
        share_q8[e] = sum;
    }
    return FitResult::kOk;
}

}  // namespace

FitResult soft_iron_share_columns(const Vec3 *u, int n, const Vec3 &centre, const int64_t a[9],
                                  int32_t x_q8[kShareColumns]) {
    if (n < 2 || n > kShareMaxSamples) return FitResult::kTooFew;
    Moments m;
    const FitResult fm = moments_of(u, n, centre, false, &m);
    return fm != FitResult::kOk ? fm : columns_of(m, n, a, x_q8);
}

FitResult soft_iron_share_from_columns(const Vec3 *u, int n, const Vec3 &centre, int32_t radius,
                                       const SoftIronPrior &prior, const int32_t x_q8[kShareColumns],
                                       int64_t share_q8[6]) {
    for (int e = 0; e < 6; ++e) share_q8[e] = 0;
    if (n < 2 || n > kShareMaxSamples || prior.sd_permille <= 0 || radius <= 0 || prior.noise_q8 <= 0)
        return FitResult::kTooFew;
    Moments m;
    const FitResult fm = moments_of(u, n, centre, true, &m);
    return fm != FitResult::kOk ? fm : share_of(m, n, radius, prior, x_q8, share_q8);
}

FitResult soft_iron_share(const Vec3 *u, int n, const Vec3 &centre, int32_t radius, const SoftIronPrior &prior,
                          const int64_t a[9], int64_t share_q8[6]) {
    for (int e = 0; e < 6; ++e) share_q8[e] = 0;
    if (n < 2 || n > kShareMaxSamples || prior.sd_permille <= 0 || radius <= 0 || prior.noise_q8 <= 0)
        return FitResult::kTooFew;
    Moments m;  // once for both steps
    FitResult f = moments_of(u, n, centre, true, &m);
    int32_t x[kShareColumns];
    if (f == FitResult::kOk) f = columns_of(m, n, a, x);
    return f != FitResult::kOk ? f : share_of(m, n, radius, prior, x, share_q8);
}

}  // namespace kmxc_kit
