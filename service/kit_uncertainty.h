// The predicted uncertainty of the kit's offset estimates: the covariance of an offset
// that a set of samples determines (its prior, the residual's variance, the chip's
// temperature wander), what it leaves across gravity, whether every direction is
// determined, and the heading accuracy it allows at an attitude (heading_accuracy_cap,
// declared with the kit's other entry points in kit_internal.h). Integer arithmetic only.
#ifndef KMXC_SERVICE_KIT_UNCERTAINTY_H
#define KMXC_SERVICE_KIT_UNCERTAINTY_H

#include <stdint.h>

#include "service/kit_internal.h"
#include "service/soft_iron_share.h"

namespace kmxc_kit {

constexpr int kQ4 = 4;  // the store's statistics are in 1/16 count
constexpr int kQ8 = 8;  // covariances in 1/256 count^2
constexpr int32_t kCentiUtPerCount = 1000 / kCountsPer10uT;
static_assert(kCentiUtPerCount * kCountsPer10uT == 1000, "a count is a whole number of 1/100 uT");

// What noise and rounding leave in a sphere fit's strengths where the field is a sphere:
// the noise along the radius and the count's rounding (a uniform step: 1/12 count^2),
// counts^2 in 1/256.
constexpr int64_t kExpectedResidualSqQ8 = int64_t{KMXC_SERVICE_MAG_NOISE_CENTI_UT} * KMXC_SERVICE_MAG_NOISE_CENTI_UT *
                                              (1 << kQ8) / (kCentiUtPerCount * kCentiUtPerCount) +
                                          (1 << kQ8) / 12;

// The prior every estimate's covariance carries: each axis of the offset known to 50
// counts (20 uT) before any sample. An offset error that large turns the heading by 45
// degrees or more in any Earth field, so a direction no sample determines stays far
// beyond the low limit, and the covariance stays bounded (below 2500 * 256 < 2^20).
constexpr int64_t kPriorVarianceCounts2 = 50 * 50;

// The predicted covariance of an offset that n samples u (counts, as the library sees
// them) determine, about a sphere of `radius` counts whose strengths scatter with
// variance var_q8 (counts^2 in 1/256): for the algebraic sphere fit
//   P = R^2 s^2 (sum (u - mean)(u - mean)^T)^-1,
// with the prior added to its inverse, P = R^2 s^2 (C + R^2 s^2 / s0^2 I)^-1, solved
// column by column as K (n C + n R^2 s^2 / s0^2 I)^-1 with K = n R^2 s^2 (1/256). C
// less the scatter the samples' noise puts into it (n times the expected noise variance
// per axis, as far as C's least eigenvalue allows, as the sphere fit's prior does): a
// direction spanned by noise alone is no information. Sums about the first sample: with
// |u - u0| <= 2^11 (any Earth field's sphere), n C stays below 2^33 per entry. False
// when the solve refuses.
// share_q8, when given: the share of unmodelled soft iron (share_step), added to P.
bool covariance_of(const Vec3 *u, int n, int32_t radius, int64_t var_q8, const int32_t *share_q8,
                   int32_t prior_permille, OffsetCovariance *out);
// The store showed more soft iron than c's share was worked out for: its share scaled
// to the prior that now applies.
void rescale_share(OffsetCovariance *c);
// The covariance of an estimate that leaves its offset along `axis` (a unit vector, Q14)
// to the prior and determines it across: s0^2 a a^T (a circle's offset with the old
// offset's axial component). The heading cap then follows the axis' tilt alone.
void undetermined_along(const Vec3 &axis_q14, OffsetCovariance *out);
// One step of the pending store fit's share of unmodelled soft iron (its own cycle; two
// between the fit and its judgement): X, then the share (Estimators' share_steps,
// share_valid, share_q8), of the sphere's samples through the correction in use or the
// ellipsoid's through the one it proposes. The prior per entry of D is
// KMXC_SERVICE_SOFT_IRON_PRIOR_PERMILLE, or KMXC_SERVICE_SOFT_IRON_LEFT_PERMILLE for
// samples through a correction; the samples' own noise is the fit's residual without
// the temperature wander (which looks like no soft iron). A share that refuses or
// exceeds P's bound leaves share_valid false: nothing determined, the fit not used.
void share_step();

// The magnetometer's noise variance per axis that the estimators take, 1/256 count^2:
// the second quietest of the meter's recent windows (a window in which the phone turned
// or was bumped only shows more; one of smoothed readings may show less), never below
// kExpectedResidualSqQ8. A chip noisier than
// expected scatters a flat turn's circle into a band that looks three-dimensional; this
// is what keeps the band's thickness from counting as information.
int64_t noise_variance_q8();
// The soft iron an ellipsoid fit shows: the RMS of the six entries of W - I, 1/1000.
int32_t soft_iron_shown_permille(const EllipsoidFit &fit);
// A sample with this raw temperature joined the store: its temperature span grows.
void note_temperature(int16_t raw);
// The wander's square b^2 over the store's temperature span, 1/256 count^2.
int64_t store_wander_sq_q8();
// The error variance per sample that a fit of `unknowns` from n samples leaves its
// offset: the residual's sum of squares over n - unknowns, never below what noise and
// rounding explain, plus n times the wander's square (P = R^2 (s^2 / n + b^2) (C / n)^-1:
// the wander's share does not shrink as samples are added). spread_q8: sum of squared
// strength deviations, 1/256 count^2.
int64_t residual_variance_q8(int64_t spread_q8, int n, int unknowns, int64_t wander_sq_q8);
// The offset's error variance in the plane across gravity g (the part that can turn a
// heading, summed over its two axes), 1/256 count^2: trace P - g^T P g / |g|^2.
int64_t horizontal_variance(const OffsetCovariance &c, const Vec3 &g);
// Every direction the samples' more than the prior's (its variance at most a fifth of
// the prior's: the samples' information four times the prior's, their own variance
// within a quarter of it, 25 counts or 10 uT): a set of samples that leaves a direction
// to the prior (a phone only ever turned flat) confirms no offset. The prior (centred on
// the offset in use, whose component along a circle's axis nothing may have measured)
// steadies the fit; it does not determine. How well the heading is determined at each
// attitude is the cap's to say.
bool every_direction_determined(const OffsetCovariance &p);
// The covariance of offset o from the last n fed samples (at most those fed), as a fit
// of `unknowns` would leave it (no wander: they are recent). False when the solve refuses.
bool ring_covariance(const KmxAxesData &o, int n, int unknowns, OffsetCovariance *p);
// The same from samples the caller has corrected (u: the last n fed, as
// fed_corrected gives them) and their agreement with o (agreement_of, no dip).
bool ring_covariance_of(const Vec3 *u, int n, const Agreement &a, const KmxAxesData &o, int unknowns,
                        OffsetCovariance *p);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_UNCERTAINTY_H
