/*
 * Driver internals shared between the driver units and reachable from tests; none
 * of these is exported from the shared library.
 */
#ifndef KMXC_DRIVERS_INTERNAL_H
#define KMXC_DRIVERS_INTERNAL_H

#include <stdint.h>

#include "drivers/drivers.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KMXC_MS_SLAVE_ADDRESS 0x2E

/* Mounting matrix check: every row and every column holds exactly one entry of
 * +1 or -1 (other values are not counted). 0 valid, -1 invalid. */
int8_t KmxAxesDrvCheckMatrix(const int8_t *matrix);

/* Transformation profile fields 1..9 (accelerometer) and 10..18 (magnetometer). */
#define KMXC_PROFILE_GS_FIRST_FIELD 1u
#define KMXC_PROFILE_MS_FIRST_FIELD 10u

/* Reads the mounting matrix of this phone's hardware profile from
 * "/etc/kmxc_transformation.cfg": the nine fields starting at firstField
 * (1-based) of the line numbered by the profile number. The identity when the
 * file is not writable (or absent). 0, or -3 after perror("fopen") / perror("fgets")
 * when the file cannot be opened or has fewer lines than the profile number.
 * The matrix is not checked here. */
int8_t KmxcDrvReadTransformation(uint8_t firstField, int8_t *matrix);

/* Sensitivity matrix (3x3 row-major) from the calibration bytes 0..5. */
void KmxcDrvMakeSensitivityMatrix(const uint8_t *calib, int16_t *sensitivity);

/* The measurement after the preparation command, on the slave address already
 * selected: results as KmxcDrvMsMeasure without -3. */
int8_t KmxcDrvMsReadData(KmxAxesData *out, KmxcDrvRawData *raw);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_DRIVERS_INTERNAL_H */
