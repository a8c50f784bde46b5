// Circle fit of the diversity store, for a phone turned about one axis only (a car
// mount): the samples then trace a circle in a plane normal to that axis, never a
// sphere, and the offset's component along the axis is left undetermined by them.
// Integer arithmetic only; about 16,000 instructions on ARMv5TE for a full store
// (bench/icount).
//
// Fit: the plane's normal is the eigenvector of the smallest eigenvalue of the samples'
// covariance (inverse iteration, kit_linalg.h), signed to point the way gravity pulls
// (normal . gravity >= 0; the library's gravity points down). The samples are projected
// on two in-plane axes (to 1/16 count) and the circle is the algebraic least-squares
// fit there, the 2-D form of the sphere fit (sphere_fit.h), in the plane through the
// samples' mean.
//
// The offset then needs the axial component from elsewhere:
//   - from a reference strength F and field-gravity angle theta (90 degrees minus the
//     dip below the horizon): turning about the vertical, the field keeps F cos(theta)
//     along gravity, so the circle's centre lies that far along the normal from the
//     offset, offset = centre - F cos(theta) n, and the radius should be F sin(theta);
//   - or from a prior offset: offset = centre + ((prior - centre) . n) n, the prior's
//     axial component kept.
//
// Results of circle_fit (FitResult):
//   kOk               out filled
//   kTooFew           fewer than kCircleMinSamples kept
//   kOverflowRisk     a sample more than kCircleSpanLimit counts from the mean on some axis
//   kIllConditioned   the samples lie on a line or a point (no plane, or no circle in it)
//   kNoSolution       the centre lies beyond kCircleSpanLimit from the mean, or no radius
// On any refusal out is untouched.
#ifndef KMXC_SERVICE_CIRCLE_FIT_H
#define KMXC_SERVICE_CIRCLE_FIT_H

#include <stdint.h>

#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kit_linalg.h"

namespace kmxc_kit {

// Twice the three unknowns of a circle in its plane.
constexpr int kCircleMinSamples = 6;
// Largest |m - mean| per axis, counts (as the sphere fit's, and for the same sums).
constexpr int32_t kCircleSpanLimit = 2048;

struct CircleFit {
    Vec3 normal_q14;          // unit normal of the plane, Q14, normal . gravity >= 0
    Vec3 centre_q4;           // circle centre, 1/16 count
    int32_t radius_q4;        // radius, 1/16 count (truncated)
    int32_t out_of_plane_q4;  // RMS distance of the samples from the plane, 1/16 count
};

// gravity: the mean gravity of the samples (any scale); a zero or in-plane gravity
// leaves the normal's sign as computed.
FitResult circle_fit(const FieldStore &store, const Vec3 &gravity, CircleFit *out);

// The offset (counts, rounded) from a reference strength (counts) and field-gravity
// angle (centidegrees, 0..18000), and the radius' mismatch with F sin(theta) in
// thousandths of it (truncated). False when F sin(theta) is below 1/16 count (the field
// along the axis traces no circle); offset and mismatch untouched then.
bool circle_offset_from_reference(const CircleFit &fit, int32_t strength, int32_t angle_cdeg, Vec3 *offset,
                                  int32_t *radius_mismatch_permille);

// The offset (counts, rounded) keeping the axial component of a prior offset (counts).
Vec3 circle_offset_from_prior(const CircleFit &fit, const Vec3 &prior);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_CIRCLE_FIT_H
