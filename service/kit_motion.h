// Entering a vehicle: the phone accelerated without turning. A phone in a hand that
// tilts is turned, and its field turns with it; in a vehicle's mount (or on its seat)
// the vehicle's pulling away and braking turn the measured gravity by 6 to 22 degrees
// for seconds while the field in the phone's axes holds still. Gravity that stays
// KMXC_SERVICE_VEHICLE_TILT_CDEG or more away from where it was when the field last
// moved, for KMXC_SERVICE_VEHICLE_HOLD_MS, is such an acceleration: the phone has
// entered a vehicle, whose own steel may have changed the field fixed to the phone. The
// vehicle is left after KMXC_SERVICE_VEHICLE_QUIET_S without one. (A hand turning the
// phone exactly about the field's direction also keeps the field still while gravity
// moves; held there a second, it is taken for a vehicle: the offset then has to show
// again that it fits.) Integer arithmetic only.
#ifndef KMXC_SERVICE_KIT_MOTION_H
#define KMXC_SERVICE_KIT_MOTION_H

#include <stdint.h>

#include "service/kit_geometry.h"

namespace kmxc_kit {

struct VehicleWatch {
    bool anchored;
    Vec3 field;         // the field (counts, as measured) when it last moved ...
    Vec3 gravity;       // ... and gravity then (1/4096 g)
    bool accelerating;  // gravity away from it, the field still, since accel_from_ns
    int64_t accel_from_ns;
    bool in_vehicle;  // an acceleration held long enough, the last at last_accel_ns
    int64_t last_accel_ns;
};

// One cycle's field m (counts, as measured) and gravity g at time now (ns): true in the
// cycle the phone enters a vehicle (an acceleration held KMXC_SERVICE_VEHICLE_HOLD_MS
// while in none), false otherwise.
bool vehicle_entered(VehicleWatch *w, const Vec3 &m, const Vec3 &g, int64_t now);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_MOTION_H
