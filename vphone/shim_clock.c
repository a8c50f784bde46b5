/* The sleeps and the monotonic clocks, as the virtual phone answers them (the other
 * calls are in shim.c): usleep, nanosleep and clock_nanosleep move the virtual clock,
 * clock_gettime reads it, with glibc's aliases and the 64-bit time calls of 32-bit
 * targets. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include "shim.h"
#include "vphone_core.h"

typedef int (*clock_gettime_fn)(clockid_t, struct timespec *);
typedef int (*clock_nanosleep_fn)(clockid_t, int, const struct timespec *, struct timespec *);

VPHONE_EXPORT int usleep(useconds_t microseconds) {
    int error = vphone_core_take_fault(VPHONE_CALL_USLEEP);
    if (error != 0) return fail_with(error);
    return vphone_core_sleep_us(microseconds);
}

/* ---- the virtual clock ----------------------------------------------------------------
 * Read for the monotonic clocks and CLOCK_BOOTTIME (the phone never suspends), slept on
 * by nanosleep and by clock_nanosleep on CLOCK_MONOTONIC and CLOCK_BOOTTIME (the
 * kernel sleeps on no other monotonic clock). CLOCK_REALTIME and every other clock go
 * on to the real C library. Each call works on seconds and nanoseconds, so the 32- and
 * 64-bit time_t forms share it. */

#define NS_PER_S 1000000000ULL

static int reads_virtual(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

static int sleeps_virtual(clockid_t clock) { return clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME; }

/* A time the kernel accepts: seconds not negative, nanoseconds 0..999999999. */
static int valid_time(int64_t seconds, int64_t nanoseconds) {
    return seconds >= 0 && nanoseconds >= 0 && (uint64_t)nanoseconds < NS_PER_S;
}

/* A valid time in nanoseconds; one past 2^64-1 ns (584 years) stays there. */
static uint64_t to_ns(int64_t seconds, int64_t nanoseconds) {
    if ((uint64_t)seconds > (UINT64_MAX - (uint64_t)nanoseconds) / NS_PER_S) return UINT64_MAX;
    return (uint64_t)seconds * NS_PER_S + (uint64_t)nanoseconds;
}

/* clock_gettime on the virtual clock: 0 and the time, or the errno (an injected fault;
 * EOVERFLOW when the seconds exceed max_seconds, the caller's time_t). */
static int virtual_now(int64_t max_seconds, int64_t *seconds, int64_t *nanoseconds) {
    int error = vphone_core_take_fault(VPHONE_CALL_CLOCK_GETTIME);
    if (error != 0) return error;
    uint64_t now = vphone_core_now_ns();
    if (now / NS_PER_S > (uint64_t)max_seconds) return EOVERFLOW;
    *seconds = (int64_t)(now / NS_PER_S);
    *nanoseconds = (int64_t)(now % NS_PER_S);
    return 0;
}

/* A sleep of the kind call for a valid time, relative or absolute (to that time):
 * 0 or the errno of an injected fault, which sleeps nothing. A deadline already
 * past returns at once. */
static int virtual_sleep(int call, int absolute, int64_t seconds, int64_t nanoseconds) {
    int error = vphone_core_take_fault(call);
    if (error != 0) return error;
    uint64_t ns = to_ns(seconds, nanoseconds);
    if (absolute) {
        uint64_t now = vphone_core_now_ns();
        ns = ns > now ? ns - now : 0;
    }
    return vphone_core_sleep_ns(call, ns);
}

/* nanosleep's rules: -1 and errno on failure; after an interruption the time left
 * (all of it: an injected EINTR sleeps nothing) goes to remaining. */
static int phone_nanosleep(int64_t seconds, int64_t nanoseconds, int *interrupted) {
    *interrupted = 0;
    if (!valid_time(seconds, nanoseconds)) return fail_with(EINVAL);
    int error = virtual_sleep(VPHONE_CALL_NANOSLEEP, 0, seconds, nanoseconds);
    if (error == 0) return 0;
    *interrupted = error == EINTR;
    return fail_with(error);
}

/* clock_nanosleep's rules: the errno is returned, errno is left alone; only a relative
 * sleep reports the time left. */
static int phone_clock_nanosleep(int flags, int64_t seconds, int64_t nanoseconds, int *interrupted) {
    *interrupted = 0;
    if (!valid_time(seconds, nanoseconds)) return EINVAL;
    int absolute = (flags & TIMER_ABSTIME) != 0;
    int error = virtual_sleep(VPHONE_CALL_CLOCK_NANOSLEEP, absolute, seconds, nanoseconds);
    *interrupted = error == EINTR && !absolute;
    return error;
}

#define TIME_T_MAX (sizeof(time_t) >= 8 ? (int64_t)INT64_MAX : (int64_t)INT32_MAX)

static int phone_clock_gettime(clockid_t clock, struct timespec *now) {
    if (!reads_virtual(clock)) {
        NEXT(clock_gettime_fn, clock_gettime);
        return real_clock_gettime(clock, now);
    }
    if (now == NULL) return fail_with(EFAULT);
    int64_t seconds = 0, nanoseconds = 0;
    int error = virtual_now(TIME_T_MAX, &seconds, &nanoseconds);
    if (error != 0) return fail_with(error);
    now->tv_sec = (time_t)seconds;
    now->tv_nsec = (long)nanoseconds;
    return 0;
}

VPHONE_EXPORT int clock_gettime(clockid_t clock, struct timespec *now) { return phone_clock_gettime(clock, now); }
VPHONE_EXPORT int __clock_gettime(clockid_t clock, struct timespec *now) { return phone_clock_gettime(clock, now); }

static int plain_nanosleep(const struct timespec *request, struct timespec *remaining) {
    if (request == NULL) return fail_with(EFAULT);
    int interrupted;
    int result = phone_nanosleep(request->tv_sec, request->tv_nsec, &interrupted);
    if (interrupted && remaining != NULL) *remaining = *request;
    return result;
}

VPHONE_EXPORT int nanosleep(const struct timespec *request, struct timespec *remaining) {
    return plain_nanosleep(request, remaining);
}
VPHONE_EXPORT int __nanosleep(const struct timespec *request, struct timespec *remaining) {
    return plain_nanosleep(request, remaining);
}

VPHONE_EXPORT int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request,
                                  struct timespec *remaining) {
    if (!sleeps_virtual(clock)) {
        NEXT(clock_nanosleep_fn, clock_nanosleep);
        return real_clock_nanosleep(clock, flags, request, remaining);
    }
    if (request == NULL) return EFAULT;
    int interrupted;
    int result = phone_clock_nanosleep(flags, request->tv_sec, request->tv_nsec, &interrupted);
    if (interrupted && remaining != NULL) *remaining = *request;
    return result;
}

