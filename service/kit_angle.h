// Integer angles for the kit's estimators: arctangent, the angle between two vectors,
// the signed step of a rotation about a normal, sine and cosine. Integer arithmetic
// only (tables with linear interpolation, one 32-bit division per arctangent).
//
// Unit: centidegrees (1/100 degree, 36000 per turn). The dip is judged as an angle
// because its cosine, which the kit's anomaly rule uses, loses its sensitivity at steep
// dips (d cos/d angle vanishes as the field nears the vertical).
//
// Accuracy (measured against double precision over the whole input ranges by the
// tests): atan2_cdeg within kAtan2MaxErrorCdeg; angle_between_cdeg and angle_step_cdeg
// within kAngleMaxErrorCdeg (their inputs are first scaled to 15 bits); sin_q14 and
// cos_q14 within 1/16384.
#ifndef KMXC_SERVICE_KIT_ANGLE_H
#define KMXC_SERVICE_KIT_ANGLE_H

#include <stdint.h>

#include "service/kit_geometry.h"

namespace kmxc_kit {

constexpr int32_t kCdegPerTurn = 36000;
constexpr int32_t kCdegHalfTurn = 18000;
constexpr int32_t kCdegQuarterTurn = 9000;
// Stated error bounds of the results, centidegrees (the tests hold the functions to them).
constexpr int32_t kAtan2MaxErrorCdeg = 1;
constexpr int32_t kAngleMaxErrorCdeg = 2;
// Inputs of angle_between_cdeg and angle_step_cdeg: every component within +-2^24
// (their cross and dot products then stay within 64 bits).
constexpr int32_t kAngleInputLimit = int32_t{1} << 24;

// The angle of (x, y) from the x axis, -18000..18000 (18000 for y = 0, x < 0); 0 for
// (0, 0). Any 64-bit arguments.
int32_t atan2_cdeg(int64_t y, int64_t x);

// The unsigned angle between a and b, 0..18000; 0 when either is the zero vector.
int32_t angle_between_cdeg(const Vec3 &a, const Vec3 &b);

// The signed angle from a to b about the unit normal n (Q14: 16384 = 1), measured in
// the plane normal to n, -18000..18000: positive when the turn from a to b is
// counter-clockwise seen from the tip of n (right-handed about n). Components of a and b
// within +-32767 (fields about a centre, counts). 0 when either lies along n.
int32_t angle_step_cdeg(const Vec3 &n_q14, const Vec3 &a, const Vec3 &b);

// Sine and cosine of any angle in centidegrees, Q14 (16384 = 1), rounded.
int32_t sin_q14(int32_t cdeg);
int32_t cos_q14(int32_t cdeg);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_ANGLE_H
