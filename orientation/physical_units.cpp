// Samples in physical units: offset removed and limited as for the attitude, then
// scaled in double precision.
#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

constexpr double kGravityPerCount = 0.000244140625;  // exactly 1/4096 g
constexpr double kStandardGravity = 9.80665;         // m/s^2
constexpr double kMicroteslaPerCount = 0.4;

}  // namespace

int8_t KmxAxesLibGetGravityEarth(const KmxAxesData *gs, double *out) {
    if (out == nullptr || gs == nullptr) return -1;
    const KmxAxesData &o = g_AxesLib.gsOffset;
    const int32_t d[3] = {KmxAxesLibLimitedDifference(gs->x, o.x),
                          KmxAxesLibLimitedDifference(gs->y, o.y),
                          KmxAxesLibLimitedDifference(gs->z, o.z)};
    // Two rounded multiplications, not one combined factor.
    for (int i = 0; i < 3; ++i) out[i] = (static_cast<double>(d[i]) * kGravityPerCount) * kStandardGravity;
    return 0;
}

int8_t KmxAxesLibGetMagneticT(const KmxAxesData *ms, double *out) {
    if (out == nullptr || ms == nullptr) return -1;
    const KmxAxesData &o = g_AxesLib.msOffset;
    const int32_t d[3] = {KmxAxesLibLimitedDifference(ms->x, o.x),
                          KmxAxesLibLimitedDifference(ms->y, o.y),
                          KmxAxesLibLimitedDifference(ms->z, o.z)};
    for (int i = 0; i < 3; ++i) out[i] = static_cast<double>(d[i]) * kMicroteslaPerCount;
    return 0;
}
