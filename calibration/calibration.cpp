// Calibration front end: thresholds, status, the main estimator and the planar history
// whose samples are combined with the next planar batch in a trial estimator.
#include "calibration/calibration.h"
#include "calibration/calibration_internal.h"

constinit KmxAxesMsCalibThreshold g_MsCalibThreshold = {0, 0, 0};
constinit uint8_t g_MsCalibStatus = 0;
constinit KmxAxesMsCalib02Context g_MsCalibEstimator = {};
constinit KmxAxesMsCalib02Config g_MsCalibConfig = {};
constinit uint8_t g_MsCalibPlanarValid = 0;
constinit int16_t g_MsCalibPlanarHistory[8][3] = {};

namespace {

bool three_dimensional(const KmxAxesMsCalib02Result &r) { return r.weights[1] <= 1; }

void fill_detail(KmxAxesMsCalibDetail *detail, const KmxAxesMsCalib02Result &r) {
    if (detail == nullptr) return;
    detail->ratioMin = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(r.ratioMin) & 0xFFFFu));
    detail->ratioMid = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(r.ratioMid) & 0xFFFFu));
    detail->residual = r.residual;
}

KmxAxesData widen(const int16_t *sample) { return KmxAxesData{sample[0], sample[1], sample[2]}; }

int64_t magnitude(int32_t v) { return v < 0 ? -int64_t{v} : int64_t{v}; }

// Combines the stored planar batch with the main estimator's just-fitted one in a trial
// estimator. Returns -1 on a solver failure, 1 when a three-dimensional trial fit was
// adopted into the main estimator, 0 otherwise.
int8_t run_trial(KmxAxesMsCalibDetail *detail) {
    KmxAxesMsCalib02Context trial;
    if (KmxAxesMsCalib02_Init(&trial, &g_MsCalibConfig) < 0) return KMXC_CALIB_SOLVE_FAILED;
    KmxAxesMsCalib02Result r2 = {};
    int8_t adopted = 0;
    for (int i = 0; i < 8; ++i) {
        const KmxAxesData fromHistory = widen(g_MsCalibPlanarHistory[i]);
        if (KmxAxesMsCalib02_Update(&trial, &fromHistory, &r2) < KMXC_CALIB_EST_FIT_ACCEPTED)
            return KMXC_CALIB_SOLVE_FAILED;
        const KmxAxesData fromBatch = widen(g_MsCalibEstimator.buffer[2 * i]);
        const int8_t code = KmxAxesMsCalib02_Update(&trial, &fromBatch, &r2);
        if (code < KMXC_CALIB_EST_FIT_ACCEPTED) return KMXC_CALIB_SOLVE_FAILED;
        if (code == KMXC_CALIB_EST_FIT_ACCEPTED && three_dimensional(r2)) {
            KmxAxesData offset;
            KmxAxesMsCalib02_GetOffset(&trial, &offset);
            KmxAxesMsCalib02_SetOffset(&g_MsCalibEstimator, &offset);
            fill_detail(detail, r2);
            adopted = 1;
        }
    }
    return adopted;
}

}  // namespace

int8_t KmxAxesMsCalibPlanarAxisBits(const int32_t *normal) {
    const int64_t x = magnitude(normal[0]), y = magnitude(normal[1]), z = magnitude(normal[2]);
    const int64_t larger = y > x ? y : x;
    if (z > larger) return KMXC_CALIB_PLANE_Z;
    return y > x ? KMXC_CALIB_PLANE_Y : KMXC_CALIB_PLANE_X;
}

int8_t KmxAxesMsCalibInit(void) {
    g_MsCalibConfig.skipPeriod = 1;
    g_MsCalibConfig.minEigen = 24576;
    g_MsCalibConfig.checkDistribution = KmxAxesMsCalibCheckDistribution;
    g_MsCalibConfig.ringMode = 0;
    g_MsCalibConfig.initialSkipCounter = 1;
    MSFLOAT_I2F(&g_MsCalibConfig.residualThreshold, KMXC_CALIB_DEFAULT_RESIDUAL);

    g_MsCalibThreshold.ratioMinThreshold = KMXC_CALIB_DEFAULT_RATIO_MIN;
    g_MsCalibThreshold.ratioMidThreshold = KMXC_CALIB_DEFAULT_RATIO_MID;
    g_MsCalibThreshold.residualThreshold = KMXC_CALIB_DEFAULT_RESIDUAL;

    g_MsCalibPlanarValid = 0;
    g_MsCalibStatus = 0;
    for (auto &sample : g_MsCalibPlanarHistory)
        for (int16_t &v : sample) v = 0;

    return KmxAxesMsCalib02_Init(&g_MsCalibEstimator, &g_MsCalibConfig);
}

