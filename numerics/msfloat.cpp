// MSFLOAT: a four-byte software floating-point number on 32-bit integer arithmetic.
// No rounding anywhere; every dropped bit is discarded.
#include <stdint.h>

#include <bit>

#include "numerics/numerics.h"
#include "numerics/msfloat_ops.h"
#include "numerics/numerics_internal.h"

extern "C" {
const MSFLOAT MSFLOAT_0 = {0, 0, 0};
const MSFLOAT MSFLOAT_1 = {1, 113, 0x8000};
const MSFLOAT MSFLOAT_0x4000 = {1, 127, 0x8000};
const MSFLOAT MSFLOAT_maxsint32 = {1, 143, 0xFFFF};
const MSFLOAT MSFLOAT_invsqrt2 = {1, 112, 46340};
}

namespace msf {

// Every case of a += b the inline PlusEq does not take.
int8_t PlusEqGeneral(MSFLOAT *a, int8_t bs, uint8_t be, uint16_t bm) {
    const int8_t as = a->sign;
    if (as == 0) {
        a->sign = bs;
        a->exponent = be;
        a->mantissa = bm;
        return 0;
    }
    if (bs == 0) return 0;
    const uint8_t ae = a->exponent;
    const uint16_t am = a->mantissa;
    const bool leftBigger = AbsGreater(am, ae, bm, be);  // equal magnitudes: big is b
    const int8_t bigSign = leftBigger ? as : bs, smallSign = leftBigger ? bs : as;
    const uint32_t bigExp = leftBigger ? ae : be, smallExp = leftBigger ? be : ae;
    const uint32_t bigMan = leftBigger ? am : bm, smallMan = leftBigger ? bm : am;
    int32_t d = static_cast<int32_t>(bigExp) - static_cast<int32_t>(smallExp);
    if (d < 0) d = 0;  // only with a non-normalised (zero-mantissa) operand
    if (d > 16) {
        a->sign = bigSign;
        a->exponent = static_cast<uint8_t>(bigExp);
        a->mantissa = static_cast<uint16_t>(bigMan);
        return 0;
    }
    uint32_t m;
    int16_t e;
    if (bigSign == smallSign) {
        m = bigMan + (smallMan >> d);
        e = static_cast<int16_t>(bigExp);
    } else {
        // One guard bit: exact for d <= 1; beyond that the dropped low bits of small
        // leave the result above the exact difference by under one guard-bit unit.
        m = 2u * bigMan - ((2u * smallMan) >> d);
        e = Wrap16(static_cast<int32_t>(bigExp) - 1);
    }
    // Back below 2^16. Normalised operands carry at most one bit out; a difference with
    // a non-normalised operand may have wrapped round 2^32 and drops many.
    if (m >= 65536u) {
        const int shift = 16 - std::countl_zero(m);
        m >>= shift;
        e = Wrap16(e + shift);
    }
    if (m == 0) {
        SetZero(a);
        return 0;
    }
    Normalise(m, e);
    const int8_t status = ExponentStatus(e);
    if (status != 0) return status;
    a->sign = bigSign;
    a->mantissa = static_cast<uint16_t>(m);
    a->exponent = static_cast<uint8_t>(e);
    return 0;
}

}  // namespace msf

using msf::SetZero;
using msf::StoreProduct;
using msf::Wrap16;

