/*
 * Platform layer internals: state and helpers the library's own units share but the
 * calling service does not see. C linkage, hidden in the shipped library.
 */
#ifndef KMXC_PLATFORM_INTERNAL_H
#define KMXC_PLATFORM_INTERNAL_H

#include <stdint.h>

#include "platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Descriptor of /dev/compass; -1 while closed. */
extern int32_t g_CompassFd;

/* The line buffer shared by every configuration reader (calibration file, charger
 * offsets, profile number, transformation profile): fgets reads at most 255
 * characters into it, then the field readers split it in place. */
#define MSMACHDEP_LINE_BUFFER_SIZE 256
extern char g_LineBuffer[MSMACHDEP_LINE_BUFFER_SIZE];

/* Consecutive zero-byte results a transfer loop accepts before it fails
 * (KMXC_PLAT_FAILED after perror of "read"/"write" with errno EIO): a device that
 * keeps returning nothing must not hang the caller. */
#define MSMACHDEP_ZERO_TRANSFER_LIMIT 3

/* The configuration files' integer conversion, atoi without its undefined cases:
 * leading white space, an optional sign, decimal digits up to the first other
 * character; no digits give 0. Equal to atoi for every value in the 32-bit range;
 * beyond it the value saturates to INT32_MIN or INT32_MAX (where atoi is undefined).
 * errno is left as it was. */
int32_t msmachdep_ParseInt(const char *text);

/* The hardware profile number: the leading integer (msmachdep_ParseInt) of the first
 * line of /sys/module/zorsensor/parameters/profile, read into g_LineBuffer. 1 when the
 * file cannot be opened or its first line cannot be read; no message. Other values,
 * including 0 and negatives, are returned as read: callers decide what a number below
 * 1 selects. */
int32_t msmachdep_ReadProfileNumber(void);

/* Reads lines 1..number of a per-profile configuration file into g_LineBuffer, so it
 * ends holding line `number` (a line longer than 255 characters counts as more than
 * one). KMXC_PLAT_OK; KMXC_PLAT_FAILED when the file cannot be opened or has fewer
 * lines, after
 * perror("fopen") or perror("fgets") when report is non-zero, silently otherwise.
 * The file is closed on every path. A number below 1 reads no line. */
int8_t msmachdep_ReadNumberedLine(const char *path, int32_t number, int report);

/* Create the calibration data file with the default content when it is missing:
 * through the backup (owner 1008:1000, mode 0666, renamed into place) or directly in
 * place. KMXC_PLAT_OK when the file exists and is writable or was created;
 * KMXC_PLAT_FAILED after perror of the failing call ("access" when the file exists but is not writable or the
 * directory cannot be searched). */
int8_t msmachdep_EnsureOffsetFile(void);
int8_t msmachdep_EnsureOffsetFileInPlace(void);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_PLATFORM_INTERNAL_H */
