// Offset estimator, fitting side: one step per sample (decimation, batching), and for a
// full batch the eigen-decomposition, classification, residual test, constrained
// least-squares solve and the acceptance of the new centre.
#include "calibration/calibration.h"
#include "calibration/calibration_internal.h"
#include "calibration/estimator_math.h"
#include "numerics/msfloat_ops.h"

using kmxc_calibration::bounded_q14;
using kmxc_calibration::i2f_wide;

constinit const MSFLOAT MSFLOAT_1div1024 = {1, 103, 0x8000};

namespace {

constexpr int16_t kKeepOldAbove = 230;  // shift alignment above which a planar fit keeps the old offset
constexpr int64_t kQ14 = 16384;

// Packed 5x5 indexes of A(j, 3) and A(j, 4) for j = 0..2, and of A(3,3), A(4,4).
constexpr int kCouplingIndex[2][3] = {{3, 7, 10}, {4, 8, 11}};
constexpr int kMultiplierDiagIndex[2] = {12, 14};
constexpr int kScatterIndex[6] = {0, 1, 2, 5, 6, 9};

int64_t component(const KmxAxesData *v, int k) { return k == 0 ? v->x : (k == 1 ? v->y : v->z); }

// (a - b).e with e bounded, exact in 64 bits.
int64_t difference_dot(const KmxAxesData *a, const KmxAxesData *b, const int32_t *e) {
    int64_t dot = 0;
    for (int k = 0; k < 3; ++k) dot += (component(a, k) - component(b, k)) * bounded_q14(e[k]);
    return dot;
}

// 1024 * lambda / lambda0 as an integer; 0 when the conversion fails.
int32_t ratio(const MSFLOAT *lambda, const MSFLOAT *lambda0) {
    MSFLOAT q = *lambda;
    msf::OpShiftEq(&q, 10);
    msf::OpDivEq(&q, lambda0);
    int32_t r = 0;
    MSFLOAT_F2I(&r, &q);
    return r;
}

void reset_batch(KmxAxesMsCalib02Context *context) {
    context->count = 0;
    context->writeIndex = 0;
}

// Least squares with up to two side conditions by Lagrange multipliers: rows 0..2 the
// scatter system coupled to the multipliers, row 3 + k the condition that binds the
// centre's component along e(k + 1) to the old offset's with weight[k] / 1024.
void constrained_system(const MSFLOAT (&scatter)[6], const MSFLOAT (&b)[3], const MsEigenPair (&pairs)[3],
                        const int16_t (&weight)[2], const KmxAxesData &offset, const KmxAxesData &c, MSFLOAT (&A)[15],
                        MSFLOAT (&r)[5]) {
    for (int p = 0; p < 6; ++p) msf::Copy(&A[kScatterIndex[p]], scatter[p]);
    A[13] = MSFLOAT_0;
    for (int k = 0; k < 2; ++k) {
        const int32_t *e = pairs[k + 1].vector;
        for (int j = 0; j < 3; ++j) {
            MSFLOAT *entry = &A[kCouplingIndex[k][j]];
            i2f_wide(entry, int64_t{weight[k]} * e[j]);
            msf::OpShiftEq(entry, -24);
        }
        MSFLOAT *diag = &A[kMultiplierDiagIndex[k]];
        msf::I2F(diag, int32_t{weight[k]} - KMXC_CALIB_BINDING_WEIGHT);
        msf::OpShiftEq(diag, -10);
        msf::OpDivEq(diag, &pairs[0].value);
    }
    for (int j = 0; j < 3; ++j) r[j] = b[j];
    // (offset - c).e is exact in 64 bits: an old offset some 75000 counts from the batch
    // (one restored from outside, or an earlier far fit) would overflow 32 bits.
    for (int k = 0; k < 2; ++k) {
        MSFLOAT w;
        i2f_wide(&r[3 + k], difference_dot(&offset, &c, pairs[k + 1].vector));
        msf::I2F(&w, weight[k]);
        msf::OpMultiEq(&r[3 + k], &w);
        msf::OpShiftEq(&r[3 + k], -24);
    }
}

// The centre c + x[0..2] as an int32 offset; false when it is none. A solution beyond
// int32 (possible only with a far-away old offset or an unusual classifier) is refused
// like a failed solve rather than wrapped into a meaningless offset.
bool centre_of(const MSFLOAT (&x)[5], const KmxAxesData &c, KmxAxesData &centre) {
    int32_t *n[3] = {&centre.x, &centre.y, &centre.z};
    for (int j = 0; j < 3; ++j) {
        int32_t shift = 0;
        if (MSFLOAT_F2I(&shift, &x[j]) < 0) return false;
        const int64_t value = int64_t{shift} + component(&c, j);
        if (value < INT32_MIN || value > INT32_MAX) return false;
        *n[j] = static_cast<int32_t>(value);
    }
    return true;
}

// The whole report of an accepted fit; ratios are {ratioMin, ratioMid}.
void report(KmxAxesMsCalib02Result *result, const int32_t (&ratios)[2], const int16_t (&weight)[2],
            const MsEigenPair (&pairs)[3], const MSFLOAT &residual) {
    result->ratioMin = ratios[0];
    result->ratioMid = ratios[1];
    result->weights[0] = weight[0];
    result->weights[1] = weight[1];
    for (int i = 0; i < 3; ++i) {
        result->eigenValue[i] = pairs[i].value;
        for (int j = 0; j < 3; ++j) result->eigenVector[i][j] = pairs[i].vector[j];
    }
    MSFLOAT_F2I(&result->residual, &residual);
}

}  // namespace

