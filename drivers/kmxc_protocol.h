// The Kmxc magnetometer as it speaks on the bus: its address, command bytes, data
// blocks, bit fields and conversion times. The one home of these facts: the driver,
// the virtual phone's chip model and the tools include this header. Not installed.
#ifndef KMXC_DRIVERS_KMXC_PROTOCOL_H
#define KMXC_DRIVERS_KMXC_PROTOCOL_H

#include <stdint.h>

#include "common/common.h"

namespace kmxc {

constexpr uint8_t kBusAddress = 0x2E;  // 7-bit slave address

// ---- Commands: every byte written is one command --------------------------------
constexpr uint8_t kCmdStartUp = 0x01;          // start-up (when no preparation is pending)
constexpr uint8_t kCmdPrepare = 0xC0;          // prepare a measurement or rough measurement
constexpr uint8_t kCmdRoughMeasure = 0x01;     // after kCmdPrepare: rough-offset measurement
constexpr uint8_t kCmdMeasure = 0x02;          // after kCmdPrepare: field measurement
constexpr uint8_t kCmdReadCalibration = 0xC8;  // reads then return the calibration bytes
constexpr uint8_t kCmdGpoLow = 0xF4;           // general-purpose output low
constexpr uint8_t kCmdGpoHigh = 0xF5;          // general-purpose output high
// Rough offset of channel k: kCmdRoughChannel[k] | setting (0..kRoughMax).
constexpr uint8_t kCmdRoughChannel[3] = {0x20, 0x40, 0x60};
constexpr uint8_t kRoughSettingMask = 0x1F;
// Coil commands 0x80..0x97; the start-up sequence pairs 0x90 + n, 0x80 + ((n + 1) mod 8).
constexpr uint8_t kCmdCoilFirst = 0x80;
constexpr uint8_t kCmdCoilLast = 0x97;
constexpr uint8_t kCoilSequence[16] = {0x90, 0x81, 0x91, 0x82, 0x92, 0x83, 0x93, 0x84,
                                       0x94, 0x85, 0x95, 0x86, 0x96, 0x87, 0x97, 0x80};

// ---- Conversion and settling times -----------------------------------------------
constexpr uint32_t kStartUpSettleMs = 2;
constexpr uint32_t kConversionMs = 13;      // field measurement
constexpr uint32_t kRoughConversionMs = 2;  // rough-offset measurement

// ---- Data blocks ------------------------------------------------------------------
constexpr uint8_t kBusy = 0x80;  // byte 0 bit 7 of a block: conversion not finished
// 11-bit values as two bytes: bits 10..8 in the low three bits of the first.
constexpr uint8_t kHighBitsMask = 0x07;
constexpr uint16_t kRawMax = 2047;
constexpr uint8_t kCalibrationBytes = 9;
// Measurement block: channels 2, 1, 0, then the temperature, two bytes each.
constexpr uint8_t kMeasureBlockBytes = 8;
constexpr uint8_t kMeasureChannelAt[3] = {4, 2, 0};
constexpr uint8_t kMeasureTemperatureAt = 6;
// Rough block: the reading of channel k in byte kRoughChannelAt[k], the others 0.
constexpr uint8_t kRoughBlockBytes = 6;
constexpr uint8_t kRoughChannelAt[3] = {5, 3, 1};

// ---- Channels and rough offset ---------------------------------------------------
constexpr uint16_t kChannelCentre = 512;    // raw channel of zero field
constexpr uint16_t kChannelInRangeMin = 2;  // usable raw channels: 2..1023
constexpr uint16_t kChannelInRangeMax = 1023;
constexpr uint8_t kRoughMax = 31;         // largest rough setting
constexpr uint8_t kRoughCentre = 16;      // the setting that shifts nothing
constexpr uint8_t kRoughReadingBias = 5;  // a rough reading sits 5 above its setting
constexpr uint8_t kRoughReadingMin = 1;   // usable rough readings: 1..32
constexpr uint8_t kRoughReadingMax = 32;
constexpr uint16_t kRawCountsPerRoughStep = 226;  // one rough step shifts its raw channel by this

// ---- Corrected output (the driver's unit, sensitivity 100 per raw count) -----------
// The unit every layer shares (common/common.h), in the forms C++ callers use.
constexpr int32_t kCountsPer10Microtesla = KMXC_MS_COUNTS_PER_10_UT;
constexpr double kMicroteslaPerCount = 10.0 / kCountsPer10Microtesla;
static_assert(kMicroteslaPerCount == 0.4, "the quotient is the double nearest 0.4");

// ---- Calibration bytes -----------------------------------------------------------
// Bytes 0..5 hold the sensitivity matrix's bit fields; bytes 6..8 the temperature
// coefficients of channels 0..2, biased by 128.
constexpr uint8_t kTempCoefFirstByte = 6;
constexpr int kTempCoefBias = 128;
constexpr uint16_t kTemperatureReference = 256;  // raw temperature of no drift
// Drift of a channel, in 16ths of a raw count: coefficient x kDriftPerCoefUnit / 65536
// (0.48) per raw temperature count away from kTemperatureReference.
constexpr uint32_t kDriftPerCoefUnit = 31457;

// The sensitivity matrix (3x3 row-major) the calibration bytes 0..5 describe: nine bit
// fields, the first byte's bits high where two pieces join, each with a fixed bias;
// the first entry is always 100 and bit 0 of byte 5 is unused.
inline void sensitivity_matrix(const uint8_t *c, int16_t *s) {
    const int f01 = c[0] >> 2;
    const int f02 = ((c[0] & 0x03) << 2) | (c[1] >> 6);
    const int f10 = c[1] & 0x3F;
    const int f11 = c[2] >> 2;
    const int f12 = ((c[2] & 0x03) << 4) | (c[3] >> 4);
    const int f20 = ((c[3] & 0x0F) << 2) | (c[4] >> 6);
    const int f21 = c[4] & 0x3F;
    const int f22 = c[5] >> 1;
    s[0] = 100;
    s[1] = static_cast<int16_t>(f01 - 32);
    s[2] = static_cast<int16_t>(f02 - 8);
    s[3] = static_cast<int16_t>(f10 - 32);
    s[4] = static_cast<int16_t>(f11 + 38);
    s[5] = static_cast<int16_t>(f12 - 32);
    s[6] = static_cast<int16_t>(f20 - 32);
    s[7] = static_cast<int16_t>(f21 - 32);
    s[8] = static_cast<int16_t>(f22 + 66);
}

}  // namespace kmxc

#endif  // KMXC_DRIVERS_KMXC_PROTOCOL_H
