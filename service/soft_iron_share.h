// What soft iron a sphere does not model can do to its centre: the share of the offset's
// covariance that a small unknown correction W = I + D leaves a sphere fit (or a fit
// through a correction in use, with what that correction may still miss).
//
// To first order D moves each sample's algebraic residual |v|^2 - R^2 by 2 v^T D v
// (v = u - centre), and the fit's centre by X d, d = (Dxx, Dyy, Dzz, Dxy, Dxz, Dyz):
//   X = S^-1 G,  S = sum (u - mean)(u - mean)^T,  G = sum (u - mean) w^T,
//   w = (x^2, y^2, z^2, 2xy, 2xz, 2yz) of v.
// A store round the whole sphere has G near 0 (its odd moments); a cap of it does not,
// and there D turns into offset. What the samples say of d is what the sphere leaves
// in their residuals: the information (H - G^T X) / (4 R^2 s^2), H the scatter of w and
// s^2 the samples' own noise. With a prior of sd on each entry of d, d's covariance is
//   C = (I / sd^2 + (H - G^T X) / (4 R^2 s^2))^-1
// and the share X C X^T: near 0 where the samples tell d or d cannot move the centre,
// up to sd^2 X X^T where they tell neither. (The mean of d the residuals suggest is not
// added: a residual that large is the ellipsoid fit's business.)
//
// Integer arithmetic only: 64-bit sums of the features, the fixed-point solver for X
// (six columns through S) and for C X^T (three through the 6x6 information).
// Results (FitResult):
//   kOk               share_q8 filled (1/256 count^2, packed upper triangle)
//   kTooFew           n < 2 or above kShareMaxSamples, no radius, no noise, or no prior
//                     (sd 0): share_q8 zero
//   kOverflowRisk     a sample more than kShareSpanLimit counts from the centre on some
//                     axis, or X beyond kShareMaxXQ8 (the centre moves by more than
//                     2^16 counts per unit of D: nothing is determined)
//   kIllConditioned   a solve refused
#ifndef KMXC_SERVICE_SOFT_IRON_SHARE_H
#define KMXC_SERVICE_SOFT_IRON_SHARE_H

#include <stdint.h>

#include "service/kit_geometry.h"
#include "service/kit_linalg.h"

namespace kmxc_kit {

struct SoftIronPrior {
    int32_t sd_permille;  // each entry of D an independent error of this sd, 1/1000 (0: none)
    int64_t noise_q8;     // the samples' own error variance along the radius, 1/256 count^2
};

// Largest |u - centre| per axis, counts: the features w below 2^21, the sums of their
// products below 2^47 for up to 32 samples. An Earth field with soft iron stays within
// 2^9 of a centre the fits accept.
constexpr int32_t kShareSpanLimit = 1024;
constexpr int kShareMaxSamples = 32;
// X's bound, Q8: 2^16 counts of centre per unit of D.
constexpr int64_t kShareMaxXQ8 = int64_t{1} << 24;

// X's entries: three per entry of d (column k at 3k .. 3k + 2).
constexpr int kShareColumns = 18;

// u: n samples (counts, as the fit saw them), about the fit's centre and radius. a: the
// matrix the offset's covariance solves with, n S (row-major 3x3; a prior or a noise
// correction on its diagonal is kept as it is). n at most kShareMaxSamples.
FitResult soft_iron_share(const Vec3 *u, int n, const Vec3 &centre, int32_t radius, const SoftIronPrior &prior,
                          const int64_t a[9], int64_t share_q8[6]);
// The same in two steps, for two cycles (each about half the work): X (Q8, below
// kShareMaxXQ8), then the share from the same samples and X. Together exactly as
// soft_iron_share; the first returns kTooFew only for n, the second for the rest.
FitResult soft_iron_share_columns(const Vec3 *u, int n, const Vec3 &centre, const int64_t a[9],
                                  int32_t x_q8[kShareColumns]);
FitResult soft_iron_share_from_columns(const Vec3 *u, int n, const Vec3 &centre, int32_t radius,
                                       const SoftIronPrior &prior, const int32_t x_q8[kShareColumns],
                                       int64_t share_q8[6]);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_SOFT_IRON_SHARE_H
