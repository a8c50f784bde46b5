/*
 * Numerics internals: not exported from the shared library, reachable by the unit
 * tests through the static archive.
 */
#ifndef KMXC_NUMERICS_INTERNAL_H
#define KMXC_NUMERICS_INTERNAL_H

#include <stdint.h>

#include "numerics/numerics.h"

#ifdef __cplusplus
extern "C" {
#endif

/* (+1, 112, 46340) = 0.70709228515625: 65536/sqrt(2) truncated, just below 1/sqrt(2).
 * Used by MSFLOAT_Sqrt for odd exponents. */
extern const MSFLOAT MSFLOAT_invsqrt2;

/* Packed indexes of the 3x3 diagonal: (0,0), (1,1), (2,2) -> 0, 3, 5. */
extern const uint8_t MsPackedDiagIndex[3];
/* Packed index of element (i, j) of a symmetric 3x3 matrix, any i and j. */
extern const uint8_t MsPackedIndex[3][3];

/* Orders the diagonal of a diagonalised packed 3x3 matrix w and the columns of the
 * eigenvector matrix v (row by row, scaled by 16384) into three pairs, largest value
 * first. Equal values: a later index takes the max place, failing that the min place.
 * Zero and negative values are written as MSFLOAT_0; vectors are F2I of v's columns.
 * Returns 0. */
int8_t MsJacobiSortEigenPair(const MSFLOAT w[6], const MSFLOAT v[3][3], MsEigenPair out[3]);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_NUMERICS_INTERNAL_H */
