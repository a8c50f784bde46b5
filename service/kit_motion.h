// Entering a vehicle: the phone accelerated without turning. A phone in a hand that
// tilts is turned, and its field turns with it; in a vehicle's mount (or on its seat)
// the vehicle's pulling away and braking turn the measured gravity by 6 to 22 degrees
// for seconds while the field in the phone's axes holds still. Only a turn about the
// field's own direction keeps the field still, and it keeps the angle between field and
// gravity too (a hand rolling the phone about a horizontal field, at a shallow dip); an
// acceleration does not. So an angle that stays KMXC_SERVICE_VEHICLE_ANGLE_CDEG or more
// from what it was when the field last moved, for KMXC_SERVICE_VEHICLE_HOLD_MS, is an
// acceleration: the phone has entered a vehicle, whose own steel may have changed the
// field fixed to the phone. (An acceleration across the plane of field and gravity
// leaves the angle: a vehicle braking across a horizontal field shows at its next
// braking in another direction.) The vehicle is left after KMXC_SERVICE_VEHICLE_QUIET_S
// of a trusted offset without one. Integer arithmetic only.
#ifndef KMXC_SERVICE_KIT_MOTION_H
#define KMXC_SERVICE_KIT_MOTION_H

#include <stdint.h>

#include "service/kit_geometry.h"

namespace kmxc_kit {

struct VehicleWatch {
    bool anchored;
    Vec3 field;          // the field (counts, offset removed) when it last moved ...
    int32_t angle_cdeg;  // ... and its angle to gravity then, 1/100 degree
    bool accelerating;   // the angle away from it, the field still, since accel_from_ns
    int64_t accel_from_ns;
    bool in_vehicle;  // an acceleration held long enough, the last at last_accel_ns
    int64_t last_accel_ns;
};

// One cycle's field v (counts, the offset in use removed) and gravity g (1/4096 g) at
// time now (ns): true in the cycle the phone enters a vehicle (an acceleration held
// KMXC_SERVICE_VEHICLE_HOLD_MS while in none), false otherwise. A new offset moves v: the
// watch starts afresh from it. trusted: the offset in use is; without it v is not the
// Earth's field (a field fixed to the phone stays in it, and a turn about the Earth
// field's direction then moves v's angle to gravity), so nothing is judged.
bool vehicle_entered(VehicleWatch *w, const Vec3 &v, const Vec3 &g, bool trusted, int64_t now);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_MOTION_H
