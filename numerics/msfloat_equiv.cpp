#include "numerics/msfloat_equiv.h"

#include "numerics/msfloat_ops.h"
#include "numerics/msfloat_reference.h"
#include "numerics/numerics.h"
#include "numerics/splitmix.h"

namespace msfloat_equiv {
namespace {

using Rng = SplitMix64;

// Exponents where statuses change and conversions start or stop.
constexpr uint8_t kEdgeExponents[] = {0,   1,   2,   55,  56,  57,  110, 111, 112, 113, 114, 127,
                                      128, 129, 142, 143, 144, 145, 199, 200, 253, 254, 255};

MSFLOAT Operand(Rng &rng) {
    MSFLOAT v;
    v.sign = static_cast<int8_t>(rng.next() & 1 ? 1 : -1);
    v.exponent = static_cast<uint8_t>(rng.below(256));
    v.mantissa = static_cast<uint16_t>(32768u + rng.below(32768));
    switch (rng.below(16)) {
    case 0:  // zero
        v.sign = 0, v.exponent = 0, v.mantissa = 0;
        break;
    case 1:  // not normalised: any mantissa, zero included
        v.mantissa = static_cast<uint16_t>(rng.below(65536));
        break;
    case 2:
    case 3: v.exponent = kEdgeExponents[rng.below(sizeof kEdgeExponents)]; break;
    case 4:  // mantissa at its ends
        v.mantissa = rng.next() & 1 ? 0x8000 : 0xFFFF;
        break;
    default: break;
    }
    return v;
}

// Second operands near the first in exponent, so that sums and differences overlap.
MSFLOAT Partner(Rng &rng, const MSFLOAT &a) {
    MSFLOAT b = Operand(rng);
    if (rng.below(4) != 0) {
        const int e = a.exponent + static_cast<int>(rng.below(41)) - 20;
        b.exponent = static_cast<uint8_t>(e < 0 ? 0 : e > 255 ? 255 : e);
        if (rng.below(4) == 0) b.mantissa = static_cast<uint16_t>(a.mantissa ^ rng.below(8));  // near cancellation
    }
    return b;
}

int32_t Integer(Rng &rng) {
    switch (rng.below(8)) {
    case 0: {
        static constexpr int32_t kEdges[] = {0,     1,     -1,     32767,     32768,     -32768,
                                             65535, 65536, -65536, INT32_MAX, INT32_MIN, INT32_MIN + 1};
        return kEdges[rng.below(sizeof kEdges / sizeof kEdges[0])];
    }
    case 1:  // a power of two, plus or minus one
        return static_cast<int32_t>((1u << rng.below(31)) + rng.below(3) - 1u);
    default: {
        const uint32_t width = rng.below(33);  // every magnitude range equally often
        const uint32_t bits =
            width == 32 ? static_cast<uint32_t>(rng.next()) : static_cast<uint32_t>(rng.next()) & ((1u << width) - 1u);
        return static_cast<int32_t>(bits);
    }
    }
}

bool Same(const MSFLOAT &x, const MSFLOAT &y) {
    return x.sign == y.sign && x.exponent == y.exponent && x.mantissa == y.mantissa;
}

}  // namespace

namespace {

const char *const kNames[kOps] = {"I2F",
                                  "F2I",
                                  "Sign",
                                  "OpMultiEq",
                                  "OpDivEq",
                                  "OpShiftEq",
                                  "OpNeg",
                                  "OpAbs",
                                  "AbsCompGreater",
                                  "OpPlusEq",
                                  "OpMinusEq",
                                  "OpCompGreater",
                                  "Square",
                                  "Sqrt",
                                  "Sum::Add",
                                  "Sum::Subtract",
                                  "Sum::AddNonNegative"};

// Counts the cases and mismatches of each operation; logs the first ten mismatches.
struct Checker {
    Tally *t;
    FILE *log;
    uint64_t logged = 0;
    void operator()(int k, bool same, const MSFLOAT &a, const MSFLOAT &b) {
        ++t[k].cases;
        if (same) return;
        ++t[k].mismatches;
        if (log && ++logged <= 10)
            fprintf(log, "mismatch in %s: a (%d,%u,%u) b (%d,%u,%u)\n", kNames[k], a.sign, a.exponent, a.mantissa,
                    b.sign, b.exponent, b.mantissa);
    }
};

// Binary in-place operations, each also with its operand passed as both arguments.
void CompareBinary(Checker &check, const MSFLOAT &a, const MSFLOAT &b, bool alias) {
    using Lib = int8_t (*)(MSFLOAT *, const MSFLOAT *);
    static const Lib kLib[] = {MSFLOAT_OpMultiEq, MSFLOAT_OpDivEq, MSFLOAT_OpPlusEq, MSFLOAT_OpMinusEq};
    static const Lib kRef[] = {msfloat_reference::OpMultiEq, msfloat_reference::OpDivEq, msfloat_reference::OpPlusEq,
                               msfloat_reference::OpMinusEq};
    static const int kIndex[] = {3, 4, 9, 10};
    for (int op = 0; op < 4; ++op) {
        MSFLOAT x = a, y = a;
        const int8_t rx = alias ? kLib[op](&x, &x) : kLib[op](&x, &b);
        const int8_t ry = alias ? kRef[op](&y, &y) : kRef[op](&y, &b);
        check(kIndex[op], rx == ry && Same(x, y), a, b);
    }
    check(8, MSFLOAT_AbsCompGreater(&a, &b) == msfloat_reference::AbsCompGreater(&a, &b), a, b);
    check(11, MSFLOAT_OpCompGreater(&a, &b) == msfloat_reference::OpCompGreater(&a, &b), a, b);
}

// Conversions and the operations on one operand.
void CompareUnary(Checker &check, Rng &rng, const MSFLOAT &a, const MSFLOAT &b) {
    {
        MSFLOAT x, y;
        const int32_t v = Integer(rng);
        const int8_t rx = MSFLOAT_I2F(&x, v), ry = msfloat_reference::I2F(&y, v);
        check(0, rx == ry && Same(x, y), a, MSFLOAT{0, 0, 0});
    }
    {
        int32_t x = 1, y = 1;
        const int8_t rx = MSFLOAT_F2I(&x, &a), ry = msfloat_reference::F2I(&y, &a);
        check(1, rx == ry && x == y, a, b);
    }
    check(2, MSFLOAT_Sign(&a) == msfloat_reference::Sign(&a), a, b);
    const int16_t n = static_cast<int16_t>(static_cast<int32_t>(rng.below(601)) - 300);
    MSFLOAT x = a, y = a;
    const int8_t rx = MSFLOAT_OpShiftEq(&x, n), ry = msfloat_reference::OpShiftEq(&y, n);
    check(5, rx == ry && Same(x, y), a, b);
    x = a, y = a;
    check(6, MSFLOAT_OpNeg(&x) == msfloat_reference::OpNeg(&y) && Same(x, y), a, b);
    x = a, y = a;
    check(7, MSFLOAT_OpAbs(&x) == msfloat_reference::OpAbs(&y) && Same(x, y), a, b);
    x = a, y = a;
    check(12, MSFLOAT_Square(&x) == msfloat_reference::Square(&y) && Same(x, y), a, b);
    x = a, y = a;
    check(13, MSFLOAT_Sqrt(&x) == msfloat_reference::Sqrt(&y) && Same(x, y), a, b);
}

// The loops' register sum (its status dropped) against the first OpPlusEq/OpMinusEq.
void CompareSums(Checker &check, const MSFLOAT &a, const MSFLOAT &b) {
    for (int op = 0; op < 2; ++op) {
        msf::Sum sum;
        sum.sign = a.sign;
        sum.exponent = a.exponent;
        sum.mantissa = a.mantissa;
        MSFLOAT x, y = a;
        if (op == 0) {
            sum.Add(b);
            (void)msfloat_reference::OpPlusEq(&y, &b);
        } else {
            sum.Subtract(b);
            (void)msfloat_reference::OpMinusEq(&y, &b);
        }
        sum.Store(&x);
        check(14 + op, Same(x, y), a, b);
    }
    // Its short form for sums of zero or positive normalised terms.
    auto nonNegative = [](MSFLOAT v) {
        if (v.sign == 0 || (v.mantissa & 0x8000u) == 0) return MSFLOAT{0, 0, 0};
        return MSFLOAT{1, v.exponent, v.mantissa};
    };
    const MSFLOAT p = nonNegative(a), r = nonNegative(b);
    msf::Sum sum;
    sum.AddNonNegative(p);
    sum.AddNonNegative(r);
    MSFLOAT x, y = p;
    (void)msfloat_reference::OpPlusEq(&y, &r);
    sum.Store(&x);
    check(16, Same(x, y), p, r);
}

}  // namespace

uint64_t Run(uint64_t cases, uint64_t seed, Tally t[kOps], FILE *log) {
    for (int k = 0; k < kOps; ++k) t[k] = Tally{kNames[k], 0, 0};
    Rng rng{seed};
    Checker check{t, log};
    for (uint64_t i = 0; i < cases; ++i) {
        const MSFLOAT a = Operand(rng), b = Partner(rng, a);
        CompareBinary(check, a, b, (i & 15) == 0);
        CompareUnary(check, rng, a, b);
        CompareSums(check, a, b);
    }
    uint64_t total = 0;
    for (int k = 0; k < kOps; ++k) total += t[k].mismatches;
    return total;
}

uint64_t SqrtSweep(int exponentFrom, int exponentTo, FILE *log) {
    uint64_t mismatches = 0;
    for (int e = exponentFrom; e <= exponentTo; ++e)
        for (uint32_t m = 0; m <= 0xFFFFu; ++m)
            for (int s = 0; s < 2; ++s) {
                const MSFLOAT a{static_cast<int8_t>(s == 0 ? 1 : -1), static_cast<uint8_t>(e),
                                static_cast<uint16_t>(m)};
                MSFLOAT x = a, y = a;
                if (MSFLOAT_Sqrt(&x) == msfloat_reference::Sqrt(&y) && Same(x, y)) continue;
                if (++mismatches <= 10 && log) fprintf(log, "Sqrt differs for (%d,%d,%u)\n", a.sign, e, m);
            }
    return mismatches;
}

}  // namespace msfloat_equiv
