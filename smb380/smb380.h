/*
 * SMB380 accelerometer driver: register-level access to the chip's identification,
 * acceleration, temperature and interrupt-status registers, its settings, its setting
 * image and EEPROM, offsets, self-test, soft reset and interrupt configuration.
 *
 * The driver knows nothing of buses. Every transfer goes through the three callbacks
 * of the device record that p_smb380 designates; smb380_init makes a record the one
 * in use. Callers fill all three callbacks before smb380_init and keep the record
 * alive while any driver function may run.
 *
 * Callback conventions:
 *   write_fn(reg, data, count)  writes count bytes to consecutive registers from reg
 *                               (bit 7 of reg clear)
 *   read_fn(reg | 0x80, data, count)  reads count bytes from consecutive registers
 *                               starting at the plain address; bit 7 marks a read
 *   sleep_fn(ms)                blocks for ms milliseconds (34 and 28 for the EEPROM
 *                               waits, or the argument of smb380_pause)
 * The bus callbacks return 0 on success. The driver never tests their results: it
 * adds them up and returns the sum.
 *
 * Results (int32_t) of every function:
 *   129 (SMB380_ERR_NULL_DEV)  no record in use: nothing transferred, nothing written
 *   otherwise                  the sum of the bus callbacks' results (0 when every
 *                              transfer succeeded), unless a line below says otherwise
 * A failing transfer never stops a sequence: every later step is still made.
 *
 * Field setters read the register, replace the field with the argument's low bits and
 * write the byte back; other bits are preserved, excess argument bits dropped. Getters
 * make one 1-byte read and store the field right-aligned. The driver's own read
 * buffers start as zeros, so a read the callback did not fill yields 0 values.
 *
 * Units: acceleration in raw counts, -512..511 (256 counts per g at range code 0).
 * The range, bandwidth, threshold, duration, countdown and pause codes are passed to
 * the chip unchanged.
 *
 * State: p_smb380 and the record's mode and identification fields. No threads, no
 * locks, no allocation: call from one thread, one call at a time. Read-modify-write
 * sequences are not atomic with respect to the chip.
 */
#ifndef KMXC_SMB380_H
#define KMXC_SMB380_H

#include <stdint.h>

#include "common/common.h"

KMXC_BEGIN_DECLS

#define SMB380_ERR_NULL_DEV 129
#define SMB380_SLAVE_ADDRESS 0x38

/* Bus write: (register, bytes to write, count); 0 on success. */
typedef int8_t (*smb380_write_fn)(uint8_t reg, const uint8_t *data, uint8_t count);
/* Bus read: (register | 0x80, destination, count); 0 on success. */
typedef int8_t (*smb380_read_fn)(uint8_t reg, uint8_t *data, uint8_t count);
/* Wait: (milliseconds); the result is not used by the driver. */
typedef int8_t (*smb380_sleep_fn)(uint32_t ms);

/* Device record, owned by the caller. */
typedef struct smb380_dev {
    uint8_t mode;          /* last value given to smb380_set_mode */
    uint8_t chip_id;       /* bits 2..0 of register 0x00, read by smb380_init */
    uint8_t version_low;   /* bits 3..0 of register 0x01, read by smb380_init */
    uint8_t version_high;  /* bits 7..4 of register 0x01 shifted down (0..15) */
    uint8_t slave_address; /* 0x38, set by smb380_init */
    smb380_write_fn write_fn;
    smb380_read_fn read_fn;
    smb380_sleep_fn sleep_fn;
} smb380_dev;

/* One acceleration sample in raw counts, -512..511, chip axes. */
typedef struct smb380_accel {
    int16_t x;
    int16_t y;
    int16_t z;
} smb380_accel;

/* The record in use; null until the first smb380_init, never cleared. */
KMXC_API extern smb380_dev *p_smb380;

