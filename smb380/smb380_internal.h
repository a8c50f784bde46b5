// Register-access steps shared by the SMB380 driver's units. Each returns the
// callback's result; the caller has already tested p_smb380.
#ifndef KMXC_SMB380_INTERNAL_H
#define KMXC_SMB380_INTERNAL_H

#include <stdint.h>

#include "smb380/smb380.h"
#include "smb380/smb380_protocol.h"

namespace smb380_regs {

inline bool no_device() { return p_smb380 == nullptr; }

// One byte from a register. The byte starts as 0 so a read that the callback did
// not fill yields a defined value.
inline int32_t read_byte(uint8_t reg, uint8_t *byte) {
    *byte = 0;
    return p_smb380->read_fn(static_cast<uint8_t>(reg | kReadFlag), byte, 1);
}

inline int32_t write_byte(uint8_t reg, uint8_t byte) { return p_smb380->write_fn(reg, &byte, 1); }

// The field f replaced by value's low bits (f.mask contiguous, lowest bit at f.shift).
inline uint8_t with_field(uint8_t byte, const Field &f, uint8_t value) {
    const uint32_t field = (static_cast<uint32_t>(value) << f.shift) & f.mask;
    return static_cast<uint8_t>((byte & static_cast<uint8_t>(~f.mask)) | field);
}

inline uint8_t field_of(uint8_t byte, const Field &f) { return static_cast<uint8_t>((byte & f.mask) >> f.shift); }

// Read-modify-write of one field; the sum of the read and the write.
inline int32_t set_field(const Field &f, uint8_t value) {
    uint8_t byte;
    const int32_t r = read_byte(f.reg, &byte);
    return r + write_byte(f.reg, with_field(byte, f, value));
}

}  // namespace smb380_regs

#endif  // KMXC_SMB380_INTERNAL_H