#if defined(__TIMESIZE) && __TIMESIZE == 32
/* 32-bit targets (armel): a program built with _TIME_BITS=64 calls these instead (glibc
 * 2.34 on). Their timespec has 64-bit seconds and 32-bit nanoseconds padded to 64
 * bits; the padding is ignored, as the C library does. */
struct vphone_timespec64 {
    int64_t tv_sec;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    int32_t padding;
    int32_t tv_nsec;
#else
    int32_t tv_nsec;
    int32_t padding;
#endif
};
typedef int (*clock_gettime64_fn)(clockid_t, struct vphone_timespec64 *);
typedef int (*clock_nanosleep64_fn)(clockid_t, int, const struct vphone_timespec64 *, struct vphone_timespec64 *);

VPHONE_EXPORT int __clock_gettime64(clockid_t clock, struct vphone_timespec64 *now) {
    if (!reads_virtual(clock)) {
        NEXT(clock_gettime64_fn, __clock_gettime64);
        return real___clock_gettime64(clock, now);
    }
    if (now == NULL) return fail_with(EFAULT);
    int64_t seconds = 0, nanoseconds = 0;
    int error = virtual_now(INT64_MAX, &seconds, &nanoseconds);
    if (error != 0) return fail_with(error);
    now->tv_sec = seconds;
    now->tv_nsec = (int32_t)nanoseconds;
    now->padding = 0;
    return 0;
}

VPHONE_EXPORT int __nanosleep64(const struct vphone_timespec64 *request, struct vphone_timespec64 *remaining) {
    if (request == NULL) return fail_with(EFAULT);
    int interrupted;
    int result = phone_nanosleep(request->tv_sec, request->tv_nsec, &interrupted);
    if (interrupted && remaining != NULL) *remaining = *request;
    return result;
}

VPHONE_EXPORT int __clock_nanosleep_time64(clockid_t clock, int flags, const struct vphone_timespec64 *request,
                                           struct vphone_timespec64 *remaining) {
    if (!sleeps_virtual(clock)) {
        NEXT(clock_nanosleep64_fn, __clock_nanosleep_time64);
        return real___clock_nanosleep_time64(clock, flags, request, remaining);
    }
    if (request == NULL) return EFAULT;
    int interrupted;
    int result = phone_clock_nanosleep(flags, request->tv_sec, request->tv_nsec, &interrupted);
    if (interrupted && remaining != NULL) *remaining = *request;
    return result;
}
#endif
