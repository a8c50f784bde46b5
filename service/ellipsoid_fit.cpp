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

// Monomials x^a y^b z^c of degree up to 4, in the order the fit sums them: 1; x y z;
// xx yy zz xy xz yz; then degrees 3 and 4 as listed there.
constexpr int kMoments = 35;
constexpr uint8_t kMonomial[kMoments][3] = {
    {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {1, 1, 0}, {1, 0, 1},
    {0, 1, 1}, {3, 0, 0}, {2, 1, 0}, {2, 0, 1}, {1, 2, 0}, {0, 3, 0}, {0, 2, 1}, {1, 0, 2}, {0, 1, 2},
    {0, 0, 3}, {1, 1, 1}, {4, 0, 0}, {3, 1, 0}, {3, 0, 1}, {2, 2, 0}, {2, 1, 1}, {2, 0, 2}, {1, 3, 0},
    {1, 2, 1}, {1, 1, 2}, {1, 0, 3}, {0, 4, 0}, {0, 3, 1}, {0, 2, 2}, {0, 1, 3}, {0, 0, 4}};

// The features and the target as sums of coefficient times monomial.
struct Monomial {
    int8_t coef;
    uint8_t a, b, c;
};
constexpr Monomial kFeature[kUnknowns][2] = {
    {{1, 2, 0, 0}, {-1, 0, 0, 2}}, {{1, 0, 2, 0}, {-1, 0, 0, 2}}, {{2, 1, 1, 0}, {0, 0, 0, 0}},
    {{2, 1, 0, 1}, {0, 0, 0, 0}},  {{2, 0, 1, 1}, {0, 0, 0, 0}},  {{-2, 1, 0, 0}, {0, 0, 0, 0}},
    {{-2, 0, 1, 0}, {0, 0, 0, 0}}, {{-2, 0, 0, 1}, {0, 0, 0, 0}}, {{1, 0, 0, 0}, {0, 0, 0, 0}}};
constexpr Monomial kTarget[3] = {{-1, 2, 0, 0}, {-1, 0, 2, 0}, {-1, 0, 0, 2}};

// Each normal-equation entry as at most six coefficient-moment terms: first the right
// side f_j . t (j = 0..8), then the upper triangle f_j . f_k (j <= k), row by row.
constexpr int kEntries = kUnknowns + kUnknowns * (kUnknowns + 1) / 2;
struct MomentTerm {
    int8_t coef;
    uint8_t moment;
};
struct EntryTerms {
    MomentTerm term[6];
    uint8_t terms;  // in use
};
constexpr int moment_of(int a, int b, int c) {
    for (int k = 0; k < kMoments; ++k) {
        if (kMonomial[k][0] == a && kMonomial[k][1] == b && kMonomial[k][2] == c) return k;
    }
    return -1;
}
struct NormalTables {
    EntryTerms entry[kEntries];
    uint8_t row[kEntries - kUnknowns], col[kEntries - kUnknowns];
};
constexpr NormalTables make_normal_tables() {
    NormalTables t{};
    int e = 0;
    const auto add = [&](const Monomial *p, int np, const Monomial *q, int nq) {
        int used = 0;
        for (int i = 0; i < np; ++i) {
            for (int j = 0; j < nq; ++j) {
                if (p[i].coef == 0 || q[j].coef == 0) continue;
                t.entry[e].term[used++] =
                    MomentTerm{static_cast<int8_t>(p[i].coef * q[j].coef),
                               static_cast<uint8_t>(moment_of(p[i].a + q[j].a, p[i].b + q[j].b, p[i].c + q[j].c))};
            }
        }
        t.entry[e].terms = static_cast<uint8_t>(used);
        ++e;
    };
    for (int j = 0; j < kUnknowns; ++j) add(kFeature[j], 2, kTarget, 3);
    for (int j = 0; j < kUnknowns; ++j) {
        for (int k = j; k < kUnknowns; ++k) {
            t.row[e - kUnknowns] = static_cast<uint8_t>(j);
            t.col[e - kUnknowns] = static_cast<uint8_t>(k);
            add(kFeature[j], 2, kFeature[k], 2);
        }
    }
    return t;
}
constexpr NormalTables kTables = make_normal_tables();
constexpr const EntryTerms *kNormalTerms = kTables.entry;
constexpr const uint8_t *kEntryRow = kTables.row;
constexpr const uint8_t *kEntryCol = kTables.col;

// Packed symmetric 3x3 index of (i, j).
constexpr int kPacked[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};

// The samples' moments about c0 in kMonomial's order (kOverflowRisk for a sample beyond
// the span). With |u| <= 2^10 per axis: degree 2 below 2^20 and its sums below 2^25 (32
// bits), degrees 3 and 4 below 2^40 and their sums below 2^45 (64 bits).
FitResult sample_moments(const FieldStore &store, const Vec3 &c0, int64_t moment[kMoments]) {
    const int n = store.count;
    int32_t m1[3] = {0, 0, 0}, m2[6] = {0, 0, 0, 0, 0, 0};
    int64_t m3[10] = {}, m4[15] = {};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), c0);
        if (u.x > kEllipsoidSpanLimit || u.x < -kEllipsoidSpanLimit || u.y > kEllipsoidSpanLimit ||
            u.y < -kEllipsoidSpanLimit || u.z > kEllipsoidSpanLimit || u.z < -kEllipsoidSpanLimit)
            return FitResult::kOverflowRisk;
        const int32_t x = u.x, y = u.y, z = u.z;
        const int32_t xx = x * x, yy = y * y, zz = z * z, xy = x * y, xz = x * z, yz = y * z;
        m1[0] += x, m1[1] += y, m1[2] += z;
        m2[0] += xx, m2[1] += yy, m2[2] += zz, m2[3] += xy, m2[4] += xz, m2[5] += yz;
        // Degree 3, in kMoments' order: x^3 x^2y x^2z xy^2 y^3 y^2z xz^2 yz^2 z^3 xyz.
        m3[0] += int64_t{xx} * x, m3[1] += int64_t{xx} * y, m3[2] += int64_t{xx} * z;
        m3[3] += int64_t{yy} * x, m3[4] += int64_t{yy} * y, m3[5] += int64_t{yy} * z;
        m3[6] += int64_t{zz} * x, m3[7] += int64_t{zz} * y, m3[8] += int64_t{zz} * z;
        m3[9] += int64_t{xy} * z;
        // Degree 4: x^4 x^3y x^3z x^2y^2 x^2yz x^2z^2 xy^3 xy^2z xyz^2 xz^3 y^4 y^3z y^2z^2 yz^3 z^4.
        m4[0] += int64_t{xx} * xx, m4[1] += int64_t{xx} * xy, m4[2] += int64_t{xx} * xz;
        m4[3] += int64_t{xx} * yy, m4[4] += int64_t{xx} * yz, m4[5] += int64_t{xx} * zz;
        m4[6] += int64_t{yy} * xy, m4[7] += int64_t{yy} * xz, m4[8] += int64_t{zz} * xy;
        m4[9] += int64_t{zz} * xz, m4[10] += int64_t{yy} * yy, m4[11] += int64_t{yy} * yz;
        m4[12] += int64_t{yy} * zz, m4[13] += int64_t{zz} * yz, m4[14] += int64_t{zz} * zz;
    }
    moment[0] = n;
    for (int k = 0; k < 3; ++k) moment[1 + k] = m1[k];
    for (int k = 0; k < 6; ++k) moment[4 + k] = m2[k];
    for (int k = 0; k < 10; ++k) moment[10 + k] = m3[k];
    for (int k = 0; k < 15; ++k) moment[20 + k] = m4[k];
    return FitResult::kOk;
}

