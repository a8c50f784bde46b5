/*
 * Numerics: MSFLOAT, a four-byte software floating-point number on 32-bit integer
 * arithmetic only, and two fixed-size routines built on it: a 5x5 symmetric linear
 * solver (Gaussian elimination with partial pivoting) and a 3x3 symmetric Jacobi
 * eigen-decomposition.
 *
 * MSFLOAT value = sign * mantissa * 2^(exponent - 128). Zero is all three fields 0;
 * any other value has sign +1 or -1 and a normalised mantissa (32768..65535), so the
 * magnitudes run from 2^-113 to 65535 * 2^127 (about 1.1e43) with 16 significant bits.
 * Nothing rounds: every dropped bit is discarded, so conversions, products, quotients,
 * square roots and same-sign sums are truncated toward zero in magnitude. A product whose
 * mantissas multiply to less than 2^31, or a quotient whose dividend mantissa is below the
 * divisor's, keeps only 15 significant bits (its last bit is 0). A difference is formed
 * with one guard bit u = 2^(larger exponent - 129): exact (then truncated) when the
 * exponents differ by at most 1, otherwise within -u..+u of the exact difference.
 *
 * Every operation works in place on its first argument `a` (left operand and result);
 * `b` is read only and may point to the same object as `a`.
 *
 * Packed symmetric matrices: the upper triangle, row by row (3x3: six elements
 * (0,0) (0,1) (0,2) (1,1) (1,2) (2,2); 5x5: fifteen elements (0,0)..(0,4), (1,1)..(1,4),
 * (2,2)..(2,4), (3,3), (3,4), (4,4)).
 *
 * No state, no allocation: every function touches only its arguments and read-only
 * constants, so all of them are reentrant.
 */
#ifndef KMXC_NUMERICS_H
#define KMXC_NUMERICS_H

#include <stdint.h>

#include "common/common.h"

KMXC_BEGIN_DECLS

/* Software floating-point value; four bytes, copied by assignment. */
typedef struct MSFLOAT {
    int8_t sign;       /* +1 positive, -1 negative, 0 zero */
    uint8_t exponent;  /* power of two, biased by 128 (0..255) */
    uint16_t mantissa; /* magnitude digits, bit 15 set unless the value is zero */
} MSFLOAT;

#ifdef __cplusplus
static_assert(sizeof(MSFLOAT) == 4, "MSFLOAT is four bytes");
#else
_Static_assert(sizeof(MSFLOAT) == 4, "MSFLOAT is four bytes");
#endif

/* One eigenpair of a 3x3 decomposition. */
typedef struct MsEigenPair {
    MSFLOAT value;     /* eigenvalue; zero and negative values are returned as MSFLOAT_0 */
    int32_t vector[3]; /* unit eigenvector x, y, z in Q14 (16384 = 1.0) */
} MsEigenPair;

/* ---- Statuses -------------------------------------------------------------------
 *     0  success, the result was stored
 *    -1  MSFLOAT_NEGSQRT    square root of a negative value
 *    -2  MSFLOAT_DIVZERO    division by zero
 *  -126  MSFLOAT_UNDERFLOW  the result's exponent would be below 0
 *  -127  MSFLOAT_OVERFLOW   the result's exponent would be above 255, or a conversion
 *                           to integer would leave the 32-bit range
 * All failures are negative: test for < 0 and pass the status on unchanged.
 */
#define MSFLOAT_NEGSQRT (-1)
#define MSFLOAT_DIVZERO (-2)
#define MSFLOAT_UNDERFLOW (-126)
#define MSFLOAT_OVERFLOW (-127)

/* MSFLOAT_Sign's values (sign + 1). */
#define MSFLOAT_SIGN_NEGATIVE 0
#define MSFLOAT_SIGN_ZERO 1
#define MSFLOAT_SIGN_POSITIVE 2

/* ---- Constants ------------------------------------------------------------------
 *   MSFLOAT_0          (0, 0, 0)           0
 *   MSFLOAT_1          (+1, 113, 0x8000)   1
 *   MSFLOAT_0x4000     (+1, 127, 0x8000)   16384
 *   MSFLOAT_maxsint32  (+1, 143, 0xFFFF)   2147450880: MSFLOAT_I2F of 2147483647 and
 *                                          the largest magnitude MSFLOAT_F2I converts
 */
