// MsSolve: pivot rules and ending statuses on crafted systems, accuracy on random
// well-conditioned symmetric systems against long-double Gauss-Jordan.
#include <gtest/gtest.h>

#include "numerics/numerics_test_util.h"

namespace {
const MSFLOAT o = MSFLOAT_0, l = MSFLOAT_1;
const MSFLOAT p = F(1, 10, 32768), mp = F(-1, 10, 32768), p2 = F(1, 11, 32768), p3 = F(1, 11, 49152);  // p = 2^-103
const MSFLOAT H = F(1, 160, 32768);  // 2^47: H / p overflows, so p must never be the pivot of H's row
const MSFLOAT t = F(1, 53, 32768);   // 2^-60: t * t underflows

// The two pivot cases solve to all ones; the wrong pivot would divide H by p.
TEST(MsSolve, CraftedSystems) {
    struct {
        const char *name;
        MSFLOAT A[15], r[5];
        int status;
    } cases[] = {
        {"an equal candidate keeps row 0", {p, mp, o, o, o, o, H, o, o, o, o, o, l, o, l}, {o, H, H, l, l}, 0},
        {"the largest candidate pivots", {o, p, p2, o, o, H, o, o, o, o, o, o, l, o, l}, {p3, H, p2, l, l}, 0},
        {"zero first column", {o, o, o, o, o, l, o, o, o, l, o, o, l, o, l}, {l, l, l, l, l}, -2},
        // The second pivot column is exactly zero.
        {"all ones", {l, l, l, l, l, l, l, l, l, l, l, l, l, l, l}, {l, l, l, l, l}, -2},
        {"quotient overflow", {p, o, o, o, o, l, o, o, o, l, o, o, l, o, l}, {F(1, 250, 32768), l, l, l, l}, -127},
        {"tiny coupling: its square underflows", {l, t, o, o, o, l, o, o, o, l, o, o, l, o, l}, {l, l, l, l, l}, -126},
    };
    for (const auto &c : cases) {
        MSFLOAT x[5];
        ASSERT_EQ(MsSolve(c.A, c.r, x), c.status) << c.name;
        for (int i = 0; i < 5 && c.status == 0; ++i) EXPECT_EQ(x[i], MSFLOAT_1) << c.name << " x" << i;
    }
}

// Eigenvalues of either sign with magnitudes 1..4 (condition number <= 4), the system
// scaled by 2^-30..2^30. The reference solves the same truncated inputs.
TEST(MsSolve, RandomWellConditionedSystemsMatchLongDouble) {
    std::mt19937 rng(51);
    double worst = 0;
    for (int n = 0; n < 3000; ++n) {
        const double scale = std::ldexp(1.0, int(rng() % 61) - 30);
        double lambda[5];
        for (double &v : lambda) v = scale * (rng() & 1 ? 1 : -1) * std::uniform_real_distribution(1.0, 4.0)(rng);
        MSFLOAT A[15], r[5], x[5];
        RandomSymmetric<5>(rng, lambda, A);
        for (MSFLOAT &v : r) v = ToMs(std::normal_distribution<double>()(rng) * scale);
        ASSERT_EQ(MsSolve(A, r, x), 0);

        long double M[5][6], size = 0, err = 0;
        for (int i = 0, k = 0; i < 5; M[i][5] = ToDouble(r[i]), ++i)
            for (int j = i; j < 5; ++j, ++k) M[i][j] = M[j][i] = ToDouble(A[k]);
        for (int k = 0; k < 5; ++k) {
            std::swap(M[k], *std::max_element(M + k, M + 5,
                                              [k](auto &u, auto &v) { return std::fabs(u[k]) < std::fabs(v[k]); }));
            for (int i = 0; i < 5; ++i)
                for (int j = 5; j >= k && i != k; --j) M[i][j] -= M[i][k] / M[k][k] * M[k][j];
        }
        for (int i = 0; i < 5; ++i) size = std::max(size, std::fabs(M[i][5] / M[i][i]));
        for (int i = 0; i < 5; ++i) err = std::max(err, std::fabs(ToDouble(x[i]) - M[i][5] / M[i][i]));
        worst = std::max(worst, double(err / size));
    }
    EXPECT_LT(worst, 4e-4);  // measured 2.3e-4 = 2^-12.1 (seed 51): about 15 units of the 16th bit
}
}  // namespace
