// The mounted phone's gravity (kit_mount.h). Integer arithmetic only.
#include "service/kit_mount.h"

#include "service/kit_angle.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

void mount_gravity_reset(MountGravity *mg) { *mg = MountGravity{{0, 0, 0}, 0, 0, 0, false, {0, 0, 0}, 0, 0, false}; }

// Counts beyond 2^14 (4 g) are clamped: the mean stays within 2^22 in 1/256 count.
static int32_t clamp14(int32_t v) { return v > 16383 ? 16383 : v < -16384 ? -16384 : v; }

// |v|^2 in the length test's unit from which v is no still phone's gravity (2 g).
constexpr int64_t kLevelLimit = int64_t{1} << 20;
static_assert(int64_t{2 * KMXC_GS_COUNTS_PER_G >> kMountLevelShift} * (2 * KMXC_GS_COUNTS_PER_G >> kMountLevelShift) ==
              kLevelLimit);

bool mount_gravity_near(const MountGravity &mg, const Vec3 &g) {
    return mg.n > 0 && angle_between_cdeg(g, mount_gravity_mean(mg)) <= kMountGravityNearCdeg;
}

bool mount_tilt_within(const MountGravity &mg, const Vec3 &g) {
    return mg.n == 0 || angle_between_cdeg(g, mount_gravity_mean(mg)) <= KMXC_SERVICE_MOUNT_TILT_CDEG;
}

namespace {

// v in the length test's unit (toward minus infinity: under 1/512 g).
Vec3 level_unit(const Vec3 &v) {
    return Vec3{v.x >> kMountLevelShift, v.y >> kMountLevelShift, v.z >> kMountLevelShift};
}

// smooth against the mean in the length test's unit, from one set of products: the
// squares ss and mm, c = s.m and x = |s x m|^2 = ss mm - c^2. Lengths of 2 g and more
// (a square from 2^20) are no still phone's gravity: below them c^2, x and ss mm stay
// below 2^40.
struct AgainstMean {
    int64_t ss, mm, c, x;
    bool valid;
};

AgainstMean against_mean(const MountGravity &mg, const Vec3 &smooth) {
    const Vec3 s = level_unit(smooth), m = level_unit(mount_gravity_mean(mg));
    AgainstMean a{dot(s, s), dot(m, m), dot(s, m), 0, false};
    a.valid = mg.n > 0 && a.ss < kLevelLimit && a.mm < kLevelLimit;
    if (a.valid) a.x = a.ss * a.mm - a.c * a.c;
    return a;
}

// Within kCdeg (below 90 degrees): c > 0 and x <= sin^2 ss mm, the sine in Q10 (each
// side below 2^60).
template <int32_t kCdeg>
bool within(const AgainstMean &a) {
    constexpr int64_t sine = (sin_q14(kCdeg) + 8) >> 4;
    return a.c > 0 && a.x * (int64_t{1} << 20) <= sine * sine * (a.ss * a.mm);
}

// Beyond the road's slopes of the mean, with a level to judge the length by.
bool beyond_slopes(const MountGravity &mg, const AgainstMean &a) {
    return a.valid && mg.level_sq > 0 && a.c > 0 && !within<KMXC_SERVICE_MOUNT_TILT_CDEG>(a);
}

// Shorter than an acceleration across the mean would make it: tan^2 t = x / c^2, so
// 2 c^2 (ss - level) < level x (below 2^61).
bool tilt_length(const MountGravity &mg, const AgainstMean &a) {
    return 2 * a.c * a.c * (a.ss - mg.level_sq) < mg.level_sq * a.x;
}

// Beyond the slopes: a tilt (gravity's own length) or an acceleration (longer).
bool tilted(const MountGravity &mg, const AgainstMean &a) { return beyond_slopes(mg, a) && tilt_length(mg, a); }
bool accelerated(const MountGravity &mg, const AgainstMean &a) { return beyond_slopes(mg, a) && !tilt_length(mg, a); }

// A window's mean of `in` (1/256 count), expanding until it is full, then each
// sample's share 1/window; the division truncates toward zero, below 1/256 count.
// 32-bit throughout: a 64-bit division is a library call on the target, each cycle.
void average_in(const int32_t in[3], uint32_t window, int32_t mean_q8[3], uint32_t *n) {
    if (*n < window) ++*n;
    const int32_t d = static_cast<int32_t>(*n);
    for (int k = 0; k < 3; ++k) mean_q8[k] += (in[k] - mean_q8[k]) / d;
}

Vec3 counts_of(const int32_t v_q8[3]) {
    return Vec3{static_cast<int32_t>(v_q8[0] / 256), static_cast<int32_t>(v_q8[1] / 256),
                static_cast<int32_t>(v_q8[2] / 256)};
}

}  // namespace

