// The first MSFLOAT implementation, kept unchanged as the oracle the library's faster
// one must match bit for bit (numerics/msfloat_equiv and the equivalence test). It
// normalises one bit per loop step, exactly as written first; never linked into the
// library.
#include <stdint.h>

#include "numerics/numerics.h"
#include "numerics/numerics_internal.h"
#include "numerics/msfloat_reference.h"

namespace msfloat_reference {
namespace {

constexpr int8_t kOk = 0;

// The working exponent is a signed 16-bit number; anything wider wraps into it.
constexpr int16_t Wrap16(int32_t v) {
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v) & 0xFFFFu));
}

// Shifts the working mantissa left until bit 15 is set, one exponent step per bit.
// A zero mantissa (only from a non-normalised operand) is left alone rather than
// looping forever.
void Normalise(uint32_t &m, int16_t &e) {
    while (m != 0 && (m & 0x8000u) == 0) {
        m <<= 1;
        e = Wrap16(e - 1);
    }
}

// 0 when the exponent fits 0..255, otherwise the status that reports it.
int8_t ExponentStatus(int16_t e) {
    if (e < 0) return MSFLOAT_UNDERFLOW;
    if (e > 255) return MSFLOAT_OVERFLOW;
    return kOk;
}

void SetZero(MSFLOAT *a) {
    a->sign = 0;
    a->exponent = 0;
    a->mantissa = 0;
}

// Common tail of multiplication and division: sign and mantissa are written
// before the exponent check, the exponent only when it passes.
int8_t StoreProduct(MSFLOAT *a, int8_t sign, uint32_t m, int16_t e) {
    Normalise(m, e);
    a->sign = sign;
    a->mantissa = static_cast<uint16_t>(m & 0xFFFFu);
    const int8_t status = ExponentStatus(e);
    if (status == kOk) a->exponent = static_cast<uint8_t>(e);
    return status;
}

}  // namespace

int8_t I2F(MSFLOAT *a, int32_t value) {
    SetZero(a);
    if (value == 0) return kOk;
    uint32_t m;
    if (value > 0) {
        a->sign = 1;
        m = static_cast<uint32_t>(value);
    } else {
        a->sign = -1;
        m = 0u - static_cast<uint32_t>(value);  // -2147483648 gives 2147483648
    }
    int16_t e = 128;
    while (m >= 65536u) {
        m >>= 1;
        ++e;
    }
    Normalise(m, e);  // exponent ends within 113..144: no check needed
    a->mantissa = static_cast<uint16_t>(m);
    a->exponent = static_cast<uint8_t>(e);
    return kOk;
}

int8_t F2I(int32_t *out, const MSFLOAT *a) {
    if (a->exponent <= 111 || a->sign == 0) {
        *out = 0;
        return kOk;
    }
    if (a->exponent > 143) return MSFLOAT_OVERFLOW;
    // At most 65535 * 32768 = 2147450880, so the negation below cannot overflow.
    const uint32_t m = (static_cast<uint32_t>(a->mantissa) * 32768u) >> (143u - a->exponent);
    *out = a->sign == -1 ? -static_cast<int32_t>(m) : static_cast<int32_t>(m);
    return kOk;
}

int8_t Sign(const MSFLOAT *a) { return static_cast<int8_t>(a->sign + 1); }

int8_t OpMultiEq(MSFLOAT *a, const MSFLOAT *b) {
    if (a->sign == 0 || b->sign == 0) {
        SetZero(a);
        return kOk;
    }
    const int8_t sign = a->sign == b->sign ? 1 : -1;
    const uint32_t m = (static_cast<uint32_t>(a->mantissa) * b->mantissa) >> 16;
    const int16_t e = Wrap16(int32_t{a->exponent} + b->exponent - 112);
    return StoreProduct(a, sign, m, e);
}

int8_t OpDivEq(MSFLOAT *a, const MSFLOAT *b) {
    // A non-zero sign with a zero mantissa is not a valid operand; it is refused like
    // zero rather than divided by.
    if (b->sign == 0 || b->mantissa == 0) return MSFLOAT_DIVZERO;
    if (a->sign == 0) {
        SetZero(a);
        return kOk;
    }
    const int8_t sign = a->sign == b->sign ? 1 : -1;
    uint32_t q = (static_cast<uint32_t>(a->mantissa) << 16) / b->mantissa;
    q = (q >> 1) & 0xFFFFu;
    const int16_t e = Wrap16(int32_t{a->exponent} - b->exponent + 113);
    return StoreProduct(a, sign, q, e);
}

int8_t OpShiftEq(MSFLOAT *a, int16_t n) {
    if (a->sign == 0) return kOk;
    const int16_t e = Wrap16(int32_t{a->exponent} + n);
    const int8_t status = ExponentStatus(e);
    if (status == kOk) a->exponent = static_cast<uint8_t>(e);
    return status;
}

