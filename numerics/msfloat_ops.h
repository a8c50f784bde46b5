// MSFLOAT operations as inline functions, for the library's own hot loops (the
// calibration's statistics, the solver, Jacobi): the exported MSFLOAT_* functions are
// these, and callers inside the library use them directly so the compiler can inline
// them; the service kit's arctangent takes its mantissa quotient. Not part of any
// interface.
//
// Normalisation counts leading zeros (std::countl_zero: CLZ on ARMv5TE, LZCNT/BSR on
// x86-64) instead of shifting one bit per step; the results are the step-by-step
// ones bit for bit (numerics/msfloat_equiv compares them with the first version).
#ifndef KMXC_NUMERICS_MSFLOAT_OPS_H
#define KMXC_NUMERICS_MSFLOAT_OPS_H

#include <stdint.h>

#include <bit>

#include "numerics/numerics.h"

namespace msf {

// The working exponent is a signed 16-bit number; anything wider wraps into it.
constexpr int16_t Wrap16(int32_t v) {
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v) & 0xFFFFu));
}

// Shifts a working mantissa below 2^16 left until bit 15 is set, lowering the exponent
// by the same count. A zero mantissa (only from a non-normalised operand) stays zero.
inline void Normalise(uint32_t &m, int16_t &e) {
    if (m == 0 || m >= 0x8000u) return;
    const int shift = std::countl_zero(m) - 16;
    m <<= shift;
    e = Wrap16(e - shift);
}

// 0 when the exponent fits 0..255, otherwise the status that reports it.
inline int8_t ExponentStatus(int16_t e) {
    if (e < 0) return MSFLOAT_UNDERFLOW;
    if (e > 255) return MSFLOAT_OVERFLOW;
    return 0;
}

inline void SetZero(MSFLOAT *a) {
    a->sign = 0;
    a->exponent = 0;
    a->mantissa = 0;
}

// Common tail of multiplication and division: sign and mantissa are written before
// the exponent check, the exponent only when it passes.
inline int8_t StoreProduct(MSFLOAT *a, int8_t sign, uint32_t m, int16_t e) {
    Normalise(m, e);
    a->sign = sign;
    a->mantissa = static_cast<uint16_t>(m & 0xFFFFu);
    const int8_t status = ExponentStatus(e);
    if (status == 0) a->exponent = static_cast<uint8_t>(e);
    return status;
}

// Whether the target divides in hardware. ARMv5TE does not: its division is a library
// routine of some sixty instructions, which the quotient below replaces.
#if defined(__arm__) && !defined(__ARM_FEATURE_IDIV)
constexpr bool kHardwareDivide = false;
#else
constexpr bool kHardwareDivide = true;
#endif

// 2^24 / (257 + i), rounded down: a reciprocal of every divisor in
// [(256 + i) * 128, (257 + i) * 128) to eight bits, never above it.
constexpr struct ReciprocalTable {
    uint16_t entry[256];
    constexpr ReciprocalTable() : entry{} {
        for (uint32_t i = 0; i < 256; ++i) entry[i] = static_cast<uint16_t>((1u << 24) / (257u + i));
    }
} kReciprocal;

// n / d rounded down, for d in [2^15, 2^16), by multiplication: a table reciprocal,
// one Newton step (from below, so it stays below 2^46 / d), a product and at most a
// few corrections. The same quotient as the division, for every n and such d.
inline uint32_t QuotientByReciprocal(uint32_t n, uint32_t d) {
    const uint32_t x0 = static_cast<uint32_t>(kReciprocal.entry[(d >> 7) - 256u]) << 15;
    const uint64_t error = (uint64_t{1} << 46) - uint64_t{d} * x0;  // below 2^39
    const uint32_t x1 = x0 + static_cast<uint32_t>((uint64_t{x0} * static_cast<uint32_t>(error >> 8)) >> 38);
    uint32_t q = static_cast<uint32_t>((uint64_t{n} * x1) >> 46);
    uint32_t r = n - q * d;
    while (r >= d) {
        ++q;
        r -= d;
    }
    return q;
}

// (am * 2^16) / bm rounded down, bm non-zero: the mantissa quotient of a division.
inline uint32_t MantissaQuotient(uint32_t am, uint32_t bm) {
    const uint32_t n = am << 16;
    if (kHardwareDivide || bm < 0x8000u) return n / bm;
    return QuotientByReciprocal(n, bm);
}

inline int8_t I2F(MSFLOAT *a, int32_t value) {
    if (value == 0) {
        SetZero(a);
        return 0;
    }
    // -2147483648 gives 2147483648.
    const uint32_t magnitude = value > 0 ? static_cast<uint32_t>(value) : 0u - static_cast<uint32_t>(value);
    // Keep the 16 leading bits: drop the low ones of a wide value, or shift a narrow
    // one up. The exponent ends within 113..144.
    const int width = 32 - std::countl_zero(magnitude);
    const int shift = width - 16;
    a->sign = static_cast<int8_t>(value > 0 ? 1 : -1);
    a->mantissa = static_cast<uint16_t>(shift >= 0 ? magnitude >> shift : magnitude << -shift);
    a->exponent = static_cast<uint8_t>(128 + shift);
    return 0;
}

