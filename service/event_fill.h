// The float fields of the kit's event (the only floating point in the kit).
#ifndef KMXC_SERVICE_EVENT_FILL_H
#define KMXC_SERVICE_EVENT_FILL_H

#include "orientation/orientation.h"
#include "service/kmxc_service.h"

// Fills magnetic, uncalibrated, bias, acceleration (from gs) and orientation (from
// attitude_gs: the measured gravity, or a mounted phone's mean) from the cycle's vectors
// and offset (counts), through the library's double path; sets
// KMXC_SERVICE_ORIENTATION_VALID when the rotation matrix exists.
void kmxc_service_fill_floats(const KmxAxesData *ms, const KmxAxesData *gs, const KmxAxesData *attitude_gs,
                              const KmxAxesData *offset, KmxcServiceEvent *e);

#endif
