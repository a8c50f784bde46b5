/*
 * Platform layer: the library's only contact with the operating system.
 *
 * Compass device: /dev/compass carries raw bus transfers (read/write go to the slave
 * address selected last, per open descriptor) and the kernel driver's control
 * requests. The device is opened once for both chips; the drivers open it when the
 * first of them initialises and close it when the last one terminates.
 *
 * Calibration data file KMXC_CALIBRATION_FILE (/misc/sensor/kmxc_orvane.cfg): one
 * line of nine integers with no line end, "rough0,rough1,rough2,gsx,gsy,gsz,msx,msy,msz".
 * Missing fields read as KMXC_ROUGH_UNKNOWN (255, rough), 0 (gravity) and
 * KMXC_OFFSET_UNKNOWN (2147483647, magnetic), the markers of "not known" (all three
 * in common/common.h). A missing file is created with
 * 255,255,255,0,0,0,2147483647,2147483647,2147483647. Rough and magnetic saves,
 * creation and reset write the backup KMXC_CALIBRATION_BACKUP_FILE
 * (/misc/sensor/kmxc_orvane-backup.cfg), give it owner 1008:1000 and mode 0666 and
 * rename it over the main file, so a failure leaves the main file as it was; the
 * gravity save rewrites the main file in place.
 *
 * Charger offsets /etc/kmxc_charger_offset.cfg: one line of twelve integers per
 * hardware profile, the profile number being the first line of
 * /sys/module/zorsensor/parameters/profile (1 when unreadable).
 *
 * Failed system calls are reported with perror under the call's name ("open",
 * "read", "write", "ioctl", "fopen", "fgets", "fprintf", "access", "chown", "chmod",
 * "rename") or under the function's name for the control requests. A few failures
 * of the calibration file go to the Android log (tag "Msmachdep", priority 6).
 *
 * State: the device descriptor and one 256-byte line buffer, both static. No
 * threads, no locks: call from one thread, one call at a time (the file readers
 * also use strtok's hidden state). No function allocates.
 */
#ifndef KMXC_PLATFORM_H
#define KMXC_PLATFORM_H

#include <stdint.h>

#include "common/common.h"

KMXC_BEGIN_DECLS

/* Results, tabled per function below; every failure is negative. */
enum KmxcPlatResult {
    KMXC_PLAT_OK = 0,
    KMXC_PLAT_FAILED = -1,         /* the call failed, or the device is not open */
    KMXC_PLAT_REQUEST_FAILED = -2, /* the magnet guard's control request failed */
    /* msmachdep_LoadChargerOffset */
    KMXC_PLAT_CHARGER_NO_LINE = -1,     /* no line for this profile; nothing filled */
    KMXC_PLAT_CHARGER_NULL_FIRST = -2,  /* first is null; nothing filled */
    KMXC_PLAT_CHARGER_NULL_SECOND = -3, /* second is null; first filled */
    KMXC_PLAT_CHARGER_NULL_THIRD = -4,  /* third is null; first and second filled */
    KMXC_PLAT_CHARGER_NULL_FOURTH = -5  /* fourth is null; the first three filled */
};

/* ---- Compass device ----------------------------------------------------------------
 * Bus functions return 0 KMXC_PLAT_OK on success and -1 KMXC_PLAT_FAILED on failure
 * (test for a negative value).
 *
 *   msmachdep_I2COpen             0; -1 after perror("open")
 *   msmachdep_I2CClose            0; -1 when already closed (nothing is done)
 *   msmachdep_I2CSetSlaveAddress  0; -1 when closed (no message);
 *                                 -1 after perror("ioctl") when request 0x0706 fails
 *   msmachdep_I2CRead/Write       moves exactly length bytes (length first, then the
 *                                 buffer; at most 255 per call; length 0 makes no
 *                                 system call): 0; -1 after perror("read"/"write").
 *                                 A system call that moves 0 bytes 3 times in a
 *                                 row fails the transfer (perror with EIO).
 *   msmachdep_Sleep               usleep(milliseconds * 1000); 0
 *
 * Control requests (plain numbers, argument by value):
 *
 *   function                        request  closed  success          failure
 *   msmachdep_SetMagnetGuard        0x0710   -1      0                -2
 *   msmachdep_GetMagnetGuard        0x0709   -1      request result   -2
 *   msmachdep_GetSensorControlInfo  0x0707    0      request result    0
 *   msmachdep_SetChargerState       0x0708   -1      0                -1
 * (-1 KMXC_PLAT_FAILED, -2 KMXC_PLAT_REQUEST_FAILED, 0 KMXC_PLAT_OK)
 *
 * A failed request prints perror under the function's name.
 * MsLogSave writes "MsLogSave() [value, detail]\r\n" to the Android log (priority 5,
 * tag "MsLogSave") and returns the log call's result.
 */
