/* A compass sensor service on the kit, written as a sensor HAL's loop is: each cycle
 * is stamped with CLOCK_MONOTONIC in nanoseconds (the time base of Android's sensor
 * events), and the loop sleeps to each period's deadline on the same clock
 * (clock_nanosleep with TIMER_ABSTIME), so the rate holds whatever a cycle takes (a
 * measurement alone waits 13 ms). It prints accuracy changes, new calibrations and a
 * line per second, and names failures by the kit's results.
 *
 * Nothing here knows about the virtual phone: it runs as it is on a phone, or on a
 * development machine with the virtual phone and a moving world preloaded (see the
 * virtual phone's documentation):
 *
 *   cc -o example_service example_service.c $(pkg-config --cflags --libs kmxc_service)
 *   LD_PRELOAD="$LIB/libkmxc_vphone.so $LIB/libkmxc_vphone_world.so" \
 *   VPHONE_ROOT=/tmp/phone VPHONE_SCENARIO=default ./example_service 50 30
 *
 * (LIB is /usr/lib/<multiarch>/kmxc_orvane.) Arguments: rate in Hz (default 50),
 * seconds to run (default 30). Exit status: 0 done; 1 the kit or the clock failed;
 * 2 bad arguments; 3 a save of the calibration failed (the previous file is kept). */
#define _POSIX_C_SOURCE 200809L /* clock_gettime, clock_nanosleep */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "service/kmxc_service.h"

#define NS_PER_S 1000000000LL

static const char *const kAccuracy[] = {"unreliable", "low", "medium", "high"};

static int64_t to_ns(const struct timespec *t) { return (int64_t)t->tv_sec * NS_PER_S + t->tv_nsec; }

static struct timespec to_timespec(int64_t ns) {
    struct timespec t;
    t.tv_sec = (time_t)(ns / NS_PER_S);
    t.tv_nsec = (long)(ns % NS_PER_S);
    return t;
}

/* CLOCK_MONOTONIC in nanoseconds: 1, or 0 when it cannot be read (said on stderr). */
static int monotonic_ns(int64_t *ns) {
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        fprintf(stderr, "example_service: clock_gettime: %s\n", strerror(errno));
        return 0;
    }
    *ns = to_ns(&now);
    return 1;
}

/* Sleeps until the deadline (CLOCK_MONOTONIC); an interrupted sleep goes on to the same
 * deadline. 0, or the error. */
static int sleep_until(int64_t deadline_ns) {
    const struct timespec deadline = to_timespec(deadline_ns);
    int error;
    while ((error = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, NULL)) == EINTR) {}
    return error;
}

static int parse(const char *text, long lo, long hi, long *out) {
    char *end;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return 0;
    *out = v;
    return 1;
}

/* What a cycle's event tells a reader: a new 3-D calibration, an accuracy change, a
 * failed save, and once a second the orientation and field. */
static void print_event(const KmxcServiceEvent *e, double t, long cycle, long rate, int8_t *accuracy) {
    if (e->flags & KMXC_SERVICE_FIT_3D)
        printf("t %6.2f s  new 3-D calibration: bias %.1f,%.1f,%.1f uT\n", t, e->bias_uT[0], e->bias_uT[1],
               e->bias_uT[2]);
    if (e->accuracy != *accuracy) {
        printf("t %6.2f s  accuracy %d (%s)\n", t, e->accuracy, kAccuracy[e->accuracy]);
        *accuracy = e->accuracy;
    }
    if (e->flags & KMXC_SERVICE_SAVE_FAILED) {
        fprintf(stderr, "example_service: t %.2f s: saving the calibration failed (%u so far)\n", t, e->save_failures);
    }
    if (cycle % rate == 0 && (e->flags & KMXC_SERVICE_ORIENTATION_VALID))
        printf("t %6.2f s  azimuth %3.0f pitch %4.0f roll %3.0f  field %5.1f,%5.1f,%5.1f uT  accuracy %d\n", t,
               e->orientation_deg[0], e->orientation_deg[1], e->orientation_deg[2], e->magnetic_uT[0],
               e->magnetic_uT[1], e->magnetic_uT[2], e->accuracy);
}

