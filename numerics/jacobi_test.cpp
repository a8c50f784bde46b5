// MsJacobiCalcEigenPair: crafted diagonal cases for the rotation and sort rules, and
// random symmetric matrices of known spectrum against a closed-form reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

#include "numerics/numerics.h"
#include "numerics/numerics_internal.h"
#include "numerics/numerics_test_util.h"

namespace {
MSFLOAT I(int32_t v) { MSFLOAT f; MSFLOAT_I2F(&f, v); return f; }

// Small cases worked by hand with the truncating arithmetic. In the 2-1 block, h = 0
// makes c2 exactly 1/2 while c = sqrt(1/2) = 46340 * 2^-16, s = c, s2 = sc = 65532 * 2^-17:
// the block's values become 1 and 3 - 2^-13; the five remaining rotations have s = 0.
TEST(MsJacobi, WorkedCases) {
    struct { const char *name; int m[6]; double value[3]; int32_t vector[3][3]; } cases[] = {
        {"2I stops at once; equal values sort by the tie rules", {2, 0, 0, 2, 0, 2}, {2, 2, 2},
         {{0, 0, 16384}, {0, 16384, 0}, {16384, 0, 0}}},
        {"six null rotations leave 3, 1, 2 untouched", {3, 0, 0, 1, 0, 2}, {3, 2, 1},
         {{16384, 0, 0}, {0, 0, 16384}, {0, 16384, 0}}},
        {"negative value clamped to zero, its vector kept", {-1, 0, 0, 2, 0, 1}, {2, 1, 0},
         {{0, 16384, 0}, {0, 0, 16384}, {16384, 0, 0}}},
        {"one 45-degree rotation of the 2-1 block", {2, 1, 0, 2, 0, 2}, {3 - 0x1p-13, 2, 1},
         {{11585, 11585, 0}, {0, 0, 16384}, {11585, -11585, 0}}},
    };
    for (const auto &c : cases) {
        MSFLOAT m[6];
        for (int i = 0; i < 6; ++i) MSFLOAT_I2F(&m[i], c.m[i]);
        MsEigenPair pairs[3];
        ASSERT_EQ(MsJacobiCalcEigenPair(m, pairs), 0);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(ToDouble(pairs[k].value), c.value[k]) << c.name << " pair " << k;
            for (int j = 0; j < 3; ++j) EXPECT_EQ(pairs[k].vector[j], c.vector[k][j]) << c.name << " pair " << k;
        }
    }
}

// The sort alone: which diagonal index lands in which place, and the clamp.
TEST(MsJacobi, SortTieRules) {
    struct { const char *name; int d[3]; int order[3]; } cases[] = {
        {"distinct", {3, 1, 2}, {0, 2, 1}},      {"all equal: later index is max", {2, 2, 2}, {2, 1, 0}},
        {"equal low pair", {2, 1, 1}, {0, 1, 2}}, {"equal high pair", {2, 2, 1}, {1, 0, 2}},
        {"equal ends", {1, 2, 1}, {1, 0, 2}},     {"zero and negatives", {-1, 0, -2}, {1, 0, 2}},
    };
    for (const auto &c : cases) {
        const MSFLOAT w[6] = {I(c.d[0]), I(9), I(9), I(c.d[1]), I(9), I(c.d[2])};
        MSFLOAT v[3][3];
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i) MSFLOAT_I2F(&v[j][i], 1000 * (i + 1) + j);  // column i tagged
        MsEigenPair out[3];
        ASSERT_EQ(MsJacobiSortEigenPair(w, v, out), 0);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(ToDouble(out[k].value), std::max(0, c.d[c.order[k]])) << c.name << " place " << k;
            EXPECT_EQ(out[k].value.sign, c.d[c.order[k]] > 0 ? 1 : 0) << c.name;
            for (int j = 0; j < 3; ++j) EXPECT_EQ(out[k].vector[j], 1000 * (c.order[k] + 1) + j) << c.name;
        }
    }
}