void KmxAxesMsCalib02_CalcResidual(const MSFLOAT *b, const MsEigenPair *pairs, const MSFLOAT *s, MSFLOAT *residual) {
    MSFLOAT result;
    msf::Copy(&result, *s);
    MSFLOAT p[3];
    for (int i = 0; i < 3; ++i) {
        msf::SetZero(&p[i]);
        for (int j = 0; j < 3; ++j) {
            MSFLOAT term;
            msf::I2F(&term, pairs[i].vector[j]);
            msf::OpMultiEq(&term, &b[j]);
            msf::OpPlusEq(&p[i], &term);
        }
        msf::OpShiftEq(&p[i], -14);
    }
    for (int i = 0; i < 3; ++i) {
        if (!msf::AbsCompGreater(&pairs[i].value, &MSFLOAT_1div1024)) continue;
        MSFLOAT term;
        msf::Copy(&term, p[i]);
        msf::OpMultiEq(&term, &p[i]);
        msf::OpDivEq(&term, &pairs[i].value);
        msf::OpMinusEq(&result, &term);
    }
    msf::Copy(residual, result);
}

// The plain 32-bit formulation overflows at a * a once the old offset lies about 2900
// counts from the new one, and at the dot products beyond about 130000. Everything here
// is exact 64-bit arithmetic instead, which equals the 32-bit result wherever that one
// does not overflow and stays the true 256 cos^2 beyond. Offsets are int32 and the
// eigenvector is bounded, so t, P and u stay below 2^38; u is then scaled down to below
// 2^24 per axis (only its direction matters) so that a * a and u.u fit in 64 bits.
int16_t KmxAxesMsCalib02_CalcShiftAlignment(const KmxAxesData *oldOffset, const KmxAxesData *newOffset,
                                            const KmxAxesData *centre, const int32_t *eigenvector) {
    int64_t e[3];
    for (int k = 0; k < 3; ++k) e[k] = bounded_q14(eigenvector[k]);

    const int64_t t = difference_dot(centre, newOffset, eigenvector) / kQ14;
    int64_t u[3];
    int64_t largest = 0;
    for (int k = 0; k < 3; ++k) {
        const int64_t projected = (e[k] * t) / kQ14 + component(newOffset, k);
        u[k] = component(oldOffset, k) - projected;
        const int64_t magnitude = u[k] < 0 ? -u[k] : u[k];
        if (magnitude > largest) largest = magnitude;
    }
    constexpr int64_t kScaleLimit = int64_t{1} << 24;
    while (largest >= kScaleLimit) {
        for (int64_t &v : u) v /= 2;
        largest /= 2;
    }

    int64_t dot = 0, norm = 0;
    for (int k = 0; k < 3; ++k) {
        dot += u[k] * e[k];
        norm += u[k] * u[k];
    }
    if (norm == 0) return 257;
    const int64_t a = (dot < 0 ? -dot : dot) >> 10;
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint64_t>((a * a) / norm) & 0xFFFFu));
}

