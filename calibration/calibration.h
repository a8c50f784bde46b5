/*
 * Magnetic offset calibration: finds the magnetometer's offset as the centre of the
 * sphere that the raw magnetic samples trace while the phone is turned.
 *
 * The front end (KmxAxesMsCalib*) owns one offset estimator (KmxAxesMsCalib02_*).
 * Samples are thinned out, collected in batches of 16 and each full batch is fitted
 * with a sphere in MSFLOAT arithmetic. The spread of the batch (from the eigenvalues
 * of its scatter matrix) decides what the fit may determine:
 *   - spread in three dimensions: all three offset components (return 63);
 *   - in a plane: the two in-plane components; the component along the plane normal
 *     stays bound to the old offset (return status | axis bits). Two successive planar
 *     batches are also combined into a trial three-dimensional fit;
 *   - along a line: nothing (the batch is rejected).
 * A new offset is published only through KmxAxesMsCalibGetOffset; the caller moves it
 * to the orientation library and the calibration file.
 *
 * Units: samples and offsets in corrected magnetometer counts (0.4 uT each). Only the
 * low 16 bits of each sample component are kept, so samples must lie in the int16
 * range. Integer and MSFLOAT arithmetic only; no allocation; all state is static and
 * unguarded: call from one thread, one call at a time. Pointers are not checked
 * (the detail record of KmxAxesMsCalibUpdateDetail may be null).
 */
#ifndef KMXC_CALIBRATION_H
#define KMXC_CALIBRATION_H

#include <stddef.h>
#include <stdint.h>

#include "common/common.h"
#include "numerics/numerics.h"

KMXC_BEGIN_DECLS

/* ---- Results -------------------------------------------------------------------------
 * KmxAxesMsCalibUpdate(Detail): bits 0..2 carry the status (0..7), bits 3, 4 and 5 are
 * set for the axes x, y and z whose offset component the call determined anew. */
enum KmxcCalibResult {
    KMXC_CALIB_OK = 0,             /* every front-end function but the two below */
    KMXC_CALIB_SOLVE_FAILED = -1,  /* the estimator or a trial estimator failed to solve */
    KMXC_CALIB_STATUS_MASK = 0x07, /* the status part of a result */
    KMXC_CALIB_AXIS_X = 0x08,
    KMXC_CALIB_AXIS_Y = 0x10,
    KMXC_CALIB_AXIS_Z = 0x20,
    /* Any of the axis bits: a new offset. */
    KMXC_CALIB_NEW_OFFSET_BITS = KMXC_CALIB_AXIS_X | KMXC_CALIB_AXIS_Y | KMXC_CALIB_AXIS_Z,
    /* 63: three-dimensional calibration, the status now KMXC_CALIB_STATUS_CALIBRATED. */
    KMXC_CALIB_THREE_D = KMXC_CALIB_STATUS_MASK | KMXC_CALIB_NEW_OFFSET_BITS,
    /* status | 48, 40, 24: planar calibration, the plane's normal along x, y, z. */
    KMXC_CALIB_PLANE_X = KMXC_CALIB_AXIS_Y | KMXC_CALIB_AXIS_Z,
    KMXC_CALIB_PLANE_Y = KMXC_CALIB_AXIS_X | KMXC_CALIB_AXIS_Z,
    KMXC_CALIB_PLANE_Z = KMXC_CALIB_AXIS_X | KMXC_CALIB_AXIS_Y,
    KMXC_CALIB_STATUS_CALIBRATED = 7, /* the status after a three-dimensional fit */
    KMXC_CALIB_STATUS_REFUSED = -1    /* KmxAxesMsCalibSetStatus: above 7, not stored */
};

/* KmxAxesMsCalib02_Update, one estimator step (table below). */
enum KmxcCalibEstimatorResult {
    KMXC_CALIB_EST_FIT_ACCEPTED = 0,
    KMXC_CALIB_EST_BUFFERED = 1,
    KMXC_CALIB_EST_REFUSED_SPREAD = 2,
    KMXC_CALIB_EST_EIGEN_TOO_LARGE = 3,
    KMXC_CALIB_EST_RESIDUAL_TOO_LARGE = 4,
    KMXC_CALIB_EST_EIGEN_TOO_SMALL = 5,
    KMXC_CALIB_EST_SKIPPED = 6,
    KMXC_CALIB_EST_STATISTICS_FAILED = -1,
    KMXC_CALIB_EST_SOLVE_FAILED = -2
};