KMXC_API extern const MSFLOAT MSFLOAT_0;
KMXC_API extern const MSFLOAT MSFLOAT_1;
KMXC_API extern const MSFLOAT MSFLOAT_0x4000;
KMXC_API extern const MSFLOAT MSFLOAT_maxsint32;

/* ---- Operations -----------------------------------------------------------------
 *   MSFLOAT_I2F            *a = value (low bits beyond 16 significant dropped)    0
 *   MSFLOAT_F2I            *out = *a truncated toward zero          0, -127 (out untouched)
 *   MSFLOAT_Sign           0 negative, 1 zero, 2 positive (MSFLOAT_SIGN_*: a value,
 *                          not a status)
 *   MSFLOAT_OpMultiEq      a = a * b                                0, -126, -127
 *   MSFLOAT_OpDivEq        a = a / b                                0, -2, -126, -127
 *   MSFLOAT_OpShiftEq      a = a * 2^n                              0, -126, -127
 *   MSFLOAT_OpNeg          a = -a                                   0
 *   MSFLOAT_OpAbs          a = |a|                                  0
 *   MSFLOAT_AbsCompGreater 1 if |a| > |b|, else 0
 *   MSFLOAT_OpPlusEq       a = a + b                                0, -126, -127
 *   MSFLOAT_OpMinusEq      a = a - b                                0, -126, -127
 *   MSFLOAT_OpCompGreater  1 if a > b, else 0
 *   MSFLOAT_Square         a = a * a                                0, -126, -127
 *   MSFLOAT_Sqrt           a = sqrt(a)                              0, -1
 *
 * On an exponent out of range: OpMultiEq, OpDivEq and Square have already written the
 * new sign and mantissa and keep the old exponent; OpPlusEq, OpMinusEq and OpShiftEq
 * leave a unchanged. Division by zero and a negative square root leave a unchanged.
 *
 * MSFLOAT_OpShiftEq's count n is int16_t: callers pass -24..+10. The working exponent
 * is exponent + n taken modulo 2^16 as a signed 16-bit number, so counts large enough
 * to wrap it report the wrapped exponent's status.
 */
KMXC_API int8_t MSFLOAT_I2F(MSFLOAT *a, int32_t value);
KMXC_API int8_t MSFLOAT_F2I(int32_t *out, const MSFLOAT *a);
KMXC_API int8_t MSFLOAT_Sign(const MSFLOAT *a);
KMXC_API int8_t MSFLOAT_OpMultiEq(MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_OpDivEq(MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_OpShiftEq(MSFLOAT *a, int16_t n);
KMXC_API int8_t MSFLOAT_OpNeg(MSFLOAT *a);
KMXC_API int8_t MSFLOAT_OpAbs(MSFLOAT *a);
KMXC_API int8_t MSFLOAT_AbsCompGreater(const MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_OpPlusEq(MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_OpMinusEq(MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_OpCompGreater(const MSFLOAT *a, const MSFLOAT *b);
KMXC_API int8_t MSFLOAT_Square(MSFLOAT *a);
KMXC_API int8_t MSFLOAT_Sqrt(MSFLOAT *a);

/* ---- Dense routines -------------------------------------------------------------
 *   MsSolve                A (packed 5x5, 15 values) x = r (5 values); x must not
 *                          overlap r. Returns 0, or the negative status of the first
 *                          failing division or multiplication (a zero pivot gives -2);
 *                          x is then partly computed and must be discarded.
 *   MsJacobiCalcEigenPair  packed 3x3 symmetric matrix (6 values) -> three eigenpairs,
 *                          eigenvalues in descending order, at most six rotations.
 *                          Returns 0; arithmetic statuses inside are not examined.
 * Inputs are read only.
 */
KMXC_API int8_t MsSolve(const MSFLOAT A[15], const MSFLOAT r[5], MSFLOAT x[5]);
KMXC_API int8_t MsJacobiCalcEigenPair(const MSFLOAT m[6], MsEigenPair pairs[3]);

KMXC_END_DECLS

#endif /* KMXC_NUMERICS_H */
