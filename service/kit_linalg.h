// Fixed-point linear algebra for the kit's estimators: a symmetric positive definite
// solver of up to nine unknowns, the eigenvalues of a symmetric 3x3 matrix and the unit
// eigenvector of its smallest one. Integer arithmetic only: 64-bit sums of 32-bit
// products, one 64-bit division per pivot or normalisation, no other division.
//
// Packed symmetric 3x3 matrices hold the upper triangle row by row, as the library's
// numerics do: (0,0) (0,1) (0,2) (1,1) (1,2) (2,2).
#ifndef KMXC_SERVICE_KIT_LINALG_H
#define KMXC_SERVICE_KIT_LINALG_H

#include <stdint.h>

namespace kmxc_kit {

// What a fit (or a solve within one) returns.
enum class FitResult : int8_t {
    kOk = 0,
    kTooFew = 1,          // fewer samples than the fit needs
    kOverflowRisk = 2,    // a sample lies beyond the span the fit's arithmetic is sized for
    kIllConditioned = 3,  // the samples do not determine the unknowns
    kNoSolution = 4,      // the solution is no real sphere, ellipsoid or circle
    kImplausible = 5,     // ellipsoid: an axis outside the plausible range (record filled)
};

constexpr int kSolveMaxUnknowns = 9;
// Least pivot of the solver, as a fraction of its diagonal after equilibration: 2^-12.
// Below it the unknown is a combination of the earlier ones to within 1/4096 of its
// variance, and the factor's entries (up to 2^7 there) would outgrow their Q24 format.
constexpr int kSolvePivotBits = 12;

// Solves a x = b for a symmetric positive definite a (n x n, row-major; 1 <= n <= 9;
// diagonal entries positive and below 2^62, any other scale: a normal matrix of sums).
// Each unknown is returned as x[i] = solution[i] * 2^frac[i], rounded to nearest (ties
// up). Results:
//   kOk               x filled
//   kIllConditioned   a pivot below kSolvePivotBits of its diagonal, a not positive
//                     definite, or intermediate values beyond 2^52 (x untouched)
//   kOverflowRisk     a solution does not fit its requested format (x untouched)
FitResult solve_spd(int n, const int64_t *a, const int64_t *b, const int8_t *frac, int64_t *x);
// solve_spd for m right-hand sides at once (b and x: m columns of n, one after the
// other), a factorised once: each column exactly as solve_spd gives it. The first
// column solve_spd would refuse ends it with that result (the columns before it filled).
FitResult solve_spd_columns(int n, const int64_t *a, int m, const int64_t *b, const int8_t *frac, int64_t *x);

// Eigenvalues of the packed symmetric matrix s (|entries| < 2^62), in descending order
// and in the scale of s (floored to whole units). A diagonal s gives its diagonal
// exactly; otherwise each value is within 3e-4 of the largest |eigenvalue - mean
// eigenvalue| plus 2^-25 of the largest eigenvalue plus one unit (the closed
// trigonometric form with the kit's integer angles, on s scaled to 28 bits).
void sym3_eigenvalues(const int64_t s[6], int64_t lambda[3]);

// The unit eigenvector of the smallest eigenvalue of the packed symmetric matrix s
// (|entries| < 2^62), Q30 (2^30 = 1), by three steps of inverse iteration through the
// adjugate, shifted first by the closed form's smallest eigenvalue, then by the Rayleigh
// quotient of the last step's vector (within 1.5e-6 radian of the double-precision
// direction once the two smallest eigenvalues differ by a hundredth of the largest, as
// for any circle of samples). Its sign is arbitrary.
// False when s has rank below 2 to within its scaling to 28 bits (the second eigenvalue
// below about 2^-26 of the first): no plane is determined; v untouched.
bool sym3_smallest_vector(const int64_t s[6], int64_t v_q30[3]);

// (a * b) >> s, floor, for |b| <= 2^31 and 0 <= s <= 63, exact while the result fits
// 64 bits: the product is formed in 96 bits from two 32 x 32 multiplications.
int64_t mul_shift(int64_t a, int64_t b, int s);

// The reciprocal of a positive d (below 2^62) as x / d = (x * r) >> shift, r in
// 2^30..2^31 (31 significant bits: a quotient is within 2^-30 of its size below the
// exact one), exact when d is a power of two. One 64-bit division.
struct Reciprocal {
    int64_t r;  // floor(2^62 / the top 32 bits of d), 2^30..2^31
    int shift;  // 94 - the leading zeros of d
};
Reciprocal reciprocal(int64_t d);
// x 2^up / d through the reciprocal (floored), for 0 <= up <= 31 and |x|
// such that the result fits 64 bits (x itself need not fit once scaled by 2^up).
inline int64_t divide(int64_t x, const Reciprocal &inv, int up) { return mul_shift(x, inv.r, inv.shift - up); }

// v * 2^-s, floor, for either sign of s (a left shift for s < 0; the caller keeps the
// result within 64 bits).
inline int64_t shift_down(int64_t v, int s) { return s >= 0 ? v >> s : v << -s; }
// The number of significant bits of |v| (0 for 0).
int significant_bits(int64_t v);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_LINALG_H
