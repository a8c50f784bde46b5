/* A program that keeps time as a sensor HAL does, knowing nothing of the virtual phone:
 * preloaded with it, its monotonic clocks read the virtual clock (from 0) and its
 * sleeps move it. Built once as usual and, on 32-bit targets, once more with 64-bit
 * time_t (_TIME_BITS=64), whose calls are the C library's 64-bit time entry points. */
#define _GNU_SOURCE
#include <stdio.h>
#include <time.h>
#include <unistd.h>

static void print(const char *what, clockid_t clock) {
    struct timespec t;
    if (clock_gettime(clock, &t) != 0) {
        perror(what);
        return;
    }
    printf("%s %lld.%09ld\n", what, (long long)t.tv_sec, (long)t.tv_nsec);
}

int main(void) {
    print("start", CLOCK_MONOTONIC);
    const struct timespec quarter = {0, 250000000};
    nanosleep(&quarter, NULL);
    print("nanosleep", CLOCK_BOOTTIME);
    const struct timespec deadline = {1, 500};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, NULL);
    print("deadline", CLOCK_MONOTONIC_RAW);
    const struct timespec one = {0, 1};
    clock_nanosleep(CLOCK_BOOTTIME, 0, &one, NULL);
    usleep(1);
    print("end", CLOCK_MONOTONIC);
    printf("time_t %d bits\n", (int)(8 * sizeof(time_t)));
    return 0;
}
