// Integer helpers shared by the estimator's units (C++ only, not part of any interface).
#ifndef KMXC_CALIBRATION_ESTIMATOR_MATH_H
#define KMXC_CALIBRATION_ESTIMATOR_MATH_H

#include <stdint.h>

#include "numerics/numerics.h"
#include "numerics/msfloat_ops.h"

namespace kmxc_calibration {

// MSFLOAT_I2F for a 64-bit integer. Within the int32 range it is MSFLOAT_I2F itself.
// Beyond it, the magnitude is first shifted right into the int32 range and the
// exponent raised by the same count afterwards: MSFLOAT_I2F only drops low bits while
// shifting, so the result is the MSFLOAT the 32-bit conversion would give if its
// argument were wide enough. Products of int16 deviations, and integer dot products
// with far-away offsets, use this instead of wrapping in 32 bits.
inline void i2f_wide(MSFLOAT *out, int64_t value) {
    if (value >= INT32_MIN && value <= INT32_MAX) {
        msf::I2F(out, static_cast<int32_t>(value));
        return;
    }
    uint64_t magnitude = value < 0 ? 0u - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    int16_t shift = 0;
    while (magnitude > static_cast<uint64_t>(INT32_MAX)) {
        magnitude >>= 1;
        ++shift;
    }
    msf::I2F(out, static_cast<int32_t>(magnitude));
    if (value < 0) msf::OpNeg(out);
    msf::OpShiftEq(out, shift);  // at most +33: far inside the exponent range
}

// Eigenvector components are Q14 parts of a unit vector, so they never exceed 16384 in
// magnitude by more than rounding. Integer code bounds them to +-32768 before
// multiplying; this changes nothing for real eigenvectors and keeps every 64-bit
// product below in range for any input.
constexpr int64_t kQ14Bound = 32768;
inline int64_t bounded_q14(int32_t component) {
    if (component > kQ14Bound) return kQ14Bound;
    if (component < -kQ14Bound) return -kQ14Bound;
    return component;
}

}  // namespace kmxc_calibration

#endif  // KMXC_CALIBRATION_ESTIMATOR_MATH_H
