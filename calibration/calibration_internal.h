/*
 * Calibration internals: not exported from the shared library, reachable by the unit
 * tests through the static archive.
 */
#ifndef KMXC_CALIBRATION_INTERNAL_H
#define KMXC_CALIBRATION_INTERNAL_H

#include <stdint.h>

#include "calibration/calibration.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The classifier's weight that binds the new offset's component along an eigenvector
 * to the old offset's (0 leaves it free); the fit's side condition is scaled by it. */
#define KMXC_CALIB_BINDING_WEIGHT 1024

/* ---- Front-end state (single instance, zero before KmxAxesMsCalibInit) ---------- */
extern KmxAxesMsCalibThreshold g_MsCalibThreshold; /* as last set; ratios read per batch */
extern uint8_t g_MsCalibStatus;                    /* 0..7 */
extern KmxAxesMsCalib02Context g_MsCalibEstimator; /* the main estimator */
extern KmxAxesMsCalib02Config g_MsCalibConfig;     /* main and trial estimators' config */
extern uint8_t g_MsCalibPlanarValid;               /* 1: history holds the last planar batch */
extern int16_t g_MsCalibPlanarHistory[8][3];       /* every second sample of that batch */

/* Axis bits of a planar result for a plane normal (x, y, z): KMXC_CALIB_PLANE_X, _Y or
 * _Z for the normal's axis. The largest magnitude wins; ties go to the lower axis. */
int8_t KmxAxesMsCalibPlanarAxisBits(const int32_t *normal);

/* ---- Estimator ---------------------------------------------------------------------- */

/* 2^-10: (+1, 103, 0x8000). Eigenvalues at or below it are left out of the residual. */
extern const MSFLOAT MSFLOAT_1div1024;

/* Normal equations of the linearised sphere fit of samples[0..n-1]:
 *   centre  per-axis integer mean, truncated toward zero
 *   matrix  packed 3x3 scatter sum d d^T of the deviations d = p - centre
 *   vector  b = sum d (|d|^2 - R2) / 2, R2 the mean of |d|^2
 *   scalar  s = sum ((|d|^2 - R2) / 2)^2
 * n <= 0 yields all zeros. Returns 0. */
int8_t KmxAxesMsCalib02_CalcStatistics(const int16_t (*samples)[3], int8_t n, KmxAxesData *centre, MSFLOAT *matrix,
                                       MSFLOAT *vector, MSFLOAT *scalar);

/* Residual of the unconstrained fit, s - b.M^+ b, over the eigenpairs of M (eigenvalues
 * of 2^-10 or less left out) into *residual. */
void KmxAxesMsCalib02_CalcResidual(const MSFLOAT *b, const MsEigenPair *pairs, const MSFLOAT *s, MSFLOAT *residual);

/* 256 cos^2 of the angle between the plane normal e (Q14) and the old offset's
 * difference from the new offset moved along e into the samples' plane; 257 when that
 * difference is zero. Above 230 a planar fit keeps the old offset. */
int16_t KmxAxesMsCalib02_CalcShiftAlignment(const KmxAxesData *oldOffset, const KmxAxesData *newOffset,
                                            const KmxAxesData *centre, const int32_t *eigenvector);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_CALIBRATION_INTERNAL_H */
