// Carrying the magnetic offset over a change of the magnetometer's rough offset.
//
// One rough step moves its raw channel by 226 counts. The step is converted into
// corrected counts with the driver's own correction at the current chip
// temperature, so the carried offset includes the temperature term and the
// mounting transformation exactly as the samples do.
#include "drivers/drivers.h"
#include "drivers/kmxc_protocol.h"
#include "orientation/orientation.h"

namespace {

using kmxc::kRawCountsPerRoughStep;

int32_t wrap_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t wrap_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

int8_t KmxAxesLibRecalcMsOffset(const KmxAxesData *in, KmxAxesData *out, const uint8_t *oldRough,
                                const uint8_t *newRough) {
    if (out == nullptr || in == nullptr || newRough == nullptr || oldRough == nullptr) return KMXC_ORI_INVALID;

    const uint16_t zero[3] = {0, 0, 0};
    KmxAxesData base;
    KmxAxesDrvMsensCorrection(zero, g_Temprature, &base);

    KmxAxesData step[3];
    for (int k = 0; k < 3; ++k) {
        uint16_t raw[3] = {0, 0, 0};
        raw[k] = kRawCountsPerRoughStep;
        KmxAxesDrvMsensCorrection(raw, g_Temprature, &step[k]);
        step[k].x = wrap_sub(step[k].x, base.x);
        step[k].y = wrap_sub(step[k].y, base.y);
        step[k].z = wrap_sub(step[k].z, base.z);
    }

    KmxAxesData offset = {in->x, in->y, in->z};
    for (int k = 0; k < 3; ++k) {
        // A higher rough step lowers the raw channel, so its response comes off.
        int n = static_cast<int>(newRough[k]) - static_cast<int>(oldRough[k]);
        for (; n > 0; --n) {
            offset.x = wrap_sub(offset.x, step[k].x);
            offset.y = wrap_sub(offset.y, step[k].y);
            offset.z = wrap_sub(offset.z, step[k].z);
        }
        for (; n < 0; ++n) {
            offset.x = wrap_add(offset.x, step[k].x);
            offset.y = wrap_add(offset.y, step[k].y);
            offset.z = wrap_add(offset.z, step[k].z);
        }
    }
    out->x = offset.x;
    out->y = offset.y;
    out->z = offset.z;
    return KMXC_ORI_OK;
}
