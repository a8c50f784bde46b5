// 3x3 symmetric eigen-decomposition on MSFLOAT by at most six Jacobi rotations.
// Arithmetic statuses are deliberately not examined: the estimator that uses the
// result judges it by its eigenvalues.
#include <stdint.h>

#include "numerics/numerics.h"
#include "numerics/msfloat_ops.h"
#include "numerics/numerics_internal.h"

extern "C" {
const uint8_t MsPackedDiagIndex[3] = {0, 3, 5};
const uint8_t MsPackedIndex[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};
}

namespace {

constexpr int kMaxRotations = 6;

// first x second, formed in a copy of the first factor.
MSFLOAT Mul(const MSFLOAT &first, const MSFLOAT &second) {
    MSFLOAT out = first;
    (void)msf::OpMultiEq(&out, &second);
    return out;
}

MSFLOAT Add(const MSFLOAT &left, const MSFLOAT &right) {
    MSFLOAT out;
    msf::Copy(&out, left);
    (void)msf::OpPlusEq(&out, &right);
    return out;
}

MSFLOAT Sub(const MSFLOAT &left, const MSFLOAT &right) {
    MSFLOAT out = left;
    (void)msf::OpMinusEq(&out, &right);
    return out;
}

MSFLOAT Shift(const MSFLOAT &value, int16_t n) {
    MSFLOAT out = value;
    (void)msf::OpShiftEq(&out, n);
    return out;
}

}  // namespace

extern "C" int8_t MsJacobiSortEigenPair(const MSFLOAT w[6], const MSFLOAT v[3][3], MsEigenPair out[3]) {
    const MSFLOAT *d[3] = {&w[MsPackedDiagIndex[0]], &w[MsPackedDiagIndex[1]], &w[MsPackedDiagIndex[2]]};
    int maxIndex = 0, minIndex = 0;
    for (int i = 1; i < 3; ++i) {
        if (msf::OpCompGreater(d[maxIndex], d[i]) == 0) {
            maxIndex = i;  // a later equal value takes the max place
        } else if (msf::OpCompGreater(d[i], d[minIndex]) == 0) {
            minIndex = i;
        }
    }
    int middle = 0;
    while (middle == maxIndex || middle == minIndex) ++middle;

    const int order[3] = {maxIndex, middle, minIndex};
    for (int k = 0; k < 3; ++k) {
        const int i = order[k];
        out[k].value = MSFLOAT_Sign(d[i]) <= MSFLOAT_SIGN_ZERO ? MSFLOAT_0 : *d[i];
        // A column beyond the 32-bit range (never for a rotation of the Q14 identity)
        // leaves that component as the caller had it.
        for (int j = 0; j < 3; ++j) (void)MSFLOAT_F2I(&out[k].vector[j], &v[j][i]);
    }
    return 0;
}

extern "C" int8_t MsJacobiCalcEigenPair(const MSFLOAT m[6], MsEigenPair pairs[3]) {
    MSFLOAT w[6];
    for (int i = 0; i < 6; ++i) msf::Copy(&w[i], m[i]);
    MSFLOAT v[3][3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) msf::Copy(&v[i][j], i == j ? MSFLOAT_0x4000 : MSFLOAT_0);
    }
    auto W = [&w](int i, int j) -> MSFLOAT & { return w[MsPackedIndex[i][j]]; };

    for (int rotation = 0; rotation < kMaxRotations; ++rotation) {
        // Largest off-diagonal element; ties prefer (0,1), then (0,2), then (1,2).
        int p = 0, q = 1, k = 2;
        if (msf::AbsCompGreater(&W(0, 2), &W(0, 1)) == 1) {
            q = 2;
            k = 1;
        }
        if (msf::AbsCompGreater(&W(1, 2), &W(p, q)) == 1) {
            p = 1;
            q = 2;
            k = 0;
        }

        const MSFLOAT h = Shift(Sub(W(q, q), W(p, p)), -1);
        MSFLOAT r = h;
        (void)msf::Square(&r);
        MSFLOAT apq2 = W(p, q);
        (void)msf::Square(&apq2);
        (void)msf::OpPlusEq(&r, &apq2);
        (void)MSFLOAT_Sqrt(&r);
        // Nothing left to rotate: the pivot is zero and its diagonal pair equal.
        if (MSFLOAT_Sign(&r) == MSFLOAT_SIGN_ZERO) break;

        MSFLOAT ratio = h;
        (void)MSFLOAT_OpAbs(&ratio);
        (void)msf::OpDivEq(&ratio, &r);
        const MSFLOAT c2 = Shift(Add(MSFLOAT_1, ratio), -1);
        MSFLOAT c = c2;
        (void)MSFLOAT_Sqrt(&c);

        MSFLOAT s = W(p, q);
        const MSFLOAT twoRc = Shift(Mul(r, c), 1);
        (void)msf::OpDivEq(&s, &twoRc);
        if (msf::OpCompGreater(&W(p, p), &W(q, q)) == 1) (void)msf::OpNeg(&s);

        MSFLOAT s2 = s;
        (void)msf::Square(&s2);
        const MSFLOAT sc = Mul(s, c);
        const MSFLOAT t = Shift(Mul(W(p, q), sc), 1);

        // Every new element from the old matrix, summed left to right.
        const MSFLOAT pk = Sub(Mul(c, W(p, k)), Mul(s, W(q, k)));
        const MSFLOAT qk = Add(Mul(s, W(p, k)), Mul(c, W(q, k)));
        const MSFLOAT pp = Sub(Add(Mul(c2, W(p, p)), Mul(s2, W(q, q))), t);
        const MSFLOAT qq = Add(Add(Mul(c2, W(q, q)), Mul(s2, W(p, p))), t);
        W(p, k) = pk;
        W(q, k) = qk;
        W(p, p) = pp;
        W(q, q) = qq;
        msf::SetZero(&W(p, q));

        for (int i = 0; i < 3; ++i) {
            const MSFLOAT vp = Sub(Mul(c, v[i][p]), Mul(s, v[i][q]));
            const MSFLOAT vq = Add(Mul(s, v[i][p]), Mul(c, v[i][q]));
            v[i][p] = vp;
            v[i][q] = vq;
        }
    }

    return MsJacobiSortEigenPair(w, v, pairs);
}
