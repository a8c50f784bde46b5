// The gravity a mounted phone's attitude takes. In a vehicle's mount the accelerometer
// reads gravity plus the vehicle's own accelerations: pulling away, braking and
// cornering (up to 0.4 g) tilt what it reads by up to 22 degrees for seconds at a time,
// and at a steep dip each degree of tilt turns the heading by up to tan(dip) degrees.
// The mount's tilt stays: over the window below a vehicle's accelerations average out
// (its speed is bounded) and the road's gentle slopes nearly so. So while the phone is
// seen turning in its mount (the planar estimate in use and the sample on its circle's
// plane) and the measured gravity lies near the window's mean, the attitude takes the
// mean. A steady tilt far from the mean (the phone taken out, or put into another
// mount) starts the mean afresh. Integer arithmetic only.
#ifndef KMXC_SERVICE_KIT_MOUNT_H
#define KMXC_SERVICE_KIT_MOUNT_H

#include <stdint.h>

#include "service/circle_fit.h"
#include "service/kit_geometry.h"

namespace kmxc_kit {

// The mean's window, milliseconds: ten times a roundabout's 30 s of turning would be
// safer, but the road's slopes (a few degrees over a few hundred metres: half a minute
// at town speeds) must still come through; 40 s weighs the two.
constexpr int32_t kMountGravityWindowMs = 40000;
// The measured gravity within this angle of the mean (centidegrees): a vehicle's 0.4 g
// tilts it by 22 degrees. Beyond, the phone has moved: the measurement is taken.
constexpr int32_t kMountGravityNearCdeg = 2500;
// A sample is on the mount's circle when its distance from the circle's plane is at
// most 2 / KMXC_SERVICE_PLANAR_FLATNESS of the radius: twice what the circle's RMS may
// show. A phone taken out of the mount leaves the plane at once.
constexpr int32_t kMountOnCircleFactor = 2;

struct MountGravity {
    int32_t mean_q8[3];  // mean gravity, 1/256 count (an accelerometer's 2^14: within 2^22)
    uint32_t n;          // samples in the mean, at most the window's (0: none yet)
};

void mount_gravity_reset(MountGravity *mg);
// Takes one measured gravity g at the session's rate; steady: the kit's verdict that g
// holds still (kit_rules.cpp). A steady g beyond kMountGravityNearCdeg starts afresh.
void mount_gravity_track(MountGravity *mg, const Vec3 &g, bool steady, uint32_t rate_hz);
// g within kMountGravityNearCdeg of the mean (false without a mean).
bool mount_gravity_near(const MountGravity &mg, const Vec3 &g);
// g within KMXC_SERVICE_MOUNT_TILT_CDEG of the mean: what a road's slopes explain (true
// without a mean: nothing to judge it by).
bool mount_tilt_within(const MountGravity &mg, const Vec3 &g);
// The mean, counts (rounded toward zero).
Vec3 mount_gravity_mean(const MountGravity &mg);
// The sample m (counts, as the circle was fitted) lies on the circle's plane.
bool on_mount_circle(const CircleFit &circle, const Vec3 &m);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_MOUNT_H
