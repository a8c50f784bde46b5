// Entering a vehicle: the phone accelerated without turning. A phone in a hand that
// tilts is turned, and its field turns with it; in a vehicle's mount (or on its seat)
// the vehicle's pulling away and braking turn the measured gravity by 6 to 22 degrees
// for seconds while the field in the phone's axes holds still. Only a turn about the
// field's own direction keeps the field still: it keeps the angle between field and
// gravity, and it moves gravity across their plane by the turn times the sine of that
// angle. So gravity held, for KMXC_SERVICE_VEHICLE_HOLD_MS, where no such turn of a hand
// puts it (its angle to the field changed by KMXC_SERVICE_VEHICLE_ANGLE_CDEG, or a turn
// about the field of KMXC_SERVICE_VEHICLE_TURN_CDEG implied) is an acceleration: the
// phone has entered a vehicle, whose own steel may have changed the field fixed to the
// phone. The across-plane test is what sees a vehicle heading across a steep field,
// where the angle hardly changes. The field is smoothed over about 0.1 s (longer on a
// noisy chip) before it is judged still, so that a reading's noise does not restart the
// watch mid-acceleration, where the new start would see nothing. The vehicle is left
// after KMXC_SERVICE_VEHICLE_QUIET_S of a trusted offset without one. Integer
// arithmetic only.
#ifndef KMXC_SERVICE_KIT_MOTION_H
#define KMXC_SERVICE_KIT_MOTION_H

#include <stdint.h>

#include "service/kit_geometry.h"

namespace kmxc_kit {

struct VehicleWatch {
    bool anchored;
    Vec3 field_q4;       // the smoothed field (offset removed) when it last moved, 1/16 count ...
    Vec3 smooth_q4;      // ... and now (the running mean of vehicle_smoothing_shift's weight)
    Vec3 gravity;        // gravity when the field last moved, 1/4096 g ...
    int32_t angle_cdeg;  // ... and its angle to the field then, 1/100 degree
    bool accelerating;   // gravity where no turn keeping the field still puts it, since accel_from_ns
    int64_t accel_from_ns;
    bool in_vehicle;  // an acceleration held long enough, the last at last_accel_ns
    int64_t last_accel_ns;
};

// The smoothing's weight at rate_hz on a chip of noise_q8 (the kit's noise meter, per
// axis, 1/256 count^2): each cycle moves the smoothed field by 2^-shift of its distance to
// the reading. The cycles of 0.1 s rounded down to a power of two (0 below 20 Hz: no
// smoothing; 2 at 50 Hz; 3 at 100 Hz), or more where the noise asks it (1 at 0.5 uT),
// at most 4.
int vehicle_smoothing_shift(uint32_t rate_hz, int64_t noise_q8);

// One cycle's field v (counts, the offset in use removed) and gravity g (1/4096 g) at
// time now (ns), the field smoothed with vehicle_smoothing_shift's shift: true in the
// cycle the phone enters a vehicle (an acceleration held KMXC_SERVICE_VEHICLE_HOLD_MS
// while in none), false otherwise. A new offset moves v: the watch starts afresh from
// it. trusted: the offset in use is; without it v is not the Earth's field (a field
// fixed to the phone stays in it, and a turn about the Earth field's direction then
// moves v's angle to gravity), so nothing is judged.
bool vehicle_entered(VehicleWatch *w, const Vec3 &v, const Vec3 &g, bool trusted, int64_t now, int shift);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_MOTION_H
