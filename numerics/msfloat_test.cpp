// MSFLOAT against exact integer arithmetic: results are checked against the exact
// value truncated to 16 significant bits, not against the steps. Every exact value
// here fits 64 bits (mantissas are 16 bits, shifts at most 40), so the check runs
// unchanged on 32-bit targets, which have no 128-bit integer.
#include <gtest/gtest.h>

#include "numerics/msfloat_equiv.h"
#include "numerics/msfloat_ops.h"
#include "numerics/numerics_test_util.h"

namespace {
using u64 = uint64_t;
int Status(int e) { return e < 0 ? MSFLOAT_UNDERFLOW : e > 255 ? MSFLOAT_OVERFLOW : 0; }
// Exact magnitude m * 2^(e-128) truncated to 16 significant bits; e may leave 0..255.
struct Trunc {
    int m, e;
};
Trunc Trunc16(u64 m, int e) {
    while (m >= 65536) m >>= 1, ++e;
    while (m < 32768) m <<= 1, --e;
    return {int(m), e};
}
MSFLOAT Random(std::mt19937 &rng, int eLo = 0, int eHi = 255) {
    return F(rng() & 1 ? 1 : -1, std::uniform_int_distribution(eLo, eHi)(rng),
             std::uniform_int_distribution(32768, 65535)(rng));
}

enum Op { kMul, kDiv, kAdd, kSub, kShift, kSquare, kSqrt };
int Apply(Op op, MSFLOAT *a, const MSFLOAT *b, int n) {
    if (op >= kShift)
        return op == kShift ? MSFLOAT_OpShiftEq(a, int16_t(n)) : op == kSquare ? MSFLOAT_Square(a) : MSFLOAT_Sqrt(a);
    return (op == kMul   ? MSFLOAT_OpMultiEq
            : op == kDiv ? MSFLOAT_OpDivEq
            : op == kAdd ? MSFLOAT_OpPlusEq
                         : MSFLOAT_OpMinusEq)(a, b);
}

// What the random properties below do not reach: zeros, the refusals, shifts, and the
// fields left behind by a failed square (its exponent kept).
TEST(MsfloatEdge, Operations) {
    struct {
        const char *name;
        Op op;
        MSFLOAT a, b;
        int n;
        MSFLOAT want;
        int status;
    } cases[] = {
        {"square overflow: sign, mantissa written", kSquare, F(-1, 200, 49152), {}, 0, F(1, 200, 36864), -127},
        {"square underflow: sign, mantissa written", kSquare, F(-1, 10, 49152), {}, 0, F(1, 10, 36864), -126},
        {"0 / x is zero", kDiv, MSFLOAT_0, I(-3), 0, MSFLOAT_0, 0},
        {"x / 0 refused, dividend kept", kDiv, I(5), MSFLOAT_0, 0, I(5), -2},
        {"0 x x is zero", kMul, MSFLOAT_0, I(-3), 0, MSFLOAT_0, 0},
        {"0 + x copies x", kAdd, MSFLOAT_0, F(-1, 3, 40000), 0, F(-1, 3, 40000), 0},
        {"x - 0 is x", kSub, F(-1, 3, 40000), MSFLOAT_0, 0, F(-1, 3, 40000), 0},
        {"1 - 2^-16 is exact through the guard bit", kSub, I(1), F(1, 97, 32768), 0, F(1, 112, 65535), 0},
        {"shift past 255 leaves the operand", kShift, F(1, 255, 32768), {}, 1, F(1, 255, 32768), -127},
        {"shift below 0 leaves the operand", kShift, F(-1, 3, 40000), {}, -4, F(-1, 3, 40000), -126},
        {"shift by -24 in range", kShift, F(-1, 30, 40000), {}, -24, F(-1, 6, 40000), 0},
        {"shift of zero stays zero", kShift, MSFLOAT_0, {}, 10, MSFLOAT_0, 0},
        {"shift exponent wraps as signed 16-bit", kShift, F(1, 200, 32768), {}, 32767, F(1, 200, 32768), -126},
        {"sqrt(0)", kSqrt, MSFLOAT_0, {}, 0, MSFLOAT_0, 0},
        {"sqrt(-1) refused, operand kept", kSqrt, I(-1), {}, 0, I(-1), -1},
    };
    for (const auto &c : cases) {
        MSFLOAT a = c.a;
        EXPECT_EQ(Apply(c.op, &a, &c.b, c.n), c.status) << c.name;
        EXPECT_EQ(a, c.want) << c.name;
    }
}

// Products, quotients and same-sign sums equal the exact result truncated to 16
// significant bits over the whole exponent range, with the status exactly where the
// exact exponent leaves 0..255 and the documented fields written on failure. A product
// of mantissas below 2^31, or a quotient of mantissas below 1, keeps only 15 bits:
// normalising it shifts a zero into the last bit. Every 8th case passes a as b too.
TEST(MsfloatProperty, TruncatedExactResults) {
    std::mt19937 rng(31);
    for (int i = 0; i < 200000; ++i) {
        const Op op = Op(i % 3);
        MSFLOAT a = Random(rng), b = i % 8 == 0 ? a : Random(rng);
        if (op == kAdd && i % 8)
            b.sign = a.sign, b.exponent = uint8_t(std::clamp(a.exponent + int(rng() % 41) - 20, 0, 255));
        Trunc t{};
        if (op == kMul) t = Trunc16(u64(a.mantissa) * b.mantissa, a.exponent + b.exponent - 128);
        if (op == kMul && uint32_t(a.mantissa) * b.mantissa < 0x80000000u) t.m &= 0xFFFE;
        if (op == kDiv) t = Trunc16((u64(a.mantissa) << 40) / b.mantissa, a.exponent - b.exponent + 88);
        if (op == kDiv && a.mantissa < b.mantissa) t.m &= 0xFFFE;
        if (op == kAdd) {
            const MSFLOAT &big = MSFLOAT_AbsCompGreater(&a, &b) ? a : b, &small = &big == &a ? b : a;
            const int d = big.exponent - small.exponent;
            t = d > 40 ? Trunc{big.mantissa, big.exponent}
                       : Trunc16((u64(big.mantissa) << d) + small.mantissa, small.exponent);
        }
        const MSFLOAT before = a, right = b;
        const int status = Apply(op, &a, i % 8 == 0 ? &a : &b, 0);
        ASSERT_EQ(status, Status(t.e)) << op << before << right;
        const int8_t sign = op == kAdd ? before.sign : int8_t(before.sign * right.sign);
        const MSFLOAT want = status != 0 && op == kAdd ? before : F(sign, status ? before.exponent : t.e, t.m);
        ASSERT_EQ(a, want) << op << before << right;
    }
}

// Differences: exact, then truncated, when the exponents differ by at most 1; otherwise
// within one unit u of the guard bit, 2^(big exponent - 129): the working difference
// lies in [exact, exact + u) and a carry-out may drop one more u. Exact cancellation
// gives all-zero fields.
TEST(MsfloatProperty, DifferencesWithinGuardBit) {
    std::mt19937 rng(32);
    for (int i = 0; i < 100000; ++i) {
        MSFLOAT a = Random(rng, 30, 230), b = Random(rng);
        b.sign = int8_t(-a.sign);
        b.exponent = uint8_t(a.exponent - int(rng() % 24));
        if (i % 8 == 0) b.mantissa = uint16_t(std::max<int>(32768, a.mantissa - rng() % 4));  // deep cancellation
        const int d = a.exponent - b.exponent;
        if (d == 0 && b.mantissa > a.mantissa) std::swap(a.mantissa, b.mantissa);  // a is the bigger
        const int64_t exact = (int64_t(a.mantissa) << d) - b.mantissa;             // in units 2^(b.e-128)
        MSFLOAT r = a;
        ASSERT_EQ(MSFLOAT_OpPlusEq(&r, &b), 0);
        if (exact == 0) {
            ASSERT_EQ(r, MSFLOAT_0);
            continue;
        }
        const Trunc t = Trunc16(u64(exact), b.exponent);
        if (d <= 1) { ASSERT_EQ(r, F(a.sign, t.e, t.m)) << a << b; }
        ASSERT_EQ(r.sign, a.sign);
        const int base = std::min({int(r.exponent), int(b.exponent), a.exponent - 1});  // common unit 2^(base-128)
        const int64_t err = (int64_t(r.mantissa) << (r.exponent - base)) - (exact << (b.exponent - base));
        const int64_t unit = int64_t(1) << (a.exponent - 1 - base);
        ASSERT_GE(err, -unit) << a << b << r;
        ASSERT_LT(err, unit) << a << b << r;
    }
}

// Every mantissa, both exponent parities at the range's edges and its middle: the
// integer root of m * 65536 (even) or m * 32768 (odd), including the odd-exponent
// shortcut at 65534 and 65535.
TEST(MsfloatProperty, SqrtIsTheIntegerRootForEveryMantissa) {
    for (int e : {0, 1, 128, 129, 254, 255}) {
        for (int m = 32768; m < 65536; ++m) {
            const uint64_t x = uint64_t(m) << (e % 2 ? 15 : 16);
            const int root = int(std::sqrt(double(x)));  // exact: x < 2^32 and double's sqrt is correctly rounded
            MSFLOAT a = F(1, e, m);
            ASSERT_EQ(MSFLOAT_Sqrt(&a), 0);
            ASSERT_EQ(a, F(1, (e + 1) / 2 + 56, root)) << m << " " << e;
        }
    }
}

TEST(MsfloatProperty, ComparisonsAgreeWithExactValues) {
    std::mt19937 rng(33);
    for (int i = 0; i < 100000; ++i) {
        MSFLOAT a = Random(rng, 100, 140), b = i % 4 ? Random(rng, 100, 140) : a;
        if (i % 16 == 1) b.sign = int8_t(-a.sign);
        if (i % 32 == 2) a = MSFLOAT_0;
        ASSERT_EQ(MSFLOAT_OpCompGreater(&a, &b), ToDouble(a) > ToDouble(b) ? 1 : 0) << a << b;
        ASSERT_EQ(MSFLOAT_AbsCompGreater(&a, &b), std::fabs(ToDouble(a)) > std::fabs(ToDouble(b)) ? 1 : 0) << a << b;
    }
}

// I2F keeps the 16 leading bits of |v| and F2I gives them back; F2I truncates toward
// zero and refuses magnitudes of 2^31 and more, leaving its output untouched. Sign
// reports 0 negative, 1 zero, 2 positive; the named constants are I2F's results.
TEST(MsfloatProperty, IntegerRoundTrip) {
    EXPECT_EQ(I(0), MSFLOAT_0);
    EXPECT_EQ(I(1), MSFLOAT_1);
    EXPECT_EQ(I(INT32_MAX), MSFLOAT_maxsint32);
    EXPECT_EQ(I(INT32_MIN), F(-1, 144, 32768));
    std::mt19937 rng(34);
    for (int i = 0; i < 100000; ++i) {
        const int32_t v = i == 0 ? INT32_MIN : int32_t(rng()) >> (rng() % 32);
        const uint32_t mag = v < 0 ? 0u - uint32_t(v) : uint32_t(v);
        const int drop = std::max(0, 16 - __builtin_clz(mag | 1));
        int32_t back = 99;
        const MSFLOAT f = I(v), g = Random(rng, 100, 150);
        ASSERT_EQ(MSFLOAT_Sign(&f), v < 0 ? 0 : v == 0 ? 1 : 2) << v;
        ASSERT_EQ(MSFLOAT_F2I(&back, &f), v == INT32_MIN ? -127 : 0);
        ASSERT_EQ(back, v == INT32_MIN ? 99 : int64_t((mag >> drop) << drop) * (v < 0 ? -1 : 1)) << v;
        ASSERT_EQ(MSFLOAT_F2I(&back, &g), g.exponent > 143 ? -127 : 0);
        if (g.exponent <= 143) { ASSERT_EQ(back, int32_t(std::trunc(ToDouble(g)))) << g; }
    }
}
}  // namespace

