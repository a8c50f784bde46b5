// Every MSFLOAT operation (arithmetic, sign, negation, absolute value, shifts, both
// comparisons, square, root, conversions) on operands made of the input bytes, checked
// bit for bit against the first implementation, then the solver and Jacobi on the
// same values.
#include <stdint.h>
#include <string.h>

#include "numerics/msfloat_reference.h"
#include "numerics/numerics.h"

namespace {
bool Same(const MSFLOAT &a, const MSFLOAT &b) {
    return a.sign == b.sign && a.exponent == b.exponent && a.mantissa == b.mantissa;
}
MSFLOAT Take(const uint8_t *p) {
    MSFLOAT v;
    v.sign = static_cast<int8_t>(p[0] % 3) - 1;
    v.exponent = p[1];
    v.mantissa = static_cast<uint16_t>(p[2] | (p[3] << 8));
    return v;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    MSFLOAT v[20] = {};
    const size_t n = size / 4 < 20 ? size / 4 : 20;
    for (size_t i = 0; i < n; ++i) v[i] = Take(data + 4 * i);
    for (size_t i = 0; i + 1 < n; ++i) {
        using Op = int8_t (*)(MSFLOAT *, const MSFLOAT *);
        const Op lib[] = {MSFLOAT_OpPlusEq, MSFLOAT_OpMinusEq, MSFLOAT_OpMultiEq, MSFLOAT_OpDivEq};
        const Op ref[] = {msfloat_reference::OpPlusEq, msfloat_reference::OpMinusEq, msfloat_reference::OpMultiEq,
                          msfloat_reference::OpDivEq};
        for (int k = 0; k < 4; ++k) {
            MSFLOAT a = v[i], b = v[i];
            if (lib[k](&a, &v[i + 1]) != ref[k](&b, &v[i + 1]) || !Same(a, b)) __builtin_trap();
        }
        using Unary = int8_t (*)(MSFLOAT *);
        const Unary lib1[] = {MSFLOAT_OpNeg, MSFLOAT_OpAbs, MSFLOAT_Square, MSFLOAT_Sqrt};
        const Unary ref1[] = {msfloat_reference::OpNeg, msfloat_reference::OpAbs, msfloat_reference::Square,
                              msfloat_reference::Sqrt};
        for (int k = 0; k < 4; ++k) {
            MSFLOAT a = v[i], b = v[i];
            if (lib1[k](&a) != ref1[k](&b) || !Same(a, b)) __builtin_trap();
        }
        using Compare = int8_t (*)(const MSFLOAT *, const MSFLOAT *);
        const Compare lib2[] = {MSFLOAT_OpCompGreater, MSFLOAT_AbsCompGreater};
        const Compare ref2[] = {msfloat_reference::OpCompGreater, msfloat_reference::AbsCompGreater};
        for (int k = 0; k < 2; ++k)
            if (lib2[k](&v[i], &v[i + 1]) != ref2[k](&v[i], &v[i + 1])) __builtin_trap();
        if (MSFLOAT_Sign(&v[i]) != msfloat_reference::Sign(&v[i])) __builtin_trap();
        // Any shift count, wrapping ones included: the next operand's mantissa bits.
        const int16_t shift = static_cast<int16_t>(v[i + 1].mantissa);
        MSFLOAT a = v[i], b = v[i];
        if (MSFLOAT_OpShiftEq(&a, shift) != msfloat_reference::OpShiftEq(&b, shift) || !Same(a, b)) __builtin_trap();
        int32_t x = 0, y = 0;
        if (MSFLOAT_F2I(&x, &v[i]) != msfloat_reference::F2I(&y, &v[i]) || x != y) __builtin_trap();
        int32_t integer;
        memcpy(&integer, data + 4 * i, 4);
        if (MSFLOAT_I2F(&a, integer) != msfloat_reference::I2F(&b, integer) || !Same(a, b)) __builtin_trap();
    }
    MSFLOAT x[5];
    MsSolve(v, v + 15, x);
    MsEigenPair pairs[3];
    MsJacobiCalcEigenPair(v, pairs);
    return 0;
}
