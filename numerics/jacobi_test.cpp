// MsJacobiCalcEigenPair: crafted diagonal cases for the rotation and sort rules, and
// random symmetric matrices of known spectrum.
#include <gtest/gtest.h>

#include "numerics/numerics_internal.h"
#include "numerics/numerics_test_util.h"

namespace {

// Small cases worked by hand with the truncating arithmetic. In the 2-1 block, h = 0
// makes c2 exactly 1/2 while c = sqrt(1/2) = 46340 * 2^-16, s = c, s2 = sc = 65532 * 2^-17:
// the block's values become 1 and 3 - 2^-13; the five remaining rotations have s = 0.
TEST(MsJacobi, WorkedCases) {
    struct {
        const char *name;
        int m[6];
        double value[3];
        int32_t vector[3][3];
    } cases[] = {
        // 2I stops at once; its equal values sort by the tie rules.
        {"2I: three equal values", {2, 0, 0, 2, 0, 2}, {2, 2, 2}, {{0, 0, 16384}, {0, 16384, 0}, {16384, 0, 0}}},
        {"-1 clamped to 0, vector kept", {-1, 0, 0, 2, 0, 1}, {2, 1, 0}, {{0, 16384, 0}, {0, 0, 16384}, {16384, 0, 0}}},
        {"one 45-degree rotation of the 2-1 block",
         {2, 1, 0, 2, 0, 2},
         {3 - 0x1p-13, 2, 1},
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
    struct {
        const char *name;
        int d[3];
        int order[3];
    } cases[] = {
        {"equal low pair", {2, 1, 1}, {0, 1, 2}},
        {"equal high pair", {2, 2, 1}, {1, 0, 2}},
        {"equal ends", {1, 2, 1}, {1, 0, 2}},
        {"zero and negatives", {-1, 0, -2}, {1, 0, 2}},
    };
    for (const auto &c : cases) {
        const MSFLOAT w[6] = {I(c.d[0]), I(9), I(9), I(c.d[1]), I(9), I(c.d[2])};
        MSFLOAT v[3][3];  // column i tagged 1000 (i + 1) + row
        for (int j = 0; j < 9; ++j) MSFLOAT_I2F(&v[j / 3][j % 3], 1000 * (j % 3 + 1) + j / 3);
        MsEigenPair out[3];
        ASSERT_EQ(MsJacobiSortEigenPair(w, v, out), 0);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(ToDouble(out[k].value), std::max(0, c.d[c.order[k]])) << c.name << " place " << k;
            for (int j = 0; j < 3; ++j) EXPECT_EQ(out[k].vector[j], 1000 * (c.order[k] + 1) + j) << c.name;
        }
    }
}

// Scatter-like matrices of known spectrum (mostly non-negative, a quarter with one
// negative eigenvalue), scaled by 2^-8..2^60; errors relative to the largest |eigenvalue|.
// Below about 2^-10 converged off-diagonal elements square to below 2^-113; the
// underflowed square is used as it stands (statuses are not examined) and the rotation
// stops being orthogonal, so smaller matrices are outside the routine's range.
TEST(MsJacobi, RandomMatricesMatchKnownSpectrum) {
    std::mt19937 rng(61);
    double valueErr = 0, orthoErr = 0, residual = 0;
    for (int n = 0; n < 20000; ++n) {
        const double scale = std::ldexp(1.0, int(rng() % 69) - 8);
        double lambda[3];
        for (double &v : lambda) v = scale * std::uniform_real_distribution(0.0, 1.0)(rng);
        if (n % 4 == 0) lambda[n % 3] = -lambda[n % 3];
        MSFLOAT m[6];
        RandomSymmetric<3>(rng, lambda, m);
        MsEigenPair pairs[3];
        ASSERT_EQ(MsJacobiCalcEigenPair(m, pairs), 0);
        std::sort(lambda, lambda + 3, std::greater<>());
        const double big = std::max(std::fabs(lambda[0]), std::fabs(lambda[2]));
        for (int k = 0; k < 3; ++k) {
            ASSERT_FALSE(k < 2 && MSFLOAT_OpCompGreater(&pairs[k + 1].value, &pairs[k].value)) << "not descending";
            valueErr = std::max(valueErr, std::fabs(ToDouble(pairs[k].value) - std::max(lambda[k], 0.0)) / big);
            const int32_t *v = pairs[k].vector;
            for (int j = k; j < 3; ++j) {  // v.w against 1 (w = v) or 0, in units of 2^28
                const int32_t *w = pairs[j].vector;
                orthoErr = std::max(
                    orthoErr,
                    std::fabs((double(v[0]) * w[0] + double(v[1]) * w[1] + double(v[2]) * w[2]) / 0x1p28 - (j == k)));
            }
            for (int i = 0; i < 3; ++i) {  // component i of (A - lambda) v
                double r = -lambda[k] * v[i];
                for (int j = 0; j < 3; ++j) r += ToDouble(m[MsPackedIndex[i][j]]) * v[j];
                residual = std::max(residual, std::fabs(r) / 16384 / big);
            }
        }
    }
    // Measured (seed 61): value 2.3e-4, |v|-1 2.0e-4 (so v.v - 1 about 4e-4), v.w 1.5e-4, residual 8.8e-4.
    EXPECT_LT(valueErr, 4e-4);
    EXPECT_LT(orthoErr, 8e-4);
    EXPECT_LT(residual, 1.5e-3);
}
}  // namespace