/* KmxAxesMsCalibCheckDistribution and every classifier. */
enum KmxcCalibSpread { KMXC_CALIB_SPREAD_ACCEPTED = 0, KMXC_CALIB_SPREAD_LINE = 2 };

/* The residual of a step that made no fit (KmxAxesMsCalibDetail, KmxAxesMsCalib02Result). */
#define KMXC_CALIB_NO_RESIDUAL 2147483647

/* Non-zero when a KmxAxesMsCalibUpdate(Detail) result brings a new offset
 * (three-dimensional or planar): read it with KmxAxesMsCalibGetOffset. */
static inline int kmxc_calib_new_offset(int result) { return result > 0 && (result & KMXC_CALIB_NEW_OFFSET_BITS) != 0; }

/* ---- Records ---------------------------------------------------------------------- */

/* Acceptance thresholds (KmxAxesMsCalibSetThreshold); KmxAxesMsCalibInit sets the defaults. */
#define KMXC_CALIB_DEFAULT_RATIO_MIN 64
#define KMXC_CALIB_DEFAULT_RATIO_MID 96
#define KMXC_CALIB_DEFAULT_RESIDUAL 0x200000
typedef struct KmxAxesMsCalibThreshold {
    int16_t ratioMinThreshold; /* smallest eigenvalue above this (1/1024 of the largest): 3-D */
    int16_t ratioMidThreshold; /* else middle eigenvalue above this: planar, else a line */
    int32_t residualThreshold; /* largest accepted residual of the sphere fit */
} KmxAxesMsCalibThreshold;

/* Optional per-sample report of KmxAxesMsCalibUpdateDetail. */
typedef struct KmxAxesMsCalibDetail {
    int16_t ratioMin; /* 1024 * smallest / largest eigenvalue, low 16 bits */
    int16_t ratioMid; /* 1024 * middle / largest eigenvalue, low 16 bits */
    int32_t residual; /* residual of the fit; KMXC_CALIB_NO_RESIDUAL when no fit was made */
} KmxAxesMsCalibDetail;

/* Batch classifier: reads ratios {ratioMin, ratioMid}, writes weights {w0, w1} for the
 * eigenvectors of the middle and the smallest eigenvalue (1024 binds the new offset's
 * component along that eigenvector to the old offset, 0 leaves it free); returns 0 to
 * go on, anything else refuses the batch. */
typedef int8_t (*KmxAxesMsCalibCheckDistributionFunc)(const int32_t *ratios, int16_t *weights);

/* Estimator configuration, copied into each context by KmxAxesMsCalib02_Init. */
typedef struct KmxAxesMsCalib02Config {
    uint8_t skipPeriod;                                    /* one sample in skipPeriod is used */
    int32_t minEigen;                                      /* floor for the largest eigenvalue */
    KmxAxesMsCalibCheckDistributionFunc checkDistribution; /* batch classifier */
    int8_t ringMode;                                       /* 0 batches, else sliding window of 16 */
    uint8_t initialSkipCounter;                            /* start of the decimation counter */
    MSFLOAT residualThreshold;                             /* largest accepted residual */
} KmxAxesMsCalib02Config;

/* Estimator state; owned by its user, the estimator keeps no pointers. */
typedef struct KmxAxesMsCalib02Context {
    int16_t buffer[16][3];         /* the batch, x, y, z; never cleared by counter resets */
    uint8_t skipCounter;           /* decimation counter */
    int8_t count;                  /* valid samples in buffer, 0..capacity */
    int8_t capacity;               /* 16 */
    int8_t writeIndex;             /* slot of the next sample, 0..capacity */
    KmxAxesData offset;            /* current offset estimate */
    KmxAxesMsCalib02Config config; /* private copy of the configuration */
    MSFLOAT minEigenValue;         /* MSFLOAT of config.minEigen */
} KmxAxesMsCalib02Context;

