// The magnetometer's arithmetic: driver state, mounting-matrix check, sensitivity
// and correction matrices, and the raw-to-corrected conversion. No hardware here.
//
// All wrap-arounds the conversion relies on (16-bit intermediate vectors, 32-bit
// products and sums) are done in unsigned arithmetic and narrowed explicitly.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"

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
        if (unit_entries(matrix + 3 * row, 1) != 1) return -1;
    }
    for (int col = 0; col < 3; ++col) {
        if (unit_entries(matrix + col, 3) != 1) return -1;
    }
    return 0;
}

void KmxcDrvMakeSensitivityMatrix(const uint8_t *c, int16_t *s) {
    // Bit fields of c0..c5, first byte's bits high where two pieces join; each
    // field has a fixed bias. Bit 0 of c5 is unused.
    const int f01 = c[0] >> 2;
    const int f02 = ((c[0] & 0x03) << 2) | (c[1] >> 6);
    const int f10 = c[1] & 0x3F;
    const int f11 = c[2] >> 2;
    const int f12 = ((c[2] & 0x03) << 4) | (c[3] >> 4);
    const int f20 = ((c[3] & 0x0F) << 2) | (c[4] >> 6);
    const int f21 = c[4] & 0x3F;
    const int f22 = c[5] >> 1;
    s[0] = 100;
    s[1] = static_cast<int16_t>(f01 - 32);
    s[2] = static_cast<int16_t>(f02 - 8);
    s[3] = static_cast<int16_t>(f10 - 32);
    s[4] = static_cast<int16_t>(f11 + 38);
    s[5] = static_cast<int16_t>(f12 - 32);
    s[6] = static_cast<int16_t>(f20 - 32);
    s[7] = static_cast<int16_t>(f21 - 32);
    s[8] = static_cast<int16_t>(f22 + 66);
}

uint32_t KmxcDrvMakeCorrectionMatrix(const int8_t *transformation, const int16_t *sensitivity,
                                     int16_t *correction) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            uint32_t sum = 0;
            for (int m = 0; m < 3; ++m) {
                sum += u32(transformation[3 * i + m]) * u32(sensitivity[3 * m + j]);
            }
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
    const int32_t k = wrap32(31457u * temperature - 8052992u);
    int16_t t[3];
    for (int i = 0; i < 3; ++i) {
        const int16_t centred = wrap16(u32(raw[i]) * 16u - 8192u);  // centred on 512, x16
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
