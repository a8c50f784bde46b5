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

namespace {

// The deviations of one batch from its centre and their squares, each converted once:
// the mean square radius, the matrix's diagonal and q all add the same MSFLOAT values.
// Deviations reach 65535 counts for int16 samples; up to 46340 (narrow) their squares
// and products fit 32 bits and are converted in registers, beyond that they are formed
// in 64 bits and converted exactly (i2f_wide): within 32 bits the result is the plain
// formulation's bit for bit, beyond it the statistics stay true, and such a batch meets
// the same eigenvalue and residual tests as any other instead of a wrapped one.
struct Deviations {
    int n;                    // samples, 1..127 (an int8 count)
    int32_t d[127][3];        // sample - centre
    MSFLOAT squares[127][3];  // d * d, per axis
    bool narrow;              // every |d| <= 46340
};

void deviate(const int16_t (*samples)[3], int n, const int32_t (&c)[3], Deviations &v) {
    v.n = n;
    uint32_t largest = 0;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            v.d[i][k] = static_cast<int32_t>(samples[i][k]) - c[k];
            const uint32_t magnitude = v.d[i][k] < 0 ? 0u - static_cast<uint32_t>(v.d[i][k]) : v.d[i][k];
            if (magnitude > largest) largest = magnitude;
        }
    v.narrow = largest <= 46340u;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            if (v.narrow) {
                msf::I2F(&v.squares[i][k], v.d[i][k] * v.d[i][k]);
            } else {
                i2f_wide(&v.squares[i][k], static_cast<int64_t>(v.d[i][k]) * v.d[i][k]);
            }
        }
}

// Each sum below is formed in a register accumulator (msf::Sum), one sum at a time and
// in sample order, which is the order the definition adds in: the same bits.

// R2, the mean of |d|^2.
void mean_square_radius(const Deviations &v, MSFLOAT *r2) {
    msf::Sum acc;
    for (int i = 0; i < v.n; ++i)
        for (int k = 0; k < 3; ++k) acc.AddNonNegative(v.squares[i][k]);
    acc.Store(r2);
    MSFLOAT count;
    msf::I2F(&count, v.n);
    msf::OpDivEq(r2, &count);
}

// The packed scatter matrix, elements (0,0) (0,1) (0,2) (1,1) (1,2) (2,2).
void scatter(const Deviations &v, MSFLOAT *matrix) {
    static constexpr int8_t kPairs[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};
    MSFLOAT term;
    for (int p = 0; p < 6; ++p) {
        const int8_t j = kPairs[p][0], k = kPairs[p][1];
        msf::Sum acc;
        if (j == k) {
            for (int i = 0; i < v.n; ++i) acc.AddNonNegative(v.squares[i][j]);
        } else if (v.narrow) {
            for (int i = 0; i < v.n; ++i) acc.AddInteger(v.d[i][j] * v.d[i][k]);
        } else {
            for (int i = 0; i < v.n; ++i) {
                i2f_wide(&term, static_cast<int64_t>(v.d[i][j]) * v.d[i][k]);
                acc.Add(term);
            }
        }
        acc.Store(&matrix[p]);
    }
}

// b = sum d q / 2 and s = sum q^2 / 4, with q = |d|^2 - R2 for each sample.
void radial_terms(const Deviations &v, const MSFLOAT &r2, MSFLOAT *vector, MSFLOAT *scalar) {
    MSFLOAT q[127];
    for (int i = 0; i < v.n; ++i) {
        msf::Sum acc;
        acc.AddNonNegative(v.squares[i][0]);
        acc.AddNonNegative(v.squares[i][1]);
        acc.AddNonNegative(v.squares[i][2]);
        acc.Subtract(r2);
        acc.Store(&q[i]);
    }

    MSFLOAT term, sumSquares;
    {
        msf::Sum acc;
        for (int i = 0; i < v.n; ++i) {
            msf::Copy(&term, q[i]);
            msf::OpMultiEq(&term, &q[i]);
            acc.Add(term);
        }
        acc.Store(&sumSquares);
    }

    for (int k = 0; k < 3; ++k) {
        msf::Sum acc;
        for (int i = 0; i < v.n; ++i) {
            msf::I2F(&term, v.d[i][k]);
            msf::OpMultiEq(&term, &q[i]);
            msf::OpShiftEq(&term, -1);
            acc.Add(term);
        }
        acc.Store(&vector[k]);
    }
    msf::OpShiftEq(&sumSquares, -2);
    msf::Copy(scalar, sumSquares);
}

}  // namespace

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

    Deviations v;
    deviate(samples, n, c, v);
    MSFLOAT r2;
    mean_square_radius(v, &r2);
    scatter(v, matrix);
    radial_terms(v, r2, vector, scalar);
    return KMXC_CALIB_OK;
}