// Normal equations of the features f = (x^2 - z^2, y^2 - z^2, 2xy, 2xz, 2yz, -2x, -2y,
// -2z, 1) against t = -|u|^2 from the moments: every product of two features, and of a
// feature and t, is a sum of monomials of degree up to 4, so 34 sums per sample stand for
// the 54 entries; every entry, at most four moments times 4, below 2^48.
void normal_equations(const int64_t moment[kMoments], int64_t a[kUnknowns * kUnknowns], int64_t r[kUnknowns]) {
    for (int e = 0; e < kEntries; ++e) {
        int64_t v = 0;
        for (int k = 0; k < kNormalTerms[e].terms; ++k)
            v += kNormalTerms[e].term[k].coef * moment[kNormalTerms[e].term[k].moment];
        if (e < kUnknowns) {
            r[e] = v;
        } else {
            const int j = kEntryRow[e - kUnknowns], k = kEntryCol[e - kUnknowns];
            a[j * kUnknowns + k] = a[k * kUnknowns + j] = v;
        }
    }
}

// The ridge added to a: lambda times the Frobenius form of D = [[p, s1, s2], [s1, q, s3],
// [s2, s3, -p-q]]: 2p^2 + 2q^2 + 2pq + 2(s1^2 + s2^2 + s3^2). R^4 below 2^40.
void add_ridge(int n, int32_t radius_q4, int ridge_bits, int64_t a[kUnknowns * kUnknowns]) {
    const int64_t r2_q8 = int64_t{radius_q4} * radius_q4;
    const int64_t lambda = (n * ((r2_q8 * r2_q8) >> 16)) >> ridge_bits;
    a[0 * kUnknowns + 0] += 2 * lambda;
    a[1 * kUnknowns + 1] += 2 * lambda;
    a[0 * kUnknowns + 1] += lambda;
    a[1 * kUnknowns + 0] += lambda;
    for (int j = 2; j < 5; ++j) a[j * kUnknowns + j] += 2 * lambda;
}

