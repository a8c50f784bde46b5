// The plain algebraic (Kasa) sphere fit the icount cases compare the library's with,
// in double and in float.
#ifndef KMXC_BENCH_ICOUNT_KASA_FIT_H
#define KMXC_BENCH_ICOUNT_KASA_FIT_H

#include "common/common.h"

// Internal linkage, as where it was first counted: each case instantiates its own copy.
namespace {

// x^2 + y^2 + z^2 = 2ax + 2by + 2cz + d in least squares, as a user would write it:
// the sums of the 4x4 normal equations in one pass, then Gaussian elimination. The
// centre is (a, b, c).
template <typename T>
void kasa_fit(const KmxAxesData *p, int n, T centre[3]) {
    T sx = 0, sy = 0, sz = 0, sxx = 0, syy = 0, szz = 0, sxy = 0, sxz = 0, syz = 0;
    T sw = 0, sxw = 0, syw = 0, szw = 0;
    for (int i = 0; i < n; ++i) {
        const T x = T(p[i].x), y = T(p[i].y), z = T(p[i].z), w = x * x + y * y + z * z;
        sx += x, sy += y, sz += z;
        sxx += x * x, syy += y * y, szz += z * z, sxy += x * y, sxz += x * z, syz += y * z;
        sw += w, sxw += x * w, syw += y * w, szw += z * w;
    }
    // Unknowns (2a, 2b, 2c, d); rows are the normal equations of x, y, z and 1.
    T m[4][5] = {{sxx, sxy, sxz, sx, sxw}, {sxy, syy, syz, sy, syw}, {sxz, syz, szz, sz, szw}, {sx, sy, sz, T(n), sw}};
    for (int k = 0; k < 4; ++k)
        for (int r = k + 1; r < 4; ++r) {
            const T f = m[r][k] / m[k][k];
            for (int c = k; c < 5; ++c) m[r][c] -= f * m[k][c];
        }
    T u[4];
    for (int r = 3; r >= 0; --r) {
        T s = m[r][4];
        for (int c = r + 1; c < 4; ++c) s -= m[r][c] * u[c];
        u[r] = s / m[r][r];
    }
    for (int i = 0; i < 3; ++i) centre[i] = u[i] / T(2);
}

}  // namespace

#endif  // KMXC_BENCH_ICOUNT_KASA_FIT_H
