// The integer heading (kit_internal.h): the library's heading of the axis the margin
// keeps, after the smoother's warm-up. Integer arithmetic only.
#include "orientation/orientation.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

int32_t heading_threshold(bool z) { return z ? KMXC_SERVICE_DIRECTION_LEAVE_Z : KMXC_SERVICE_DIRECTION_ENTER_Z; }

// The library's own comparison: strictly beyond the threshold.
bool heading_on_z(int16_t up_y, int32_t threshold) { return (up_y < 0 ? -int32_t{up_y} : int32_t{up_y}) > threshold; }

void integer_heading(const KmxAxesData &mag, const KmxAxesData &gravity, KmxcServiceEvent *e) {
    KmxAxesAttitude attitude;
    if (KmxAxesLibGetAttitude(&mag, &gravity, &attitude) != 0) return;
    // The library is told the threshold that leaves the axis in use.
    const int32_t threshold = heading_threshold(g_state.heading_z);
    uint16_t heading = 0;
    KmxAxesLibCalcDirection(&attitude, &heading, threshold);
    g_state.heading_z = heading_on_z(attitude.matrix[7], threshold);
    if (g_state.warm_cycles < KMXC_SERVICE_WARMUP_CYCLES) {
        ++g_state.warm_cycles;
        return;
    }
    e->heading_deg = static_cast<int16_t>(heading);
    e->flags |= KMXC_SERVICE_HEADING_VALID;
    if (g_state.heading_z) e->flags |= KMXC_SERVICE_HEADING_Z_AXIS;
}

}  // namespace kmxc_kit