/* Report of one estimator step: 16 int32 slots. Only code 0 fills it completely; every
 * step sets ratioMin = ratioMid = 0 and residual = KMXC_CALIB_NO_RESIDUAL first. */
typedef struct KmxAxesMsCalib02Result {
    int32_t ratioMin;          /* slot 0: F2I(1024 * lambda2 / lambda0) */
    int32_t ratioMid;          /* slot 1: F2I(1024 * lambda1 / lambda0) */
    int16_t weights[2];        /* slot 2: the classifier's weights, weights[0] first */
    MSFLOAT eigenValue[3];     /* slots 3..5: lambda0 >= lambda1 >= lambda2, as stored */
    int32_t eigenVector[3][3]; /* slots 6..14: e0, e1, e2, each x, y, z in Q14 */
    int32_t residual;          /* slot 15: F2I of the fit's residual */
} KmxAxesMsCalib02Result;

#ifdef __cplusplus
static_assert(sizeof(KmxAxesMsCalibThreshold) == 8 && offsetof(KmxAxesMsCalibThreshold, residualThreshold) == 4,
              "threshold record layout");
static_assert(sizeof(KmxAxesMsCalibDetail) == 8 && offsetof(KmxAxesMsCalibDetail, residual) == 4,
              "detail record layout");
static_assert(offsetof(KmxAxesMsCalib02Config, minEigen) == 4 &&
                  offsetof(KmxAxesMsCalib02Config, checkDistribution) == 8 &&
                  offsetof(KmxAxesMsCalib02Config, ringMode) == 8 + sizeof(void *) &&
                  offsetof(KmxAxesMsCalib02Config, residualThreshold) == 10 + sizeof(void *),
              "config record layout");
static_assert(offsetof(KmxAxesMsCalib02Context, skipCounter) == 96 &&
                  offsetof(KmxAxesMsCalib02Context, writeIndex) == 99 &&
                  offsetof(KmxAxesMsCalib02Context, offset) == 100 &&
                  offsetof(KmxAxesMsCalib02Context, config) % sizeof(void *) == 0,
              "context record layout");
static_assert(sizeof(KmxAxesMsCalib02Result) == 64 && offsetof(KmxAxesMsCalib02Result, weights) == 8 &&
                  offsetof(KmxAxesMsCalib02Result, eigenValue) == 12 &&
                  offsetof(KmxAxesMsCalib02Result, eigenVector) == 24 &&
                  offsetof(KmxAxesMsCalib02Result, residual) == 60,
              "result record: 16 int32 slots");
#endif

/* ---- Front end ---------------------------------------------------------------------
 *   KmxAxesMsCalibInit               resets thresholds, status, history, main estimator; 0
 *   KmxAxesMsCalibSetThreshold       copies the record; the residual threshold applies at
 *                                    once to the main and to later trial estimators; 0
 *   KmxAxesMsCalibGetStatus          status AND 7
 *   KmxAxesMsCalibSetStatus          0 stored (0..7); -1 KMXC_CALIB_STATUS_REFUSED,
 *                                    status unchanged
 *   KmxAxesMsCalibGetOffset          the main estimator's offset; 0
 *   KmxAxesMsCalibSetOffset          sets it and restarts the batch; 0
 *   KmxAxesMsCalibCheckDistribution  the installed classifier: 0 KMXC_CALIB_SPREAD_ACCEPTED
 *                                    three-dimensional {0, 1} or planar {0 or 1, 1024};
 *                                    2 KMXC_CALIB_SPREAD_LINE a line
 *
 * KmxAxesMsCalibUpdate(Detail), one call per raw sample (before any offset is subtracted):
 *     -1  KMXC_CALIB_SOLVE_FAILED  the estimator or a trial estimator failed to solve
 *   0..7  the status: no new offset (sample skipped, batch filling or batch rejected)
 *     63  KMXC_CALIB_THREE_D       three-dimensional calibration: new offset, status now
 *                                  7 (KMXC_CALIB_STATUS_CALIBRATED)
 *   status | 48 / 40 / 24  KMXC_CALIB_PLANE_X / _Y / _Z: planar calibration, plane normal
 *                          along x / y / z: the other two offset components are new
 *                          (unless the old offset stayed)
 * kmxc_calib_new_offset(result) tells the last two from the others. The detail record,
 * if given, is filled on every call: (0, 0, KMXC_CALIB_NO_RESIDUAL) when no fit was made.
 */
