// Test helpers: exact conversions between MSFLOAT and double (every MSFLOAT value is a
// double exactly), and orthonormal bases for synthetic symmetric matrices.
#ifndef KMXC_NUMERICS_TEST_UTIL_H
#define KMXC_NUMERICS_TEST_UTIL_H

#include <cmath>
#include <random>

#include "numerics/numerics.h"

inline double ToDouble(const MSFLOAT &f) { return std::ldexp(double(f.sign) * f.mantissa, f.exponent - 128); }

// v truncated toward zero to 16 significant bits; v must lie in MSFLOAT's range.
inline MSFLOAT ToMs(double v) {
    if (v == 0) return MSFLOAT_0;
    int e;
    const double frac = std::frexp(std::fabs(v), &e);
    return {int8_t(v < 0 ? -1 : 1), uint8_t(e + 112), uint16_t(frac * 65536)};
}

// N random orthonormal rows (Gram-Schmidt of Gaussian vectors).
template <int N>
void RandomBasis(std::mt19937 &rng, double q[N][N]) {
    std::normal_distribution<double> normal;
    for (int i = 0; i < N; ++i) {
        for (double &x : q[i]) x = normal(rng);
        for (int j = 0; j < i; ++j) {
            double dot = 0;
            for (int k = 0; k < N; ++k) dot += q[i][k] * q[j][k];
            for (int k = 0; k < N; ++k) q[i][k] -= dot * q[j][k];
        }
        double norm = 0;
        for (double x : q[i]) norm += x * x;
        for (double &x : q[i]) x /= std::sqrt(norm);
    }
}

// Packed upper triangle of the symmetric matrix sum_k lambda[k] q[k] q[k]^T, each
// element truncated to MSFLOAT.
template <int N>
void PackedFromEigen(const double q[N][N], const double lambda[N], MSFLOAT *packed) {
    for (int i = 0, n = 0; i < N; ++i) {
        for (int j = i; j < N; ++j) {
            double a = 0;
            for (int k = 0; k < N; ++k) a += lambda[k] * q[k][i] * q[k][j];
            packed[n++] = ToMs(a);
        }
    }
}

#endif  // KMXC_NUMERICS_TEST_UTIL_H
