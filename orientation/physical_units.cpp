// Samples in physical units: offset removed and limited as for the attitude, then
// scaled in double precision.
#include "drivers/kmxc_protocol.h"
#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

constexpr double kGravityPerCount = 1.0 / KMXC_GS_COUNTS_PER_G;  // a power of two: exact
static_assert(kGravityPerCount == 0.000244140625);
constexpr double kStandardGravity = 9.80665;  // m/s^2
using kmxc::kMicroteslaPerCount;

// The sample less the offset, each axis limited as for the attitude.
void offset_removed(const KmxAxesData &v, const KmxAxesData &o, int32_t *d) {
    d[0] = KmxAxesLibLimitedDifference(v.x, o.x);
    d[1] = KmxAxesLibLimitedDifference(v.y, o.y);
    d[2] = KmxAxesLibLimitedDifference(v.z, o.z);
}

}  // namespace

int8_t KmxAxesLibGetGravityEarth(const KmxAxesData *gs, double *out) {
    if (out == nullptr || gs == nullptr) return KMXC_ORI_INVALID;
    int32_t d[3];
    offset_removed(*gs, g_AxesLib.gsOffset, d);
    // Two rounded multiplications, not one combined factor.
    for (int i = 0; i < 3; ++i) out[i] = (static_cast<double>(d[i]) * kGravityPerCount) * kStandardGravity;
    return KMXC_ORI_OK;
}

int8_t KmxAxesLibGetMagneticT(const KmxAxesData *ms, double *out) {
    if (out == nullptr || ms == nullptr) return KMXC_ORI_INVALID;
    int32_t d[3];
    offset_removed(*ms, g_AxesLib.msOffset, d);
    for (int i = 0; i < 3; ++i) out[i] = static_cast<double>(d[i]) * kMicroteslaPerCount;
    return KMXC_ORI_OK;
}
