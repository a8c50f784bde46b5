// The heading's inputs and the integer heading (kit_internal.h): the gravity the
// attitude takes, and the library's heading of the axis the margin keeps, after the
// smoother's warm-up. Integer arithmetic only.
#include "orientation/orientation.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

// The gravity the attitude takes while the phone turns in its mount (the planar
// estimate in use, the sample c, as the library sees it, on the circle's plane) and
// the measured g lies near the mount's mean (kit_mount.h): the mount's recent gravity
// once a held acceleration has shown the mount a vehicle's; until then the measured g
// (a hand turning with a walker tilts the phone, and the recent gravity would lag it),
// its tilt known no better than its disagreement with the recent gravity, which a
// vehicle's acceleration would have left right. *tilt_sd: the attitude's tilt
// uncertainty for the heading's cap (centidegrees, 0 off the mount). In a mount, g
// beyond what a road's slopes explain flags the attitude as tilted (a tilt not yet
// held, an acceleration with another estimate in use: the store's samples on a circle
// about the vertical).
Vec3 attitude_gravity(const Vec3 &c, const Vec3 &g, KmxcServiceEvent *e, int32_t *tilt_sd) {
    const MountGravity &mg = g_state.mount_gravity;
    const Planar &p = g_state.planar;
    const bool planar = g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR;
    *tilt_sd = 0;
    if (!(planar || p.mounted) || !on_mount_circle(p.circle, c)) return g;
    if (planar && mount_gravity_near(mg, g)) {
        *tilt_sd = KMXC_SERVICE_MOUNT_GRAVITY_SD_CDEG;
        if (mg.vehicle) {
            e->flags |= KMXC_SERVICE_MOUNT_GRAVITY;
            if (mg.tilt_seen) e->flags |= KMXC_SERVICE_MOUNT_TILT;
            return mount_gravity_recent(mg);
        }
        const int32_t apart = angle_between_cdeg(g, mount_gravity_recent(mg));
        if (apart > *tilt_sd) *tilt_sd = apart;
    }
    if (!mount_tilt_within(mg, g)) e->flags |= KMXC_SERVICE_MOUNT_TILT;
    return g;
}

int32_t heading_threshold(bool z) { return z ? KMXC_SERVICE_DIRECTION_LEAVE_Z : KMXC_SERVICE_DIRECTION_ENTER_Z; }

// The library's own comparison: strictly beyond the threshold.
bool heading_on_z(int16_t up_y, int32_t threshold) { return (up_y < 0 ? -int32_t{up_y} : int32_t{up_y}) > threshold; }

void integer_heading(const KmxAxesData &mag, const KmxAxesData &gravity, KmxcServiceEvent *e) {
    KmxAxesAttitude attitude;
    if (KmxAxesLibGetAttitude(&mag, &gravity, &attitude) != 0) return;
    // The library is told the threshold that leaves the axis in use.
    const int32_t threshold = heading_threshold(g_state.heading_z);
    uint16_t heading = 0;
    KmxAxesLibCalcDirection(&attitude, &heading, threshold);
    g_state.heading_z = heading_on_z(attitude.matrix[7], threshold);
    if (g_state.warm_cycles < KMXC_SERVICE_WARMUP_CYCLES) {
        ++g_state.warm_cycles;
        return;
    }
    e->heading_deg = static_cast<int16_t>(heading);
    e->flags |= KMXC_SERVICE_HEADING_VALID;
    if (g_state.heading_z) e->flags |= KMXC_SERVICE_HEADING_Z_AXIS;
}

}  // namespace kmxc_kit
