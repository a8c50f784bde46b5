/*
 * Orientation library: the offsets subtracted from every sample, the integer
 * attitude and heading, the azimuth hold filter, the double-precision Euler angles,
 * rotation matrix and physical units, and the carry-over of the magnetic offset
 * when the magnetometer's rough offset changes.
 *
 * Units: magnetic samples and offsets in corrected magnetometer counts (0.4 uT
 * each); gravity samples and offsets in 1/4096 of standard gravity (a device lying
 * still in its reference attitude reads about (0, 0, -4096)); both as in
 * common/common.h, which also holds KmxAxesData. Angles are whole degrees, heading
 * measured from north toward east.
 *
 * State: g_AxesLib (the two offsets) and the heading smoother's and azimuth
 * filter's histories, all static. No threads, no locks: call from one thread, one
 * call at a time. No function allocates.
 */
#ifndef KMXC_ORIENTATION_H
#define KMXC_ORIENTATION_H

#include <stdint.h>

#include "common/common.h"

KMXC_BEGIN_DECLS

/* Results, tabled per function below. */
enum KmxAxesLibResult {
    KMXC_ORI_OK = 0,
    KMXC_ORI_NO_ATTITUDE = 1, /* KmxAxesLibGetAttitude: the default record was written */
    KMXC_ORI_NO_HEADING = 1,  /* KmxAxesLibCalcDirectionWOF: heading set to 0 */
    KMXC_ORI_INVALID = -1     /* a null pointer or an argument out of range; nothing done */
};

/* The library's offsets; zero at load and after KmxAxesLibInit. */
typedef struct KmxAxesLib {
    KmxAxesData msOffset; /* subtracted from every magnetic sample */
    KmxAxesData gsOffset; /* subtracted from every gravity sample */
} KmxAxesLib;

KMXC_API extern KmxAxesLib g_AxesLib;

/* ---- Offsets --------------------------------------------------------------------
 * Get/Set copy between the caller's record and g_AxesLib; they check neither the
 * pointer nor the range and return 0.
 *
 *   KmxAxesLibIsValidMsOffset     1: non-null and every component in -16384..16384
 *   KmxAxesLibIsValidRoughOffset  1: non-null and each of the 3 steps <= 31
 *                                 0: otherwise (KMXC_ROUGH_UNKNOWN, 255, marks
 *                                 "not known")
 *   KmxAxesGsCalibGetGsOffset     out = (x, y, z + 4096) of a resting gravity sample;
 *                                 stores nothing, returns 0
 */
KMXC_API int8_t KmxAxesLibGetMsOffset(KmxAxesData *out);
KMXC_API int8_t KmxAxesLibSetMsOffset(const KmxAxesData *in);
KMXC_API int8_t KmxAxesLibGetGsOffset(KmxAxesData *out);
KMXC_API int8_t KmxAxesLibSetGsOffset(const KmxAxesData *in);
KMXC_API int8_t KmxAxesLibIsValidMsOffset(const KmxAxesData *offset);
KMXC_API int8_t KmxAxesLibIsValidRoughOffset(const uint8_t *rough);
KMXC_API int8_t KmxAxesGsCalibGetGsOffset(const KmxAxesData *resting, KmxAxesData *out);

/* ---- Attitude (integer) -----------------------------------------------------------
 * KmxAxesLibGetAttitude removes the offsets, limits each component to
 * -16384..16384, and builds the Q12 east/north/up rows from the two samples in
 * 32-bit integer arithmetic (no floating point, fixed running time). The gravity
 * sample points the way gravity pulls. The north row is not normalised again: its
 * length is 4096 only to within the truncations of the other two rows.
 *
 *   0  KMXC_ORI_OK           attitude formed
 *   1  KMXC_ORI_NO_ATTITUDE  zero field, zero gravity or field parallel to gravity:
 *      the output holds the default record (identity matrix, zero norms and
 *      vectors, msGsCos 4096)
 * No pointer is checked.
 */
typedef struct KmxAxesAttitude {
    int16_t matrix[9]; /* Q12 row-major: row 0 east, row 1 north, row 2 up (device axes) */
    uint16_t msNorm;   /* length of the limited magnetic vector, magnetic counts */
    uint16_t gsNorm;   /* length of the limited gravity vector, gravity counts */
    int16_t msGsCos;   /* Q12 cosine between gravity and field, -4096..4096 */
    KmxAxesData ms;    /* magnetic sample - msOffset, limited to +-16384 */
    KmxAxesData gs;    /* gravity sample - gsOffset, limited to +-16384 */
} KmxAxesAttitude;

KMXC_API int8_t KmxAxesLibGetAttitude(const KmxAxesData *ms, const KmxAxesData *gs, KmxAxesAttitude *out);

