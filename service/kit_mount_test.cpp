// The mounted phone's gravity: a drive's accelerations averaged out of the mean, each
// rule at its limit (the angle that starts the mean afresh or keeps the measurement, the
// window, the circle's plane), against synthetic physics in double precision.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "service/kit_mount.h"
#include "service/kmxc_service.h"

namespace {

using namespace kmxc_kit;

constexpr double kPi = 3.14159265358979323846;
constexpr double kG = 4096;  // counts per g

Vec3 counts(double x, double y, double z) {
    return Vec3{static_cast<int32_t>(std::lround(x)), static_cast<int32_t>(std::lround(y)),
                static_cast<int32_t>(std::lround(z))};
}

// A unit vector at `deg` from (0, -1, 0) (an upright phone's gravity) toward +z, times g.
Vec3 tilted(double deg, double g = kG) {
    return counts(0, -g * std::cos(deg * kPi / 180), g * std::sin(deg * kPi / 180));
}

// The length of gravity an acceleration across the mean gives at `deg` from it.
double accelerated(double deg) { return kG / std::cos(deg * kPi / 180); }

// At 10 Hz: the mean's window and the tilt's hold, in samples; the level of 1 g.
constexpr uint32_t kWindow = 10 * kMountGravityWindowMs / 1000, kHold = 10 * kMountTiltHoldMs / 1000;
constexpr int32_t kOneG = (4096 >> kMountLevelShift) * (4096 >> kMountLevelShift);

// A mean over a full window of the upright phone's gravity, held still.
MountGravity full_window() {
    MountGravity mg;
    mount_gravity_reset(&mg);
    for (uint32_t i = 0; i < kWindow; ++i) mount_gravity_track(&mg, tilted(0), tilted(0), true, 10);
    return mg;
}

double angle_deg(const Vec3 &a, const Vec3 &b) {
    const double d = double(a.x) * b.x + double(a.y) * b.y + double(a.z) * b.z;
    const double la = std::sqrt(double(a.x) * a.x + double(a.y) * a.y + double(a.z) * a.z);
    const double lb = std::sqrt(double(b.x) * b.x + double(b.y) * b.y + double(b.z) * b.z);
    return std::acos(std::fmin(1.0, d / (la * lb))) * 180 / kPi;
}

// Ten minutes at 10 Hz in a mount tilted 30 degrees back: the car's accelerations (a
// turn's centripetal 0.3 g across, either way, for 6 s, braking 0.3 g along for 3 s,
// pulling away 0.15 g for 8 s, in seeded order between straights) and road vibration add
// to gravity in the phone's axes. On the hilly road the car pitches about its across axis
// (a 3-degree wave of 45 s and a 1-degree one of 15 s), the accelerations ease in and out
// and traffic's gentle ones (0.03 g) come between. From the window's end on: the mean's,
// the recent gravity's and the measurement's angles from the road's gravity, degrees.
struct DriveErrors {
    double rms[3], worst[3];  // the mean, the recent gravity, the measurement
};
DriveErrors drive(bool hilly) {
    std::mt19937 rng(hilly ? 5 : 3);
    std::normal_distribution<double> vibration(0, 0.02 * kG);
    const double tilt = 30 * kPi / 180;
    // The car's axes in the phone's: across (x), along the road (into the screen: the
    // mount's tilt), up.
    const double across[3] = {1, 0, 0}, along[3] = {0, std::sin(tilt), -std::cos(tilt)};
    const double up[3] = {0, std::cos(tilt), std::sin(tilt)};
    MountGravity mg;
    mount_gravity_reset(&mg);
    double smooth[3] = {0, -kG * up[1], -kG * up[2]};  // the kit's half-second mean
    DriveErrors e{};
    int n = 0;
    std::uniform_int_distribution<int> manoeuvre(0, 3), straight(150, 400);
    for (int t = 0; t < 6000;) {
        const int kind = manoeuvre(rng);  // turns either way, braking, pulling away
        const double a = kind == 0 ? 0.3 : kind == 3 ? 0.15 : -0.3;
        const double *axis = kind < 2 ? across : along;
        const int len = kind < 2 ? 60 : kind == 2 ? 30 : 80, total = len + straight(rng);
        for (int i = 0; i < total; ++i, ++t) {
            const double s = t / 10.0;
            const double pitch = hilly ? (3 * std::sin(2 * kPi * s / 45) + std::sin(2 * kPi * s / 15)) * kPi / 180 : 0;
            const double push = !hilly    ? (i < len ? a : 0)
                                : i < len ? a * std::sin(kPi * i / len)
                                          : 0.03 * std::sin(2 * kPi * s / 20);
            double road[3], measured[3];
            for (int k = 0; k < 3; ++k) {
                // Gravity pulls down: -up turned by the pitch toward the road's direction.
                road[k] = kG * (-std::cos(pitch) * up[k] + std::sin(pitch) * along[k]);
                measured[k] = road[k] + push * kG * axis[k] + vibration(rng);
                smooth[k] += (measured[k] - smooth[k]) / 5;
            }
            const Vec3 m = counts(measured[0], measured[1], measured[2]);
            // The kit's steadiness on the flat road: within 3 degrees of the last half
            // second; a steady turn's 0.3 g counts as steady too (|g| 1.044), the hardest
            // case: only its length tells it from a tilt. On the hilly one none is
            // steady: the recent gravity's reach alone decides.
            mount_gravity_track(&mg, m, counts(smooth[0], smooth[1], smooth[2]), !hilly && i >= 5, 10);
            if (t < 400) continue;
            const Vec3 g = counts(road[0], road[1], road[2]);
            const double err[3] = {angle_deg(mount_gravity_mean(mg), g), angle_deg(mount_gravity_recent(mg), g),
                                   angle_deg(m, g)};
            for (int k = 0; k < 3; ++k) e.rms[k] += err[k] * err[k], e.worst[k] = std::fmax(e.worst[k], err[k]);
            ++n;
        }
    }
    for (double &sq : e.rms) sq = std::sqrt(sq / n);
    return e;
}

// The mean's error is a fraction of the measurement's: within 3 degrees RMS and 6 at worst
// (two turns the same way in a row), where the measurement strays by 16 in each turn. On
// the hilly road the mean misses the slopes by about their own size; the recent gravity
// follows them (a third less error: the gentle ends of each acceleration look like slopes
// and come through) and leaves the accelerations themselves out (its worst under half the
// measurement's).
TEST(MountGravity, ADrivesAccelerationsAverageOutOfTheMeanAndTheRecentGravityFollowsTheSlopes) {
    const DriveErrors flat = drive(false), hilly = drive(true);
    EXPECT_LT(flat.rms[0], 3.0);
    EXPECT_LT(flat.rms[0], flat.rms[2] / 2);
    EXPECT_LT(flat.worst[0], 6.0);
    EXPECT_GT(flat.worst[2], 16.0);
    EXPECT_GT(hilly.rms[0], 1.5) << "the slopes the mean misses";
    EXPECT_LT(hilly.rms[1], hilly.rms[0] * 0.7) << hilly.rms[0];
    EXPECT_LT(hilly.worst[1], hilly.worst[2] / 2) << hilly.worst[2];
}

// Each case's gravity is held for the tilt's hold (at 10 Hz) on a full window. Within
// the road's slopes of the mean (at any length of g) it keeps the attitude's accuracy;
// beyond, it is a vehicle's acceleration, a hand or a tilt; without a mean there is
// nothing to judge it by.
TEST(MountGravity, TheAngleFromTheMeanAndTheLengthDecideAtTheirLimits) {
    const double limit = kMountGravityNearCdeg / 100.0, tilt = KMXC_SERVICE_MOUNT_TILT_CDEG / 100.0;
    // The halfway length that parts an acceleration's length from a tilt's.
    auto halfway = [](double deg) { return kG * std::sqrt(1 + std::pow(std::tan(deg * kPi / 180), 2) / 2); };
    enum Outcome { kKept, kAfresh, kTilted };  // joins the mean; restarts it at once; after the hold
    const struct {
        const char *name;
        double deg;   // the new gravity's angle from the mean
        double g;     // its length (the level is 1 g)
        bool steady;  // the kit's verdict on it
        Outcome outcome;
    } cases[] = {
        {"beyond the limit, steady: the phone has moved, afresh", limit + 0.3, kG, true, kAfresh},
        {"beyond the limit, unsteady (an acceleration): kept", limit + 0.3, kG, false, kKept},
        {"reversed, steady: afresh", 180, kG, true, kAfresh},
        {"within the slopes, steady, the level's length: kept", tilt - 0.3, kG, true, kKept},
        {"within the slopes, steady, braking's longer g: kept", tilt - 0.3, 1.05 * kG, true, kKept},
        {"beyond the slopes, steady, the level's length: tilted", tilt + 0.3, kG, true, kTilted},
        {"beyond the slopes, unsteady, the level's length: kept", tilt + 1, kG, false, kKept},
        {"20 degrees, steady, as long as an acceleration makes it: kept", 20, accelerated(20), true, kKept},
        {"20 degrees, steady, 1 % shorter than halfway: tilted", 20, 0.99 * halfway(20), true, kTilted},
        {"20 degrees, steady, 1 % longer than halfway: kept", 20, 1.01 * halfway(20), true, kKept},
        {"inside the limit, steady, an acceleration's length: kept", limit - 0.5, accelerated(limit - 0.5), true,
         kKept},
        {"inside the limit, steady, 1 % shorter than the level: tilted", limit - 0.5, 0.99 * kG, true, kTilted},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        // Near the mean before it is taken, and within its slopes: each case lies at least
        // 0.3 degrees from either limit.
        const bool near = c.deg < limit, within = c.deg < tilt;
        MountGravity mg;
        mount_gravity_reset(&mg);
        const Vec3 g = tilted(c.deg, c.g);
        EXPECT_TRUE(mount_tilt_within(mg, g)) << "no mean yet";
        mg = full_window();
        ASSERT_EQ(mg.level_sq, kOneG);
        EXPECT_EQ(mount_tilt_within(mg, g), within);
        EXPECT_EQ(mount_gravity_near(mg, g), near);
        EXPECT_EQ(mount_gravity_near(mg, tilted(c.deg, 2 * kG)), near) << "at 2 g";
        for (uint32_t i = 0; i + 1 < kHold; ++i) mount_gravity_track(&mg, g, g, c.steady, 10);
        EXPECT_EQ(mg.n, c.outcome == kAfresh ? kHold - 1 : kWindow) << "before the hold";
        mount_gravity_track(&mg, g, g, c.steady, 10);
        EXPECT_EQ(mg.n, c.outcome == kKept ? kWindow : c.outcome == kAfresh ? kHold : 1u);
        // The level is the part's: kept across a restart (a restarted mean then measures it).
        if (c.outcome != kAfresh) { EXPECT_EQ(mg.level_sq, kOneG) << "the part's"; }
        if (c.outcome != kKept) { EXPECT_LT(angle_deg(mount_gravity_mean(mg), g), 0.01); }
    }
}

// Unsteady samples, their smoothed gravity at an angle from a full window's mean: within
// a slope's reach one joins the recent gravity, beyond (an acceleration) it stays out; a
// fresh mean's first sample is the recent gravity whatever it is. A vehicle's
// acceleration lengthens gravity as it turns it; a hand's tilt does not. One held for
// kMountAccelHoldMs beyond the road's slopes shows the mount a vehicle's (the attitude
// may then take the recent gravity); one sample short, within the slopes, or at the
// level's length (a hand tilting the phone) shows nothing. A tilt held in the mount
// (knocked) keeps it the vehicle's; the phone moved away starts afresh without.
TEST(MountGravity, TheRecentGravityTakesSlopesAHeldAccelerationShowsAVehicleAndAKnockKeepsIt) {
    constexpr uint32_t kAccelHold = 10 * kMountAccelHoldMs / 1000;
    const double reach = kMountRecentNearCdeg / 100.0, tilt = KMXC_SERVICE_MOUNT_TILT_CDEG / 100.0;
    const struct {
        const char *name;
        double deg, g;
        uint32_t samples;
        bool fresh, joins, vehicle;
    } cases[] = {
        {"just inside the reach: a slope, joins", reach - 0.1, kG, 1, false, true, false},
        {"just beyond: an acceleration, stays out", reach + 0.1, kG, 1, false, false, false},
        {"the first sample of a fresh mean, a cornering's 17 degrees: joins", 17, kG, 1, true, true, false},
        {"an acceleration beyond the slopes, held: a vehicle", tilt + 2, accelerated(tilt + 2), kAccelHold, false,
         false, true},
        {"... one sample short of the hold: not yet", tilt + 2, accelerated(tilt + 2), kAccelHold - 1, false, false,
         false},
        {"an acceleration within the slopes: nothing", tilt - 1, accelerated(tilt - 1), 5 * kAccelHold, false, false,
         false},
        {"a tilt at the level's length (a hand): nothing", tilt + 2, kG, 5 * kAccelHold, false, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        MountGravity mg = full_window();
        if (c.fresh) mount_gravity_reset(&mg);
        const Vec3 before = mount_gravity_recent(mg), g = tilted(c.deg, c.g);
        for (uint32_t i = 0; i < c.samples; ++i) mount_gravity_track(&mg, g, g, false, 10);
        const Vec3 after = mount_gravity_recent(mg);
        EXPECT_EQ(after.z != before.z, c.joins);
        if (c.fresh) { EXPECT_EQ(after.z, g.z); }
        EXPECT_EQ(mg.vehicle, c.vehicle);
    }
    // A vehicle's mount knocked to a new tilt, seen first through the knock's shaking
    // second: the hold counts steady tilted samples in a row, so the shaking ones count for
    // nothing, and a tilt seen stays out of the mean (taken in, it would draw the mean
    // within its limit). Then held steady: afresh, still the vehicle's.
    MountGravity mg = full_window();
    const Vec3 braking = tilted(tilt + 2, accelerated(tilt + 2)), knocked = tilted(tilt + 3);
    for (uint32_t i = 0; i < kAccelHold; ++i) mount_gravity_track(&mg, braking, braking, false, 10);
    ASSERT_TRUE(mg.vehicle);
    const int32_t mean_z = mount_gravity_mean(mg).z;
    for (uint32_t i = 0; i + 1 < kHold; ++i) mount_gravity_track(&mg, knocked, knocked, false, 10);
    EXPECT_TRUE(mg.tilt_seen) << "seen while unsteady";
    EXPECT_EQ(mg.tilted, 0u) << "but not counted";
    EXPECT_EQ(mount_gravity_mean(mg).z, mean_z) << "nor taken into the mean";
    mount_gravity_track(&mg, knocked, knocked, true, 10);
    EXPECT_EQ(mg.tilted, 1u);
    EXPECT_EQ(mg.n, kWindow) << "one steady sample holds nothing";
    for (uint32_t i = 1; i < kHold; ++i) mount_gravity_track(&mg, knocked, knocked, true, 10);
    EXPECT_EQ(mg.n, 1u) << "a hold of steady samples restarted the mean";
    EXPECT_TRUE(mg.vehicle) << "in the same vehicle";
    // Taken out of the mount (steady far from the mean): afresh, no vehicle.
    const Vec3 away = tilted(kMountGravityNearCdeg / 100.0 + 30);
    mount_gravity_track(&mg, away, away, true, 10);
    EXPECT_EQ(mg.n, 1u);
    EXPECT_FALSE(mg.vehicle);
}

// The mean's window expands, then weighs each sample as its share. The level: the first
// still sample near the mean sets it, each later one takes its share; tilted,
// accelerated or unsteady samples leave it, and no gravity of 2 g or more (nor a mean of
// one) is judged by it.
TEST(MountGravity, TheMeanAndTheLevelTakeEachSampleAsItsShare) {
    MountGravity mg;
    mount_gravity_reset(&mg);
    EXPECT_FALSE(mount_gravity_near(mg, tilted(0))) << "no mean yet";
    // A constant gravity comes back exactly, however long the run.
    for (uint32_t i = 0; i < kWindow + 50; ++i)
        mount_gravity_track(&mg, Vec3{100, -4000, 700}, Vec3{100, -4000, 700}, true, 10);
    EXPECT_EQ(mg.n, kWindow);
    const Vec3 m = mount_gravity_mean(mg);
    EXPECT_TRUE(m.x == 100 && m.y == -4000 && m.z == 700) << m.x << ", " << m.y << ", " << m.z;
    // A full window: one sample 400 counts away (within the angle, unsteady) moves the
    // mean by 400 / window.
    mount_gravity_track(&mg, Vec3{500, -4000, 700}, Vec3{500, -4000, 700}, false, 10);
    EXPECT_EQ(mg.mean_q8[0], (100 << 8) + (400 << 8) / int32_t{kWindow});
    // Expanding: the second sample of a fresh mean weighs a half.
    mount_gravity_reset(&mg);
    mount_gravity_track(&mg, Vec3{0, -4096, 0}, Vec3{0, -4096, 0}, true, 50);
    mount_gravity_track(&mg, Vec3{200, -4096, 0}, Vec3{200, -4096, 0}, true, 50);
    EXPECT_EQ(mount_gravity_mean(mg).x, 100);
    // The level, from a fresh mean.
    mount_gravity_reset(&mg);
    mount_gravity_track(&mg, tilted(0), tilted(0), true, 10);
    EXPECT_EQ(mg.level_sq, 0) << "no mean before the first sample";
    mount_gravity_track(&mg, tilted(0), tilted(0), true, 10);
    EXPECT_EQ(mg.level_sq, kOneG);
    const Vec3 longer = tilted(0, 1.05 * kG);
    mount_gravity_track(&mg, longer, longer, false, 10);
    EXPECT_EQ(mg.level_sq, kOneG) << "unsteady";
    mount_gravity_track(&mg, tilted(5), tilted(5), true, 10);
    EXPECT_EQ(mg.level_sq, kOneG) << "beyond the steady tilt of the mean";
    mount_gravity_track(&mg, longer, longer, true, 10);
    // A sixteenth of the way (the length floored to a 512th of g: up to 2 x 538 units, over 16).
    EXPECT_NEAR(mg.level_sq, kOneG * (1 + (1.05 * 1.05 - 1) / 16), 70);
    EXPECT_FALSE(mount_tilted(mg, tilted(30, 2 * kG))) << "2 g is no gravity";
    EXPECT_TRUE(mount_tilted(mg, tilted(30, kG)));
    MountGravity none = mg;
    none.level_sq = 0;
    EXPECT_FALSE(mount_tilted(none, tilted(30, kG))) << "no level";
}

TEST(MountGravity, ASampleIsOnTheCircleWithinTwiceTheFlatnessOfItsRadius) {
    // A circle of radius 60 counts about (40, -30, 20) in the plane normal to y.
    const CircleFit circle{Vec3{0, 16384, 0}, Vec3{40 * 16, -30 * 16, 20 * 16}, 60 * 16, 16};
    const struct {
        const char *name;
        int32_t height;  // counts along the normal from the centre
        bool on;
    } cases[] = {
        {"in the plane", 0, true},
        {"at the limit above: twice 60 / 8", 15, true},
        {"a count beyond, above", 16, false},
        {"at the limit below", -15, true},
        {"a count beyond, below", -16, false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(on_mount_circle(circle, Vec3{40 + 60, -30 + c.height, 20}), c.on) << c.name;
    }
    const CircleFit none{};
    EXPECT_FALSE(on_mount_circle(none, Vec3{40, -30, 20})) << "no circle fitted";
}

}  // namespace
