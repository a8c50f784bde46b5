// Entering a vehicle: acceleration without a turn (kit_motion.h). Integer arithmetic only.
#include "service/kit_motion.h"

#include "service/kit_angle.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

namespace {

// The smoothing's time: long enough to average a 0.5 uT reading's noise at 50 Hz well
// inside the stillness limit, short beside a hand's turn (which must leave it within
// the hold) and a vehicle's acceleration (seconds).
constexpr uint32_t kSmoothMs = 100;
// ... and longer on a noisy chip: the standard deviation of the difference of two
// smoothed fields, reading noise alone, at most a 3.5th of the stillness limit per axis
// (at 0.5 uT, 1.25 counts, a weight of a half). In quarters; at most a sixteenth's weight.
constexpr int64_t kStillNoiseMarginQ2 = 14;
constexpr int kMaxSmoothingShift = 4;
// The cross products below within the angle's input limit of 2^24: the field's
// components within 2^10 counts (409 uT; the Earth's stays within 100), gravity's within
// 2^15 (8 g), taken to 1/1024 g.
constexpr int kCoarseFieldBits = 10;
constexpr int kCoarseGravityShift = 2;
constexpr int kGravityBits = 15;
static_assert(2 * (int64_t{1} << kCoarseFieldBits) * (int64_t{1} << (kGravityBits - kCoarseGravityShift)) <=
                  kAngleInputLimit,
              "b x coarse g within the angle's input limit");

// The field held still: within KMXC_SERVICE_VEHICLE_STILL_COUNTS of where it was on
// every axis (a turn of 2 degrees moves a 48 uT field by 1.7 uT, 4 counts).
bool field_still(const Vec3 &a_q4, const Vec3 &b_q4) {
    const int32_t d[3] = {a_q4.x - b_q4.x, a_q4.y - b_q4.y, a_q4.z - b_q4.z};
    for (int32_t x : d)
        if (x > KMXC_SERVICE_VEHICLE_STILL_COUNTS * 16 || x < -KMXC_SERVICE_VEHICLE_STILL_COUNTS * 16) return false;
    return true;
}

bool within_bits(const Vec3 &v, int bits) {
    const int32_t limit = int32_t{1} << bits;
    return v.x < limit && v.x > -limit && v.y < limit && v.y > -limit && v.z < limit && v.z > -limit;
}

// b x g, g coarse (toward minus infinity).
Vec3 cross_coarse(const Vec3 &b, const Vec3 &g) {
    const Vec3 c{g.x >> kCoarseGravityShift, g.y >> kCoarseGravityShift, g.z >> kCoarseGravityShift};
    return Vec3{b.y * c.z - b.z * c.y, b.z * c.x - b.x * c.z, b.x * c.y - b.y * c.x};
}

// Gravity moved from g0 to g by less than KMXC_SERVICE_VEHICLE_ANGLE_CDEG for certain:
// the distance between them below |g0| times the angle's sine. (The angle between them
// is at most the arcsine of that ratio.) Components within 2^15: the distance's square
// below 2^34 (2^62 once scaled as the sine's square, Q28), |g0|^2 s^2 below 2^54.
bool barely_moved(const Vec3 &g0, const Vec3 &g) {
    const Vec3 d{g.x - g0.x, g.y - g0.y, g.z - g0.z};
    constexpr int64_t sine = sin_q14(KMXC_SERVICE_VEHICLE_ANGLE_CDEG);
    return (dot(d, d) << 28) < dot(g0, g0) * (sine * sine);
}

// Gravity g moved from the watch's as no turn that keeps the field still moves it
// (kit_motion.h): b the field now. Its angle to the field changed by the limit, or it
// moved by the limit and the turn about b that takes the plane of b and the watch's
// gravity to that of b and g (the angle between their normals) is
// KMXC_SERVICE_VEHICLE_TURN_CDEG or more.
bool accelerated(const VehicleWatch &w, const Vec3 &b, const Vec3 &g) {
    const int32_t change = angle_between_cdeg(b, g) - w.angle_cdeg;
    if (change >= KMXC_SERVICE_VEHICLE_ANGLE_CDEG || -change >= KMXC_SERVICE_VEHICLE_ANGLE_CDEG) return true;
    const Vec3 &g0 = w.gravity;
    if (!within_bits(b, kCoarseFieldBits) || !within_bits(g0, kGravityBits) || !within_bits(g, kGravityBits) ||
        barely_moved(g0, g) || angle_between_cdeg(g0, g) < KMXC_SERVICE_VEHICLE_ANGLE_CDEG)
        return false;
    return angle_between_cdeg(cross_coarse(b, g0), cross_coarse(b, g)) >= KMXC_SERVICE_VEHICLE_TURN_CDEG;
}

Vec3 whole_counts(const Vec3 &v_q4) { return Vec3{v_q4.x >> 4, v_q4.y >> 4, v_q4.z >> 4}; }

}  // namespace

