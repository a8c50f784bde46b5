// Entering a vehicle: the angle between field and gravity held away from what it was
// while the field holds still, each rule at its limit (the angle, the field's stillness:
// a hand's turn moves the field, the hold, the quiet that leaves the vehicle), on a phone
// that never turns.
#include <gtest/gtest.h>

#include <cmath>

#include "service/kit_motion.h"
#include "service/kmxc_service.h"

namespace {

using namespace kmxc_kit;

constexpr double kPi = 3.14159265358979323846;
constexpr int64_t kMs = 1000000;  // ns
const Vec3 kField{0, 100, -173};  // counts, offset removed: 60 degrees from straight down
const Vec3 kDown{0, 0, -4096};    // 1 g, face up

// Gravity tilted by cdeg (1/100 degree) from kDown about x, 1 g long: in the plane of
// kField and kDown, so its angle to the field changes by the tilt.
Vec3 tilted(int32_t cdeg) {
    const double a = cdeg / 100.0 * kPi / 180;
    return Vec3{0, static_cast<int32_t>(std::lround(4096 * std::sin(a))),
                static_cast<int32_t>(std::lround(-4096 * std::cos(a)))};
}

// v rotated by deg about the unit axis n (Rodrigues), to whole counts.
Vec3 rotated(const double v[3], const double n[3], double deg) {
    const double a = deg * kPi / 180, c = std::cos(a), s = std::sin(a);
    const double d = n[0] * v[0] + n[1] * v[1] + n[2] * v[2];
    const double x[3] = {n[1] * v[2] - n[2] * v[1], n[2] * v[0] - n[0] * v[2], n[0] * v[1] - n[1] * v[0]};
    double r[3];
    for (int k = 0; k < 3; ++k) r[k] = v[k] * c + x[k] * s + n[k] * d * (1 - c);
    return Vec3{static_cast<int32_t>(std::lround(r[0])), static_cast<int32_t>(std::lround(r[1])),
                static_cast<int32_t>(std::lround(r[2]))};
}

// A phone that never turns, cycled every step_ms: its entries into a vehicle and the last one's time.
struct Still {
    VehicleWatch w{};
    int64_t entered_at = -1;
    int entries = 0;
    void hold(int64_t from_ms, int64_t to_ms, const Vec3 &m, const Vec3 &g, int64_t step_ms = 100,
              bool trusted = true) {
        for (int64_t t = from_ms; t <= to_ms; t += step_ms)
            if (vehicle_entered(&w, m, g, trusted, t * kMs,
                                vehicle_smoothing_shift(static_cast<uint32_t>(1000 / step_ms), 0))) {
                entered_at = t;
                ++entries;
            }
    }
};

TEST(VehicleEntry, AnAngleHeldAwayWhileTheFieldStaysStillIsAVehicleAtEachLimit) {
    constexpr int32_t kAngle = KMXC_SERVICE_VEHICLE_ANGLE_CDEG, kStill = KMXC_SERVICE_VEHICLE_STILL_COUNTS;
    constexpr int64_t kEntered = 1000 + KMXC_SERVICE_VEHICLE_HOLD_MS;
    const struct {
        const char *name;
        int32_t tilt_cdeg;   // gravity from 1 s on (its angle to the field changes as much)
        Vec3 field;          // the field from 1 s on
        int64_t entered_ms;  // -1: never
    } cases[] = {
        {"10 cdeg past the limit: entered after the hold", kAngle + 10, kField, kEntered},
        {"10 cdeg short of the limit", kAngle - 10, kField, -1},
        {"the other way", -kAngle - 10, kField, kEntered},
        {"the field moved by the stillness limit: still", kAngle + 30, Vec3{kField.x - kStill, kField.y, kField.z},
         kEntered},
        {"one count more: the phone turned", kAngle + 30, Vec3{kField.x + kStill + 1, kField.y, kField.z}, -1},
    };
    for (const auto &c : cases) {
        Still r;
        r.hold(0, 900, kField, kDown);
        r.hold(1000, 5000, c.field, tilted(c.tilt_cdeg));
        EXPECT_EQ(r.entered_at, c.entered_ms) << c.name;
        EXPECT_LE(r.entries, 1) << c.name;
    }
}

// Without a trusted offset the field is not the Earth's: nothing is judged, and the
// watch starts afresh from the first cycle with one. Nor is a vehicle left while nothing
// can be judged: ten minutes without a trusted offset after entering, then a braking, is
// the same vehicle.
TEST(VehicleEntry, NothingIsJudgedNorIsAVehicleLeftWithoutATrustedOffset) {
    Still lost;  // from 0.5 s to 4 s, the braking beginning at 1 s
    lost.hold(0, 400, kField, kDown);
    lost.hold(500, 900, kField, kDown, 100, false);
    lost.hold(1000, 3900, kField, tilted(1670), 100, false);
    lost.hold(4000, 6000, kField, tilted(1670));
    EXPECT_EQ(lost.entries, 0) << "the braking began while no offset was trusted";
    Still in;
    in.hold(0, 900, kField, kDown);
    in.hold(1000, 3000, kField, tilted(1670));
    in.hold(3100, 603000, kField, kDown, 100, false);
    in.hold(603100, 603900, kField, kDown);
    in.hold(604000, 606000, kField, tilted(1670));
    EXPECT_EQ(in.entries, 1);
}

// The hold and the quiet are times, whatever the rate: a tilt that ends a cycle short of
// the hold is none; once in a vehicle, its later brakings are no new entry, and after
// the quiet (from one acceleration's last cycle to the next's first) one is.
TEST(VehicleEntry, AnAccelerationShorterThanTheHoldIsNoneAndTheVehicleIsLeftAfterItsQuietTime) {
    constexpr int64_t kHold = KMXC_SERVICE_VEHICLE_HOLD_MS, kQuiet = int64_t{KMXC_SERVICE_VEHICLE_QUIET_S} * 1000;
    for (int64_t step : {10, 20, 100}) {
        SCOPED_TRACE(step);
        Still r;
        r.hold(0, 1000, kField, kDown, step);
        r.hold(1000 + step, 1000 + kHold, kField, tilted(1500), step);
        r.hold(1000 + kHold + step, 4000, kField, kDown, step);
        EXPECT_EQ(r.entries, 0);
        const int64_t end = 4000 + step + kHold;  // entered, and the acceleration's last cycle
        r.hold(4000 + step, end, kField, tilted(1500), step);
        EXPECT_EQ(r.entered_at, end);
        for (const int64_t gap : {kQuiet - kHold - step, kQuiet - kHold}) {
            Still later = r;
            later.hold(end + step, end + gap - step, kField, kDown, step);
            later.hold(end + gap, end + gap + 2000, kField, tilted(1500), step);
            EXPECT_EQ(later.entries, gap == kQuiet - kHold ? 2 : 1) << gap;
        }
    }
}

// Gravity turned about the field's own direction keeps its angle to the field, and the
// field stays still: a hand's turn about the field up to KMXC_SERVICE_VEHICLE_TURN_CDEG,
// an acceleration beyond it. At a steep dip a small move of gravity across the plane of
// field and gravity implies a large turn; at a shallow one the turn equals the move. A
// move below KMXC_SERVICE_VEHICLE_ANGLE_CDEG is none, whatever turn it implies.
TEST(VehicleEntry, GravityTurnedAboutTheStillFieldIsAHandsTurnUpToTheTurnLimit) {
    constexpr double kTurn = KMXC_SERVICE_VEHICLE_TURN_CDEG / 100.0;
    constexpr int64_t kEntered = 1000 + KMXC_SERVICE_VEHICLE_HOLD_MS;
    const struct {
        const char *name;
        double field_from_gravity_deg;  // the field's angle to gravity (90 - dip)
        double turn_deg;                // gravity's turn about the field from 1 s on ...
        double length;                  // ... and its length then, g
        int64_t entered_ms;             // -1: never
    } cases[] = {
        {"a 70-degree dip, 2 degrees short of the limit: a hand", 20, kTurn - 2, 1, -1},
        {"a 70-degree dip, 2 degrees past it: a vehicle (gravity moved 9.2 degrees)", 20, kTurn + 2, 1, kEntered},
        {"the other way round", 20, -kTurn - 2, 1, kEntered},
        {"a 10-degree dip: a 20-degree roll about the level field is a hand", 80, 20, 1, -1},
        {"an 85-degree dip: gravity moved 5.0 degrees, a 60-degree turn", 5, 60, 1, kEntered},
        {"an 87-degree dip: gravity moved 3.0 degrees, too little to judge", 3, 60, 1, -1},
        {"... and 10 % longer (a bump): still too little", 3, 60, 1.1, -1},
    };
    for (const auto &c : cases) {
        const double down[3] = {0, 0, -4096 * c.length};
        // The field 120 counts long in the y-z plane, c.field_from_gravity_deg from down.
        const double a = c.field_from_gravity_deg * kPi / 180;
        const double axis[3] = {0, std::sin(a), -std::cos(a)};
        const Vec3 field{0, static_cast<int32_t>(std::lround(120 * axis[1])),
                         static_cast<int32_t>(std::lround(120 * axis[2]))};
        Still r;
        r.hold(0, 900, field, kDown);
        r.hold(1000, 5000, field, rotated(down, axis, c.turn_deg));
        EXPECT_EQ(r.entered_at, c.entered_ms) << c.name;
        EXPECT_LE(r.entries, 1) << c.name;
    }
}

// At 50 Hz a reading's noise (here up to 3 counts per axis) would move a single reading
// beyond the stillness limit of the one before it, and restart the watch within any
// hold; smoothed over 0.1 s it stays within, and a braking is seen.
TEST(VehicleEntry, ReadingNoiseAtFiftyHertzDoesNotRestartTheWatch) {
    Still r;
    uint32_t state = 12345;  // a fixed pseudo-random sequence, -3..3 counts per axis
    auto noisy = [&state](const Vec3 &v) {
        int32_t n[3];
        for (int32_t &x : n) {
            state = state * 1103515245u + 12345u;
            x = static_cast<int32_t>((state >> 16) % 7) - 3;
        }
        return Vec3{v.x + n[0], v.y + n[1], v.z + n[2]};
    };
    for (int64_t t = 0; t <= 4000; t += 20)
        if (vehicle_entered(&r.w, noisy(kField), t < 1000 ? kDown : tilted(1000), true, t * kMs,
                            vehicle_smoothing_shift(50, 0))) {
            r.entered_at = t;
            ++r.entries;
        }
    EXPECT_EQ(r.entries, 1);
    EXPECT_NEAR(static_cast<double>(r.entered_at), 1000 + KMXC_SERVICE_VEHICLE_HOLD_MS, 100);
}

// The smoothing's shift: the cycles of 0.1 s, rounded down to a power of two, or what a
// noisy chip asks (the difference of two smoothed fields within a 3.5th of the stillness
// limit: noise variances to 167/256 count^2 need none, to 501 a half's weight), at most 4.
TEST(VehicleEntry, TheFieldIsSmoothedOverATenthOfASecondOrLongerOnANoisyChip) {
    constexpr int64_t kDemo = 165, kHalfUt = 420, kFiveUt = 40021;  // per axis, 1/256 count^2
    const struct {
        uint32_t rate_hz;
        int64_t noise_q8;
        int shift;
    } cases[] = {
        {1, kDemo, 0},    {10, kDemo, 0},   {19, kDemo, 0},    {20, kDemo, 1},     {39, kDemo, 1},
        {40, kDemo, 2},   {50, kDemo, 2},   {79, kDemo, 2},    {80, kDemo, 3},     {100, kDemo, 3},
        {10, 167, 0},     {10, 168, 1},     {10, 501, 1},      {10, 502, 2},       {10, kHalfUt, 1},
        {50, kHalfUt, 2}, {10, kFiveUt, 4}, {100, kFiveUt, 4}, {10, INT64_MAX, 4},
    };
    for (const auto &c : cases)
        EXPECT_EQ(vehicle_smoothing_shift(c.rate_hz, c.noise_q8), c.shift) << c.rate_hz << " Hz, " << c.noise_q8;
}

}  // namespace
