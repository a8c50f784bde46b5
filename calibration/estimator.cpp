// Offset estimator, data side: context set-up, offset access, the sample buffer and the
// statistics (normal equations of the linearised sphere fit) of a full batch.
#include "calibration/calibration.h"
#include "calibration/calibration_internal.h"
#include "calibration/estimator_math.h"
#include "numerics/msfloat_ops.h"

using kmxc_calibration::i2f_wide;

namespace {

constexpr int8_t kCapacity = 16;

int8_t next(int8_t counter) { return static_cast<int8_t>(static_cast<uint8_t>(counter) + 1u); }

// Low 16 bits of a sample component, as two's complement.
int16_t low16(int32_t v) { return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v) & 0xFFFFu)); }

void copy(KmxAxesData *to, const KmxAxesData *from) {
    to->x = from->x;
    to->y = from->y;
    to->z = from->z;
}

}  // namespace

int8_t KmxAxesMsCalib02_Init(KmxAxesMsCalib02Context *context, const KmxAxesMsCalib02Config *config) {
    context->skipCounter = config->initialSkipCounter;
    context->count = 0;
    context->writeIndex = 0;
    context->capacity = kCapacity;
    copy(&context->offset, &KmxAxesData_Constructor);
    context->config = *config;
    msf::I2F(&context->minEigenValue, config->minEigen);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalib02_GetOffset(const KmxAxesMsCalib02Context *context, KmxAxesData *offset) {
    copy(offset, &context->offset);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalib02_SetOffset(KmxAxesMsCalib02Context *context, const KmxAxesData *offset) {
    context->count = 0;
    context->writeIndex = 0;
    copy(&context->offset, offset);
    return KMXC_CALIB_OK;
}

int8_t KmxAxesMsCalib02_AddToBuffer1(KmxAxesMsCalib02Context *context, const KmxAxesData *sample) {
    if (context->writeIndex == context->capacity) {
        context->writeIndex = 0;
        if (context->config.ringMode == 0) context->count = 0;
    }
    int16_t *slot = context->buffer[context->writeIndex];
    slot[0] = low16(sample->x);
    slot[1] = low16(sample->y);
    slot[2] = low16(sample->z);
    context->writeIndex = next(context->writeIndex);
    if (context->count < context->capacity) context->count = next(context->count);
    return KMXC_CALIB_OK;
}

// Deviations from the centre reach 65535 counts for int16 samples, so their squares and
// cross products can exceed 32 bits (beyond 46340 counts). They are formed in 64 bits
// and converted exactly (i2f_wide): within 32 bits the result is the plain formulation's
// bit for bit, beyond it the statistics stay true, and such a batch meets the same
// eigenvalue and residual tests as any other instead of a wrapped, meaningless one.
int8_t KmxAxesMsCalib02_CalcStatistics(const int16_t (*samples)[3], int8_t n, KmxAxesData *centre, MSFLOAT *matrix,
                                       MSFLOAT *vector, MSFLOAT *scalar) {
    for (int k = 0; k < 6; ++k) msf::SetZero(&matrix[k]);
    for (int k = 0; k < 3; ++k) msf::SetZero(&vector[k]);
    msf::SetZero(scalar);
    copy(centre, &KmxAxesData_Constructor);
    if (n <= 0) return KMXC_CALIB_OK;  // no samples: nothing to average

    int32_t sum[3] = {0, 0, 0};  // at most 127 int16 values per axis
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) sum[k] += samples[i][k];
    const int32_t c[3] = {sum[0] / n, sum[1] / n, sum[2] / n};
    centre->x = c[0];
    centre->y = c[1];
    centre->z = c[2];

    auto deviation = [&](int i, int k) { return static_cast<int32_t>(samples[i][k]) - c[k]; };

    // Each sum is formed in a register accumulator (msf::Sum), one sum at a time and in
    // sample order, which is the order the definition adds in: the same bits.

    // Deviations reach 65535 counts; up to 46340 their squares and products fit 32
    // bits and are converted in registers, beyond that through i2f_wide.
    int32_t dev[127][3];
    uint32_t largest = 0;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            dev[i][k] = deviation(i, k);
            const uint32_t magnitude = dev[i][k] < 0 ? 0u - static_cast<uint32_t>(dev[i][k]) : dev[i][k];
            if (magnitude > largest) largest = magnitude;
        }
    const bool narrow = largest <= 46340u;

    // Each squared deviation is converted once: the mean square radius, the matrix's
    // diagonal and q all add the same MSFLOAT values (n <= 127, an int8).
    MSFLOAT squares[127][3];
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            if (narrow) {
                msf::I2F(&squares[i][k], dev[i][k] * dev[i][k]);
            } else {
                i2f_wide(&squares[i][k], static_cast<int64_t>(dev[i][k]) * dev[i][k]);
            }
        }

    // Mean square radius.
    MSFLOAT r2;
    {
        msf::Sum acc;
        for (int i = 0; i < n; ++i)
            for (int k = 0; k < 3; ++k) acc.AddNonNegative(squares[i][k]);
        acc.Store(&r2);
    }
    MSFLOAT count;
    msf::I2F(&count, n);
    msf::OpDivEq(&r2, &count);

    // Matrix elements in packed order: (0,0) (0,1) (0,2) (1,1) (1,2) (2,2).
    static constexpr int8_t kPairs[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};
    MSFLOAT term;
    for (int p = 0; p < 6; ++p) {
        const int8_t j = kPairs[p][0], k = kPairs[p][1];
        msf::Sum acc;
        if (j == k) {
            for (int i = 0; i < n; ++i) acc.AddNonNegative(squares[i][j]);
        } else if (narrow) {
            for (int i = 0; i < n; ++i) acc.AddInteger(dev[i][j] * dev[i][k]);
        } else {
            for (int i = 0; i < n; ++i) {
                i2f_wide(&term, static_cast<int64_t>(dev[i][j]) * dev[i][k]);
                acc.Add(term);
            }
        }
        acc.Store(&matrix[p]);
    }

    // q = |d|^2 - R2 for each sample.
    MSFLOAT q[127];
    for (int i = 0; i < n; ++i) {
        msf::Sum acc;
        acc.AddNonNegative(squares[i][0]);
        acc.AddNonNegative(squares[i][1]);
        acc.AddNonNegative(squares[i][2]);
        acc.Subtract(r2);
        acc.Store(&q[i]);
    }

    MSFLOAT sumSquares;
    {
        msf::Sum acc;
        for (int i = 0; i < n; ++i) {
            msf::Copy(&term, q[i]);
            msf::OpMultiEq(&term, &q[i]);
            acc.Add(term);
        }
        acc.Store(&sumSquares);
    }

    for (int k = 0; k < 3; ++k) {
        msf::Sum acc;
        for (int i = 0; i < n; ++i) {
            msf::I2F(&term, dev[i][k]);
            msf::OpMultiEq(&term, &q[i]);
            msf::OpShiftEq(&term, -1);
            acc.Add(term);
        }
        acc.Store(&vector[k]);
    }
    msf::OpShiftEq(&sumSquares, -2);
    msf::Copy(scalar, sumSquares);
    return KMXC_CALIB_OK;
}