// Eigenvalues of a symmetric 3x3 matrix, descending, by the trigonometric closed form.
void ReferenceEigen(const MSFLOAT m[6], long double e[3]) {
    long double a[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) a[i][j] = ToDouble(m[MsPackedIndex[i][j]]);
    const long double q = (a[0][0] + a[1][1] + a[2][2]) / 3, off = a[0][1] * a[0][1] + a[0][2] * a[0][2] + a[1][2] * a[1][2];
    const long double p = std::sqrt(((a[0][0] - q) * (a[0][0] - q) + (a[1][1] - q) * (a[1][1] - q) + (a[2][2] - q) * (a[2][2] - q) + 2 * off) / 6);
    if (p == 0) { e[0] = e[1] = e[2] = q; return; }
    long double b[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) b[i][j] = (a[i][j] - (i == j ? q : 0)) / p;
    const long double det = b[0][0] * (b[1][1] * b[2][2] - b[1][2] * b[2][1]) - b[0][1] * (b[1][0] * b[2][2] - b[1][2] * b[2][0]) +
                            b[0][2] * (b[1][0] * b[2][1] - b[1][1] * b[2][0]);
    const long double phi = std::acos(std::clamp(det / 2, -1.0L, 1.0L)) / 3;
    e[0] = q + 2 * p * std::cos(phi);
    e[2] = q + 2 * p * std::cos(phi + 2 * std::numbers::pi_v<long double> / 3);
    e[1] = 3 * q - e[0] - e[2];
}

// Scatter-like matrices (mostly non-negative spectra, a quarter with one negative
// eigenvalue), scaled by 2^-8..2^60. Errors are relative to the largest |eigenvalue|.
// Below about 2^-10 the converged off-diagonal elements square to below 2^-113; the
// underflowed square is used as it stands (statuses are not examined) and the rotation
// stops being orthogonal, so smaller matrices are outside the routine's range.
TEST(MsJacobi, RandomMatricesMatchClosedForm) {
    std::mt19937 rng(61);
    double valueErr = 0, normErr = 0, dotErr = 0, residual = 0;
    for (int n = 0; n < 20000; ++n) {
        double q[3][3], lambda[3];
        RandomBasis<3>(rng, q);
        const double scale = std::ldexp(1.0, int(rng() % 69) - 8);
        for (double &v : lambda) v = scale * std::uniform_real_distribution(0.0, 1.0)(rng);
        if (n % 4 == 0) lambda[n % 3] = -lambda[n % 3];
        MSFLOAT m[6];
        PackedFromEigen<3>(q, lambda, m);
        MsEigenPair pairs[3];
        ASSERT_EQ(MsJacobiCalcEigenPair(m, pairs), 0);
        long double ref[3];
        ReferenceEigen(m, ref);
        const long double big = std::max(std::fabs(ref[0]), std::fabs(ref[2]));
        for (int k = 0; k < 3; ++k) {
            if (k < 2) { ASSERT_EQ(MSFLOAT_OpCompGreater(&pairs[k + 1].value, &pairs[k].value), 0) << "not descending"; }
            valueErr = std::max(valueErr, double(std::fabs(ToDouble(pairs[k].value) - std::max(ref[k], 0.0L)) / big));
            const int32_t *v = pairs[k].vector;
            normErr = std::max(normErr, std::fabs(std::sqrt(double(v[0]) * v[0] + double(v[1]) * v[1] + double(v[2]) * v[2]) / 16384 - 1));
            const int32_t *w = pairs[(k + 1) % 3].vector;
            dotErr = std::max(dotErr, std::fabs(double(v[0]) * w[0] + double(v[1]) * w[1] + double(v[2]) * w[2]) / (16384.0 * 16384));
            for (int i = 0; i < 3; ++i) {  // (A - lambda) v, component i
                long double r = -ref[k] * v[i];
                for (int j = 0; j < 3; ++j) r += ToDouble(m[MsPackedIndex[i][j]]) * v[j];
                residual = std::max(residual, double(std::fabs(r) / 16384 / big));
            }
        }
    }
    std::printf("Jacobi worst: value %.3g, |v|-1 %.3g, v.w %.3g, |(A-l)v| %.3g (relative to max|l|)\n", valueErr, normErr, dotErr, residual);
    // Measured (seed 61): 2.2e-4, 1.9e-4, 1.3e-4, 7.0e-4.
    EXPECT_LT(valueErr, 4e-4);
    EXPECT_LT(normErr, 4e-4);
    EXPECT_LT(dotErr, 3e-4);
    EXPECT_LT(residual, 1.5e-3);
}
}  // namespace
