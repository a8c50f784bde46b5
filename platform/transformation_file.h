/*
 * The transformation profile, read by the platform layer for the drivers above it:
 * the phone's mounting matrices, one line per hardware profile. Not installed; C
 * linkage, hidden in the shipped library.
 *
 * /etc/kmxc_transformation.cfg: one line of comma-separated integers per hardware
 * profile, fields 1..9 the accelerometer's mounting matrix, 10..18 the magnetometer's
 * (row-major). The line is the one numbered by the profile number
 * (/sys/module/zorsensor/parameters/profile, 1 when unreadable); it goes through the
 * platform's shared line buffer like every configuration file.
 */
#ifndef KMXC_PLATFORM_TRANSFORMATION_FILE_H
#define KMXC_PLATFORM_TRANSFORMATION_FILE_H

#include <stdint.h>

#include "platform/platform.h"

KMXC_BEGIN_DECLS

/* The nine fields from firstField (1-based) of this profile's line into matrix, each
 * converted like atoi and kept as its low 8 bits; runs of commas are one separator
 * and missing fields read as 0. The identity, without a message, when the file is not
 * writable (or absent). With a profile number below 1 no line is read and the
 * profile number's own text is split instead.
 *   KMXC_PLAT_OK      matrix written
 *   KMXC_PLAT_FAILED  after perror("fopen") / perror("fgets"): the file cannot be
 *                     opened or has fewer lines than the profile number (matrix
 *                     holds the identity)
 * The matrix is not checked here. */
int8_t msmachdep_LoadTransformation(uint8_t firstField, int8_t *matrix);

KMXC_END_DECLS

#endif /* KMXC_PLATFORM_TRANSFORMATION_FILE_H */