/* ---- Core -----------------------------------------------------------------------
 *   smb380_init           makes dev the record in use (no null test), sets
 *                         slave_address, reads registers 0x00 and 0x01 into the
 *                         identification fields; sum of the two reads. Any chip is
 *                         accepted.
 *   smb380_soft_reset     writes 0x02 as the whole of register 0x0A
 *   smb380_update_image   writes 0x20 as the whole of register 0x0A
 *   smb380_set_ee_w       0x0A bit 4 (EEPROM write enable) = flag bit 0; result of
 *                         the write only
 *   smb380_set_image      enable, one 19-byte write at 0x0B, disable (second read of
 *                         0x0A); result of the last write only
 *   smb380_get_image      enable, one 19-byte read at 0x0B, disable (from the first
 *                         read's value); result of the last write only
 *   smb380_get_offset     10-bit offset of axis (0 x, 1 y, 2 z): bits 1..0 from
 *                         register 0x16+axis bits 7..6, bits 9..2 from 0x1A+axis
 *   smb380_set_offset     the same registers; read of 0x16+axis and two writes
 *   smb380_set_offset_eeprom  the same bytes to EEPROM cells 0x36+axis, 0x3A+axis,
 *                         34 ms after each; the caller brackets it with
 *                         smb380_set_ee_w(1) and (0); needs sleep_fn
 *   smb380_selftest       0x0A bits 3..2 = code bits 1..0
 *   smb380_read_reg       read_fn(reg | 0x80, data, count)
 *   smb380_write_reg      write_fn(reg, data, count)
 *   smb380_write_ee       value to EEPROM cell reg | 0x20, between write enable and
 *                         disable, 28 ms after the data write; sum of enable, data
 *                         write, disable; 129 also without sleep_fn
 *   smb380_pause          sleep_fn(ms); returns ms (129 without a record)
 * The axis index is not range-checked: addresses wrap at 8 bits.
 */
KMXC_API int32_t smb380_init(smb380_dev *dev);
KMXC_API int32_t smb380_soft_reset(void);
KMXC_API int32_t smb380_update_image(void);
KMXC_API int32_t smb380_set_ee_w(uint8_t flag);
KMXC_API int32_t smb380_set_image(const uint8_t *image19);
KMXC_API int32_t smb380_get_image(uint8_t *image19);
KMXC_API int32_t smb380_get_offset(uint8_t axis, uint16_t *offset);
KMXC_API int32_t smb380_set_offset(uint8_t axis, uint16_t offset);
KMXC_API int32_t smb380_set_offset_eeprom(uint8_t axis, uint16_t offset);
KMXC_API int32_t smb380_selftest(uint8_t code);
KMXC_API int32_t smb380_read_reg(uint8_t reg, uint8_t *data, uint8_t count);
KMXC_API int32_t smb380_write_reg(uint8_t reg, const uint8_t *data, uint8_t count);
KMXC_API int32_t smb380_write_ee(uint8_t reg, uint8_t value);
KMXC_API int32_t smb380_pause(int32_t ms);

/* ---- Settings -------------------------------------------------------------------
 * Field setters (read-modify-write):
 *   set_range              0x14 bits 4..3; code above 2: result 0, no transfer
 *   set_bandwidth          0x14 bits 2..0; code above 7: result 0, no transfer
 *   set_wake_up_pause      0x15 bits 2..1
 *   set_low_g_countdown    0x0B bits 3..2
 *   set_high_g_countdown   0x0B bits 5..4
 *   set_any_motion_count   0x11 bits 7..6; result of the write only
 *   set_low_g_int          0x0B bit 0      set_high_g_int        0x0B bit 1
 *   set_any_motion_int     0x0B bit 6      set_alert_int         0x0B bit 7
 *   latch_int              0x15 bit 4      set_new_data_int      0x15 bit 5
 *   set_advanced_int       0x15 bit 6
 * Whole-register setters (one write, no read): low_g_threshold 0x0C,
 *   low_g_duration 0x0D, high_g_threshold 0x0E, high_g_duration 0x0F,
 *   any_motion_threshold 0x10.
 * Getters read the same fields back, right-aligned, with one read each.
 *
 * Mode: bit 0 wake-up (0x15 bit 0), bit 1 sleep (0x0A bit 0). smb380_set_mode reads
 *   both registers, then writes 0x15 and 0x0A, and keeps the whole argument in the
 *   record's mode; smb380_get_mode returns that field without a transfer.
 * Interrupt mask: bits 0, 1, 6, 7 are 0x0B bits 0, 1, 6, 7; bits 3, 4, 5 are 0x15
 *   bits 4, 5, 6; bit 2 is unused and reads back as 0. smb380_get_interrupt_mask
 *   returns 0 whatever its reads return.
 * smb380_reset_interrupt writes 0x40 as the whole of register 0x0A.
 */