// The library's MSFLOAT against its first, step-by-step implementation, bit for bit,
// on a sample of random, edge and special operands (msfloat_equiv runs more).
TEST(MsfloatEquivalence, EveryOperationMatchesTheFirstImplementation) {
    msfloat_equiv::Tally tallies[msfloat_equiv::kOps];
    EXPECT_EQ(msfloat_equiv::Run(200000, 7, tallies, stderr), 0u);
    for (const auto &t : tallies) EXPECT_EQ(t.mismatches, 0u) << t.op;
}

// The division's quotient without a divide instruction (used where the target has
// none, checked on every target): every normalised divisor, with dividends at the
// edges and spread between them.
TEST(MsfloatProperty, QuotientByReciprocalIsTheDivisionForEveryNormalisedDivisor) {
    const uint32_t dividends[] = {0u,          1u,          0x7FFFu,     0x8000u,     0xFFFFu,    0x12345u,
                                  0x7FFFFFFFu, 0x80000000u, 0xFFFEFFFFu, 0xFFFF0000u, 0xFFFFFFFFu};
    uint64_t wrong = 0;
    for (uint32_t d = 0x8000u; d <= 0xFFFFu; ++d) {
        for (uint32_t n : dividends) wrong += msf::QuotientByReciprocal(n, d) != n / d;
        for (uint32_t k = 1; k < 16; ++k) {  // multiples of d and their neighbours
            const uint32_t n = d * (k * 8191u);
            wrong += msf::QuotientByReciprocal(n, d) != n / d;
            wrong += msf::QuotientByReciprocal(n - 1, d) != (n - 1) / d;
        }
    }
    EXPECT_EQ(wrong, 0u);
}
