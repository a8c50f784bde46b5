// The gravity a mounted phone's attitude takes. In a vehicle's mount the accelerometer
// reads gravity plus the vehicle's own accelerations: pulling away, braking and
// cornering (up to 0.4 g) tilt what it reads by up to 22 degrees for seconds at a time,
// and at a steep dip each degree of tilt turns the heading by up to tan(dip) degrees.
// The mount's tilt stays: over the window below a vehicle's accelerations average out
// (its speed is bounded). The road's slopes do not: they tilt the car by a few degrees
// for half a minute and more, which the mean misses. So the attitude takes the recent
// gravity: the last two seconds of the samples whose smoothed gravity lies within a
// slope's reach of the mean (an acceleration beyond it stays out; the slopes, changing
// by at most a degree a second, come through). It does so while the phone is seen
// turning in its mount (the planar estimate in use and the sample on its circle's
// plane), the measured gravity lies near the window's mean, and a held acceleration has
// shown the mount a vehicle's: a walker's hand turning with the walker traces the same
// circle, but its tilt wanders, and the recent gravity would lag it. A steady tilt far from
// the mean (the phone taken out, or put into another mount) starts both afresh, and so
// does a steady tilt beyond the road's slopes that keeps gravity's length: the phone
// was tilted, not accelerated (below). Integer arithmetic only.
//
// Tilted or accelerated: an acceleration a across gravity adds to what the accelerometer
// reads, so a reading at an angle t from the mean is 1/cos t long (|g|^2 grows by
// tan^2 t: 3 % at 10 degrees, 10 % at 17); a tilt by t leaves its length. A hand that
// puts the phone down on a table, or a reader who holds it at a new angle, tilts it for
// good; taking the mean for them turns the heading by up to t tan(dip). The length is
// judged against the level: |g|^2 of the phone held still at the mean (the part's own
// scale, kept across the mean's restarts), halfway between the two. A tilt seen stays
// out of the mean while it is held: averaged in, it would draw a young mean within the
// tilt's limit of itself before the hold, and the attitude would take a mean still
// degrees off.
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
// The recent gravity's window, milliseconds: a road's slope turns the car by at most
// about a degree a second, which 2 s lag by a degree; a vehicle's vibration (11 Hz and
// up) averages over 20 cycles at 10 Hz. On the virtual drives (slopes, traffic, turns)
// the integer heading while driving was 2.8-2.9 degrees RMS off at 2 s, 3.4-3.5 with
// the mean alone; 1 s let more vibration through, 5 s and more lagged the slopes.
constexpr int32_t kMountRecentWindowMs = 2000;
// A sample whose smoothed gravity lies within this angle of the mean (centidegrees)
// joins the recent gravity: the mean lags the road's slopes (up to 5 degrees either
// way) by a few degrees. Beyond, an acceleration of 0.07 g or more: it stays out. The
// gentler ones of traffic come through and average over the window.
constexpr int32_t kMountRecentNearCdeg = 400;
// The measured gravity within this angle of the mean (centidegrees): a vehicle's 0.4 g
// tilts it by 22 degrees. Beyond, the phone has moved: the measurement is taken.
constexpr int32_t kMountGravityNearCdeg = 2500;
// A sample is on the mount's circle when its distance from the circle's plane is at
// most 2 / KMXC_SERVICE_PLANAR_FLATNESS of the radius: twice what the circle's RMS may
// show. A phone taken out of the mount leaves the plane at once.
constexpr int32_t kMountOnCircleFactor = 2;

// The length test's unit: counts >> kMountLevelShift (512 to 1 g), squares below 2^20.
constexpr int kMountLevelShift = 3;
// The level's share of each still sample, 1/2^kMountLevelWeightShift: a few samples.
constexpr int kMountLevelWeightShift = 4;
// A tilt restarts the mean once held this long (milliseconds, steady throughout): a
// vehicle's vibration leaves about a percent of noise on gravity's length, and an
// acceleration near KMXC_SERVICE_MOUNT_TILT_CDEG is only 1.5 % longer than a tilt.
constexpr int32_t kMountTiltHoldMs = 3000;

// An acceleration held this long (milliseconds) shows the mount is a vehicle's: a
// smooth gravity beyond KMXC_SERVICE_MOUNT_TILT_CDEG of the mean and lengthened as an
// acceleration across it lengthens it (not mount_tilted), every cycle. A vehicle's
// braking and cornering hold for seconds; a hand's jerks (picking the phone up, a
// walker's steps) for a fraction of one. Until one is seen the mount may be a hand
// turning with a walker, whose tilt wanders: the recent gravity would lag it.
constexpr int32_t kMountAccelHoldMs = 1000;

struct MountGravity {
    int32_t mean_q8[3];    // mean gravity, 1/256 count (an accelerometer's 2^14: within 2^22)
    uint32_t n;            // samples in the mean, at most the window's (0: none yet)
    int32_t level_sq;      // |g|^2 held still at the mean, (2^kMountLevelShift counts)^2 (0: none)
    uint32_t tilted;       // successive steady samples found tilted (mount_tilted)
    bool tilt_seen;        // the last sample's smooth gravity was tilted, steady or not
    int32_t recent_q8[3];  // recent gravity, 1/256 count (as mean_q8)
    uint32_t recent_n;     // samples in it, at most its window's (0: none yet)
    uint32_t accelerated;  // successive samples whose smooth gravity was accelerated
    bool vehicle;          // an acceleration held kMountAccelHoldMs since the mean started
};

void mount_gravity_reset(MountGravity *mg);
// Takes one measured gravity g at the session's rate; smooth: gravity's running mean
// (counts; vibration averaged out); steady: the kit's verdict that g holds still near it
// (kit_rules.cpp). Steady, g beyond kMountGravityNearCdeg, or smooth tilted
// (mount_tilted) for kMountTiltHoldMs, starts the mean afresh; steady within
// KMXC_SERVICE_STEADY_TILT_CDEG of the mean, smooth's length joins the level. g joins
// the recent gravity when smooth lies within kMountRecentNearCdeg of the mean (the first
// sample always). A smooth gravity accelerated for kMountAccelHoldMs marks the mount a
// vehicle's until the mean starts afresh other than for a held tilt (the mount knocked).
void mount_gravity_track(MountGravity *mg, const Vec3 &g, const Vec3 &smooth, bool steady, uint32_t rate_hz);
// smooth lies beyond KMXC_SERVICE_MOUNT_TILT_CDEG of the mean and is shorter than an
// acceleration across the mean would make it: |s|^2 below level (1 + tan^2 t / 2), t its
// angle from the mean. False without a mean or a level.
bool mount_tilted(const MountGravity &mg, const Vec3 &smooth);
// g within kMountGravityNearCdeg of the mean (false without a mean).
bool mount_gravity_near(const MountGravity &mg, const Vec3 &g);
// g within KMXC_SERVICE_MOUNT_TILT_CDEG of the mean: what a road's slopes explain (true
// without a mean: nothing to judge it by).
bool mount_tilt_within(const MountGravity &mg, const Vec3 &g);
// The mean, counts (rounded toward zero).
Vec3 mount_gravity_mean(const MountGravity &mg);
// The recent gravity, counts (rounded toward zero): what the attitude takes in a
// vehicle's mount (MountGravity::vehicle).
Vec3 mount_gravity_recent(const MountGravity &mg);
// The sample m (counts, as the circle was fitted) lies on the circle's plane.
bool on_mount_circle(const CircleFit &circle, const Vec3 &m);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_MOUNT_H