inline int8_t OpMultiEq(MSFLOAT *a, const MSFLOAT *b) {
    if (a->sign == 0 || b->sign == 0) {
        SetZero(a);
        return 0;
    }
    const int8_t sign = a->sign == b->sign ? 1 : -1;
    const uint32_t m = (static_cast<uint32_t>(a->mantissa) * b->mantissa) >> 16;
    const int16_t e = Wrap16(int32_t{a->exponent} + b->exponent - 112);
    return StoreProduct(a, sign, m, e);
}

inline int8_t OpDivEq(MSFLOAT *a, const MSFLOAT *b) {
    // A non-zero sign with a zero mantissa is not a valid operand; it is refused like
    // zero rather than divided by.
    if (b->sign == 0 || b->mantissa == 0) return MSFLOAT_DIVZERO;
    if (a->sign == 0) {
        SetZero(a);
        return 0;
    }
    const int8_t sign = a->sign == b->sign ? 1 : -1;
    uint32_t q = MantissaQuotient(a->mantissa, b->mantissa);
    q = (q >> 1) & 0xFFFFu;
    const int16_t e = Wrap16(int32_t{a->exponent} - b->exponent + 113);
    return StoreProduct(a, sign, q, e);
}

inline int8_t Square(MSFLOAT *a) {
    const MSFLOAT copy{a->sign, a->exponent, a->mantissa};
    return OpMultiEq(a, &copy);
}

inline int8_t OpShiftEq(MSFLOAT *a, int16_t n) {
    if (a->sign == 0) return 0;
    const int16_t e = Wrap16(int32_t{a->exponent} + n);
    const int8_t status = ExponentStatus(e);
    if (status == 0) a->exponent = static_cast<uint8_t>(e);
    return status;
}

inline int8_t OpNeg(MSFLOAT *a) {
    a->sign = static_cast<int8_t>(static_cast<uint8_t>(0u - static_cast<uint8_t>(a->sign)));
    return 0;
}

// Field by field: a whole-record copy of this 2-byte-aligned record becomes a memcpy
// call on ARMv5TE.
inline void Copy(MSFLOAT *to, const MSFLOAT &from) {
    to->sign = from.sign;
    to->exponent = from.exponent;
    to->mantissa = from.mantissa;
}

// |a| > |b| on the fields; a zero mantissa counts as the smallest magnitude.
inline bool AbsGreater(uint32_t am, uint32_t ae, uint32_t bm, uint32_t be) {
    if (am == 0) return false;
    if (bm == 0) return true;
    if (ae != be) return ae > be;
    return am > bm;
}

inline int8_t AbsCompGreater(const MSFLOAT *a, const MSFLOAT *b) {
    return AbsGreater(a->mantissa, a->exponent, b->mantissa, b->exponent) ? 1 : 0;
}

inline int8_t OpCompGreater(const MSFLOAT *a, const MSFLOAT *b) {
    if (a->sign == 1) return b->sign == -1 ? 1 : AbsCompGreater(a, b);
    if (b->sign != -1) return 0;
    return AbsCompGreater(b, a);
}

// a += (bs, be, bm) for every case but the common one (see PlusEq).
int8_t PlusEqGeneral(MSFLOAT *a, int8_t bs, uint8_t be, uint16_t bm);

// Addition on the fields of an MSFLOAT held as words, so that a running sum stays in
// registers; PlusEq is this on a record. Add returns the status of the addition: a sum
// that would leave the exponent range stays as it was.
// Zeros and two normalised operands of either sign are added inline; non-normalised
// operands go through the general steps.
struct Sum {
    int32_t sign = 0;
    uint32_t exponent = 0, mantissa = 0;

