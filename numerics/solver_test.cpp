// MsSolve: pivot rules and ending statuses on crafted systems, accuracy on random
// well-conditioned symmetric systems against a long-double Gauss-Jordan reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "numerics/numerics.h"
#include "numerics/numerics_test_util.h"

namespace {
MSFLOAT F(int s, int e, int m) { return {int8_t(s), uint8_t(e), uint16_t(m)}; }
const MSFLOAT o = MSFLOAT_0, l = MSFLOAT_1, m1 = F(-1, 113, 32768);
const MSFLOAT p = F(1, 10, 32768), mp = F(-1, 10, 32768), p2 = F(1, 11, 32768), p3 = F(1, 11, 49152);  // 2^-103
const MSFLOAT H = F(1, 160, 32768);  // 2^47: H / p overflows, so p must never be the pivot of H's row
const MSFLOAT t = F(1, 53, 32768);   // 2^-60: t * t underflows

struct Case { const char *name; MSFLOAT A[15]; MSFLOAT r[5]; int status; };
const Case kCases[] = {
    {"identity gives x = r", {l, o, o, o, o, l, o, o, o, l, o, o, l, o, l}, {l, m1, H, p, o}, 0},
    {"zero first column", {o, o, o, o, o, l, o, o, o, l, o, o, l, o, l}, {l, l, l, l, l}, -2},
    {"all-ones matrix: second pivot column is exactly zero", {l, l, l, l, l, l, l, l, l, l, l, l, l, l, l}, {l, l, l, l, l}, -2},
    {"equal-magnitude candidate does not displace row 0", {p, mp, o, o, o, o, H, o, o, o, o, o, l, o, l}, {o, H, H, l, l}, 0},
    {"largest candidate, not the first, becomes the pivot", {o, p, p2, o, o, H, o, o, o, o, o, o, l, o, l}, {p3, H, p2, l, l}, 0},
    {"quotient overflow", {p, o, o, o, o, l, o, o, o, l, o, o, l, o, l}, {F(1, 250, 32768), l, l, l, l}, -127},
    {"tiny coupling: its square underflows", {l, t, o, o, o, l, o, o, o, l, o, o, l, o, l}, {l, l, l, l, l}, -126},
};

TEST(MsSolve, CraftedSystems) {
    for (const Case &c : kCases) {
        MSFLOAT x[5];
        ASSERT_EQ(MsSolve(c.A, c.r, x), c.status) << c.name;
        for (int i = 0; i < 5 && c.status == 0; ++i) {
            // The identity returns r bit for bit; the pivot cases are built to solve to all ones.
            const MSFLOAT &want = c.name == kCases[0].name ? c.r[i] : MSFLOAT_1;
            EXPECT_TRUE(x[i].sign == want.sign && x[i].exponent == want.exponent && x[i].mantissa == want.mantissa)
                << c.name << " x" << i << " = " << ToDouble(x[i]);
        }
    }
}

// Eigenvalues of either sign with magnitudes 1..4 (condition number <= 4), the whole
// system scaled by 2^-30..2^30. The reference solves the same truncated inputs.
TEST(MsSolve, RandomWellConditionedSystemsMatchLongDouble) {
    std::mt19937 rng(51);
    std::normal_distribution<double> normal;
    double worst = 0;
    for (int n = 0; n < 3000; ++n) {
        double q[5][5], lambda[5];
        RandomBasis<5>(rng, q);
        const double scale = std::ldexp(1.0, int(rng() % 61) - 30);
        for (double &v : lambda) v = scale * (rng() & 1 ? 1 : -1) * std::uniform_real_distribution(1.0, 4.0)(rng);
        MSFLOAT A[15], r[5], x[5];
        PackedFromEigen<5>(q, lambda, A);
        for (MSFLOAT &v : r) v = ToMs(normal(rng) * scale);
        ASSERT_EQ(MsSolve(A, r, x), 0);

        long double M[5][6];
        for (int i = 0, k = 0; i < 5; ++i) {
            for (int j = i; j < 5; ++j, ++k) M[i][j] = M[j][i] = ToDouble(A[k]);
            M[i][5] = ToDouble(r[i]);
        }
        for (int k = 0; k < 5; ++k) {
            int piv = k;
            for (int i = k + 1; i < 5; ++i) piv = std::fabs(M[i][k]) > std::fabs(M[piv][k]) ? i : piv;
            std::swap(M[k], M[piv]);
            for (int i = 0; i < 5; ++i) {
                const long double f = i == k ? 0 : M[i][k] / M[k][k];
                for (int j = k; j < 6; ++j) M[i][j] -= f * M[k][j];
            }
        }
        long double size = 0, err = 0;
        for (int i = 0; i < 5; ++i) size = std::max(size, std::fabs(M[i][5] / M[i][i]));
        for (int i = 0; i < 5; ++i) err = std::max(err, std::fabs(ToDouble(x[i]) - M[i][5] / M[i][i]));
        worst = std::max(worst, double(err / size));
    }
    RecordProperty("worst_relative_error", std::to_string(worst));
    std::printf("MsSolve worst error / largest component: %.3g (2^%.2f)\n", worst, std::log2(worst));
    EXPECT_LT(worst, 4e-4);  // measured 1.85e-4 (seed 51), about 6 units of the 16th bit
}
}  // namespace
