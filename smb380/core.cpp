// SMB380 driver core: the record in use, identification, raw register access, the
// setting image, EEPROM cells, offsets, self-test, soft reset and pause.
#include "smb380/smb380.h"
#include "smb380/smb380_internal.h"

using namespace smb380_regs;

constinit smb380_dev *p_smb380 = nullptr;

namespace {

constexpr uint32_t kOffsetEepromWaitMs = 34;
constexpr uint32_t kWriteEeWaitMs = 28;

uint8_t offset_low_byte(uint8_t old, uint16_t offset) {
    return static_cast<uint8_t>((old & kOffsetLowKeep) | (static_cast<uint32_t>(offset) << kOffsetLowShift));
}

uint8_t offset_high_byte(uint16_t offset) { return static_cast<uint8_t>(offset >> kOffsetHighShift); }

uint8_t plus(uint8_t reg, uint8_t axis) { return static_cast<uint8_t>(reg + axis); }

}  // namespace

int32_t smb380_init(smb380_dev *dev) {
    p_smb380 = dev;
    dev->slave_address = SMB380_SLAVE_ADDRESS;
    uint8_t byte;
    int32_t sum = read_byte(kChipIdField.reg, &byte);
    dev->chip_id = field_of(byte, kChipIdField);
    sum += read_byte(kVersionLowField.reg, &byte);
    dev->version_low = field_of(byte, kVersionLowField);
    dev->version_high = field_of(byte, kVersionHighField);
    return sum;
}

int32_t smb380_soft_reset(void) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return write_byte(kControl, kCtlSoftReset);
}

int32_t smb380_update_image(void) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return write_byte(kControl, kCtlUpdateImage);
}

int32_t smb380_set_ee_w(uint8_t flag) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t byte;
    read_byte(kControl, &byte);  // only the write's result counts
    return write_byte(kEeWriteField.reg, with_field(byte, kEeWriteField, flag));
}

int32_t smb380_set_image(const uint8_t *image19) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t control;
    read_byte(kControl, &control);
    write_byte(kControl, static_cast<uint8_t>(control | kCtlEeWriteEnable));
    p_smb380->write_fn(kImageFirst, image19, kImageLength);
    read_byte(kControl, &control);
    return write_byte(kControl, static_cast<uint8_t>(control & ~kCtlEeWriteEnable));
}

int32_t smb380_get_image(uint8_t *image19) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t control;
    read_byte(kControl, &control);
    write_byte(kControl, static_cast<uint8_t>(control | kCtlEeWriteEnable));
    p_smb380->read_fn(static_cast<uint8_t>(kImageFirst | kReadFlag), image19, kImageLength);
    // Disabled again from the first reading, without a second read.
    return write_byte(kControl, static_cast<uint8_t>(control & ~kCtlEeWriteEnable));
}

int32_t smb380_get_offset(uint8_t axis, uint16_t *offset) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t low, high;
    int32_t sum = read_byte(plus(kOffsetLow, axis), &low);
    *offset = static_cast<uint16_t>(low >> kOffsetLowShift);
    sum += read_byte(plus(kOffsetHigh, axis), &high);
    *offset = static_cast<uint16_t>(*offset | (static_cast<uint32_t>(high) << kOffsetHighShift));
    return sum;
}

int32_t smb380_set_offset(uint8_t axis, uint16_t offset) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t old;
    int32_t sum = read_byte(plus(kOffsetLow, axis), &old);
    sum += write_byte(plus(kOffsetLow, axis), offset_low_byte(old, offset));
    sum += write_byte(plus(kOffsetHigh, axis), offset_high_byte(offset));
    return sum;
}

int32_t smb380_set_offset_eeprom(uint8_t axis, uint16_t offset) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t old;
    int32_t sum = read_byte(plus(kOffsetLow, axis), &old);
    sum += write_byte(plus(kOffsetLow | kEepromBit, axis), offset_low_byte(old, offset));
    p_smb380->sleep_fn(kOffsetEepromWaitMs);
    sum += write_byte(plus(kOffsetHigh | kEepromBit, axis), offset_high_byte(offset));
    p_smb380->sleep_fn(kOffsetEepromWaitMs);
    return sum;
}

int32_t smb380_selftest(uint8_t code) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return set_field(kSelfTestField, code);
}

int32_t smb380_read_reg(uint8_t reg, uint8_t *data, uint8_t count) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return p_smb380->read_fn(static_cast<uint8_t>(reg | kReadFlag), data, count);
}

int32_t smb380_write_reg(uint8_t reg, const uint8_t *data, uint8_t count) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return p_smb380->write_fn(reg, data, count);
}

int32_t smb380_write_ee(uint8_t reg, uint8_t value) {
    if (no_device() || p_smb380->sleep_fn == nullptr) return SMB380_ERR_NULL_DEV;
    int32_t sum = smb380_set_ee_w(1);
    sum += smb380_write_reg(static_cast<uint8_t>(reg | kEepromBit), &value, 1);
    p_smb380->sleep_fn(kWriteEeWaitMs);
    sum += smb380_set_ee_w(0);
    return sum;
}

int32_t smb380_pause(int32_t ms) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    p_smb380->sleep_fn(static_cast<uint32_t>(ms));
    return ms;
}
