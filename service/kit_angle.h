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

namespace angle_detail {

// sin(i * 0.64 degrees) for i = 0..141, Q15, rounded: round(32768 * sin(radians(0.64 * i))).
// The step is 64 centidegrees so that an index is a shift; interpolation is within half
// a Q15 unit of the sine.
inline constexpr uint16_t kSinQ15[142] = {
    0,     366,   732,   1098,  1464,  1829,  2194,  2560,  2924,  3289,  3653,  4016,  4379,  4742,  5103,  5465,
    5825,  6185,  6544,  6902,  7260,  7616,  7972,  8326,  8680,  9032,  9383,  9733,  10082, 10430, 10776, 11121,
    11465, 11807, 12148, 12487, 12825, 13161, 13495, 13828, 14159, 14488, 14815, 15141, 15464, 15786, 16106, 16424,
    16739, 17053, 17364, 17674, 17981, 18286, 18588, 18889, 19186, 19482, 19775, 20066, 20354, 20639, 20922, 21203,
    21480, 21756, 22028, 22297, 22564, 22828, 23089, 23348, 23603, 23856, 24105, 24351, 24595, 24835, 25072, 25306,
    25537, 25765, 25990, 26211, 26429, 26644, 26855, 27063, 27268, 27469, 27667, 27861, 28052, 28240, 28424, 28604,
    28781, 28954, 29123, 29289, 29452, 29610, 29765, 29916, 30064, 30208, 30348, 30484, 30616, 30745, 30869, 30990,
    31107, 31220, 31329, 31435, 31536, 31634, 31727, 31817, 31902, 31984, 32061, 32135, 32205, 32270, 32332, 32389,
    32443, 32492, 32537, 32579, 32616, 32649, 32678, 32703, 32724, 32741, 32754, 32763, 32767, 32768};
inline constexpr int kSinStepBits = 6;  // 64 centidegrees per table step

// Sine, Q15, of 0..9000 centidegrees.
constexpr int32_t sin_first_quadrant_q15(int32_t cdeg) {
    const int32_t i = cdeg >> kSinStepBits, f = cdeg & ((1 << kSinStepBits) - 1);
    return kSinQ15[i] + (((kSinQ15[i + 1] - kSinQ15[i]) * f + (1 << (kSinStepBits - 1))) >> kSinStepBits);
}

}  // namespace angle_detail

// Sine and cosine of any angle in centidegrees, Q14 (16384 = 1), rounded. Constant
// expressions: a rule's fixed angle costs nothing at run time.
constexpr int32_t sin_q14(int32_t cdeg) {
    int32_t a = cdeg % kCdegPerTurn;
    if (a < 0) a += kCdegPerTurn;
    const bool negative = a >= kCdegHalfTurn;
    if (negative) a -= kCdegHalfTurn;
    if (a > kCdegQuarterTurn) a = kCdegHalfTurn - a;
    const int32_t q14 = (angle_detail::sin_first_quadrant_q15(a) + 1) >> 1;  // Q15 to Q14, rounded half up
    return negative ? -q14 : q14;
}

constexpr int32_t cos_q14(int32_t cdeg) {
    // cos(a) = sin(a + 90 degrees), with the argument first reduced so the sum cannot wrap.
    return sin_q14(cdeg % kCdegPerTurn + kCdegQuarterTurn);
}

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_ANGLE_H
