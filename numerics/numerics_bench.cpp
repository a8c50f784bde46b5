// Cost of each MSFLOAT operation and of the two dense routines on typical operands.
#include <benchmark/benchmark.h>

#include "numerics/numerics.h"

namespace {
// 64 varied normalised operands of both signs and nearby exponents, so branches see
// realistic data; each iteration takes the next pair.
struct Operands {
    MSFLOAT v[64];
    Operands() {
        uint32_t x = 12345;
        for (MSFLOAT &f : v) {
            x = x * 1103515245u + 12345u;
            f = {int8_t(x & 0x100 ? 1 : -1), uint8_t(120 + (x >> 26)), uint16_t(0x8000 | (x >> 8))};
        }
    }
};
const Operands kOps;

template <int8_t (*Op)(MSFLOAT *, const MSFLOAT *)>
void BinaryOp(benchmark::State &state) {
    unsigned i = 0;
    for (auto _ : state) {
        MSFLOAT a = kOps.v[i & 63];
        benchmark::DoNotOptimize(Op(&a, &kOps.v[(i + 7) & 63]));
        benchmark::DoNotOptimize(a.mantissa);
        ++i;
    }
}
template <int8_t (*Op)(MSFLOAT *)>
void UnaryOp(benchmark::State &state) {
    unsigned i = 0;
    for (auto _ : state) {
        MSFLOAT a = kOps.v[i++ & 63];
        benchmark::DoNotOptimize(Op(&a));
        benchmark::DoNotOptimize(a.mantissa);
    }
}
template <int8_t (*Op)(const MSFLOAT *, const MSFLOAT *)>
void Compare(benchmark::State &state) {
    unsigned i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Op(&kOps.v[i & 63], &kOps.v[(i + 7) & 63]));
        ++i;
    }
}
int8_t Shift(MSFLOAT *a) { return MSFLOAT_OpShiftEq(a, -3); }
int8_t Sign(MSFLOAT *a) { return MSFLOAT_Sign(a); }
int8_t Sqrt(MSFLOAT *a) {
    MSFLOAT_OpAbs(a);
    return MSFLOAT_Sqrt(a);
}

void I2F(benchmark::State &state) {
    unsigned i = 0;
    for (auto _ : state) {
        MSFLOAT a;
        benchmark::DoNotOptimize(MSFLOAT_I2F(&a, int32_t(i * 2654435761u) >> (i & 31)));
        benchmark::DoNotOptimize(a.mantissa);
        ++i;
    }
}
void F2I(benchmark::State &state) {
    unsigned i = 0;
    for (auto _ : state) {
        int32_t v = 0;
        benchmark::DoNotOptimize(MSFLOAT_F2I(&v, &kOps.v[i++ & 63]));
        benchmark::DoNotOptimize(v);
    }
}

MSFLOAT I(int32_t v) {
    MSFLOAT f;
    MSFLOAT_I2F(&f, v);
    return f;
}

void Solve(benchmark::State &state) {
    // Symmetric, needs pivoting in the first column.
    const MSFLOAT A[15] = {I(2), I(7), I(-1), I(3), I(1), I(5), I(2), I(-4), I(1), I(9), I(3), I(2), I(6), I(-2), I(8)};
    const MSFLOAT r[5] = {I(1), I(2), I(3), I(4), I(5)};
    for (auto _ : state) {
        MSFLOAT x[5];
        benchmark::DoNotOptimize(MsSolve(A, r, x));
        benchmark::DoNotOptimize(x);
    }
}
void Jacobi(benchmark::State &state) {
    // A scatter matrix of magnetometer counts: all six rotations run.
    const MSFLOAT m[6] = {I(912345), I(-123456), I(54321), I(734567), I(98765), I(456789)};
    for (auto _ : state) {
        MsEigenPair pairs[3];
        benchmark::DoNotOptimize(MsJacobiCalcEigenPair(m, pairs));
        benchmark::DoNotOptimize(pairs);
    }
}
}  // namespace

BENCHMARK(I2F);
BENCHMARK(F2I);
BENCHMARK(UnaryOp<Sign>)->Name("Sign");
BENCHMARK(BinaryOp<MSFLOAT_OpMultiEq>)->Name("OpMultiEq");
BENCHMARK(BinaryOp<MSFLOAT_OpDivEq>)->Name("OpDivEq");
BENCHMARK(UnaryOp<Shift>)->Name("OpShiftEq");
BENCHMARK(UnaryOp<MSFLOAT_OpNeg>)->Name("OpNeg");
BENCHMARK(UnaryOp<MSFLOAT_OpAbs>)->Name("OpAbs");
BENCHMARK(Compare<MSFLOAT_AbsCompGreater>)->Name("AbsCompGreater");
BENCHMARK(BinaryOp<MSFLOAT_OpPlusEq>)->Name("OpPlusEq");
BENCHMARK(BinaryOp<MSFLOAT_OpMinusEq>)->Name("OpMinusEq");
BENCHMARK(Compare<MSFLOAT_OpCompGreater>)->Name("OpCompGreater");
BENCHMARK(UnaryOp<MSFLOAT_Square>)->Name("Square");
BENCHMARK(UnaryOp<Sqrt>)->Name("Sqrt (with OpAbs)");
BENCHMARK(Solve)->Name("MsSolve");
BENCHMARK(Jacobi)->Name("MsJacobiCalcEigenPair");