int8_t OpNeg(MSFLOAT *a) {
    a->sign = static_cast<int8_t>(static_cast<uint8_t>(0u - static_cast<uint8_t>(a->sign)));
    return kOk;
}

int8_t OpAbs(MSFLOAT *a) {
    if (a->sign == -1) a->sign = 1;
    return kOk;
}

int8_t AbsCompGreater(const MSFLOAT *a, const MSFLOAT *b) {
    if (a->mantissa == 0) return 0;
    if (b->mantissa == 0) return 1;
    if (a->exponent != b->exponent) return a->exponent > b->exponent ? 1 : 0;
    return a->mantissa > b->mantissa ? 1 : 0;
}

int8_t OpPlusEq(MSFLOAT *a, const MSFLOAT *b) {
    if (a->sign == 0) {
        *a = *b;
        return kOk;
    }
    if (b->sign == 0) return kOk;
    // Both operands are read completely before a is written (b may be a).
    const MSFLOAT left = *a;
    const MSFLOAT right = *b;
    const bool leftBigger = AbsCompGreater(&left, &right) == 1;
    const MSFLOAT &big = leftBigger ? left : right;  // equal magnitudes: big is b
    const MSFLOAT &small = leftBigger ? right : left;
    int32_t d = int32_t{big.exponent} - small.exponent;
    if (d < 0) d = 0;  // only with a non-normalised (zero-mantissa) operand
    if (d > 16) {
        *a = big;
        return kOk;
    }
    uint32_t m;
    int16_t e;
    if (big.sign == small.sign) {
        m = uint32_t{big.mantissa} + (uint32_t{small.mantissa} >> d);
        e = big.exponent;
    } else {
        // One guard bit: exact for d <= 1; beyond that the dropped low bits of small
        // leave the result above the exact difference by under one guard-bit unit.
        m = 2u * big.mantissa - ((2u * small.mantissa) >> d);
        e = Wrap16(int32_t{big.exponent} - 1);
    }
    while (m >= 65536u) {
        m >>= 1;
        e = Wrap16(e + 1);
    }
    if (m == 0) {
        SetZero(a);
        return kOk;
    }
    Normalise(m, e);
    const int8_t status = ExponentStatus(e);
    if (status != kOk) return status;
    a->sign = big.sign;
    a->mantissa = static_cast<uint16_t>(m);
    a->exponent = static_cast<uint8_t>(e);
    return kOk;
}

int8_t OpMinusEq(MSFLOAT *a, const MSFLOAT *b) {
    MSFLOAT negated = *b;
    OpNeg(&negated);
    return OpPlusEq(a, &negated);
}

int8_t OpCompGreater(const MSFLOAT *a, const MSFLOAT *b) {
    if (a->sign == 1) return b->sign == -1 ? 1 : AbsCompGreater(a, b);
    if (b->sign != -1) return 0;
    return AbsCompGreater(b, a);
}

int8_t Square(MSFLOAT *a) {
    const MSFLOAT copy = *a;
    return OpMultiEq(a, &copy);
}

// Integer bisection for the root's mantissa. For an odd exponent the trial g is
// tested as 2 * (g / sqrt 2)^2 and the result scaled by 1/sqrt(2) at the end, so the
// result is the integer root of m * 32768 rather than of m * 65536.
int8_t Sqrt(MSFLOAT *a) {
    if (a->sign < 0) return MSFLOAT_NEGSQRT;
    if (a->sign == 0) {
        *a = MSFLOAT_0;
        return kOk;
    }
    const uint32_t m = a->mantissa;
    const uint32_t e = a->exponent;
    const uint32_t odd = e & 1u;
    const uint32_t target = m << 16;
    if (odd != 0 && m >= 65534u) {
        // The root lies above what the scaled bisection can reach.
        a->mantissa = 46340;
        a->exponent = static_cast<uint8_t>((e >> 1) + 57u);
        return kOk;
    }
    uint32_t lo = 32768, hi = 65536, g = 49152;
    for (int i = 0; i < 15; ++i) {
        uint32_t s;
        if (odd == 0) {
            s = g * g;
        } else {
            const uint32_t r = (g * 46340u) >> 16;
            s = 2u * r * r;
        }
        if (s > target) {
            hi = g;
        } else {
            lo = g;
        }
        g = (lo + hi) >> 1;
    }
    a->sign = 1;
    a->mantissa = static_cast<uint16_t>(g);
    a->exponent = static_cast<uint8_t>(odd + (e >> 1) + 56u);  // 56..184
    if (odd != 0) (void)OpMultiEq(a, &MSFLOAT_invsqrt2);
    return kOk;
}

}  // namespace msfloat_reference