    [[gnu::always_inline]] int8_t Add(int32_t bs, uint32_t be, uint32_t bm) {
        if (sign == 0) {  // the first term of a sum: taken as it is
            sign = bs;
            exponent = be;
            mantissa = bm;
            return 0;
        }
        if (bs == 0) return 0;
        if (mantissa < 0x8000u || bm < 0x8000u) {
            MSFLOAT t{static_cast<int8_t>(sign), static_cast<uint8_t>(exponent), static_cast<uint16_t>(mantissa)};
            const int8_t status =
                PlusEqGeneral(&t, static_cast<int8_t>(bs), static_cast<uint8_t>(be), static_cast<uint16_t>(bm));
            sign = t.sign;
            exponent = t.exponent;
            mantissa = t.mantissa;
            return status;
        }
        if (sign == bs) return AddSameSign(be, bm);
        uint32_t bigExp, bigMan, smallMan, d;
        const bool aBig = Order(be, bm, bigExp, bigMan, smallMan, d);
        const int32_t bigSign = aBig ? sign : bs;
        if (d > 16) {
            sign = bigSign;
            exponent = bigExp;
            mantissa = bigMan;
            return 0;
        }
        // Opposite signs, with one guard bit as in the general steps.
        uint32_t m = 2u * bigMan - ((2u * smallMan) >> d);
        int32_t e = static_cast<int32_t>(bigExp) - 1;
        if (m >= 65536u) {  // below 2^17
            m >>= 1;
            ++e;
        }
        if (m == 0) {
            sign = 0;
            exponent = 0;
            mantissa = 0;
            return 0;
        }
        if (m < 0x8000u) {
            const int shift = std::countl_zero(m) - 16;
            m <<= shift;
            e -= shift;
        }
        if (e < 0) return MSFLOAT_UNDERFLOW;  // unchanged
        sign = bigSign;
        exponent = static_cast<uint32_t>(e);
        mantissa = m;
        return 0;
    }
    [[gnu::always_inline]] void Add(const MSFLOAT &b) { (void)Add(b.sign, b.exponent, b.mantissa); }
    // Add for a term that is zero or positive and normalised (I2F of a non-negative
    // integer) into a sum of such terms: the same result without the tests of signs
    // and normalisation.
    [[gnu::always_inline]] void AddNonNegative(const MSFLOAT &b) {
        if (b.sign == 0) return;
        if (sign == 0) {
            sign = b.sign;
            exponent = b.exponent;
            mantissa = b.mantissa;
            return;
        }
        (void)AddSameSign(b.exponent, b.mantissa);
    }
    // Adds I2F(value), converted in registers.
    [[gnu::always_inline]] void AddInteger(int32_t value) {
        if (value == 0) {
            (void)Add(0, 0, 0);
            return;
        }
        const uint32_t magnitude = value > 0 ? static_cast<uint32_t>(value) : 0u - static_cast<uint32_t>(value);
        const int shift = 16 - std::countl_zero(magnitude);
        (void)Add(value > 0 ? 1 : -1, static_cast<uint32_t>(128 + shift),
                  (shift >= 0 ? magnitude >> shift : magnitude << -shift) & 0xFFFFu);
    }
    void Subtract(const MSFLOAT &b) {
        (void)Add(static_cast<int8_t>(static_cast<uint8_t>(0u - static_cast<uint8_t>(b.sign))), b.exponent, b.mantissa);
    }
    // The sum and b by magnitude (a tie: big is b) and their exponents' distance;
    // whether the sum is the bigger.
    [[gnu::always_inline]] bool Order(uint32_t be, uint32_t bm, uint32_t &bigExp, uint32_t &bigMan, uint32_t &smallMan,
                                      uint32_t &d) const {
        const bool aBig = exponent > be || (exponent == be && mantissa > bm);
        bigExp = aBig ? exponent : be;
        bigMan = aBig ? mantissa : bm;
        smallMan = aBig ? bm : mantissa;
        d = bigExp - (aBig ? be : exponent);
        return aBig;
    }
    // Two normalised operands of one sign: no borrow, at most one carry.
    [[gnu::always_inline]] int8_t AddSameSign(uint32_t be, uint32_t bm) {
        uint32_t bigExp, bigMan, smallMan, d;
        (void)Order(be, bm, bigExp, bigMan, smallMan, d);
        if (d > 16) {
            exponent = bigExp;
            mantissa = bigMan;
            return 0;
        }
        uint32_t m = bigMan + (smallMan >> d);
        uint32_t e = bigExp;
        if (m >= 65536u) {
            m >>= 1;
            if (++e > 255u) return MSFLOAT_OVERFLOW;  // unchanged
        }
        exponent = e;
        mantissa = m;
        return 0;
    }
    void Store(MSFLOAT *out) const {
        out->sign = static_cast<int8_t>(sign);
        out->exponent = static_cast<uint8_t>(exponent);
        out->mantissa = static_cast<uint16_t>(mantissa);
    }
};

// a += (bs, be, bm). The second operand arrives as values, so a may alias it.
inline int8_t PlusEq(MSFLOAT *a, int8_t bs, uint8_t be, uint16_t bm) {
    Sum sum{a->sign, a->exponent, a->mantissa};
    const int8_t status = sum.Add(bs, be, bm);
    sum.Store(a);
    return status;
}

inline int8_t OpPlusEq(MSFLOAT *a, const MSFLOAT *b) { return PlusEq(a, b->sign, b->exponent, b->mantissa); }

[[gnu::always_inline]] inline int8_t OpMinusEq(MSFLOAT *a, const MSFLOAT *b) {
    const int8_t negated = static_cast<int8_t>(static_cast<uint8_t>(0u - static_cast<uint8_t>(b->sign)));
    return PlusEq(a, negated, b->exponent, b->mantissa);
}

}  // namespace msf

#endif  // KMXC_NUMERICS_MSFLOAT_OPS_H
