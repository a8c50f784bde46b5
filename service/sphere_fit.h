// Sphere fit of the diversity store: the centre (the magnetometer's offset) and the
// radius (the field's strength) of the kept samples, by the algebraic least-squares fit
// |u - c|^2 = R^2 in coordinates u = m - m0 about the samples' whole-count mean m0.
// The constant decouples exactly (the mean's fraction included), leaving one 3x3 solve:
//   (n S - s s^T) c = (n sum(u |u|^2) - s sum(|u|^2)) / 2,   S = sum(u u^T), s = sum(u),
//   R^2 = (sum(|u|^2) - 2 s.c) / n + |c|^2.
// Integer arithmetic only: 32- and 64-bit sums, the fixed-point solver, one root; about
// 13,000 instructions on ARMv5TE for a full store (bench/icount).
//
// Results (FitResult):
//   kOk               out filled
//   kTooFew           fewer than kSphereMinSamples kept
//   kOverflowRisk     a sample more than kSphereSpanLimit counts from m0 on some axis
//   kIllConditioned   the samples' spread below kSphereMinSpread (without a prior), or the
//                     solve refused
//   kNoSolution       no positive radius, or a centre beyond kSphereSpanLimit from m0
// On any refusal out is untouched.
#ifndef KMXC_SERVICE_SPHERE_FIT_H
#define KMXC_SERVICE_SPHERE_FIT_H

#include <stdint.h>

#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kit_linalg.h"

namespace kmxc_kit {

// Twice the four unknowns of a sphere, so that no single sample can be fitted exactly.
constexpr int kSphereMinSamples = 8;
// Largest |u| per axis, counts: the sums stay within their formats (S and sum |u|^2 in
// 32 bits, sum u |u|^2 in 64). An Earth field's sphere spans at most about 410 counts
// (65 uT with axes up to 1.25, both sides of the centre).
constexpr int32_t kSphereSpanLimit = 2048;
// Least spread, 1024ths (the smallest covariance eigenvalue over the largest). Measured
// on bands of samples about a plane, 0.5 uT noise: spreads of 16..31 leave the offset
// within 7.4 counts (3 uT; mean 1.9 counts) of the truth, 8..15 within 11.7, 4..7
// within 18, 0..3 within 76: below 4 the centre's component across the band is the
// noise's. From 4 up the kit judges each fit's determinacy itself (the predicted error
// from its residual and its samples' covariance): a map-reading phone's band of
// samples, turned about the vertical with its tilt wandering a few degrees, spreads
// 5..13/1024 and at 0.15 uT noise gives offsets within 1 uT.
constexpr int32_t kSphereMinSpread = 4;

// A prior for the centre (optional): each axis known to within sd counts about `centre`
// before the samples. The fit then solves (N + w I) 2c = rhs + w 2 (centre - m0), N the
// normal matrix n S - s s^T less the scatter noise puts into it, w = n R^2 sigma^2 / sd^2
// (R the sphere's radius, sigma the strengths' noise: the caller's estimates): the most
// probable centre under that prior. Directions the samples determine are theirs; a
// direction they span only by their noise (a band of samples about a plane) carries no
// information and stays at the prior's, where the plain fit would take the noise for
// geometry and move its centre along it. The noise's scatter, n^2 noise_q8 / 256 on N's
// diagonal, is taken out as far as N's least eigenvalue allows (N stays semi-definite).
// With a prior no least spread is asked for.
struct SpherePrior {
    Vec3 centre;       // counts
    int64_t weight;    // w, counts^2 (at least 1, below 2^40)
    int64_t noise_q8;  // each sample's noise variance per axis, counts^2 in 1/256 (below 2^20)
};

struct SphereFit {
    Vec3 offset;             // centre, counts, rounded to nearest (ties up)
    int32_t radius_q4;       // radius, 1/16 count (truncated)
    Spread spread;           // the fitted samples' spread
    StrengthStats residual;  // the kept samples' strengths about offset
};

FitResult sphere_fit(const FieldStore &store, SphereFit *out, const SpherePrior *prior = nullptr);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_SPHERE_FIT_H
