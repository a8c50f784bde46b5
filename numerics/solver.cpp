// 5x5 symmetric linear solver on MSFLOAT: Gaussian elimination with partial pivoting.
#include <stdint.h>

#include "numerics/numerics.h"
#include "numerics/msfloat_ops.h"

namespace {

constexpr int kN = 5;

// out = first x second, formed in a copy of the first factor.
int8_t Product(MSFLOAT *out, const MSFLOAT &first, const MSFLOAT &second) {
    msf::Copy(out, first);
    return msf::OpMultiEq(out, &second);
}

}  // namespace

extern "C" int8_t MsSolve(const MSFLOAT A[15], const MSFLOAT r[5], MSFLOAT x[5]) {
    for (int i = 0; i < kN; ++i) msf::Copy(&x[i], r[i]);

    MSFLOAT L[kN][kN];
    int packed = 0;
    for (int i = 0; i < kN; ++i) {
        for (int j = i; j < kN; ++j) {
            msf::Copy(&L[i][j], A[packed]);
            msf::Copy(&L[j][i], A[packed]);
            ++packed;
        }
    }

    MSFLOAT product;
    int8_t status;
    for (int k = 0; k < kN; ++k) {
        // Strictly greater magnitude only: ties keep the earlier row.
        int pivotRow = k;
        for (int i = k + 1; i < kN; ++i) {
            if (msf::AbsCompGreater(&L[i][k], &L[pivotRow][k]) == 1) pivotRow = i;
        }
        if (pivotRow != k) {
            for (int j = 0; j < kN; ++j) {
                MSFLOAT held;
                msf::Copy(&held, L[k][j]);
                msf::Copy(&L[k][j], L[pivotRow][j]);
                msf::Copy(&L[pivotRow][j], held);
            }
            MSFLOAT held;
            msf::Copy(&held, x[k]);
            msf::Copy(&x[k], x[pivotRow]);
            msf::Copy(&x[pivotRow], held);
        }

        // L(k,k) stays as it is and counts as 1 from here on. A zero pivot ends the
        // solve here with the division's status.
        for (int j = k + 1; j < kN; ++j) {
            status = msf::OpDivEq(&L[k][j], &L[k][k]);
            if (status < 0) return status;
        }
        status = msf::OpDivEq(&x[k], &L[k][k]);
        if (status < 0) return status;

        // L(i,k) below the pivot is left in place, never read again.
        for (int i = k + 1; i < kN; ++i) {
            for (int j = k + 1; j < kN; ++j) {
                status = Product(&product, L[k][j], L[i][k]);
                if (status < 0) return status;
                (void)msf::OpMinusEq(&L[i][j], &product);
            }
            status = Product(&product, x[k], L[i][k]);
            if (status < 0) return status;
            (void)msf::OpMinusEq(&x[i], &product);
        }
    }

    for (int i = kN - 1; i >= 0; --i) {
        for (int j = i + 1; j < kN; ++j) {
            status = Product(&product, L[i][j], x[j]);
            if (status < 0) return status;
            (void)msf::OpMinusEq(&x[i], &product);
        }
    }
    return 0;
}
