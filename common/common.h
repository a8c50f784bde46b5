/*
 * What every layer of libkmxc_orvane.so shares: the export macros, the three-axis
 * record, its units, the "not known" markers and the calibration file's location.
 * Every public header of the library includes this one, and nothing else of the
 * library's; it includes nothing of the library's itself.
 *
 * Export macros:
 *   KMXC_API                             marks an exported declaration
 *   KMXC_BEGIN_DECLS / KMXC_END_DECLS    give C linkage to C++ callers
 *
 * Units of KmxAxesData (the same in every layer and in the calibration file):
 *   magnetic field  corrected magnetometer counts, 0.4 uT each:
 *                   KMXC_MS_COUNTS_PER_10_UT counts per 10 uT (an integer ratio, so
 *                   integer code converts exactly: uT = counts * 10 / 25)
 *   gravity         KMXC_GS_COUNTS_PER_G counts per standard gravity (9.80665 m/s^2);
 *                   a device lying still face up reads about (0, 0, -4096)
 *
 * "Not known" markers, as the calibration file writes them:
 *   KMXC_ROUGH_UNKNOWN   255         a rough offset step (valid steps are 0..31)
 *   KMXC_OFFSET_UNKNOWN  2147483647  a magnetic offset component (INT32_MAX)
 *
 * Calibration file (one line of nine integers: rough offset x3, gravity offset x3,
 * magnetic offset x3; platform/platform.h has its rules):
 *   KMXC_CALIBRATION_DIRECTORY     the folder that holds both
 *   KMXC_CALIBRATION_FILE          the file on the phone
 *   KMXC_CALIBRATION_BACKUP_FILE   the backup written first and renamed over it
 *   KMXC_CALIBRATION_FILE_UID/GID  its owner: Android's compass user (1008), system group (1000)
 *   KMXC_CALIBRATION_FILE_MODE     its mode, 0666
 */
#ifndef KMXC_COMMON_H
#define KMXC_COMMON_H

#include <stdint.h>

#ifndef KMXC_API
#define KMXC_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define KMXC_BEGIN_DECLS extern "C" {
#define KMXC_END_DECLS }
#else
#define KMXC_BEGIN_DECLS
#define KMXC_END_DECLS
#endif

/* Units (plain integer literals: they also serve preprocessor tests and text). */
#define KMXC_MS_COUNTS_PER_10_UT 25
#define KMXC_GS_COUNTS_PER_G 4096

/* Markers of "not known" (plain literals: the calibration file's default text is
 * formed from them). */
#define KMXC_ROUGH_UNKNOWN 255
#define KMXC_OFFSET_UNKNOWN 2147483647

/* The calibration file and its backup, absolute paths on the phone, in their folder;
 * the file's owner (Android's compass user and system group) and mode. */
#define KMXC_CALIBRATION_DIRECTORY "/misc/sensor"
#define KMXC_CALIBRATION_FILE KMXC_CALIBRATION_DIRECTORY "/kmxc_orvane.cfg"
#define KMXC_CALIBRATION_BACKUP_FILE KMXC_CALIBRATION_DIRECTORY "/kmxc_orvane-backup.cfg"
#define KMXC_CALIBRATION_FILE_UID 1008
#define KMXC_CALIBRATION_FILE_GID 1000
#define KMXC_CALIBRATION_FILE_MODE 0666

KMXC_BEGIN_DECLS

/* Three-axis vector: a sample, an offset or a direction, x, y, z in the phone's axes
 * (units above). Twelve bytes, no padding. */
typedef struct KmxAxesData {
    int32_t x;
    int32_t y;
    int32_t z;
} KmxAxesData;

/* All-zero KmxAxesData: the reset value of every sample and offset record. */
KMXC_API extern const KmxAxesData KmxAxesData_Constructor;

KMXC_END_DECLS

#endif /* KMXC_COMMON_H */
