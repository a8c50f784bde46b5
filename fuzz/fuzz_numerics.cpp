// Every MSFLOAT operation on operands made of the input bytes, checked bit for bit
// against the first implementation, then the solver and Jacobi on the same values.
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
        MSFLOAT a = v[i], b = v[i];
        if (MSFLOAT_Sqrt(&a) != msfloat_reference::Sqrt(&b) || !Same(a, b)) __builtin_trap();
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
