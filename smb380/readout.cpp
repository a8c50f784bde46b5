// SMB380 readout: acceleration axes, temperature and interrupt status.
#include "smb380/smb380.h"
#include "smb380/smb380_internal.h"

using namespace smb380_regs;

namespace {

// 10-bit two's complement from an axis's LSB register (value bits 1..0 in bits 7..6;
// bits 5..0 belong to no value) and MSB register (value bits 9..2).
int16_t axis_value(uint8_t lsb, uint8_t msb) {
    const uint32_t raw =
        (static_cast<uint32_t>(msb) << kAccelHighShift) | (static_cast<uint32_t>(lsb) >> kAccelLowShift);
    const int32_t value = static_cast<int32_t>(raw) - ((raw & kAccelSignBit) != 0 ? 2 * kAccelSignBit : 0);
    return static_cast<int16_t>(value);
}

// One LSB-then-MSB pair in a single transfer.
int32_t read_axis(uint8_t lsb_reg, int16_t *out) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t pair[2] = {0, 0};
    const int32_t r = p_smb380->read_fn(static_cast<uint8_t>(lsb_reg | kReadFlag), pair, 2);
    *out = axis_value(pair[0], pair[1]);
    return r;
}

int32_t read_raw(uint8_t reg, uint8_t *out) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return p_smb380->read_fn(static_cast<uint8_t>(reg | kReadFlag), out, 1);
}

}  // namespace

int32_t smb380_read_accel_x(int16_t *x) { return read_axis(kAccelX, x); }
int32_t smb380_read_accel_y(int16_t *y) { return read_axis(kAccelY, y); }
int32_t smb380_read_accel_z(int16_t *z) { return read_axis(kAccelZ, z); }

int32_t smb380_read_accel_xyz(smb380_accel *accel) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t bytes[6] = {0, 0, 0, 0, 0, 0};  // x LSB, x MSB, y LSB, y MSB, z LSB, z MSB
    const int32_t r = p_smb380->read_fn(static_cast<uint8_t>(kAccelX | kReadFlag), bytes, 6);
    accel->x = axis_value(bytes[0], bytes[1]);
    accel->y = axis_value(bytes[2], bytes[3]);
    accel->z = axis_value(bytes[4], bytes[5]);
    return r;
}

int32_t smb380_read_temperature(uint8_t *temperature) { return read_raw(kTemperature, temperature); }
int32_t smb380_get_interrupt_status(uint8_t *status) { return read_raw(kIntStatus, status); }
