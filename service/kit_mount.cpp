// The mounted phone's gravity (kit_mount.h). Integer arithmetic only.
#include "service/kit_mount.h"

#include "service/kit_angle.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

void mount_gravity_reset(MountGravity *mg) { *mg = MountGravity{{0, 0, 0}, 0}; }

// Counts beyond 2^14 (4 g) are clamped: the mean stays within 2^22 in 1/256 count.
static int32_t clamp14(int32_t v) { return v > 16383 ? 16383 : v < -16384 ? -16384 : v; }

bool mount_gravity_near(const MountGravity &mg, const Vec3 &g) {
    return mg.n > 0 && angle_between_cdeg(g, mount_gravity_mean(mg)) <= kMountGravityNearCdeg;
}

bool mount_tilt_within(const MountGravity &mg, const Vec3 &g) {
    return mg.n == 0 || angle_between_cdeg(g, mount_gravity_mean(mg)) <= KMXC_SERVICE_MOUNT_TILT_CDEG;
}

void mount_gravity_track(MountGravity *mg, const Vec3 &g, bool steady, uint32_t rate_hz) {
    if (steady && mg->n > 0 && !mount_gravity_near(*mg, g)) mount_gravity_reset(mg);
    const uint32_t window = (rate_hz > 0 ? rate_hz : 1) * static_cast<uint32_t>(kMountGravityWindowMs) / 1000;
    if (mg->n < window) ++mg->n;
    // The window's mean, expanding until it is full, then each sample's share 1/window;
    // the division truncates toward zero, below 1/256 count. 32-bit throughout: a
    // 64-bit division is a library call on the target, each cycle.
    const int32_t in[3] = {clamp14(g.x) * 256, clamp14(g.y) * 256, clamp14(g.z) * 256};
    const int32_t n = static_cast<int32_t>(mg->n);
    for (int k = 0; k < 3; ++k) mg->mean_q8[k] += (in[k] - mg->mean_q8[k]) / n;
}

Vec3 mount_gravity_mean(const MountGravity &mg) {
    return Vec3{static_cast<int32_t>(mg.mean_q8[0] / 256), static_cast<int32_t>(mg.mean_q8[1] / 256),
                static_cast<int32_t>(mg.mean_q8[2] / 256)};
}

bool on_mount_circle(const CircleFit &circle, const Vec3 &m) {
    if (circle.radius_q4 <= 0) return false;
    // (16 m - centre) . n in 2^-18 count: within 2^21 times 2^14 per term.
    const Vec3 d{m.x * 16 - circle.centre_q4.x, m.y * 16 - circle.centre_q4.y, m.z * 16 - circle.centre_q4.z};
    int64_t z = dot(d, circle.normal_q14) >> 14;  // 1/16 count, toward minus infinity
    if (z < 0) z = -z;
    return z * KMXC_SERVICE_PLANAR_FLATNESS <= int64_t{kMountOnCircleFactor} * circle.radius_q4;
}

}  // namespace kmxc_kit
