/*
 * Names of the calibration's result codes, for the library's own units and the code
 * beside it that reads them (the service kit, the tools). The values are the exported
 * contract (calibration.h); only the names are added here. Not installed.
 */
#ifndef KMXC_CALIBRATION_RESULTS_H
#define KMXC_CALIBRATION_RESULTS_H

/* KmxAxesMsCalibUpdate(Detail): the status 0..7 when no new offset, else these. */
enum KmxcCalibResult {
    KMXC_CALIB_SOLVE_FAILED = -1,      /* the estimator or a trial estimator failed to solve */
    KMXC_CALIB_STATUS_MASK = 7,        /* the status part of a result */
    KMXC_CALIB_THREE_D = 63,           /* three-dimensional calibration, status now 7 */
    KMXC_CALIB_NEW_OFFSET_BITS = 0x38, /* any of them set: a new offset (3-D or planar) */
    KMXC_CALIB_PLANE_X = 48,           /* status | this: planar, normal along x */
    KMXC_CALIB_PLANE_Y = 40,
    KMXC_CALIB_PLANE_Z = 24
};

/* KmxAxesMsCalib02_Update, one estimator step. */
enum KmxcEstimatorResult {
    KMXC_EST_FIT_ACCEPTED = 0,
    KMXC_EST_BUFFERED = 1,       /* batch not yet full */
    KMXC_EST_REFUSED_SPREAD = 2, /* the classifier refused the batch */
    KMXC_EST_EIGEN_TOO_LARGE = 3,
    KMXC_EST_RESIDUAL_TOO_LARGE = 4,
    KMXC_EST_EIGEN_TOO_SMALL = 5,
    KMXC_EST_SKIPPED = 6, /* decimation */
    KMXC_EST_STATISTICS_FAILED = -1,
    KMXC_EST_SOLVE_FAILED = -2
};

/* KmxAxesMsCalibCheckDistribution. */
enum KmxcSpread { KMXC_SPREAD_ACCEPTED = 0, KMXC_SPREAD_LINE = 2 };

#ifdef __cplusplus
/* A result that brings a new offset (three-dimensional or planar). */
constexpr bool kmxc_calib_new_offset(int result) { return result > 0 && (result & KMXC_CALIB_NEW_OFFSET_BITS) != 0; }
#endif

#endif /* KMXC_CALIBRATION_RESULTS_H */
