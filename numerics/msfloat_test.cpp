// MSFLOAT against exact integer arithmetic: every result is checked against the exact
// value (128-bit integers) truncated to 16 significant bits, not against the steps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <random>

#include "numerics/numerics.h"
#include "numerics/numerics_internal.h"

bool operator==(const MSFLOAT &a, const MSFLOAT &b) {
    return a.sign == b.sign && a.exponent == b.exponent && a.mantissa == b.mantissa;
}
std::ostream &operator<<(std::ostream &os, const MSFLOAT &f) {
    return os << "(" << int(f.sign) << ", " << int(f.exponent) << ", " << f.mantissa << ")";
}

namespace {
using u128 = unsigned __int128;
MSFLOAT F(int s, int e, int m) { return {int8_t(s), uint8_t(e), uint16_t(m)}; }
MSFLOAT I(int32_t v) { MSFLOAT f; MSFLOAT_I2F(&f, v); return f; }
double D(const MSFLOAT &f) { return std::ldexp(double(f.sign) * f.mantissa, f.exponent - 128); }
int Status(int e) { return e < 0 ? MSFLOAT_UNDERFLOW : e > 255 ? MSFLOAT_OVERFLOW : 0; }
// Exact magnitude m * 2^(e-128) truncated to 16 significant bits; e may leave 0..255.
struct Trunc { int m, e; };
Trunc Trunc16(u128 m, int e) {
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
    switch (op) {
        case kMul: return MSFLOAT_OpMultiEq(a, b);
        case kDiv: return MSFLOAT_OpDivEq(a, b);
        case kAdd: return MSFLOAT_OpPlusEq(a, b);
        case kSub: return MSFLOAT_OpMinusEq(a, b);
        case kShift: return MSFLOAT_OpShiftEq(a, int16_t(n));
        case kSquare: return MSFLOAT_Square(a);
        case kSqrt: return MSFLOAT_Sqrt(a);
    }
    return 99;
}

struct EdgeCase { const char *name; Op op; MSFLOAT a, b; int n; MSFLOAT want; int status; };
const EdgeCase kEdges[] = {
    {"3 x 3 is exactly 9", kMul, I(3), I(3), 0, F(1, 116, 36864), 0},
    {"product overflow wrote sign and mantissa, kept exponent", kSquare, F(-1, 200, 49152), {}, 0, F(1, 200, 36864), -127},
    {"product underflow wrote sign and mantissa, kept exponent", kSquare, F(-1, 10, 49152), {}, 0, F(1, 10, 36864), -126},
    {"product reaching exponent 255 passes", kMul, F(1, 184, 32768), F(1, 184, 32768), 0, F(1, 255, 32768), 0},
    {"1 / 3 truncates", kDiv, I(1), I(3), 0, F(1, 111, 43690), 0},
    {"x / x is exactly 1", kDiv, F(-1, 77, 51234), F(-1, 77, 51234), 0, MSFLOAT_1, 0},
    {"0 / x is zero", kDiv, MSFLOAT_0, I(-3), 0, MSFLOAT_0, 0},
    {"x / 0 refused, dividend kept", kDiv, I(5), MSFLOAT_0, 0, I(5), -2},
    {"quotient underflow wrote sign and mantissa", kDiv, F(1, 0, 32768), F(-1, 200, 49152), 0, F(-1, 0, 43690), -126},
    {"1 + -1 is all-zero fields", kAdd, I(1), I(-1), 0, MSFLOAT_0, 0},
    {"1 + 1 carries", kAdd, I(1), I(1), 0, F(1, 114, 32768), 0},
    {"1 + 2^-16 drops the addend", kAdd, I(1), F(1, 97, 32768), 0, I(1), 0},
    {"1 + 2^-17 drops the addend", kAdd, I(1), F(1, 96, 32768), 0, I(1), 0},
    {"0 + x copies x", kAdd, MSFLOAT_0, F(-1, 3, 40000), 0, F(-1, 3, 40000), 0},
    {"1 - 2^-16 is exact through the guard bit", kSub, I(1), F(1, 97, 32768), 0, F(1, 112, 65535), 0},
    {"sum overflow leaves the operand", kAdd, F(1, 255, 65535), F(1, 255, 65535), 0, F(1, 255, 65535), -127},
    {"difference underflow leaves the operand", kSub, F(1, 0, 65535), F(1, 0, 65534), 0, F(1, 0, 65535), -126},
    {"shift past 255 leaves the operand", kShift, F(1, 255, 32768), {}, 1, F(1, 255, 32768), -127},
    {"shift below 0 leaves the operand", kShift, F(-1, 3, 40000), {}, -4, F(-1, 3, 40000), -126},
    {"shift of zero stays zero", kShift, MSFLOAT_0, {}, 10, MSFLOAT_0, 0},
    {"shift exponent wraps as signed 16-bit", kShift, F(1, 200, 32768), {}, 32767, F(1, 200, 32768), -126},
    {"sqrt(1) is 1", kSqrt, I(1), {}, 0, I(1), 0},
    {"sqrt(4) is 2", kSqrt, I(4), {}, 0, I(2), 0},
    {"sqrt(2)", kSqrt, I(2), {}, 0, F(1, 113, 46340), 0},
    {"sqrt(3)", kSqrt, I(3), {}, 0, F(1, 113, 56755), 0},
    {"sqrt(1000)", kSqrt, I(1000), {}, 0, F(1, 117, 64763), 0},
    {"sqrt(0)", kSqrt, MSFLOAT_0, {}, 0, MSFLOAT_0, 0},
    {"sqrt(-1) refused, operand kept", kSqrt, I(-1), {}, 0, I(-1), -1},
    {"sqrt of odd exponent, mantissa 65534: shortcut", kSqrt, F(1, 113, 65534), {}, 0, F(1, 113, 46340), 0},
};

TEST(MsfloatEdge, Operations) {
    for (const EdgeCase &c : kEdges) {
        MSFLOAT a = c.a;
        EXPECT_EQ(Apply(c.op, &a, &c.b, c.n), c.status) << c.name;
        EXPECT_EQ(a, c.want) << c.name;
    }
}

TEST(MsfloatEdge, ConversionsAndSign) {
    struct { const char *name; int32_t v; MSFLOAT f; int32_t back; int status; } cases[] = {
        {"0", 0, MSFLOAT_0, 0, 0}, {"1", 1, MSFLOAT_1, 1, 0}, {"3", 3, F(1, 114, 49152), 3, 0},
        {"-1", -1, F(-1, 113, 32768), -1, 0}, {"65537 drops its low bit", 65537, F(1, 129, 32768), 65536, 0},
        {"int max", 2147483647, MSFLOAT_maxsint32, 2147450880, 0},
        {"int min does not convert back", INT32_MIN, F(-1, 144, 32768), 12345, -127},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(I(c.v), c.f) << c.name;
        int32_t back = 12345;
        EXPECT_EQ(MSFLOAT_F2I(&back, &c.f), c.status) << c.name;
        EXPECT_EQ(back, c.back) << c.name;
    }
    int32_t out = 7;
    for (MSFLOAT f : {F(-1, 113, 49152), F(1, 112, 65535), F(-1, 111, 65535)}) {
        MSFLOAT_F2I(&out, &f);
        EXPECT_EQ(out, f.exponent == 113 ? -1 : 0) << f;  // -1.5, then magnitudes below 1
    }
    EXPECT_EQ(MSFLOAT_Sign(&MSFLOAT_0), 1);
    EXPECT_EQ(MSFLOAT_Sign(&MSFLOAT_1), 2);
    const MSFLOAT m = I(-7);
    EXPECT_EQ(MSFLOAT_Sign(&m), 0);
}

TEST(MsfloatEdge, Comparisons) {
    struct { const char *name; MSFLOAT a, b; int greater, absGreater; } cases[] = {
        {"0 > -1", MSFLOAT_0, I(-1), 1, 0}, {"-1 > 0", I(-1), MSFLOAT_0, 0, 1},
        {"-2 > -1", I(-2), I(-1), 0, 1},    {"-1 > -2", I(-1), I(-2), 1, 0},
        {"x > x", I(-9), I(-9), 0, 0},      {"-3 vs 2", I(-3), I(2), 0, 1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(MSFLOAT_OpCompGreater(&c.a, &c.b), c.greater) << c.name;
        EXPECT_EQ(MSFLOAT_AbsCompGreater(&c.a, &c.b), c.absGreater) << c.name;
    }
}

// Products, quotients and same-sign sums equal the exact result truncated to 16
// significant bits, over the whole exponent range, with the status exactly where
// the exact exponent leaves 0..255 (and the documented fields written on failure).
// A product of mantissas below 2^31, or a quotient of mantissas below 1, keeps only
// 15 significant bits: normalising it shifts a zero into the last bit.
TEST(MsfloatProperty, TruncatedExactResults) {
    std::mt19937 rng(31);
    for (int i = 0; i < 200000; ++i) {
        const Op op = Op(i % 3);
        MSFLOAT a = Random(rng), b = Random(rng);
        if (op == kAdd) b.sign = a.sign, b.exponent = uint8_t(std::clamp(a.exponent + int(rng() % 41) - 20, 0, 255));
        Trunc t{};
        if (op == kMul) {
            t = Trunc16(u128(a.mantissa) * b.mantissa, a.exponent + b.exponent - 128);
            if (uint32_t(a.mantissa) * b.mantissa < 0x80000000u) t.m &= 0xFFFE;  // upper half had 15 bits
        }
        if (op == kDiv) {
            t = Trunc16((u128(a.mantissa) << 40) / b.mantissa, a.exponent - b.exponent + 88);
            if (a.mantissa < b.mantissa) t.m &= 0xFFFE;  // quotient below 1: 15 bits, then shifted up
        }
        if (op == kAdd) {
            const MSFLOAT &big = MSFLOAT_AbsCompGreater(&a, &b) ? a : b, &small = &big == &a ? b : a;
            const int d = big.exponent - small.exponent;
            t = d > 40 ? Trunc{big.mantissa, big.exponent}
                       : Trunc16((u128(big.mantissa) << d) + small.mantissa, small.exponent);
        }
        const MSFLOAT before = a;
        const int status = Apply(op, &a, &b, 0);
        ASSERT_EQ(status, Status(t.e)) << op << before << b;
        const int8_t sign = op == kAdd ? before.sign : int8_t(before.sign * b.sign);
        const bool keeps = status != 0 && op == kAdd;
        ASSERT_EQ(a, keeps ? before : F(sign, status ? before.exponent : t.e, t.m)) << op << before << b;
    }
}

// Differences: exact (then truncated) when the exponents differ by at most 1,
// otherwise within one unit u of the guard bit, 2^(big exponent - 129): the working
// difference lies in [exact, exact + u), and a carry-out may drop one more u.
TEST(MsfloatProperty, DifferencesWithinGuardBit) {
    std::mt19937 rng(32);
    for (int i = 0; i < 100000; ++i) {
        MSFLOAT a = Random(rng, 30, 230), b = Random(rng);
        b.sign = int8_t(-a.sign);
        b.exponent = uint8_t(a.exponent - int(rng() % 24));
        if (i % 8 == 0) b.mantissa = uint16_t(std::max<int>(32768, a.mantissa - rng() % 4));  // deep cancellation
        const int d = a.exponent - b.exponent;
        if (d == 0 && b.mantissa > a.mantissa) std::swap(a.mantissa, b.mantissa);  // a is the bigger
        const __int128 exact = (__int128(a.mantissa) << d) - b.mantissa;  // in units 2^(b.e-128)
        MSFLOAT r = a;
        ASSERT_EQ(MSFLOAT_OpPlusEq(&r, &b), 0);
        if (exact == 0) { ASSERT_EQ(r, MSFLOAT_0); continue; }
        if (d <= 1) {
            const Trunc t = Trunc16(u128(exact), b.exponent);
            ASSERT_EQ(r, F(a.sign, t.e, t.m)) << a << b;
        }
        ASSERT_EQ(r.sign, a.sign);
        const int base = std::min({int(r.exponent), int(b.exponent), a.exponent - 1});  // common unit 2^(base-128)
        const __int128 got = __int128(r.mantissa) << (r.exponent - base);
        const __int128 err = got - (exact << (b.exponent - base));
        const __int128 unit = __int128(1) << (a.exponent - 1 - base);
        ASSERT_TRUE(err >= -unit && err < unit) << a << b << r;
    }
}

TEST(MsfloatProperty, SqrtIsTheIntegerRootForEveryMantissa) {
    for (int e : {128, 129, 0, 255}) {
        for (int m = 32768; m < 65536; ++m) {
            const uint64_t x = uint64_t(m) << (e % 2 ? 15 : 16);
            uint64_t root = uint64_t(std::sqrt(double(x)));
            while (root * root > x) --root;
            while ((root + 1) * (root + 1) <= x) ++root;
            MSFLOAT a = F(1, e, m);
            ASSERT_EQ(MSFLOAT_Sqrt(&a), 0);
            ASSERT_EQ(a, F(1, (e + 1) / 2 + 56, int(root))) << m << " " << e;
        }
    }
}

TEST(MsfloatProperty, ComparisonsAgreeWithExactValues) {
    std::mt19937 rng(33);
    for (int i = 0; i < 100000; ++i) {
        MSFLOAT a = Random(rng, 100, 140), b = i % 4 ? Random(rng, 100, 140) : a;
        if (i % 16 == 1) b.sign = int8_t(-a.sign);
        if (i % 32 == 2) a = MSFLOAT_0;
        ASSERT_EQ(MSFLOAT_OpCompGreater(&a, &b), D(a) > D(b) ? 1 : 0) << a << b;
        ASSERT_EQ(MSFLOAT_AbsCompGreater(&a, &b), std::fabs(D(a)) > std::fabs(D(b)) ? 1 : 0) << a << b;
    }
}

// I2F keeps the 16 leading bits of |v| and F2I gives them back; F2I truncates
// toward zero and refuses magnitudes of 2^31 and more.
TEST(MsfloatProperty, IntegerRoundTrip) {
    std::mt19937 rng(34);
    for (int i = 0; i < 100000; ++i) {
        const int32_t v = int32_t(rng()) >> (rng() % 32);
        const uint32_t mag = v < 0 ? 0u - uint32_t(v) : uint32_t(v);
        const int drop = std::max(0, 32 - __builtin_clz(mag | 1) - 16);
        const int64_t kept = int64_t((mag >> drop) << drop) * (v < 0 ? -1 : 1);
        int32_t back = 0;
        const MSFLOAT f = I(v);
        ASSERT_EQ(MSFLOAT_F2I(&back, &f), v == INT32_MIN ? -127 : 0);
        if (v != INT32_MIN) { ASSERT_EQ(back, kept) << v; }
        const MSFLOAT g = Random(rng, 100, 150);
        back = 99;
        ASSERT_EQ(MSFLOAT_F2I(&back, &g), g.exponent > 143 ? -127 : 0);
        ASSERT_EQ(back, g.exponent > 143 ? 99 : int32_t(std::trunc(D(g)))) << g;
    }
}

// Every two-operand operation reads both operands before writing: a op= a works.
TEST(MsfloatProperty, AliasedOperands) {
    std::mt19937 rng(35);
    for (int i = 0; i < 20000; ++i) {
        for (Op op : {kMul, kDiv, kAdd, kSub}) {
            MSFLOAT x = Random(rng), y = x, copy = x;
            ASSERT_EQ(Apply(op, &x, &x, 0), Apply(op, &y, &copy, 0));
            ASSERT_EQ(x, y) << op;
        }
    }
}

}  // namespace
