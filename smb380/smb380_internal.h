// Register-access steps shared by the SMB380 driver's units. Each returns the
// callback's result; the caller has already tested p_smb380.
#ifndef KMXC_SMB380_INTERNAL_H
#define KMXC_SMB380_INTERNAL_H

#include <stdint.h>

#include "smb380/smb380.h"

namespace smb380_regs {

// Registers and bits of the map the driver uses.
constexpr uint8_t kChipId = 0x00;
constexpr uint8_t kVersion = 0x01;
constexpr uint8_t kAccelX = 0x02;
constexpr uint8_t kAccelY = 0x04;
constexpr uint8_t kAccelZ = 0x06;
constexpr uint8_t kTemperature = 0x08;
constexpr uint8_t kIntStatus = 0x09;
constexpr uint8_t kControl = 0x0A;  // sleep, soft reset, self-test, EEPROM enable, ...
constexpr uint8_t kIntEnable = 0x0B;
constexpr uint8_t kLowGThreshold = 0x0C;
constexpr uint8_t kLowGDuration = 0x0D;
constexpr uint8_t kHighGThreshold = 0x0E;
constexpr uint8_t kHighGDuration = 0x0F;
constexpr uint8_t kAnyMotionThreshold = 0x10;
constexpr uint8_t kAnyMotionCount = 0x11;
constexpr uint8_t kRangeBandwidth = 0x14;
constexpr uint8_t kWakeUp = 0x15;
constexpr uint8_t kOffsetLow = 0x16;   // + axis: offset bits 1..0 in bits 7..6
constexpr uint8_t kOffsetHigh = 0x1A;  // + axis: offset bits 9..2
constexpr uint8_t kImageFirst = 0x0B;
constexpr uint8_t kImageLength = 19;
constexpr uint8_t kEepromBit = 0x20;   // EEPROM cell = image register | 0x20
constexpr uint8_t kReadFlag = 0x80;

constexpr uint8_t kEeWriteEnable = 0x10;  // register 0x0A bit 4

inline bool no_device() { return p_smb380 == nullptr; }

// One byte from a register. The byte starts as 0 so a read that the callback did
// not fill yields a defined value.
inline int32_t read_byte(uint8_t reg, uint8_t *byte) {
    *byte = 0;
    return p_smb380->read_fn(static_cast<uint8_t>(reg | kReadFlag), byte, 1);
}

inline int32_t write_byte(uint8_t reg, uint8_t byte) { return p_smb380->write_fn(reg, &byte, 1); }

// The field of `mask` (contiguous, lowest bit at `shift`) replaced by value's low bits.
inline uint8_t with_field(uint8_t byte, uint8_t mask, uint8_t shift, uint8_t value) {
    const uint32_t field = (static_cast<uint32_t>(value) << shift) & mask;
    return static_cast<uint8_t>((byte & static_cast<uint8_t>(~mask)) | field);
}

inline uint8_t field_of(uint8_t byte, uint8_t mask, uint8_t shift) {
    return static_cast<uint8_t>((byte & mask) >> shift);
}

// Read-modify-write of one field; the sum of the read and the write.
inline int32_t set_field(uint8_t reg, uint8_t mask, uint8_t shift, uint8_t value) {
    uint8_t byte;
    const int32_t r = read_byte(reg, &byte);
    return r + write_byte(reg, with_field(byte, mask, shift, value));
}

}  // namespace smb380_regs

#endif  // KMXC_SMB380_INTERNAL_H