KMXC_API int8_t KmxAxesMsCalibInit(void);
KMXC_API int8_t KmxAxesMsCalibSetThreshold(const KmxAxesMsCalibThreshold *threshold);
KMXC_API int8_t KmxAxesMsCalibGetStatus(void);
KMXC_API int8_t KmxAxesMsCalibSetStatus(uint8_t status);
KMXC_API int8_t KmxAxesMsCalibGetOffset(KmxAxesData *offset);
KMXC_API int8_t KmxAxesMsCalibSetOffset(const KmxAxesData *offset);
KMXC_API int8_t KmxAxesMsCalibUpdate(const KmxAxesData *sample);
KMXC_API int8_t KmxAxesMsCalibUpdateDetail(const KmxAxesData *sample, KmxAxesMsCalibDetail *detail);
KMXC_API int8_t KmxAxesMsCalibCheckDistribution(const int32_t *ratios, int16_t *weights);

/* ---- Offset estimator --------------------------------------------------------------
 *   KmxAxesMsCalib02_Init          counters reset, capacity 16, offset 0, config copied;
 *                                  buffer slots left as they are; 0
 *   KmxAxesMsCalib02_GetOffset     copies the offset out; 0
 *   KmxAxesMsCalib02_SetOffset     count = writeIndex = 0, then copies the offset in; 0
 *   KmxAxesMsCalib02_AddToBuffer1  stores the low 16 bits of the sample; a full buffer
 *                                  starts over (count 1) in batch mode and slides in ring
 *                                  mode; 0
 *
 * KmxAxesMsCalib02_Update, one step (result may be null), KMXC_CALIB_EST_*:
 *      6  SKIPPED            sample skipped by the decimation          counters unchanged
 *      1  BUFFERED           sample buffered, batch not yet full
 *     -1  STATISTICS_FAILED  statistics failed (never happens)         buffer full
 *      5  EIGEN_TOO_SMALL    largest eigenvalue below the floor        buffer full
 *      3  EIGEN_TOO_LARGE    largest eigenvalue above MSFLOAT_maxsint32  buffer full
 *      2  REFUSED_SPREAD     the classifier refused the batch          buffer full
 *      4  RESIDUAL_TOO_LARGE residual above the threshold              count = writeIndex = 0
 *     -2  SOLVE_FAILED       the solve failed or its centre does not fit in 32 bits;
 *                            offset unchanged, buffer full
 *      0  FIT_ACCEPTED       fit accepted (a planar fit may still keep the old offset);
 *                            count = writeIndex = 0
 * "Buffer full": batch mode starts a new batch with the next sample, ring mode
 * evaluates again with the newest 16.
 */
KMXC_API int8_t KmxAxesMsCalib02_Init(KmxAxesMsCalib02Context *context, const KmxAxesMsCalib02Config *config);
KMXC_API int8_t KmxAxesMsCalib02_GetOffset(const KmxAxesMsCalib02Context *context, KmxAxesData *offset);
KMXC_API int8_t KmxAxesMsCalib02_SetOffset(KmxAxesMsCalib02Context *context, const KmxAxesData *offset);
KMXC_API int8_t KmxAxesMsCalib02_AddToBuffer1(KmxAxesMsCalib02Context *context, const KmxAxesData *sample);
KMXC_API int8_t KmxAxesMsCalib02_Update(KmxAxesMsCalib02Context *context, const KmxAxesData *sample,
                                        KmxAxesMsCalib02Result *result);

KMXC_END_DECLS

#endif /* KMXC_CALIBRATION_H */
