/* A minimal sensor service in C on the kit: start at a rate, one cycle per period,
 * print a line per second and what changed, stop. Nothing here knows about the
 * virtual phone: run it on the phone, or on a development machine with
 *
 *   LD_PRELOAD="libkmxc_vphone.so libkmxc_vphone_world.so" VPHONE_ROOT=/tmp/phone \
 *   VPHONE_SCENARIO=default ./kmxc_example_service 50 78
 *
 * Arguments: rate in Hz (default 50), seconds to run (default 30). */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "service/kmxc_service.h"

static const char *const kAccuracy[] = {"unreliable", "low", "medium", "high"};

int main(int argc, char **argv) {
    const long rate = argc > 1 ? strtol(argv[1], NULL, 10) : 50;
    const long seconds = argc > 2 ? strtol(argv[2], NULL, 10) : 30;
    if (seconds < 1 || seconds > 3600) {
        fprintf(stderr, "example_service: seconds must be 1..3600\n");
        return 2;
    }
    KmxcServiceStart start;
    const int32_t rc = kmxc_service_start((uint32_t)rate, &start);
    if (rc == KMXC_SERVICE_BAD_RATE) {
        fprintf(stderr, "example_service: rate %ld Hz is outside %d..%d\n", rate, KMXC_SERVICE_RATE_MIN_HZ,
                KMXC_SERVICE_RATE_MAX_HZ);
        return 2;
    }
    if (rc != KMXC_SERVICE_OK) {
        fprintf(stderr, "example_service: kmxc_service_start returned %s\n", kmxc_service_result_name(rc));
        return 1;
    }
    printf("started: rough offset %u,%u,%u (%s)%s%s\n", start.rough[0], start.rough[1], start.rough[2],
           start.rough_measured ? "measured" : "stored", start.offset_loaded ? ", stored offset loaded" : "",
           start.file_repaired ? ", calibration file reset" : "");

    const uint64_t period_us = 1000000u / (uint64_t)rate;
    uint64_t t = 0, next_line = 0;
    int8_t accuracy = -1;
    uint32_t failures = 0;
    KmxcServiceEvent e;
    for (long i = 0; t <= (uint64_t)seconds * 1000000u; ++i) {
        kmxc_service_cycle((int64_t)t * 1000, &e);
        if (e.accuracy != accuracy) {
            printf("t %6.2f s  accuracy %s\n", (double)t / 1e6, kAccuracy[e.accuracy]);
            accuracy = e.accuracy;
        }
        if (e.flags & KMXC_SERVICE_FIT_3D) printf("t %6.2f s  new 3-D calibration\n", (double)t / 1e6);
        if (t >= next_line && (e.flags & KMXC_SERVICE_ORIENTATION_VALID)) {
            printf("t %6.2f s  azimuth %5.1f pitch %6.1f roll %5.1f heading %4d  field %5.1f,%5.1f,%5.1f uT  acc %d\n",
                   (double)t / 1e6, e.orientation_deg[0], e.orientation_deg[1], e.orientation_deg[2], e.heading_deg,
                   e.magnetic_uT[0], e.magnetic_uT[1], e.magnetic_uT[2], e.accuracy);
            next_line += 1000000u;
        }
        failures = e.save_failures;
        /* Sleep to the next period; a cycle itself takes 13 ms (the magnetometer's
         * conversion). The timestamps count that time; a service on the phone would
         * read CLOCK_MONOTONIC instead (the virtual phone's clock advances only in
         * usleep, so the example keeps its own count). */
        const uint64_t due = (uint64_t)(i + 1) * period_us;
        const uint64_t spent = 13000u;
        if (due > t + spent) usleep((useconds_t)(due - t - spent));
        t = t + spent > due ? t + spent : due;
    }
    kmxc_service_stop();
    printf("stopped: accuracy %s, %u saves, %u failed\n", kAccuracy[e.accuracy], e.saves, failures);
    return failures == 0 ? 0 : 3;
}