KMXC_API int8_t msmachdep_I2COpen(void);
KMXC_API int8_t msmachdep_I2CClose(void);
KMXC_API int8_t msmachdep_I2CSetSlaveAddress(int address);
KMXC_API int8_t msmachdep_I2CRead(uint8_t length, uint8_t *buffer);
KMXC_API int8_t msmachdep_I2CWrite(uint8_t length, const uint8_t *buffer);
KMXC_API int8_t msmachdep_Sleep(uint32_t milliseconds);
KMXC_API int msmachdep_SetMagnetGuard(void);
KMXC_API int msmachdep_GetMagnetGuard(void);
KMXC_API int msmachdep_GetSensorControlInfo(void);
KMXC_API int msmachdep_SetChargerState(int state);
KMXC_API int MsLogSave(int value, long detail);

/* ---- Calibration data file -----------------------------------------------------------
 * All return 0 KMXC_PLAT_OK on success and -1 KMXC_PLAT_FAILED on failure (after the
 * perror of the failing call); a null pointer fails at once without touching the file. A failed load leaves
 * its output untouched. Saves keep the other six fields as read (converted to
 * integers: a rough field of 300 stays 300). A written file whose fclose fails is
 * treated as a failed write ("fprintf"), so an incomplete backup is never renamed.
 *
 *   msmachdep_LoadRoughOffset   out = fields 1..3, low 8 bits each
 *   msmachdep_SaveRoughOffset   fields 1..3 = in, through the backup
 *   msmachdep_LoadGsOffset      out = fields 4..6; failures also logged
 *                               "msmachdep_LoadGsOffset() fail #1..#3"
 *   msmachdep_SaveGsOffset      fields 4..6 = in, main file rewritten in place
 *   msmachdep_LoadMsOffset      out = fields 7..9
 *   msmachdep_SaveMsOffset      fields 7..9 = in, through the backup (a failing
 *                               backup open prints nothing)
 *   msmachdep_ResetOffsetData   default content through the backup, whatever the file
 *                               held; failures only logged
 *                               "msmachdep_ResetOffsetData() fail #1..#5"
 */
KMXC_API int8_t msmachdep_LoadRoughOffset(uint8_t *out);
KMXC_API int8_t msmachdep_SaveRoughOffset(const uint8_t *in);
KMXC_API int8_t msmachdep_LoadGsOffset(int32_t *out);
KMXC_API int8_t msmachdep_SaveGsOffset(const int32_t *in);
KMXC_API int8_t msmachdep_LoadMsOffset(int32_t *out);
KMXC_API int8_t msmachdep_SaveMsOffset(const int32_t *in);
KMXC_API void msmachdep_ResetOffsetData(void);

/* Field readers over the line being split (strtok with ","; consecutive commas count
 * as one). Each returns the next field, or its default text when none is left.
 *   msmachdep_TokenOr255   starts on text, or continues when text is null; "255"
 *   msmachdep_TokenOrZero  starts on text, or continues when text is null; "0"
 *   msmachdep_TokenOrMax   always continues;                              "2147483647"
 */
KMXC_API const char *msmachdep_TokenOr255(char *text);
KMXC_API const char *msmachdep_TokenOrZero(char *text);
KMXC_API const char *msmachdep_TokenOrMax(void);

/* ---- Charger offsets -------------------------------------------------------------------
 * Reads the profile's line of twelve integers: first and second = fields 1..3 and 4..6
 * divided by 100000.0 (0.0 when missing); third = fields 7..9 (a missing or 0 field
 * gives 1000, 700, 500); fourth = fields 10..12 (defaults 2500, 1800, 1000).
 * Nothing is printed or logged.
 *
 *    0  KMXC_PLAT_OK                   all four filled
 *   -1  KMXC_PLAT_CHARGER_NO_LINE      file cannot be opened, has fewer lines than the
 *                                      profile number, or the profile number is below
 *                                      1; nothing filled
 *   -2  KMXC_PLAT_CHARGER_NULL_FIRST   first is null; nothing filled
 *   -3  KMXC_PLAT_CHARGER_NULL_SECOND  second is null; first filled
 *   -4  KMXC_PLAT_CHARGER_NULL_THIRD   third is null; first and second filled
 *   -5  KMXC_PLAT_CHARGER_NULL_FOURTH  fourth is null; first, second and third filled
 */
KMXC_API int msmachdep_LoadChargerOffset(double *first, double *second, int32_t *third, int32_t *fourth);

KMXC_END_DECLS

#endif /* KMXC_PLATFORM_H */