int8_t KmxAxesMsCalibSetThreshold(const KmxAxesMsCalibThreshold *threshold) {
    g_MsCalibThreshold = *threshold;
    MSFLOAT_I2F(&g_MsCalibConfig.residualThreshold, threshold->residualThreshold);
    MSFLOAT_I2F(&g_MsCalibEstimator.config.residualThreshold, threshold->residualThreshold);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalibGetStatus(void) { return static_cast<int8_t>(g_MsCalibStatus & KMXC_CALIB_STATUS_MASK); }

int8_t KmxAxesMsCalibSetStatus(uint8_t status) {
    if (status > KMXC_CALIB_STATUS_MASK) return KMXC_CALIB_STATUS_REFUSED;
    g_MsCalibStatus = status;
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalibGetOffset(KmxAxesData *offset) {
    KmxAxesMsCalib02_GetOffset(&g_MsCalibEstimator, offset);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalibSetOffset(const KmxAxesData *offset) {
    KmxAxesMsCalib02_SetOffset(&g_MsCalibEstimator, offset);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalibCheckDistribution(const int32_t *ratios, int16_t *weights) {
    if (ratios[0] > g_MsCalibThreshold.ratioMinThreshold) {
        weights[0] = 0;
        weights[1] = 1;
        return KMXC_CALIB_SPREAD_ACCEPTED;
    }
    if (ratios[1] > g_MsCalibThreshold.ratioMidThreshold) {
        weights[0] = ratios[0] <= 0 ? 1 : 0;
        weights[1] = KMXC_CALIB_BINDING_WEIGHT;
        return KMXC_CALIB_SPREAD_ACCEPTED;
    }
    weights[0] = KMXC_CALIB_BINDING_WEIGHT;
    weights[1] = KMXC_CALIB_BINDING_WEIGHT;
    return KMXC_CALIB_SPREAD_LINE;
}

int8_t KmxAxesMsCalibUpdate(const KmxAxesData *sample) { return KmxAxesMsCalibUpdateDetail(sample, nullptr); }

int8_t KmxAxesMsCalibUpdateDetail(const KmxAxesData *sample, KmxAxesMsCalibDetail *detail) {
    KmxAxesMsCalib02Result r = {};
    const int8_t code = KmxAxesMsCalib02_Update(&g_MsCalibEstimator, sample, &r);
    fill_detail(detail, r);
    if (code < KMXC_CALIB_EST_FIT_ACCEPTED) return KMXC_CALIB_SOLVE_FAILED;
    const int8_t status = static_cast<int8_t>(g_MsCalibStatus);
    if (code != KMXC_CALIB_EST_FIT_ACCEPTED) return status;

    if (three_dimensional(r)) {
        g_MsCalibPlanarValid = 0;
        g_MsCalibStatus = KMXC_CALIB_STATUS_CALIBRATED;
        return KMXC_CALIB_THREE_D;
    }

    // Planar fit: the main estimator has already taken or refused its new offset.
    int8_t adopted = 0;
    if (g_MsCalibPlanarValid != 0) {
        adopted = run_trial(detail);
        if (adopted < 0) return KMXC_CALIB_SOLVE_FAILED;
    }
    const int8_t axisBits = KmxAxesMsCalibPlanarAxisBits(r.eigenVector[2]);
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 3; ++k) g_MsCalibPlanarHistory[i][k] = g_MsCalibEstimator.buffer[2 * i][k];
    g_MsCalibPlanarValid = 1;

    if (adopted != 0) {
        g_MsCalibPlanarValid = 0;
        g_MsCalibStatus = KMXC_CALIB_STATUS_CALIBRATED;
        return KMXC_CALIB_THREE_D;
    }
    return static_cast<int8_t>(status | axisBits);
}
