/*
 * Sensor drivers: the magnetometer at bus address 0x2E (start-up, correction
 * matrix, measurement, coil sequence and rough offset) and the accelerometer glue
 * that connects the SMB380 driver to the compass device.
 *
 * Both drivers share the compass device and one state record. The first driver to
 * initialise opens the device, the last to terminate closes it; a bus failure
 * during the magnetometer start-up closes it at once, even under a running
 * accelerometer. Every sequence selects its slave address before its transfers.
 *
 * Magnetic output: corrected counts in the phone's axes (0.4 uT each, see
 * common/common.h), produced by the integer chain raw -> centred and
 * temperature-corrected -> mixed -> times the correction matrix -> / 1600.
 * Measurements refuse with KMXC_DRV_NO_ROUGH_OFFSET until a rough offset has been
 * written after the last initialisation.
 *
 * State: one static KmxcDrvState (KmxcDrvHandle) and g_Temprature. No threads, no
 * locks: call from one thread, one call at a time. No function allocates.
 *
 * Results (signed 8-bit unless noted), KmxcDrvResult below:
 *     0  KMXC_DRV_OK               success
 *    -1  KMXC_DRV_INVALID          transformation matrix fails the check, or an
 *                                  argument is invalid
 *    -3  KMXC_DRV_NOT_READY        driver not initialised / transformation profile
 *                                  unreadable
 *    -4  KMXC_DRV_BUSY             magnetometer busy (data not ready after the full wait)
 *    -5  KMXC_DRV_BUS_FAILURE      compass device or bus failure
 *  -126  KMXC_DRV_NO_ROUGH_OFFSET  no rough offset written since the magnetometer
 *                                  was initialised
 *  1..7  measured, with a warning: bit i (KMXC_DRV_RANGE_CHANNEL0 << i) set when
 *        channel i was out of range (KMXC_DRV_RANGE_ANY: any of them)
 * A caller tests for < 0 (failed), 0 (success) and > 0 (a usable warning).
 */
#ifndef KMXC_DRIVERS_H
#define KMXC_DRIVERS_H

#include <stdint.h>

#include "common/common.h"

KMXC_BEGIN_DECLS

enum KmxcDrvResult {
    KMXC_DRV_OK = 0,
    KMXC_DRV_INVALID = -1,
    KMXC_DRV_NOT_READY = -3,
    KMXC_DRV_BUSY = -4,
    KMXC_DRV_BUS_FAILURE = -5,
    KMXC_DRV_NO_ROUGH_OFFSET = -126,
    /* Out-of-range warnings: one bit per magnetometer channel. */
    KMXC_DRV_RANGE_CHANNEL0 = 0x01,
    KMXC_DRV_RANGE_CHANNEL1 = 0x02,
    KMXC_DRV_RANGE_CHANNEL2 = 0x04,
    KMXC_DRV_RANGE_ANY = 0x07
};

/* initFlags bits. */
#define KMXC_DRV_INIT_GS 0x01u /* accelerometer glue initialised */
#define KMXC_DRV_INIT_MS 0x02u /* magnetometer initialised */

/* Driver state shared by both drivers; all zero at load. */
typedef struct KmxcDrvState {
    uint8_t calib[9];          /* calibration bytes of the last (attempted) start-up */
    uint8_t roughOffset[3];    /* rough offsets last recorded, channels 0, 1, 2 (0..31) */
    int8_t roughOffsetWritten; /* 0 after each start-up, 1 once a rough offset is written */
    int16_t correction[9];     /* transformation x sensitivity, 3x3 row-major */
    int8_t tempCoef[3];        /* temperature coefficients: calib[6 + i] - 128 */
    uint8_t initFlags;         /* KMXC_DRV_INIT_GS | KMXC_DRV_INIT_MS; other bits 0 */
} KmxcDrvState;

/* Optional raw values of one cycle; each measurement fills only its own fields. */
typedef struct KmxcDrvRawData {
    uint16_t ms[3];       /* magnetometer channels 0, 1, 2 (11-bit raw) */
    int16_t gs[3];        /* accelerometer counts x, y, z */
    uint16_t temperature; /* magnetometer chip temperature (11-bit raw) */
} KmxcDrvRawData;

/* Chip temperature of the last measurement that got past the busy test (raw). */
KMXC_API extern uint16_t g_Temprature;

/* Address of the one driver state record. */
KMXC_API KmxcDrvState *KmxcDrvHandle(void);

/* ---- Magnetometer start-up --------------------------------------------------------
 *   KmxAxesDrvMsInit   0; -1 mounting matrix fails the check; -3 profile file
 *                      writable but unreadable or too short; -5 device or bus
 *                      failure (bus failures close the device)
 *   KmxcDrvMakeCorrectionMatrix  correction = transformation x sensitivity, each
 *                      entry the low 16 bits of the 32-bit sum; returns 0
 */