/* ---- Heading (integer) -------------------------------------------------------------
 * Heading in whole degrees 0..359, north toward east, of the device's y axis; when
 * |up row's y entry| exceeds threshold (Q12, 0..4096) the y axis stands too steep
 * and the heading of the -z axis (+z when y points down) is taken instead. The
 * arctangent is a 33-entry table with linear interpolation (about 1/8 degree).
 *
 *   KmxAxesLibCalcDirectionWOF  0 KMXC_ORI_OK heading written; 1 KMXC_ORI_NO_HEADING
 *                               both chosen entries are zero, heading set to 0.
 *                               Keeps no state.
 *   KmxAxesLibCalcDirection     0 KMXC_ORI_OK always: the same heading passed through a
 *                               second-order smoother whose history lives as long as
 *                               the library and is never reset (not by
 *                               KmxAxesLibInit either).
 * No pointer is checked.
 */
KMXC_API int8_t KmxAxesLibCalcDirectionWOF(const KmxAxesAttitude *attitude, uint16_t *heading, int32_t threshold);
KMXC_API int8_t KmxAxesLibCalcDirection(const KmxAxesAttitude *attitude, uint16_t *heading, int32_t threshold);

/* ---- Azimuth hold filter -----------------------------------------------------------
 * Holds one heading while the recent headings agree with their smoothed value to
 * within 5 degrees, and passes each heading through, truncated to a whole degree,
 * once the smoothed value moves more than 5 degrees from the held one. Usable only
 * after KmxAxesLibAzimuthFilterInit (KmxAxesLibInit calls it).
 *
 *   KmxAxesLibGetAzimuthFiltered  0 KMXC_ORI_OK done; -1 KMXC_ORI_INVALID out is null
 *                                 or heading is outside 0.0..360.0 (NaN included):
 *                                 nothing changes
 */
KMXC_API void KmxAxesLibAzimuthFilterInit(void);
KMXC_API int8_t KmxAxesLibGetAzimuthFiltered(double heading, double *out);

/* ---- Rotation matrix and Euler angles (double precision) -------------------------
 * Price on a processor without an FPU: every double operation is a library call.
 * Gravity and field in physical units, the matrix and the Euler angles together take
 * about 25,100 instructions on ARMv5TE soft-float (armel), against about 720 on
 * x86-64 and about 1,700 for a whole integer cycle (correction, calibration sample,
 * integer attitude and heading) on armel (bench/icount/count.sh). The integer path
 * (KmxAxesLibGetAttitude, KmxAxesLibCalcDirection) gives the heading for that price.
 *
 * KmxAxesLibGetRotationMatrix: nine doubles row-major, rows east, north, up as unit
 * vectors in device axes; only the directions of gravity and field matter.
 *   0 KMXC_ORI_OK done; -1 KMXC_ORI_INVALID a pointer is null, or gravity, field,
 *   their cross product or the north row has length exactly 0.0 (nothing written)
 * KmxAxesLibGetEuler: angles = azimuth (0..360, after the hold filter, which it
 * advances by one step), pitch (-180..179: minus the elevation of the y axis,
 * folded beyond +-90 when the device faces down), roll (-90..90: minus the
 * elevation of the x axis); each truncated toward zero to a whole number.
 *   0 KMXC_ORI_OK done; -1 KMXC_ORI_INVALID a pointer is null
 */
KMXC_API int8_t KmxAxesLibGetRotationMatrix(const double *gravity, const double *field, double *matrix);
KMXC_API int8_t KmxAxesLibGetEuler(const double *matrix, double *angles);

/* ---- Physical units -----------------------------------------------------------------
 * Offset removed and limited as in KmxAxesLibGetAttitude, then scaled: gravity to
 * m/s^2 (x 1/4096, then x 9.80665), field to microtesla (x 0.4). Out: x, y, z.
 *   0 KMXC_ORI_OK done; -1 KMXC_ORI_INVALID a pointer is null (nothing written)
 */
KMXC_API int8_t KmxAxesLibGetGravityEarth(const KmxAxesData *gs, double *out);
KMXC_API int8_t KmxAxesLibGetMagneticT(const KmxAxesData *ms, double *out);

/* ---- Initialisation ---------------------------------------------------------------
 * Zeroes both offsets and resets the azimuth filter; leaves the heading smoother's
 * history alone. May be called any number of times. Returns 0.
 */
KMXC_API int8_t KmxAxesLibInit(void);

/* ---- Magnetic offset carry-over ----------------------------------------------------
 * After the magnetometer's rough offset changed from oldRough to newRough, out =
 * in minus, per channel k and per step up, the corrected response of one rough step
 * (226 raw counts on channel k through KmxAxesDrvMsensCorrection at g_Temprature);
 * plus it per step down. Steps are not range-checked; in and out may be the same
 * record; g_AxesLib is not written.
 *   0 KMXC_ORI_OK done; -1 KMXC_ORI_INVALID a pointer is null (out untouched)
 */
KMXC_API int8_t KmxAxesLibRecalcMsOffset(const KmxAxesData *in, KmxAxesData *out, const uint8_t *oldRough,
                                         const uint8_t *newRough);

KMXC_END_DECLS

#endif /* KMXC_ORIENTATION_H */
