// The first MSFLOAT implementation, the oracle for the library's (see the .cpp).
#ifndef KMXC_NUMERICS_MSFLOAT_REFERENCE_H
#define KMXC_NUMERICS_MSFLOAT_REFERENCE_H

#include <stdint.h>

#include "numerics/numerics.h"

namespace msfloat_reference {
int8_t I2F(MSFLOAT *a, int32_t value);
int8_t F2I(int32_t *out, const MSFLOAT *a);
int8_t Sign(const MSFLOAT *a);
int8_t OpMultiEq(MSFLOAT *a, const MSFLOAT *b);
int8_t OpDivEq(MSFLOAT *a, const MSFLOAT *b);
int8_t OpShiftEq(MSFLOAT *a, int16_t n);
int8_t OpNeg(MSFLOAT *a);
int8_t OpAbs(MSFLOAT *a);
int8_t AbsCompGreater(const MSFLOAT *a, const MSFLOAT *b);
int8_t OpPlusEq(MSFLOAT *a, const MSFLOAT *b);
int8_t OpMinusEq(MSFLOAT *a, const MSFLOAT *b);
int8_t OpCompGreater(const MSFLOAT *a, const MSFLOAT *b);
int8_t Square(MSFLOAT *a);
int8_t Sqrt(MSFLOAT *a);
}  // namespace msfloat_reference

#endif  // KMXC_NUMERICS_MSFLOAT_REFERENCE_H
