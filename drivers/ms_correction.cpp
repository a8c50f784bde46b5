// The magnetometer's arithmetic: driver state, mounting-matrix check, sensitivity
// and correction matrices, and the raw-to-corrected conversion. No hardware here.
//
// All wrap-arounds the conversion relies on (16-bit intermediate vectors, 32-bit
// products and sums) are done in unsigned arithmetic and narrowed explicitly.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"

using namespace kmxc;

namespace {

constinit KmxcDrvState g_MsState = {};

int16_t wrap16(uint32_t v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFFu)); }
int32_t wrap32(uint32_t v) { return static_cast<int32_t>(v); }
uint32_t u32(int32_t v) { return static_cast<uint32_t>(v); }

// Counts the entries of +1 or -1 among three entries `stride` apart.
int unit_entries(const int8_t *first, int stride) {
    int count = 0;
    for (int i = 0; i < 3; ++i) {
        const int8_t v = first[i * stride];
        if (v == 1 || v == -1) ++count;
    }
    return count;
}

// t - trunc(p / 65536), with the shift applied to the magnitude so both signs round
// toward zero; the subtraction wraps at 16 bits.
int16_t remove_temperature_drift(int16_t t, int32_t p) {
    if (p >= 0) return wrap16(u32(t) - (u32(p) >> 16));
    const uint32_t magnitude = 0u - u32(p);  // |p|, 0x80000000 for INT32_MIN
    return wrap16(u32(t) + (magnitude >> 16));
}

}  // namespace

constinit uint16_t g_Temprature = 0;

KmxcDrvState *KmxcDrvHandle(void) { return &g_MsState; }

int8_t KmxAxesDrvCheckMatrix(const int8_t *matrix) {
    for (int row = 0; row < 3; ++row) {
        if (unit_entries(matrix + 3 * row, 1) != 1) return KMXC_DRV_INVALID;
    }
    for (int col = 0; col < 3; ++col) {
        if (unit_entries(matrix + col, 3) != 1) return KMXC_DRV_INVALID;
    }
    return KMXC_DRV_OK;
}

void KmxcDrvMakeSensitivityMatrix(const uint8_t *c, int16_t *s) { sensitivity_matrix(c, s); }

uint32_t KmxcDrvMakeCorrectionMatrix(const int8_t *transformation, const int16_t *sensitivity, int16_t *correction) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            uint32_t sum = 0;
            for (int m = 0; m < 3; ++m) { sum += u32(transformation[3 * i + m]) * u32(sensitivity[3 * m + j]); }
            correction[3 * i + j] = wrap16(sum);
        }
    }
    return 0;
}

uint32_t KmxcDrvTransform(const int16_t *matrix, const int16_t *vector, int32_t *out) {
    for (int i = 0; i < 3; ++i) {
        uint32_t sum = 0;
        for (int j = 0; j < 3; ++j) sum += u32(matrix[3 * i + j]) * u32(vector[j]);
        out[i] = wrap32(sum);
    }
    return 0;
}

uint32_t KmxAxesDrvMsensCorrection(const uint16_t *raw, uint16_t temperature, KmxAxesData *out) {
    const KmxcDrvState &st = g_MsState;
    // k = 31457 * (T - 256): the drift per coefficient unit, 31457/65536 = 0.48.
    const int32_t k = wrap32(kDriftPerCoefUnit * temperature - kDriftPerCoefUnit * kTemperatureReference);
    int16_t t[3];
    for (int i = 0; i < 3; ++i) {
        const int16_t centred = wrap16((u32(raw[i]) - kChannelCentre) * 16u);  // centred on 512, x16
        const int32_t p = wrap32(u32(st.tempCoef[i]) * u32(k));
        t[i] = remove_temperature_drift(centred, p);
    }
    // The chip's channels are mixed into its x, y, z axes.
    const int16_t u[3] = {
        wrap16(0u - u32(t[0])),
        wrap16(u32(t[2]) - u32(t[1])),
        wrap16(u32(t[1]) + u32(t[2])),
    };
    int32_t v[3];
    KmxcDrvTransform(st.correction, u, v);
    out->x = v[0] / 1600;
    out->y = v[1] / 1600;
    out->z = v[2] / 1600;
    return 0;
}
