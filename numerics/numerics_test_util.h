// Test helpers: field comparison, exact conversions between MSFLOAT and double (every
// MSFLOAT value is a double exactly) and random symmetric matrices of known spectrum.
#ifndef KMXC_NUMERICS_TEST_UTIL_H
#define KMXC_NUMERICS_TEST_UTIL_H

#include <algorithm>
#include <cmath>
#include <ostream>
#include <random>

#include "numerics/numerics.h"

inline MSFLOAT F(int s, int e, int m) { return {int8_t(s), uint8_t(e), uint16_t(m)}; }
inline MSFLOAT I(int32_t v) {
    MSFLOAT f;
    MSFLOAT_I2F(&f, v);
    return f;
}
inline double ToDouble(const MSFLOAT &f) { return std::ldexp(double(f.sign) * f.mantissa, f.exponent - 128); }
inline bool operator==(const MSFLOAT &a, const MSFLOAT &b) {
    return a.sign == b.sign && a.exponent == b.exponent && a.mantissa == b.mantissa;
}
inline std::ostream &operator<<(std::ostream &os, const MSFLOAT &f) {
    return os << "(" << int(f.sign) << ", " << int(f.exponent) << ", " << f.mantissa << ")";
}
// v truncated toward zero to 16 significant bits; v must lie in MSFLOAT's range.
inline MSFLOAT ToMs(double v) {
    int e;
    const double frac = std::frexp(std::fabs(v), &e);
    return v == 0 ? MSFLOAT_0 : F(v < 0 ? -1 : 1, e + 112, int(frac * 65536));
}

// Packed upper triangle of sum_k lambda[k] q_k q_k^T for N random orthonormal q_k
// (Gram-Schmidt of Gaussian vectors), each element truncated to MSFLOAT.
template <int N>
void RandomSymmetric(std::mt19937 &rng, const double lambda[N], MSFLOAT *packed) {
    std::normal_distribution<double> normal;
    double q[N][N];
    for (int i = 0; i < N; ++i) {
        for (double &x : q[i]) x = normal(rng);
        for (int j = 0; j <= i; ++j) {
            double dot = 0;
            for (int k = 0; k < N; ++k) dot += q[i][k] * q[j][k];
            for (int k = 0; k < N; ++k) q[i][k] = j == i ? q[i][k] / std::sqrt(dot) : q[i][k] - dot * q[j][k];
        }
    }
    for (int i = 0, n = 0; i < N; ++i)
        for (int j = i; j < N; ++j, ++n) {
            double a = 0;
            for (int k = 0; k < N; ++k) a += lambda[k] * q[k][i] * q[k][j];
            packed[n] = ToMs(a);
        }
}

#endif  // KMXC_NUMERICS_TEST_UTIL_H
