// Float fields of the kit's event: physical units in the Android conventions, and the
// orientation through the library's double path.
#include "service/event_fill.h"

#include "drivers/kmxc_protocol.h"

namespace {
constexpr float kMicroteslaPerCount = static_cast<float>(kmxc::kMicroteslaPerCount);
}  // namespace

void kmxc_service_fill_floats(const KmxAxesData *ms, const KmxAxesData *gs, const KmxAxesData *offset,
                              KmxcServiceEvent *e) {
    const int32_t m[3] = {ms->x, ms->y, ms->z}, o[3] = {offset->x, offset->y, offset->z};
    double gravity[3], field[3], matrix[9], euler[3] = {0, 0, 0};
    KmxAxesLibGetGravityEarth(gs, gravity);
    KmxAxesLibGetMagneticT(ms, field);
    for (int k = 0; k < 3; ++k) {
        e->uncalibrated_uT[k] = static_cast<float>(m[k]) * kMicroteslaPerCount;
        e->bias_uT[k] = static_cast<float>(o[k]) * kMicroteslaPerCount;
        e->magnetic_uT[k] = static_cast<float>(field[k]);
        // The library's gravity points the way gravity pulls; Android's acceleration
        // reads +9.81 m/s^2 on z for a phone lying face up.
        e->acceleration_ms2[k] = static_cast<float>(-gravity[k]);
    }
    if (KmxAxesLibGetRotationMatrix(gravity, field, matrix) == 0 && KmxAxesLibGetEuler(matrix, euler) == 0) {
        for (int k = 0; k < 3; ++k) e->orientation_deg[k] = static_cast<float>(euler[k]);
        e->flags |= KMXC_SERVICE_ORIENTATION_VALID;
    }
}
