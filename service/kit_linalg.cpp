// Fixed-point linear algebra for the kit's estimators (kit_linalg.h).
#include "service/kit_linalg.h"

#include <bit>

#include "service/kit_angle.h"
#include "service/kit_geometry.h"

namespace kmxc_kit {

namespace {

constexpr int kQ = 30;                     // equilibrated matrix and pivots: Q30, diagonal 2^28..2^30
constexpr int kLBits = 24;                 // unit lower factor: Q24 (|l| <= 2^7 at the least pivot)
constexpr int kValueBits = 52;             // substitution values stay below 2^52 (products below 2^59)
constexpr int kEigenBits = 28;             // eigenvalue and eigenvector work: entries below 2^28
constexpr int32_t kInvSqrt6 = 1753413056;  // round(2^32 / sqrt(6))
constexpr int kInverseIterations = 3;

int64_t abs64(int64_t v) { return v < 0 ? -v : v; }

}  // namespace

int significant_bits(int64_t v) { return 64 - std::countl_zero(static_cast<uint64_t>(abs64(v))); }

int64_t mul_shift(int64_t a, int64_t b, int s) {
    // a * b = hi * 2^32 + lo with hi = (a >> 32) * b (|hi| <= 2^62) and lo the unsigned
    // low word times b (|lo| < 2^63).
    const int64_t hi = (a >> 32) * b;
    const int64_t lo = static_cast<int64_t>(static_cast<uint32_t>(a)) * b;
    if (s >= 32) return (hi + (lo >> 32)) >> (s - 32);
    return hi * (int64_t{1} << (32 - s)) + (lo >> s);
}

Reciprocal reciprocal(int64_t d) {
    // d's top 32 bits dn (2^31..2^32) and r = floor(2^62 / dn): 1/d = r * 2^(z - 94).
    // ARMv5TE has no divide, and a 64-bit division is a library call of some 340
    // instructions: r comes from Newton's iteration instead. With D = dn / 2^32 in
    // 0.5..1 and X = 1/D in Q30: the line 48/17 - 32/17 D is within 1/17 of it, three
    // steps X (2 - D X) square the error each (below 2^-32), and the remainder then fixes
    // r to the exact floor (a few steps).
    const int z = std::countl_zero(static_cast<uint64_t>(d));
    const uint32_t dn = static_cast<uint32_t>((static_cast<uint64_t>(d) << z) >> 32);
    constexpr uint32_t kLineAt0 = 3031741621u;    // round(48/17 2^30)
    constexpr uint32_t kLineSlope = 2021161081u;  // round(8/17 2^32): 32/17 D in Q30 is (8/17) dn
    uint64_t x = kLineAt0 - ((uint64_t{dn} * kLineSlope) >> 32);
    for (int step = 0; step < 3; ++step) {
        const uint64_t dx = (uint64_t{dn} * x) >> 32;  // D X, Q30, near 2^30
        x = (x * ((uint64_t{2} << 30) - dx)) >> 30;    // below 2^62 before the shift
    }
    // Exact floor: 2^62 - r dn within [0, dn).
    int64_t r = static_cast<int64_t>(x), rem = (int64_t{1} << 62) - r * int64_t{dn};
    while (rem < 0) --r, rem += dn;
    while (rem >= int64_t{dn}) ++r, rem -= dn;
    return Reciprocal{r, 94 - z};
}

namespace {

// The factorisation a' = L D L^T of the equilibrated matrix.
struct Factor {
    int e[kSolveMaxUnknowns];                         // a'_ij = a_ij 2^-(e_i + e_j)
    int32_t l[kSolveMaxUnknowns][kSolveMaxUnknowns];  // unit lower factor, Q24
    int32_t d[kSolveMaxUnknowns];                     // pivots, Q30
    Reciprocal inv[kSolveMaxUnknowns];                // their reciprocals
};

// Equilibration by powers of two: a'_ij = a_ij 2^-(e_i + e_j), diagonal 2^28..2^30
// (Q30: 0.25..1), so every |a'_ij| < 2^30 for a positive definite a.
bool equilibrate(int n, const int64_t *a, int e[]) {
    for (int i = 0; i < n; ++i) {
        if (a[i * n + i] <= 0) return false;
        e[i] = (significant_bits(a[i * n + i]) - 29) >> 1;
    }
    return true;
}

// a' = L D L^T, row by row: u_ij = l_ij d_j (Q30, |u| <= sqrt(d_j) < 1), l (Q24),
// d (Q30). Every product u l is a product of two entries of the Cholesky factor,
// below 1 (Q54), and so is every partial sum of them. False when ill-conditioned.
bool factorise(int n, const int64_t *a, Factor *f) {
    const int *e = f->e;
    auto scaled = [&](int i, int j) { return shift_down(a[i * n + j], e[i] + e[j]); };
    // An entry too large for its diagonals (not positive definite) is refused before it
    // is shifted, so that no shift can wrap.
    auto fits = [&](int i, int j) { return significant_bits(a[i * n + j]) - e[i] - e[j] <= kQ; };
    for (int i = 0; i < n; ++i) {
        int32_t u[kSolveMaxUnknowns];
        for (int j = 0; j < i; ++j) {
            if (!fits(i, j)) return false;
            const int64_t aij = scaled(i, j);
            if (abs64(aij) >= int64_t{1} << kQ) return false;
            int64_t s = aij << kLBits;
            for (int k = 0; k < j; ++k) s -= int64_t{u[k]} * f->l[j][k];
            u[j] = static_cast<int32_t>(s >> kLBits);
            const int64_t lij = divide(u[j], f->inv[j], kLBits);
            if (abs64(lij) >= int64_t{1} << 31) return false;
            f->l[i][j] = static_cast<int32_t>(lij);
        }
        const int64_t aii = scaled(i, i);
        int64_t s = aii << kLBits;
        for (int k = 0; k < i; ++k) s -= int64_t{u[k]} * f->l[i][k];
        const int64_t dii = s >> kLBits;
        if (dii <= 0 || dii < (aii >> kSolvePivotBits)) return false;
        f->d[i] = static_cast<int32_t>(dii);
        f->inv[i] = reciprocal(dii);
    }
    return true;
}

// The right-hand side's scale t: b' = b_i 2^-(e_i + t), the largest 2^29..2^30; -64
// for b = 0.
int rhs_scale(int n, const int64_t *b, const int e[]) {
    int t = -64;
    for (int i = 0; i < n; ++i) {
        if (b[i] != 0 && significant_bits(b[i]) - e[i] - kQ > t) t = significant_bits(b[i]) - e[i] - kQ;
    }
    return t;
}

// x' from a' x' = b': forward (L z = b'), diagonal (y = D^-1 z), back (L^T x' = y);
// |values| < 2^52 and |l| < 2^31, so every term is below 2^59 and every sum of eight
// below 2^62. False when a value would leave that range.
bool substitute(int n, const Factor &f, const int64_t *b, int t, int64_t v[]) {
    constexpr int64_t kValueLimit = int64_t{1} << kValueBits;
    for (int i = 0; i < n; ++i) {
        int64_t z = shift_down(b[i], f.e[i] + t);
        for (int k = 0; k < i; ++k) z -= mul_shift(v[k], f.l[i][k], kLBits);
        // y = z 2^30 / d below 2^52: |z| < d 2^22.
        if (abs64(z) >= int64_t{f.d[i]} << (kValueBits - kQ)) return false;
        v[i] = z;
    }
    for (int i = 0; i < n; ++i) v[i] = divide(v[i], f.inv[i], kQ);
    for (int i = n - 1; i >= 0; --i) {
        for (int k = i + 1; k < n; ++k) v[i] -= mul_shift(v[k], f.l[k][i], kLBits);
        if (abs64(v[i]) >= kValueLimit) return false;
    }
    return true;
}

}  // namespace

namespace {

// x from the factorised a and one right-hand side b (solve_spd's second half).
FitResult solve_factored(int n, const Factor &f, const int64_t *b, const int8_t *frac, int64_t *x) {
    const int t = rhs_scale(n, b, f.e);
    if (t == -64) {  // b = 0
        for (int i = 0; i < n; ++i) x[i] = 0;
        return FitResult::kOk;
    }
    int64_t v[kSolveMaxUnknowns];
    if (!substitute(n, f, b, t, v)) return FitResult::kIllConditioned;

    // a' x' = b' is 2^-30 D a D x' = 2^-t D b (D = diag(2^-e_i)), so x_i = x'_i 2^(t - 30 - e_i);
    // then times 2^frac_i.
    int64_t out[kSolveMaxUnknowns];
    for (int i = 0; i < n; ++i) {
        const int s = t - kQ - f.e[i] + frac[i];
        if (s >= 0) {
            if (s >= 63 || abs64(v[i]) >= (int64_t{1} << (62 - s))) return FitResult::kOverflowRisk;
            out[i] = v[i] << s;
        } else if (s > -63) {
            out[i] = (v[i] + (int64_t{1} << (-s - 1))) >> -s;
        } else {
            out[i] = 0;
        }
    }
    for (int i = 0; i < n; ++i) x[i] = out[i];
    return FitResult::kOk;
}

}  // namespace

FitResult solve_spd(int n, const int64_t *a, const int64_t *b, const int8_t *frac, int64_t *x) {
    Factor f;
    if (!equilibrate(n, a, f.e) || !factorise(n, a, &f)) return FitResult::kIllConditioned;
    return solve_factored(n, f, b, frac, x);
}

FitResult solve_spd_columns(int n, const int64_t *a, int m, const int64_t *b, const int8_t *frac, int64_t *x) {
    Factor f;
    if (!equilibrate(n, a, f.e) || !factorise(n, a, &f)) return FitResult::kIllConditioned;
    for (int j = 0; j < m; ++j) {
        const FitResult r = solve_factored(n, f, b + j * n, frac, x + j * n);
        if (r != FitResult::kOk) return r;
    }
    return FitResult::kOk;
}

namespace {

// s scaled by a power of two so that its largest entry is below 2^28; returns the
// exponent (s = m 2^shift, truncated when shift > 0).
int scale_sym3(const int64_t s[6], int64_t m[6]) {
    int64_t big = 0;
    for (int k = 0; k < 6; ++k) big = abs64(s[k]) > big ? abs64(s[k]) : big;
    const int shift = big == 0 ? 0 : significant_bits(big) - kEigenBits;
    for (int k = 0; k < 6; ++k) m[k] = shift_down(s[k], shift);
    return shift;
}

void sort_descending(int64_t v[3]) {
    for (int i = 0; i < 2; ++i) {
        for (int j = 0; j < 2 - i; ++j) {
            if (v[j] < v[j + 1]) {
                const int64_t tmp = v[j];
                v[j] = v[j + 1];
                v[j + 1] = tmp;
            }
        }
    }
}

}  // namespace

void sym3_eigenvalues(const int64_t s[6], int64_t lambda[3]) {
    if (s[1] == 0 && s[2] == 0 && s[4] == 0) {
        lambda[0] = s[0], lambda[1] = s[3], lambda[2] = s[5];
        sort_descending(lambda);
        return;
    }
    int64_t m[6];
    const int shift = scale_sym3(s, m);
    // m = q I + p B with q the mean eigenvalue, B traceless with |B|^2 = 6: the
    // eigenvalues are q + 2p cos(phi + k 120 degrees), phi = acos(det(B) / 2) / 3.
    const int64_t q = static_cast<int32_t>(m[0] + m[3] + m[5]) / 3;  // below 2^29.6: truncated
    const int64_t c0 = m[0] - q, c3 = m[3] - q, c5 = m[5] - q;
    const int64_t p2 = c0 * c0 + c3 * c3 + c5 * c5 + 2 * (m[1] * m[1] + m[2] * m[2] + m[4] * m[4]);  // < 2^60.3
    const int64_t p = (int64_t{isqrt64(static_cast<uint64_t>(p2))} * kInvSqrt6) >> 32;
    if (p == 0) {
        for (int k = 0; k < 3; ++k) lambda[k] = shift_down(q, -shift);
        return;
    }
    // B = (m - q I) / p, Q28, |entries| <= sqrt(6).
    const Reciprocal inv_p = reciprocal(p);
    const int64_t b0 = divide(c0, inv_p, kEigenBits), b1 = divide(m[1], inv_p, kEigenBits),
                  b2 = divide(m[2], inv_p, kEigenBits), b3 = divide(c3, inv_p, kEigenBits),
                  b4 = divide(m[4], inv_p, kEigenBits), b5 = divide(c5, inv_p, kEigenBits);
    // det(B) by its first row: products below 2^58.6, cofactors below 2^31.6 after the
    // shift, the sum below 2^62.5.
    const int64_t t0 = (b3 * b5 - b4 * b4) >> kEigenBits, t1 = (b1 * b5 - b4 * b2) >> kEigenBits,
                  t2 = (b1 * b4 - b3 * b2) >> kEigenBits;
    int64_t r = ((b0 * t0 - b1 * t1 + b2 * t2) >> kEigenBits) / 2;
    constexpr int64_t kOne = int64_t{1} << kEigenBits;
    if (r > kOne) r = kOne;
    if (r < -kOne) r = -kOne;
    const int64_t sine = isqrt64(static_cast<uint64_t>(kOne * kOne - r * r));
    const int32_t phi = (atan2_cdeg(sine, r) + 1) / 3;  // 0..6000, rounded
    int64_t v[3];
    v[0] = q + ((p * cos_q14(phi)) >> 13);
    v[2] = q + ((p * cos_q14(phi + kCdegPerTurn / 3)) >> 13);
    v[1] = 3 * q - v[0] - v[2];
    sort_descending(v);
    for (int k = 0; k < 3; ++k) lambda[k] = shift_down(v[k], -shift);
}

bool sym3_smallest_vector(const int64_t s[6], int64_t v_q30[3]) {
    int64_t m[6];
    scale_sym3(s, m);
    // Rank below 2: every cofactor of m (entries below 2^28) within the scaling's
    // truncation of zero, i.e. the second eigenvalue below about 2^-26 of the first.
    constexpr int64_t kRankOneCofactor = int64_t{1} << 30;
    if (abs64(m[3] * m[5] - m[4] * m[4]) <= kRankOneCofactor && abs64(m[0] * m[5] - m[2] * m[2]) <= kRankOneCofactor &&
        abs64(m[0] * m[3] - m[1] * m[1]) <= kRankOneCofactor)
        return false;
    // The first shift is the closed form's smallest eigenvalue (within 3e-4 of the
    // spread), each later one the Rayleigh quotient of the last vector (Q28 of m).
    int64_t lambda[3];
    sym3_eigenvalues(m, lambda);
    int64_t shift_by = lambda[2];
    int64_t v[3] = {0, 0, 0};
    for (int iteration = 0; iteration < kInverseIterations; ++iteration) {
        // adj(m - shift_by I): its columns lie along the eigenvector of the eigenvalue
        // nearest the shift, weighted by the product of the other two distances.
        // Entries below 2^29, products below 2^58, cofactors below 2^59.
        const int64_t c0 = m[0] - shift_by, c1 = m[1], c2 = m[2], c3 = m[3] - shift_by, c4 = m[4], c5 = m[5] - shift_by;
        const int64_t a00 = c3 * c5 - c4 * c4, a11 = c0 * c5 - c2 * c2, a22 = c0 * c3 - c1 * c1;
        const int64_t a01 = c2 * c4 - c1 * c5, a02 = c1 * c4 - c2 * c3, a12 = c1 * c2 - c0 * c4;
        // The column with the largest diagonal cofactor: the eigenvector's largest component.
        int64_t col[3] = {a00, a01, a02};
        if (a11 > a00 && a11 >= a22) {
            col[0] = a01, col[1] = a11, col[2] = a12;
        } else if (a22 > a00 && a22 > a11) {
            col[0] = a02, col[1] = a12, col[2] = a22;
        }
        int64_t big = abs64(col[0]);
        for (int k = 1; k < 3; ++k) big = abs64(col[k]) > big ? abs64(col[k]) : big;
        if (big == 0) {
            // The shift met the eigenvalue exactly: keep the last vector, or, at the
            // start (a double smallest eigenvalue), any vector of it from m itself.
            if (iteration > 0) break;
            if (shift_by == 0) return false;
            shift_by = 0, iteration = -1;
            continue;
        }
        // To below 2^30, then to unit length (Q30).
        const int down = significant_bits(big) - 30;
        for (int64_t &c : col) c = shift_down(c, down);
        const int64_t norm = isqrt64(static_cast<uint64_t>(col[0] * col[0] + col[1] * col[1] + col[2] * col[2]));
        const Reciprocal inv = reciprocal(norm);
        for (int k = 0; k < 3; ++k) v[k] = divide(col[k], inv, 30);
        // Rayleigh quotient v^T m v (Q28): m v below 3 * 2^58 before its shift.
        const int64_t mv0 = (m[0] * v[0] + m[1] * v[1] + m[2] * v[2]) >> 30;
        const int64_t mv1 = (m[1] * v[0] + m[3] * v[1] + m[4] * v[2]) >> 30;
        const int64_t mv2 = (m[2] * v[0] + m[4] * v[1] + m[5] * v[2]) >> 30;
        shift_by = (v[0] * mv0 + v[1] * mv1 + v[2] * mv2) >> 30;
    }
    for (int k = 0; k < 3; ++k) v_q30[k] = v[k];
    return true;
}

}  // namespace kmxc_kit