KMXC_API int8_t KmxAxesDrvMsInit(void);
KMXC_API uint32_t KmxcDrvMakeCorrectionMatrix(const int8_t *transformation, const int16_t *sensitivity,
                                              int16_t *correction);

/* ---- Magnetometer measurement -----------------------------------------------------
 *   KmxAxesDrvMsMeasure / KmxcDrvMsMeasure
 *                      0..7 measured (bit i: channel i outside 2..1023); -3 not
 *                      initialised; -4 busy; -5 bus failure; -126 no rough offset.
 *                      raw may be null. Takes 13 ms.
 *   KmxcDrvMeasurePreparation  command 0xC0; 0 or -5
 *   KmxcDrvSetGPO      general-purpose output (0xF5 level != 0, 0xF4 level 0); 0 or -5
 *   KmxAxesDrvMsensCorrection  raw channels + temperature -> corrected vector with
 *                      the current correction; no hardware, no state change; 0
 *   KmxcDrvTransform   out_i = sum_j matrix[i][j] * vector[j] in 32 bits; 0
 *   KmxAxesDrvMsTerm   0; -3 not initialised; -5 closing the device failed
 */
KMXC_API int8_t KmxAxesDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw);
KMXC_API int8_t KmxcDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw);
KMXC_API int8_t KmxcDrvMeasurePreparation(void);
KMXC_API int8_t KmxcDrvSetGPO(int level);
KMXC_API uint32_t KmxAxesDrvMsensCorrection(const uint16_t *raw, uint16_t temperature, KmxAxesData *out);
KMXC_API uint32_t KmxcDrvTransform(const int16_t *matrix, const int16_t *vector, int32_t *out);
KMXC_API int8_t KmxAxesDrvMsTerm(void);

/* ---- Coil and rough offset --------------------------------------------------------
 *   KmxAxesDrvMsInitCoil   the sixteen coil commands; 0; -3; -5
 *   KmxAxesDrvMsMeasureRoughOffset  out = suggested rough offsets (0..27);
 *                      0..7 (bit i: channel i's measured value outside 1..32); -4; -5.
 *                      Needs only the open device.
 *   KmxAxesDrvMsSetRoughOffset  values (each <= 31) or null to measure; 0 written;
 *                      -1 a value above 31; -3; -5; with null also 1..7 and -4
 *   KmxAxesDrvMsGetWrittenRoughOffset  0; -3; -126 nothing written since start-up
 */
KMXC_API int8_t KmxAxesDrvMsInitCoil(void);
KMXC_API int8_t KmxAxesDrvMsMeasureRoughOffset(uint8_t *out);
KMXC_API int8_t KmxAxesDrvMsSetRoughOffset(const uint8_t *values);
KMXC_API int8_t KmxAxesDrvMsGetWrittenRoughOffset(uint8_t *out);

/* ---- Accelerometer glue ----------------------------------------------------------- */
/*   The SMB380 at bus address 0x38 through the compass device, range code 0 (256
 *   counts per g) and bandwidth code 0; output in 1/4096 g in the phone's axes:
 *   out_i = 16 * sum_j matrix[i][j] * count_j, the matrix being fields 1..9 of the
 *   transformation profile line (the identity without a writable profile file).
 *
 *   KmxAxesDrvGsInit     0; -1 matrix fails the check; -3 profile file writable
 *                        but unreadable or too short; -5 device cannot be opened.
 *                        Opens the device only when neither driver is initialised;
 *                        may be called again while initialised.
 *   KmxcDrvGsInit        callbacks, smb380_init, range 0, bandwidth 0, matrix kept; 0
 *   KmxAxesDrvGsMeasure  -3 glue not initialised; else as KmxcDrvGsMeasure
 *   KmxcDrvGsMeasure     0; -3 neither driver initialised. raw may be null (only
 *                        its gs fields are written). Bus failures are not reported:
 *                        a read that delivered nothing gives a zero vector.
 *   KmxAxesDrvGsTerm     0; -3 not initialised; -5 closing the device failed. The
 *                        device is closed when the magnetometer is not initialised.
 *   KmxcDrvGsTerm        does nothing; 0
 */
KMXC_API int8_t KmxAxesDrvGsInit(void);
KMXC_API uint32_t KmxcDrvGsInit(const int8_t *matrix);
KMXC_API int8_t KmxAxesDrvGsMeasure(KmxAxesData *out, KmxcDrvRawData *raw);
KMXC_API int8_t KmxcDrvGsMeasure(KmxAxesData *out, KmxcDrvRawData *raw);
KMXC_API int8_t KmxAxesDrvGsTerm(void);
KMXC_API uint32_t KmxcDrvGsTerm(void);

/* ---- end of Accelerometer glue ---------------------------------------------------- */

KMXC_END_DECLS

#endif /* KMXC_DRIVERS_H */