bool mount_tilted(const MountGravity &mg, const Vec3 &smooth) { return tilted(mg, against_mean(mg, smooth)); }

void mount_gravity_track(MountGravity *mg, const Vec3 &g, const Vec3 &smooth, bool steady, uint32_t rate_hz) {
    const uint32_t rate = rate_hz > 0 ? rate_hz : 1;
    const AgainstMean a = against_mean(*mg, smooth);
    mg->tilt_seen = tilted(*mg, a);
    mg->tilted = steady && mg->tilt_seen ? mg->tilted + 1 : 0;
    mg->accelerated = accelerated(*mg, a) ? mg->accelerated + 1 : 0;
    if (mg->accelerated >= rate * static_cast<uint32_t>(kMountAccelHoldMs) / 1000) mg->vehicle = true;
    const bool held = mg->tilted >= rate * static_cast<uint32_t>(kMountTiltHoldMs) / 1000;
    const bool restart = steady && mg->n > 0 && (!mount_gravity_near(*mg, g) || held);
    if (restart) {
        // The part's level stays; so does this cycle's tilt: the library's azimuth hold
        // lets the heading follow the new attitude one cycle late. A tilt held in the
        // mount (knocked to a new angle) leaves it the vehicle's.
        const int32_t level = mg->level_sq;
        const bool seen = mg->tilt_seen, vehicle = held && mg->vehicle;
        mount_gravity_reset(mg);
        mg->level_sq = level;
        mg->tilt_seen = seen;
        mg->vehicle = vehicle;
    } else if (steady && a.valid && within<KMXC_SERVICE_STEADY_TILT_CDEG>(a)) {
        // The first still sample sets it; then each takes its share (toward minus infinity).
        const int32_t v = static_cast<int32_t>(a.ss);
        mg->level_sq = mg->level_sq == 0 ? v : mg->level_sq + ((v - mg->level_sq) >> kMountLevelWeightShift);
    }
    // A tilt is no acceleration to average out: the mean keeps the mount's gravity until
    // the tilt is held (and restarts it) or goes. Taken in, it would draw the mean within
    // the tilt's limit before the hold, and the attitude would take a mean a few degrees
    // off at medium.
    if (mg->tilt_seen && !restart) return;
    // Judged against the mean before this sample joins it.
    const bool recent = mg->recent_n == 0 || (a.valid && within<kMountRecentNearCdeg>(a));
    const int32_t in[3] = {clamp14(g.x) * 256, clamp14(g.y) * 256, clamp14(g.z) * 256};
    average_in(in, rate * static_cast<uint32_t>(kMountGravityWindowMs) / 1000, mg->mean_q8, &mg->n);
    if (recent) average_in(in, rate * static_cast<uint32_t>(kMountRecentWindowMs) / 1000, mg->recent_q8, &mg->recent_n);
}

Vec3 mount_gravity_mean(const MountGravity &mg) { return counts_of(mg.mean_q8); }

Vec3 mount_gravity_recent(const MountGravity &mg) { return counts_of(mg.recent_q8); }

bool on_mount_circle(const CircleFit &circle, const Vec3 &m) {
    if (circle.radius_q4 <= 0) return false;
    // (16 m - centre) . n in 2^-18 count: within 2^21 times 2^14 per term.
    const Vec3 d{m.x * 16 - circle.centre_q4.x, m.y * 16 - circle.centre_q4.y, m.z * 16 - circle.centre_q4.z};
    int64_t z = dot(d, circle.normal_q14) >> 14;  // 1/16 count, toward minus infinity
    if (z < 0) z = -z;
    return z * KMXC_SERVICE_PLANAR_FLATNESS <= int64_t{kMountOnCircleFactor} * circle.radius_q4;
}

}  // namespace kmxc_kit
