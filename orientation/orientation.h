/*
 * Orientation library: the offsets subtracted from every sample, the integer
 * attitude and heading, the azimuth hold filter, the double-precision Euler angles,
 * rotation matrix and physical units, and the carry-over of the magnetic offset
 * when the magnetometer's rough offset changes.
 *
 * Units: magnetic samples and offsets in corrected magnetometer counts (0.4 uT
 * each); gravity samples and offsets in 1/4096 of standard gravity (a device lying
 * still in its reference attitude reads about (0, 0, -4096)). Angles are whole
 * degrees, heading measured from north toward east.
 *
 * State: g_AxesLib (the two offsets) and the heading smoother's and azimuth
 * filter's histories, all static. No threads, no locks: call from one thread, one
 * call at a time. No function allocates.
 */
#ifndef KMXC_ORIENTATION_H
#define KMXC_ORIENTATION_H

#include <stdint.h>

#ifndef KMXC_API
#define KMXC_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Three-axis sample or offset. */
typedef struct KmxAxesData {
    int32_t x;
    int32_t y;
    int32_t z;
} KmxAxesData;

/* The library's offsets; zero at load and after KmxAxesLibInit. */
typedef struct KmxAxesLib {
    KmxAxesData msOffset; /* subtracted from every magnetic sample */
    KmxAxesData gsOffset; /* subtracted from every gravity sample */
} KmxAxesLib;

KMXC_API extern KmxAxesLib g_AxesLib;
/* All-zero KmxAxesData: the reset value of every sample and offset record. */
KMXC_API extern const KmxAxesData KmxAxesData_Constructor;

/* ---- Offsets --------------------------------------------------------------------
 * Get/Set copy between the caller's record and g_AxesLib; they check neither the
 * pointer nor the range and return 0.
 *
 *   KmxAxesLibIsValidMsOffset     1: non-null and every component in -16384..16384
 *   KmxAxesLibIsValidRoughOffset  1: non-null and each of the 3 steps <= 31
 *                                 0: otherwise (255 marks "not known")
 *   KmxAxesGsCalibGetGsOffset     out = (x, y, z + 4096) of a resting gravity sample;
 *                                 stores nothing, returns 0
 */
KMXC_API int8_t KmxAxesLibGetMsOffset(KmxAxesData *out);
KMXC_API int8_t KmxAxesLibSetMsOffset(const KmxAxesData *in);
KMXC_API int8_t KmxAxesLibGetGsOffset(KmxAxesData *out);
KMXC_API int8_t KmxAxesLibSetGsOffset(const KmxAxesData *in);
KMXC_API int8_t KmxAxesLibIsValidMsOffset(const KmxAxesData *offset);
KMXC_API int8_t KmxAxesLibIsValidRoughOffset(const uint8_t *rough);
KMXC_API int8_t KmxAxesGsCalibGetGsOffset(const KmxAxesData *resting, KmxAxesData *out);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_ORIENTATION_H */