extern "C" {

int8_t MSFLOAT_I2F(MSFLOAT *a, int32_t value) { return msf::I2F(a, value); }

int8_t MSFLOAT_F2I(int32_t *out, const MSFLOAT *a) {
    if (a->exponent <= 111 || a->sign == 0) {
        *out = 0;
        return 0;
    }
    if (a->exponent > 143) return MSFLOAT_OVERFLOW;
    // At most 65535 * 32768 = 2147450880, so the negation below cannot overflow.
    const uint32_t m = (static_cast<uint32_t>(a->mantissa) * 32768u) >> (143u - a->exponent);
    *out = a->sign == -1 ? -static_cast<int32_t>(m) : static_cast<int32_t>(m);
    return 0;
}

int8_t MSFLOAT_Sign(const MSFLOAT *a) { return static_cast<int8_t>(a->sign + 1); }

int8_t MSFLOAT_OpMultiEq(MSFLOAT *a, const MSFLOAT *b) { return msf::OpMultiEq(a, b); }

int8_t MSFLOAT_OpDivEq(MSFLOAT *a, const MSFLOAT *b) { return msf::OpDivEq(a, b); }

int8_t MSFLOAT_OpShiftEq(MSFLOAT *a, int16_t n) { return msf::OpShiftEq(a, n); }

int8_t MSFLOAT_OpNeg(MSFLOAT *a) { return msf::OpNeg(a); }

int8_t MSFLOAT_OpAbs(MSFLOAT *a) {
    if (a->sign == -1) a->sign = 1;
    return 0;
}

int8_t MSFLOAT_AbsCompGreater(const MSFLOAT *a, const MSFLOAT *b) { return msf::AbsCompGreater(a, b); }

int8_t MSFLOAT_OpPlusEq(MSFLOAT *a, const MSFLOAT *b) { return msf::OpPlusEq(a, b); }

int8_t MSFLOAT_OpMinusEq(MSFLOAT *a, const MSFLOAT *b) { return msf::OpMinusEq(a, b); }

int8_t MSFLOAT_OpCompGreater(const MSFLOAT *a, const MSFLOAT *b) { return msf::OpCompGreater(a, b); }

int8_t MSFLOAT_Square(MSFLOAT *a) { return msf::Square(a); }

}  // extern "C"

namespace {

// floor(sqrt(x)), two bits of x per step. Always sixteen steps, unrolled: the leading
// ones only shift a zero root while x is small.
uint32_t IntegerSqrt(uint32_t x) {
    uint32_t root = 0;
#pragma GCC unroll 16
    for (uint32_t bit = 1u << 30; bit != 0; bit >>= 2) {
        if (x >= root + bit) {
            x -= root + bit;
            root = (root >> 1) + bit;
        } else {
            root >>= 1;
        }
    }
    return root;
}

}  // namespace

// The root's mantissa g is the largest in 32768..65535 whose square s(g) does not
// exceed m * 65536 (32768 when none does). For an odd exponent s(g) is 2 r(g)^2 with
// r(g) = g / sqrt 2 in 16-bit fixed point, (g * 46340) >> 16, and the result is scaled
// by 1/sqrt(2) at the end, so it is the root of m * 32768 rather than of m * 65536.
// s grows with g, so g follows from one integer root: the first version found it by
// bisection, and equals this one for every mantissa (numerics/msfloat_equiv).
extern "C" int8_t MSFLOAT_Sqrt(MSFLOAT *a) {
    if (a->sign < 0) return MSFLOAT_NEGSQRT;
    if (a->sign == 0) {
        SetZero(a);
        return 0;
    }
    const uint32_t m = a->mantissa, e = a->exponent, odd = e & 1u;
    uint32_t g;
    if (odd == 0) {
        g = IntegerSqrt(m << 16);  // at most 65535
    } else if (m >= 65534u) {
        // The root lies above what the scaled search can reach.
        a->mantissa = 46340;
        a->exponent = static_cast<uint8_t>((e >> 1) + 57u);
        return 0;
    } else {
        // 2 r^2 <= m * 65536 exactly when r <= R; the largest g with r(g) <= R follows,
        // (R + 1) * 65536 staying below 2^32 as R <= 46340.
        const uint32_t R = IntegerSqrt((m << 16) >> 1);
        g = (((R + 1u) << 16) - 1u) / 46340u;
        if (g > 65535u) g = 65535u;
    }
    if (g < 32768u) g = 32768u;
    a->sign = 1;
    a->mantissa = static_cast<uint16_t>(g);
    a->exponent = static_cast<uint8_t>(odd + (e >> 1) + 56u);  // 56..184
    if (odd != 0) (void)msf::OpMultiEq(a, &MSFLOAT_invsqrt2);
    return 0;
}