int main(int argc, char **argv) {
    long rate = 50, seconds = 30;
    if (argc > 3 || (argc > 1 && !parse(argv[1], KMXC_SERVICE_RATE_MIN_HZ, KMXC_SERVICE_RATE_MAX_HZ, &rate)) ||
        (argc > 2 && !parse(argv[2], 1, 3600, &seconds))) {
        fprintf(stderr, "usage: example_service [RATE_HZ %d..%d [SECONDS 1..3600]]\n", KMXC_SERVICE_RATE_MIN_HZ,
                KMXC_SERVICE_RATE_MAX_HZ);
        return 2;
    }
    KmxcServiceStart start;
    const int32_t started = kmxc_service_start((uint32_t)rate, &start);
    if (started != KMXC_SERVICE_OK) {
        fprintf(stderr, "example_service: kmxc_service_start: %s\n", kmxc_service_result_name(started));
        return 1;
    }
    printf("started at %ld Hz: rough offset %u,%u,%u (%s)%s%s\n", rate, start.rough[0], start.rough[1], start.rough[2],
           start.rough_measured ? "measured" : "stored", start.offset_loaded ? ", stored offset loaded" : "",
           start.file_repaired ? ", calibration file reset" : "");

    /* Cycle k is due at first + k * period: each deadline is the last one plus a
     * period, never the wake-up plus a period, so the rate does not drift by what a
     * cycle takes. A cycle that ends past the next deadline (at rates above what 13 ms
     * allows) moves the schedule on instead of hurrying. */
    const int64_t period_ns = NS_PER_S / rate;
    const long cycles = rate * seconds;
    int64_t first_ns = 0, now_ns = 0, deadline_ns;
    int status = monotonic_ns(&first_ns) ? 0 : 1;
    deadline_ns = first_ns;
    int8_t accuracy = -1;
    long late = 0, done = 0;
    KmxcServiceEvent e;
    memset(&e, 0, sizeof e);
    for (long cycle = 0; cycle < cycles && status == 0; ++cycle) {
        if (!monotonic_ns(&now_ns)) {
            status = 1;
            break;
        }
        const int32_t rc = kmxc_service_cycle(now_ns, &e);
        if (rc != KMXC_SERVICE_OK) {
            fprintf(stderr, "example_service: kmxc_service_cycle: %s\n", kmxc_service_result_name(rc));
            status = 1;
            break;
        }
        ++done;
        print_event(&e, (double)(now_ns - first_ns) / 1e9, cycle, rate, &accuracy);
        if (cycle + 1 == cycles) break; /* no sleep after the last cycle */
        int64_t end_ns;
        if (!monotonic_ns(&end_ns)) {
            status = 1;
            break;
        }
        deadline_ns += period_ns;
        if (end_ns > deadline_ns) {
            deadline_ns = end_ns;
            ++late;
        }
        const int error = sleep_until(deadline_ns);
        if (error != 0) {
            fprintf(stderr, "example_service: clock_nanosleep: %s\n", strerror(error));
            status = 1;
        }
    }
    const int32_t stopped = kmxc_service_stop();
    if (stopped != KMXC_SERVICE_OK) {
        fprintf(stderr, "example_service: kmxc_service_stop: %s\n", kmxc_service_result_name(stopped));
        status = 1;
    }
    printf("stopped: %ld cycles (%ld late) over %.2f s, accuracy %d, %u saves, %u failed\n", done, late,
           (double)(now_ns - first_ns) / 1e9, e.accuracy, e.saves, e.save_failures);
    if (status == 0 && e.save_failures != 0) status = 3;
    return status;
}