int8_t KmxAxesMsCalib02_Update(KmxAxesMsCalib02Context *context, const KmxAxesData *sample,
                               KmxAxesMsCalib02Result *result) {
    if (result != nullptr) {
        result->ratioMin = 0;
        result->ratioMid = 0;
        result->residual = KMXC_CALIB_NO_RESIDUAL;
    }

    // Decimation; the counters compare as signed bytes.
    const uint8_t old = context->skipCounter;
    context->skipCounter = static_cast<uint8_t>(old + 1u);
    if (static_cast<int8_t>(context->config.skipPeriod) > static_cast<int8_t>(old)) return KMXC_CALIB_EST_SKIPPED;
    context->skipCounter = 1;

    KmxAxesMsCalib02_AddToBuffer1(context, sample);
    if (context->count < context->capacity) return KMXC_CALIB_EST_BUFFERED;

    KmxAxesData c;
    MSFLOAT scatter[6], b[3], s;
    if (KmxAxesMsCalib02_CalcStatistics(context->buffer, context->count, &c, scatter, b, &s) < 0)
        return KMXC_CALIB_EST_STATISTICS_FAILED;

    MsEigenPair pairs[3];
    MsJacobiCalcEigenPair(scatter, pairs);
    const int32_t ratioMid = ratio(&pairs[1].value, &pairs[0].value);
    const int32_t ratioMin = ratio(&pairs[2].value, &pairs[0].value);

    if (msf::OpCompGreater(&context->minEigenValue, &pairs[0].value)) return KMXC_CALIB_EST_EIGEN_TOO_SMALL;
    if (msf::AbsCompGreater(&pairs[0].value, &MSFLOAT_maxsint32)) return KMXC_CALIB_EST_EIGEN_TOO_LARGE;

    // A configuration without a classifier cannot tell a line from a sphere: refuse.
    if (context->config.checkDistribution == nullptr) return KMXC_CALIB_EST_REFUSED_SPREAD;
    const int32_t ratios[2] = {ratioMin, ratioMid};
    int16_t weight[2] = {0, 0};
    if (context->config.checkDistribution(ratios, weight) != KMXC_CALIB_SPREAD_ACCEPTED)
        return KMXC_CALIB_EST_REFUSED_SPREAD;

    MSFLOAT residual;
    KmxAxesMsCalib02_CalcResidual(b, pairs, &s, &residual);
    if (msf::OpCompGreater(&residual, &context->config.residualThreshold)) {
        reset_batch(context);
        return KMXC_CALIB_EST_RESIDUAL_TOO_LARGE;
    }

    MSFLOAT A[15], r[5], x[5];
    constrained_system(scatter, b, pairs, weight, context->offset, c, A, r);
    if (MsSolve(A, r, x) < 0) return KMXC_CALIB_EST_SOLVE_FAILED;
    KmxAxesData candidate;
    if (!centre_of(x, c, candidate)) return KMXC_CALIB_EST_SOLVE_FAILED;

    reset_batch(context);
    if (weight[1] != KMXC_CALIB_BINDING_WEIGHT ||
        KmxAxesMsCalib02_CalcShiftAlignment(&context->offset, &candidate, &c, pairs[2].vector) <= kKeepOldAbove)
        context->offset = candidate;

    if (result != nullptr) report(result, ratios, weight, pairs, residual);
    return KMXC_CALIB_EST_FIT_ACCEPTED;
}
