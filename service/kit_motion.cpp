// Entering a vehicle: acceleration without a turn (kit_motion.h). Integer arithmetic only.
#include "service/kit_motion.h"

#include "service/kit_angle.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

namespace {

// The field held still: within KMXC_SERVICE_VEHICLE_STILL_COUNTS of where it was on
// every axis (a turn of 2 degrees moves a 48 uT field by 1.7 uT, 4 counts).
bool field_still(const Vec3 &a, const Vec3 &b) {
    const int32_t d[3] = {a.x - b.x, a.y - b.y, a.z - b.z};
    for (int32_t v : d)
        if (v > KMXC_SERVICE_VEHICLE_STILL_COUNTS || v < -KMXC_SERVICE_VEHICLE_STILL_COUNTS) return false;
    return true;
}

}  // namespace

bool vehicle_entered(VehicleWatch *w, const Vec3 &v, const Vec3 &g, bool trusted, int64_t now) {
    if (!trusted) {
        // Nothing judged, nothing concluded: a vehicle is not left while it cannot be seen.
        w->anchored = false;
        if (w->in_vehicle) w->last_accel_ns = now;
        return false;
    }
    if (w->in_vehicle && now - w->last_accel_ns >= int64_t{KMXC_SERVICE_VEHICLE_QUIET_S} * 1000 * kNsPerMs)
        w->in_vehicle = false;
    const int32_t angle = angle_between_cdeg(v, g);
    if (!w->anchored || !field_still(v, w->field)) {
        // The phone turned (or the offset moved): what gravity does now is measured from here.
        *w = VehicleWatch{true, v, angle, false, 0, w->in_vehicle, w->last_accel_ns};
        return false;
    }
    const int32_t change = angle - w->angle_cdeg;
    if (change < KMXC_SERVICE_VEHICLE_ANGLE_CDEG && -change < KMXC_SERVICE_VEHICLE_ANGLE_CDEG) {
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
