/*
 * Driver internals shared between the driver units and reachable from tests; none
 * of these is exported from the shared library.
 */
#ifndef KMXC_DRIVERS_INTERNAL_H
#define KMXC_DRIVERS_INTERNAL_H

#include <stdint.h>

#include "drivers/drivers.h"
#include "drivers/kmxc_protocol.h"
#include "smb380/smb380.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Mounting matrix check: every row and every column holds exactly one entry of
 * +1 or -1 (other values are not counted). 0 valid, -1 invalid. */
int8_t KmxAxesDrvCheckMatrix(const int8_t *matrix);

/* Transformation profile fields 1..9 (accelerometer) and 10..18 (magnetometer),
 * read through msmachdep_LoadTransformation; a profile that cannot be read is
 * KMXC_DRV_NOT_READY. */
#define KMXC_PROFILE_GS_FIRST_FIELD 1u
#define KMXC_PROFILE_MS_FIRST_FIELD 10u

/* Sensitivity matrix (3x3 row-major) from the calibration bytes 0..5. */
void KmxcDrvMakeSensitivityMatrix(const uint8_t *calib, int16_t *sensitivity);

/* The measurement after the preparation command, on the slave address already
 * selected: results as KmxcDrvMsMeasure without -3. */
int8_t KmxcDrvMsReadData(KmxAxesData *out, KmxcDrvRawData *raw);

/* Writes one command byte to the selected slave: msmachdep_I2CWrite's result. */
int8_t KmxcDrvWriteCommand(uint8_t command);

/* ---- Accelerometer glue ---------------------------------------------------------
 * The SMB380 device record in use (p_smb380 points here after the first start-up),
 * the accelerometer mounting matrix (zero until then), and the record's callbacks:
 *   KmxcDrvGsBusWrite  select 0x38; one write of count % 128 (register, value)
 *                      pairs, registers counting up from reg (wrapping at 8 bits)
 *   KmxcDrvGsBusRead   select 0x38; write the byte reg & 0x7F; read count bytes
 *   KmxcDrvGsDelay     msmachdep_Sleep(ms & 0xFFFF)
 * The bus callbacks return 0 whatever the platform layer reports. */
extern smb380_dev g_Smb380Dev;
extern int8_t g_GsMatrix[9];
int8_t KmxcDrvGsBusWrite(uint8_t reg, const uint8_t *data, uint8_t count);
int8_t KmxcDrvGsBusRead(uint8_t reg, uint8_t *data, uint8_t count);
int8_t KmxcDrvGsDelay(uint32_t ms);
/* ---- end of Accelerometer glue ------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif /* KMXC_DRIVERS_INTERNAL_H */
