// Ellipsoid fit of the diversity store (soft iron): an offset and a symmetric correction
// W such that W (m - offset) lies on a sphere. Integer arithmetic only; about 34,000
// instructions on ARMv5TE for a full store (bench/icount).
//
// Model: the algebraic least-squares quadric u^T A u - 2 b^T u + k = 0 in coordinates
// u = m - c0 about the sphere fit's centre c0, with A = I + D, D symmetric and traceless
// (nine unknowns: five of D, b, k). The quadric's quadratic part is the same about any
// point, so c0 only keeps the numbers small. Poorly determined directions (a cap of
// samples, part of the sphere missing) are drawn toward the sphere (D = 0) by a ridge
// on D's Frobenius norm, lambda = 2^-kEllipsoidRidgeBits n R^4 (R the sphere fit's
// radius, n the samples): a full sphere's D has about n R^4 / 4 of information per
// unknown, so a well-spread store moves by under 2 percent of D while directions a cap
// cannot see stay at the sphere. The ridge is rotation-invariant, so the fit turns with
// the phone. Then
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
// The ridge, 2^-9 of n R^4 (see above). Measured (the tests' random phones, soft-iron
// axes 0.8..1.25, noise up to 0.5 uT; worst offset of 100): turned everywhere, within
// 1.5 counts of the truth (the sphere fit 5.1) and W within 0.02; tilted up to 90
// degrees, 3.3 (the sphere fit 19.8); held level (a cap, hard iron only), 13.7 where
// the sphere fit gives 2.5 (without the ridge, in a double-precision trial, a cap gave
// up to 116). The fit is for nearly complete coverage; on a cap the sphere fit is the
// better estimate.
constexpr int kEllipsoidRidgeBits = 9;
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

FitResult ellipsoid_fit(const FieldStore &store, const SphereFit &sphere, EllipsoidFit *out);

// The kit corrects a field sample with apply_q14(fit.w_q14, m - fit.offset, 0)
// (kit_geometry.h): W (m - offset) in counts, rounded.

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_ELLIPSOID_FIT_H
