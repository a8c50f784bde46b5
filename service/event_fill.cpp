// Float fields of the kit's event: physical units in the Android conventions, and the
// orientation through the library's double path.
#include "service/event_fill.h"

#include <math.h>

#include "common/common.h"

namespace {

constexpr float kMicroteslaPerCount = 10.0f / KMXC_MS_COUNTS_PER_10_UT;

// A whole-degree angle as the event carries it: -0 (a truncated small negative angle)
// reads 0.
float whole_degrees(double angle) { return angle == 0.0 ? 0.0f : static_cast<float>(angle); }

// The unit quaternion (x, y, z, w), w >= 0, of a rotation matrix (rows: the world axes
// east, north, up in device axes, so world = m * device), from its largest diagonal
// combination, the well-conditioned branch.
void quaternion_of(const double m[9], float q[4]) {
    const double trace = m[0] + m[4] + m[8];
    double x, y, z, w;
    if (trace > 0.0) {
        const double s = 2.0 * sqrt(1.0 + trace);
        w = 0.25 * s;
        x = (m[7] - m[5]) / s;
        y = (m[2] - m[6]) / s;
        z = (m[3] - m[1]) / s;
    } else if (m[0] > m[4] && m[0] > m[8]) {
        const double s = 2.0 * sqrt(1.0 + m[0] - m[4] - m[8]);
        w = (m[7] - m[5]) / s;
        x = 0.25 * s;
        y = (m[1] + m[3]) / s;
        z = (m[2] + m[6]) / s;
    } else if (m[4] > m[8]) {
        const double s = 2.0 * sqrt(1.0 + m[4] - m[0] - m[8]);
        w = (m[2] - m[6]) / s;
        x = (m[1] + m[3]) / s;
        y = 0.25 * s;
        z = (m[5] + m[7]) / s;
    } else {
        const double s = 2.0 * sqrt(1.0 + m[8] - m[0] - m[4]);
        w = (m[3] - m[1]) / s;
        x = (m[2] + m[6]) / s;
        y = (m[5] + m[7]) / s;
        z = 0.25 * s;
    }
    const double sign = w < 0.0 ? -1.0 : 1.0;  // q and -q are the same rotation
    q[0] = static_cast<float>(sign * x);
    q[1] = static_cast<float>(sign * y);
    q[2] = static_cast<float>(sign * z);
    q[3] = static_cast<float>(sign * w);
}

}  // namespace

void kmxc_service_fill_floats(const KmxAxesData *ms, const KmxAxesData *gs, const KmxAxesData *attitude_gs,
                              const KmxAxesData *offset, KmxcServiceEvent *e) {
    const int32_t m[3] = {ms->x, ms->y, ms->z}, o[3] = {offset->x, offset->y, offset->z};
    double gravity[3], attitude[3], field[3], matrix[9], euler[3] = {0, 0, 0};
    KmxAxesLibGetGravityEarth(gs, gravity);
    // The attitude's gravity is the sample's own unless a mount's mean stands for it.
    if (attitude_gs->x == gs->x && attitude_gs->y == gs->y && attitude_gs->z == gs->z) {
        for (int k = 0; k < 3; ++k) attitude[k] = gravity[k];
    } else {
        KmxAxesLibGetGravityEarth(attitude_gs, attitude);
    }
    KmxAxesLibGetMagneticT(ms, field);
    for (int k = 0; k < 3; ++k) {
        e->uncalibrated_uT[k] = static_cast<float>(m[k]) * kMicroteslaPerCount;
        e->bias_uT[k] = static_cast<float>(o[k]) * kMicroteslaPerCount;
        e->magnetic_uT[k] = static_cast<float>(field[k]);
        // The library's gravity points the way gravity pulls; Android's acceleration
        // reads +9.81 m/s^2 on z for a phone lying face up.
        e->acceleration_ms2[k] = static_cast<float>(-gravity[k]);
    }
    if (KmxAxesLibGetRotationMatrix(attitude, field, matrix) == 0 && KmxAxesLibGetEuler(matrix, euler) == 0) {
        for (int k = 0; k < 3; ++k) e->orientation_deg[k] = whole_degrees(euler[k]);
        quaternion_of(matrix, e->rotation_vector);
        e->flags |= KMXC_SERVICE_ORIENTATION_VALID;
    }
}