// The quadric the solution x describes, judged: a near-sphere with a centre in the span
// and a positive radius, or kNoSolution.
struct Quadric {
    int64_t am[6];       // A = I + D, packed, Q30
    int64_t lambda[3];   // A's eigenvalues, descending, Q30
    int64_t c[3];        // the centre A^-1 b about the sphere's offset, 1/65536 count
    int64_t radius2_q8;  // b.c - k, 1/256 count^2
};
FitResult quadric_of(const int64_t x[kUnknowns], Quadric *q) {
    const int64_t am[6] = {kOneQ30 + x[0], x[2], x[3], kOneQ30 + x[1], x[4], kOneQ30 - x[0] - x[1]};
    for (const int64_t v : am) {
        if (v > 4 * kOneQ30 || v < -4 * kOneQ30) return FitResult::kNoSolution;  // no near-sphere quadric
    }
    for (int k = 0; k < 6; ++k) q->am[k] = am[k];
    sym3_eigenvalues(am, q->lambda);
    if (q->lambda[2] <= 0) return FitResult::kNoSolution;
    const int64_t afull[9] = {am[0], am[1], am[2], am[1], am[3], am[4], am[2], am[4], am[5]};
    constexpr int8_t kCentreFrac[3] = {kQ30, kQ30, kQ30};
    int64_t *c = q->c;
    if (solve_spd(3, afull, &x[5], kCentreFrac, c) != FitResult::kOk) return FitResult::kNoSolution;
    // The centre within the span (b and c below 2^27 in their format, b.c below 2^56).
    constexpr int64_t kCentreLimit = int64_t{kEllipsoidSpanLimit} << kCentreBits;
    for (int k = 0; k < 3; ++k) {
        if (c[k] > kCentreLimit || c[k] < -kCentreLimit || x[5 + k] > 4 * kCentreLimit || x[5 + k] < -4 * kCentreLimit)
            return FitResult::kNoSolution;
    }
    q->radius2_q8 = ((x[5] * c[0] + x[6] * c[1] + x[7] * c[2]) >> (2 * kCentreBits - kConstBits)) - x[kUnknowns - 1];
    return q->radius2_q8 <= 0 ? FitResult::kNoSolution : FitResult::kOk;
}

// W = A^(1/2) / g (Q14) and the axes mu / g (Q14), with g = det(A)^(1/6) (Q30, returned
// in *g); kNoSolution when A's root degenerates.
FitResult normalised_root(const Quadric &quad, int64_t *g_out, EllipsoidFit *out) {
    const int64_t *am = quad.am;
    // Roots of the eigenvalues (below 4, so lambda << 30 stays below 2^62), their
    // elementary symmetric functions, and the normalisation g = III^(1/3) = det(A)^(1/6).
    int64_t mu[3];
    for (int k = 0; k < 3; ++k) mu[k] = isqrt64(static_cast<uint64_t>(quad.lambda[k] << kQ30));
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
    *g_out = g;
    return FitResult::kOk;
}

}  // namespace

bool axes_plausible(const int32_t axes_q14[3]) {
    for (int k = 0; k < 3; ++k) {
        if (axes_q14[k] < kAxisMinQ14 || axes_q14[k] > kAxisMaxQ14) return false;
    }
    return true;
}

FitResult ellipsoid_fit(const FieldStore &store, const SphereFit &sphere, int ridge_bits, EllipsoidFit *out) {
    const int n = store.count;
    if (n < kEllipsoidMinSamples) return FitResult::kTooFew;
    const Vec3 c0 = sphere.offset;
    int64_t moment[kMoments];
    FitResult result = sample_moments(store, c0, moment);
    if (result != FitResult::kOk) return result;
    int64_t a[kUnknowns * kUnknowns];
    int64_t r[kUnknowns];
    normal_equations(moment, a, r);
    add_ridge(n, sphere.radius_q4, ridge_bits, a);

    // D (Q30), b (1/65536 count) and k (1/256 count^2).
    constexpr int8_t kFrac[kUnknowns] = {kQ30,        kQ30,        kQ30,        kQ30,      kQ30,
                                         kCentreBits, kCentreBits, kCentreBits, kConstBits};
    int64_t x[kUnknowns];
    result = solve_spd(kUnknowns, a, r, kFrac, x);
    if (result != FitResult::kOk) return result;
    Quadric quad;
    if (quadric_of(x, &quad) != FitResult::kOk) return FitResult::kNoSolution;
    int64_t g;
    if (normalised_root(quad, &g, out) != FitResult::kOk) return FitResult::kNoSolution;

    const int64_t half = int64_t{1} << (kCentreBits - 1);
    out->offset = Vec3{c0.x + static_cast<int32_t>((quad.c[0] + half) >> kCentreBits),
                       c0.y + static_cast<int32_t>((quad.c[1] + half) >> kCentreBits),
                       c0.z + static_cast<int32_t>((quad.c[2] + half) >> kCentreBits)};
    // The root to 1/256 count (radius^2 below 2^40, shifted below 2^48), divided by g, then
    // truncated to 1/16.
    const int64_t radius_q8 = isqrt64(static_cast<uint64_t>(quad.radius2_q8) << 8);
    out->radius_q4 = static_cast<int32_t>(divide(radius_q8, reciprocal(g), kQ30) >> 4);
    field_store_strengths(store, out->offset, out->w_q14, &out->residual);
    return axes_plausible(out->axes_q14) ? FitResult::kOk : FitResult::kImplausible;
}

}  // namespace kmxc_kit