int vehicle_smoothing_shift(uint32_t rate_hz, int64_t noise_q8) {
    const uint32_t cycles = rate_hz * kSmoothMs / 1000;  // rate_hz within 2^16: no wrap
    int shift = 0;
    while ((uint32_t{2} << shift) <= cycles) ++shift;
    // A running mean of weight w = 2^-shift carries w / (2 - w) of a reading's noise
    // variance, 1 / (2^(shift + 1) - 1); the difference of two, twice that. Within the
    // margin: 2 n (kStillNoiseMargin)^2 <= STILL^2 (2^(shift + 1) - 1), the noise n in
    // 1/256 count^2 (below 2^20: the products below 2^28).
    constexpr int64_t kLimitQ8 = int64_t{KMXC_SERVICE_VEHICLE_STILL_COUNTS} * KMXC_SERVICE_VEHICLE_STILL_COUNTS * 256;
    const int64_t n = noise_q8 < (int64_t{1} << 20) ? noise_q8 : (int64_t{1} << 20);
    while (shift < kMaxSmoothingShift &&
           2 * n * kStillNoiseMarginQ2 * kStillNoiseMarginQ2 > 16 * kLimitQ8 * ((int64_t{2} << shift) - 1))
        ++shift;
    return shift;
}

bool vehicle_entered(VehicleWatch *w, const Vec3 &v, const Vec3 &g, bool trusted, int64_t now, int shift) {
    if (!trusted) {
        // Nothing judged, nothing concluded: a vehicle is not left while it cannot be seen.
        w->anchored = false;
        if (w->in_vehicle) w->last_accel_ns = now;
        return false;
    }
    if (w->in_vehicle && now - w->last_accel_ns >= int64_t{KMXC_SERVICE_VEHICLE_QUIET_S} * 1000 * kNsPerMs)
        w->in_vehicle = false;
    // The running mean moves by its share of the distance (the shift rounds toward minus
    // infinity: under 1/16 count). |v| within 2^20 counts: 16 v within 2^24.
    const Vec3 v16{v.x * 16, v.y * 16, v.z * 16};
    Vec3 &s = w->smooth_q4;
    s = !w->anchored
            ? v16
            : Vec3{s.x + ((v16.x - s.x) >> shift), s.y + ((v16.y - s.y) >> shift), s.z + ((v16.z - s.z) >> shift)};
    if (!w->anchored || !field_still(s, w->field_q4)) {
        // The phone turned (or the offset moved): what gravity does now is measured from here.
        *w = VehicleWatch{
            true, s, s, g, angle_between_cdeg(whole_counts(s), g), false, 0, w->in_vehicle, w->last_accel_ns};
        return false;
    }
    if (!accelerated(*w, whole_counts(s), g)) {
        w->accelerating = false;
        return false;
    }
    if (!w->accelerating) {
        w->accelerating = true;
        w->accel_from_ns = now;
    }
    if (now - w->accel_from_ns < int64_t{KMXC_SERVICE_VEHICLE_HOLD_MS} * kNsPerMs) return false;
    const bool entered = !w->in_vehicle;
    w->in_vehicle = true;
    w->last_accel_ns = now;
    return entered;
}

}  // namespace kmxc_kit
