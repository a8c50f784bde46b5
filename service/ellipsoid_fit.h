// Ellipsoid fit of the diversity store (soft iron): an offset and a symmetric correction
// W such that W (m - offset) lies on a sphere. Integer arithmetic only; about 34,000
// instructions on ARMv5TE for a full store (bench/icount).
//
// Model: the algebraic least-squares quadric u^T A u - 2 b^T u + k = 0 in coordinates
// u = m - c0 about the sphere fit's centre c0, with A = I + D, D symmetric and traceless
// (nine unknowns: five of D, b, k). The quadric's quadratic part is the same about any
// point, so c0 only keeps the numbers small. Poorly determined directions (a cap of
// samples, part of the sphere missing) are drawn toward the sphere (D = 0) by a ridge
// on D's Frobenius norm, lambda = 2^-ridge_bits n R^4 (R the sphere fit's radius, n the
// samples). A full sphere's D has about n R^4 / 4 of information per unknown; with
// noise s counts on a field of R counts the ridge is a prior on each entry of D of
// standard deviation about 2 s sqrt(2^ridge_bits / n) / R (1 count, R = 120, n = 32:
// 7 % at 2^-9, 13 % at 2^-11), so a well-spread store's D shrinks by under a percent
// (4 * 2^-ridge_bits) while directions a cap cannot see stay at the sphere. The ridge is
// rotation-invariant, so the fit turns with the phone. Then
//   centre c = A^-1 b,   radius^2 = b.c - k,   W = A^(1/2) / det(A)^(1/6).
// W keeps det(W) = 1: the corrected strength is the geometric mean of the ellipsoid's
// semi-axes, whichever axis the iron stretches, and the plausibility range below
// (1/1.25 .. 1.25) is symmetric about it. A^(1/2) comes from A's eigenvalues (closed
// trigonometric form) through Cayley-Hamilton, (A + II I)^-1 (I1 A + III I) with I1, II,
// III the elementary symmetric functions of their roots; no eigenvectors needed.
//
// Requires a successful sphere_fit of the same store (its centre and radius).
// Results (FitResult):
//   kOk               out filled, every axis within kAxisMinQ14..kAxisMaxQ14
//   kImplausible      out filled, an axis outside that range
//   kTooFew           fewer than kEllipsoidMinSamples kept
//   kOverflowRisk     a sample more than kEllipsoidSpanLimit counts from c0 on some axis
//   kIllConditioned   a solve refused (the samples do not determine the quadric)
//   kNoSolution       the quadric is no ellipsoid (A not positive definite, no radius)
// On the last four out is untouched.
#ifndef KMXC_SERVICE_ELLIPSOID_FIT_H
#define KMXC_SERVICE_ELLIPSOID_FIT_H

#include <stdint.h>

#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kit_linalg.h"
#include "service/sphere_fit.h"

namespace kmxc_kit {

// Twice the nine unknowns.
constexpr int kEllipsoidMinSamples = 18;
// Largest |m - c0| per axis, counts: quadratic features below 2^21, their products'
// sums below 2^47. Twice the largest Earth-field radius with soft iron.
constexpr int32_t kEllipsoidSpanLimit = 1024;
// The estimate's ridge, 2^-11 of n R^4: a prior of about 13 % per entry of D (above),
// the scale of the soft iron a phone may have, so the samples decide D wherever they
// tell anything of it and the centre is not pulled off by a D held at the sphere. On
// the virtual phone at 2^-9 (7 %), a slowly turned phone's store of 9 cells gave an
// ellipsoid 10 uT off where the samples alone put it within 1-2 uT. Measured (the
// tests' random phones, soft-iron axes 0.8..1.25, noise up to 0.5 uT; worst offset of
// 100): turned everywhere, within 1.5 counts of the truth (the sphere fit 3.0) and W
// within 0.015; tilted up to 90 degrees, 4.2 (the sphere fit 25.7; 5.2 at 2^-9); held
// level (a cap, hard iron only), 27.6 where the sphere fit gives 2.5 (13.7 at 2^-9;
// without a ridge, in a double-precision trial, up to 116). The fit is for nearly
// complete coverage; on a cap the sphere fit is the better estimate, and the kit judges
// each by its predicted error.
constexpr int kEllipsoidRidgeBits = 11;
// The ridge of the fit that shows the store's soft iron (the share's prior,
// kit_uncertainty.h): 2^-9, a prior of about 7 %, so only the soft iron the samples
// tell clearly counts. At 2^-11 its fits on caps showed more than was there and the
// first trust came later (`default` with soft iron B at 10 Hz: 11.1 -> 13.8 s).
constexpr int kShownRidgeBits = 9;
// Plausible axes of W, Q14: 0.8 (13107.2 truncated) .. 1.25. Soft iron in a phone bends
// the field by tens of percent at most; a wider fit is a disturbance being fitted.
constexpr int32_t kAxisMinQ14 = 13107;
constexpr int32_t kAxisMaxQ14 = 20480;
static_assert(kStoreStrengthTolerancePermille * 16384 > (kAxisMaxQ14 - 16384) * 1000,
              "the store must admit the strengths of every plausible ellipsoid");

struct EllipsoidFit {
    Vec3 offset;             // centre, counts, rounded to nearest (ties up)
    int16_t w_q14[9];        // W, Q14 (16384 = 1), row-major, symmetric, det 1
    int32_t axes_q14[3];     // W's eigenvalues (principal axes), descending, Q14 rounded
    int32_t radius_q4;       // radius of the corrected sphere, 1/16 count (truncated)
    StrengthStats residual;  // the kept samples' strengths |W (m - offset)|
};

// Every axis within kAxisMinQ14..kAxisMaxQ14 inclusive.
bool axes_plausible(const int32_t axes_q14[3]);

FitResult ellipsoid_fit(const FieldStore &store, const SphereFit &sphere, int ridge_bits, EllipsoidFit *out);

// The kit corrects a field sample with apply_q14(fit.w_q14, m - fit.offset, 0)
// (kit_geometry.h): W (m - offset) in counts, rounded.

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_ELLIPSOID_FIT_H
