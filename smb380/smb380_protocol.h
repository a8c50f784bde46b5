// The SMB380 accelerometer as it speaks on the bus: its address, register map, bit
// fields, data format and scale. The one home of these facts: the driver, the glue in
// drivers/, the virtual phone's chip model and the tools include this header. Not
// installed (the public smb380.h keeps the exported SMB380_SLAVE_ADDRESS).
#ifndef KMXC_SMB380_PROTOCOL_H
#define KMXC_SMB380_PROTOCOL_H

#include <stdint.h>

#include "smb380/smb380.h"

namespace smb380_regs {

constexpr uint8_t kBusAddress = SMB380_SLAVE_ADDRESS;

// ---- Registers ------------------------------------------------------------------
constexpr uint8_t kChipId = 0x00;
constexpr uint8_t kVersion = 0x01;
constexpr uint8_t kAccelX = 0x02;  // LSB; the MSB follows. Y and Z likewise.
constexpr uint8_t kAccelY = 0x04;
constexpr uint8_t kAccelZ = 0x06;
constexpr uint8_t kAccelLast = 0x07;
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
// The setting image 0x0B..0x1D, loaded from the EEPROM cells 0x2B..0x3D.
constexpr uint8_t kImageFirst = 0x0B;
constexpr uint8_t kImageLength = 19;
constexpr uint8_t kImageLast = kImageFirst + kImageLength - 1;
constexpr uint8_t kEepromBit = 0x20;     // EEPROM cell = image register | 0x20
constexpr uint8_t kRegisterMask = 0x7F;  // register addresses are 7-bit
constexpr uint8_t kReadFlag = 0x80;      // the driver's read_fn marks reads with bit 7

// ---- Bits and fields ---------------------------------------------------------------
// A bit field: its register, its (contiguous) mask and the position of its lowest bit.
struct Field {
    uint8_t reg;
    uint8_t mask;
    uint8_t shift;
};

// Control register 0x0A. Soft reset, image update and interrupt reset clear themselves.
constexpr uint8_t kCtlSleep = 0x01;
constexpr uint8_t kCtlSoftReset = 0x02;
constexpr uint8_t kCtlSelfTestMask = 0x0C;  // bits 3..2
constexpr uint8_t kCtlEeWriteEnable = 0x10;
constexpr uint8_t kCtlUpdateImage = 0x20;
constexpr uint8_t kCtlResetInterrupt = 0x40;
constexpr Field kSleepField{kControl, kCtlSleep, 0};  // mode bit 1
constexpr Field kSelfTestField{kControl, kCtlSelfTestMask, 2};
constexpr Field kEeWriteField{kControl, kCtlEeWriteEnable, 4};
// Register 0x14: range in bits 4..3, bandwidth in bits 2..0.
constexpr uint8_t kRangeMask = 0x18;
constexpr uint8_t kRangeShift = 3;
constexpr uint8_t kRangeMax = 2;
constexpr uint8_t kBandwidthMask = 0x07;
constexpr uint8_t kBandwidthShift = 0;
constexpr uint8_t kBandwidthMax = 7;
constexpr Field kRangeField{kRangeBandwidth, kRangeMask, kRangeShift};
constexpr Field kBandwidthField{kRangeBandwidth, kBandwidthMask, kBandwidthShift};
// Identification: chip id in 0x00 bits 2..0; version in 0x01, low and high nibble.
constexpr Field kChipIdField{kChipId, 0x07, 0};
constexpr Field kVersionLowField{kVersion, 0x0F, 0};
constexpr Field kVersionHighField{kVersion, 0xF0, 4};
// Interrupt enables and counters, 0x0B.
constexpr Field kLowGIntField{kIntEnable, 0x01, 0};
constexpr Field kHighGIntField{kIntEnable, 0x02, 1};
constexpr Field kLowGCountdownField{kIntEnable, 0x0C, 2};
constexpr Field kHighGCountdownField{kIntEnable, 0x30, 4};
constexpr Field kAnyMotionIntField{kIntEnable, 0x40, 6};
constexpr Field kAlertIntField{kIntEnable, 0x80, 7};
// Any-motion sample count, 0x11 bits 7..6.
constexpr Field kAnyMotionCountField{kAnyMotionCount, 0xC0, 6};
// Wake-up and interrupt configuration, 0x15.
constexpr Field kWakeUpField{kWakeUp, 0x01, 0};  // mode bit 0
constexpr Field kWakeUpPauseField{kWakeUp, 0x06, 1};
constexpr Field kLatchIntField{kWakeUp, 0x10, 4};
constexpr Field kNewDataIntField{kWakeUp, 0x20, 5};
constexpr Field kAdvancedIntField{kWakeUp, 0x40, 6};
// The interrupt mask of smb380_set_interrupt_mask: its bits 0, 1, 6, 7 are 0x0B's at
// the same positions; its bits 3..5 are 0x15's bits 4..6 (one place lower in the
// mask); its bit 2 has no register bit.
constexpr uint8_t kMaskInIntEnable = 0xC3;
constexpr uint8_t kMaskInWakeUp = 0x70;
constexpr uint8_t kMaskToWakeUpShift = 1;
// Offsets: 10 bits per axis, bits 1..0 in bits 7..6 of kOffsetLow + axis (its bits
// 5..0 belong to other settings), bits 9..2 in kOffsetHigh + axis.
constexpr uint8_t kOffsetLowShift = 6;
constexpr uint8_t kOffsetLowKeep = 0x3F;
constexpr uint8_t kOffsetHighShift = 2;
// Acceleration: 10-bit two's complement, bits 1..0 in LSB bits 7..6, bits 9..2 in the
// MSB; LSB bit 0 flags new data.
constexpr uint8_t kAccelLowShift = 6;
constexpr uint8_t kAccelHighShift = 2;
constexpr uint8_t kNewData = 0x01;
constexpr uint16_t kAccelBits = 0x3FF;
constexpr uint16_t kAccelSignBit = 0x200;
constexpr int kAccelMin = -512;
constexpr int kAccelMax = 511;

// ---- Identification and scale ---------------------------------------------------
constexpr uint8_t kChipIdValue = 0x02;
constexpr uint8_t kVersionValue = 0x12;
// Counts per g at a range code: 256 at 0 (+-2 g), 128 at 1, 64 at 2 (and 3).
constexpr int counts_per_g(int range_code) { return 256 >> (range_code > 2 ? 2 : range_code); }

}  // namespace smb380_regs

#endif  // KMXC_SMB380_PROTOCOL_H