KMXC_API int32_t smb380_set_range(uint8_t code);
KMXC_API int32_t smb380_get_range(uint8_t *code);
KMXC_API int32_t smb380_set_bandwidth(uint8_t code);
KMXC_API int32_t smb380_get_bandwidth(uint8_t *code);
KMXC_API int32_t smb380_set_wake_up_pause(uint8_t code);
KMXC_API int32_t smb380_get_wake_up_pause(uint8_t *code);
KMXC_API int32_t smb380_set_low_g_countdown(uint8_t code);
KMXC_API int32_t smb380_get_low_g_countdown(uint8_t *code);
KMXC_API int32_t smb380_set_high_g_countdown(uint8_t code);
KMXC_API int32_t smb380_get_high_g_countdown(uint8_t *code);
KMXC_API int32_t smb380_set_any_motion_count(uint8_t count);
KMXC_API int32_t smb380_get_any_motion_count(uint8_t *count);
KMXC_API int32_t smb380_set_low_g_threshold(uint8_t threshold);
KMXC_API int32_t smb380_get_low_g_threshold(uint8_t *threshold);
KMXC_API int32_t smb380_set_low_g_duration(uint8_t duration);
KMXC_API int32_t smb380_get_low_g_duration(uint8_t *duration);
KMXC_API int32_t smb380_set_high_g_threshold(uint8_t threshold);
KMXC_API int32_t smb380_get_high_g_threshold(uint8_t *threshold);
KMXC_API int32_t smb380_set_high_g_duration(uint8_t duration);
KMXC_API int32_t smb380_get_high_g_duration(uint8_t *duration);
KMXC_API int32_t smb380_set_any_motion_threshold(uint8_t threshold);
KMXC_API int32_t smb380_get_any_motion_threshold(uint8_t *threshold);
KMXC_API int32_t smb380_set_low_g_int(uint8_t on);
KMXC_API int32_t smb380_set_high_g_int(uint8_t on);
KMXC_API int32_t smb380_set_any_motion_int(uint8_t on);
KMXC_API int32_t smb380_set_alert_int(uint8_t on);
KMXC_API int32_t smb380_latch_int(uint8_t on);
KMXC_API int32_t smb380_set_new_data_int(uint8_t on);
KMXC_API int32_t smb380_set_advanced_int(uint8_t on);
KMXC_API int32_t smb380_set_mode(uint8_t mode);
KMXC_API int32_t smb380_get_mode(void);
KMXC_API int32_t smb380_set_interrupt_mask(uint8_t mask);
KMXC_API int32_t smb380_get_interrupt_mask(uint8_t *mask);
KMXC_API int32_t smb380_reset_interrupt(void);

/* ---- Readout --------------------------------------------------------------------
 * One read per call; the result is that read's. An axis is always read as its
 * LSB-then-MSB pair in one transfer (x at 0x02, y 0x04, z 0x06): value bits 1..0 in
 * LSB bits 7..6, bits 9..2 in the MSB, two's complement. read_accel_xyz reads all six
 * bytes at once. Temperature (0x08) and interrupt status (0x09) are the raw byte.
 */
KMXC_API int32_t smb380_read_accel_x(int16_t *x);
KMXC_API int32_t smb380_read_accel_y(int16_t *y);
KMXC_API int32_t smb380_read_accel_z(int16_t *z);
KMXC_API int32_t smb380_read_accel_xyz(smb380_accel *accel);
KMXC_API int32_t smb380_read_temperature(uint8_t *temperature);
KMXC_API int32_t smb380_get_interrupt_status(uint8_t *status);

KMXC_END_DECLS

#endif /* KMXC_SMB380_H */
