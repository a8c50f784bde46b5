/* The same service through the kit: start, a few cycles, stop. Built against an
 * installed tree when it has the kit. (The virtual phone's default chips give no
 * attitude, so the heading stays -1 here.) */
#include <stdio.h>

#include "service/kmxc_service.h"

int main(void) {
    KmxcServiceStart start;
    int32_t started = kmxc_service_start(10, &start);
    int measured = 0, heading = -1;
    for (int i = 0; started == 0 && i < 5; ++i) {
        KmxcServiceEvent event;
        if (kmxc_service_cycle((int64_t)i * 100000000, &event) != 0) break;
        if (event.flags & KMXC_SERVICE_MEASURED) ++measured;
        if (event.flags & KMXC_SERVICE_HEADING_VALID) heading = event.heading_deg;
    }
    int32_t stopped = kmxc_service_stop();
    printf("kit start %d measured %d heading %d stop %d\n", (int)started, measured, heading, (int)stopped);
    return started == 0 && measured == 5 && stopped == 0 ? 0 : 1;
}
