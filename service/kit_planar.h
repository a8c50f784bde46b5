// The planar estimator: the offset of a phone turned about one axis only (a vehicle's
// mount, a bike, a boat). Its samples trace a circle, never a sphere; a sphere fit
// cannot place the offset along the axis, and an offset learnt in the hand is wrong by
// the vehicle's own field. Integer arithmetic only.
//
// From a circle fit of the store (circle_fit.h: plane, centre, radius) it takes:
//   - the arc its samples cover about the centre, in the plane: 360 degrees less the
//     widest gap between neighbours (each sample's angle by atan2 of its projections);
//   - with a reference strength F and field-gravity angle theta (the last trusted 3-D
//     calibration at this place): first the offset o = c + d - F cos(theta) n, d in the
//     plane, refined by Gauss-Newton so that every sample lies on the sphere of radius F
//     about o: |m_i - o|^2 = F^2, each sample's distance from the plane taken as it is (a
//     road's slope tilts the axis and lifts samples off the mean plane; on the sphere
//     they still lie). The algebraic residual |m_i - o|^2 - F^2 is 2F times the geometric
//     one near the sphere, so the refinement is the least-squares fit of the reference
//     circle. The reference's radius pins the centre where the samples cover only an arc
//     (a free circle's centre slides along a short arc). Then o itself on that sphere,
//     all three components from there: a short arc tilts the fitted plane by degrees,
//     and F cos(theta) along a tilted normal puts the centre several counts off across
//     the axis, where the samples' heights and the arc's curvature place it. The
//     axial component needs the reference: an error in it does not turn the heading
//     while the phone stays in its mount (the vertical stays the axis);
//   - without a reference: the centre across the axis from the free circle, the axial
//     component kept from a prior offset (circle_offset_from_prior), once the arc
//     determines the circle.
// The axis is the magnetic circle's normal (signed by the store's mean gravity): a
// vehicle's accelerations tilt gravity by up to 20 degrees in its turns, which is where
// a mount's samples are gathered, while the field's circle does not feel them. Its
// error, F cos(theta) times the normal's tilt, grows as the circle shrinks (noise over
// radius); at a 25 uT field and 80 degrees of dip a store of 32 samples with 0.5 uT of
// noise tilts it by about 0.6 degrees: 0.25 uT, as much as a gravity mean's accelerometer
// bias alone would give, so the normal is used at every size.
//
// Verdict (planar_estimate): refused (level KMXC_SERVICE_UNRELIABLE) below
// KMXC_SERVICE_PLANAR_MIN_ARC_CDEG, or when the offset leaves the store's strengths
// spread beyond KMXC_SERVICE_FIT_MEDIUM_PERMILLE or out of the Earth's range; low without
// a reference; with one, medium from
// KMXC_SERVICE_PLANAR_CONFIRM_ARC_CDEG when the circle's own radius lies within
// F sin(theta +- KMXC_SERVICE_PLANAR_DIP_TOLERANCE_CDEG) (both references agree); else
// low. Never high: nothing but the references confirms the axial component.
//
// Cost on ARMv5TE, full store: the circle fit about 16,000 instructions (the kit's
// planar step 27,900, one cycle), the judgement (arc, both refinements, strengths) 34,800
// in the next, the adoption (both offsets' strengths on the store) 10,200 in the third
// (bench/icount: kit_planar_fit, kit_planar_judge, kit_planar_adopt).
#ifndef KMXC_SERVICE_KIT_PLANAR_H
#define KMXC_SERVICE_KIT_PLANAR_H

#include <stdint.h>

#include "service/circle_fit.h"
#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

// Samples before a circle is fitted: the sphere fit's least (four unknowns twice over:
// the plane's two and the circle's three leave one sample to spare each way).
constexpr int kPlanarMinSamples = 8;
// Largest angle between a circle's samples' gravity and its axis (centidegrees): a
// vehicle's accelerations tilt gravity by up to 22 degrees, a walker reading a map holds
// the phone within 30 degrees of level; a phone turned through other orientations
// leaves it.
constexpr int32_t kPlanarAxisGravityCdeg = 4500;
// ... and, without a reference, the axis within the mount's allowance for slopes and
// wobble of the phone's mean gravity (centidegrees; turned about the vertical in hand or
// mount the store's mean gravity lay 0.3 to 5 degrees from it, about a field-near axis
// 20 to 40).
constexpr int32_t kPlanarAxisMeanGravityCdeg = KMXC_SERVICE_MOUNT_TILT_CDEG;
// Gauss-Newton steps of the reference circle's refinement: from the free circle's centre
// (within a few counts on an arc of a quarter turn) each step squares the relative error;
// the sphere's steps then start within a fraction of a count of that circle's centre.
constexpr int kPlanarRefineSteps = 2;
// Gauss-Newton steps of the centre on the sphere of radius F that follow, from the
// reference circle's centre: the samples' heights move it by a few counts at most, and
// two steps leave it within a count of the converged centre (kit_planar_test). Each costs
// about 4,100 ARMv5TE instructions: the two refinements' four steps keep the judgement
// within a cycle's 40,000.
constexpr int kPlanarSphereSteps = 2;

struct PlanarReference {
    int32_t strength;    // F, counts
    int32_t angle_cdeg;  // theta, the angle between field and gravity, 0..18000
};

struct PlanarEstimate {
    Vec3 offset;              // counts (filled unless refused)
    int32_t arc_cdeg;         // arc the samples cover about the centre, 0..36000
    int32_t radius_low_q4;    // the reference circle's radius range (0 without one)
    int32_t radius_high_q4;   // ...
    int8_t level;             // KMXC_SERVICE_UNRELIABLE (refused), _LOW or _MEDIUM
    StrengthStats strengths;  // the store's strengths about offset
};

// The store's samples trace the circle of a phone turned about the vertical: within
// 1/KMXC_SERVICE_PLANAR_FLATNESS of its radius of its plane (RMS), and every sample's
// gravity within kPlanarAxisGravityCdeg of its axis.
bool planar_circle(const FieldStore &store, const CircleFit &fit);

// The arc the store's samples cover about the fit's centre, centidegrees: 36000 less the
// widest gap between angular neighbours; 0 with fewer than two samples.
int32_t planar_arc_cdeg(const FieldStore &store, const CircleFit &fit);
// A circle turned about the vertical has its axis along the phone's mean gravity (a
// hand's tilts and a vehicle's accelerations average out over the mount's window, a
// road's slopes nearly so); a hand turning the phone about another axis, one near the
// field, traces a smaller circle whose centre says nothing of the offset. Without a
// reference nothing checks the radius: the axis must lie within
// kPlanarAxisMeanGravityCdeg of vertical (any scale; none, or a zero vector, fails).
bool planar_axis_vertical(const CircleFit &fit, const Vec3 &vertical);

// The offset on the reference circle (see above), counts, and the arc the samples cover
// about its centre (arc_cdeg may be null). False when the reference's circle does not
// exist for a sample (its distance from the plane beyond F) or a step of the circle's
// solve refuses; offset and arc untouched then. A refused step on the sphere keeps the
// reference circle's centre.
bool planar_offset_from_reference(const FieldStore &store, const CircleFit &fit, const PlanarReference &ref,
                                  Vec3 *offset, int32_t *arc_cdeg);

// The verdict on a circle fit of the store: ref null when no reference is known; prior
// the offset in use (its axial component is kept without a reference).
void planar_estimate(const FieldStore &store, const CircleFit &fit, const PlanarReference *ref, const Vec3 &prior,
                     PlanarEstimate *out);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_PLANAR_H
