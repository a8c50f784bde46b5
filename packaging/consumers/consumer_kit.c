/* The same service through the kit: start, a few cycles, stop. Built against an
 * installed tree when it has the kit. Results are compared with the kit's names and
 * printed as them. (The virtual phone's default chips give no attitude, so the heading
 * stays -1 here.) */
#include <stdio.h>

#include "service/kmxc_service.h"

int main(void) {
    KmxcServiceStart start;
    const int32_t started = kmxc_service_start(10, &start);
    int32_t cycled = KMXC_SERVICE_OK;
    int measured = 0, heading = -1;
    for (int i = 0; started == KMXC_SERVICE_OK && cycled == KMXC_SERVICE_OK && i < 5; ++i) {
        KmxcServiceEvent event;
        cycled = kmxc_service_cycle((int64_t)(i + 1) * 100000000, &event);
        if (cycled != KMXC_SERVICE_OK) break;
        if (event.flags & KMXC_SERVICE_MEASURED) ++measured;
        if (event.flags & KMXC_SERVICE_HEADING_VALID) heading = event.heading_deg;
    }
    const int32_t stopped = kmxc_service_stop();
    printf("kit start %s measured %d heading %d cycle %s stop %s\n", kmxc_service_result_name(started), measured,
           heading, kmxc_service_result_name(cycled), kmxc_service_result_name(stopped));
    return started == KMXC_SERVICE_OK && cycled == KMXC_SERVICE_OK && measured == 5 && stopped == KMXC_SERVICE_OK ? 0
                                                                                                                  : 1;
}
