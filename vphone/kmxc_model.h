// Simulated magnetometer chip for the virtual phone (bus address 0x2E).
//
// Use: KmxcModel chip; attach(KmxcModel::kAddress, &chip); chip.setField({20, 0, -40});
//
// A command state machine behind the bus transfers, fed physical quantities:
//
//   command byte          effect
//   0x01                  after 0xC0: start a rough-offset measurement (ready after
//                         roughConversionUs); otherwise: start-up
//   0xC8                  reads return the nine calibration bytes
//   0xC0                  prepare a measurement
//   0x02                  start a measurement: the field is sampled now, reads return
//                         the eight-byte block, busy (byte 0 bit 7) until
//                         measureConversionUs of virtual time have passed
//   0x20|r 0x40|r 0x60|r  rough offset r (0..31) of channel 0, 1, 2
//   0x80..0x97            coil commands (accepted, no effect)
//   0xF4 / 0xF5           general-purpose output low / high
//
// Raw channels are made by inverting the library's correction chain (mounting
// matrix, sensitivity matrix of the calibration bytes, channel mixing, temperature
// term), so the library turns them back into
//
//     field + hard iron + roughShift(rough setting)      in phone axes,
//
// within quantisation: at most 3.1 corrected counts (1.25 uT) per axis while the
// channels are in range and noise is off. One rough step lowers its channel by 226 raw counts; the
// setting 16 on every channel adds no shift (expectedMicrotesla() gives the whole
// prediction). Channels saturate at 0 and 2047; values outside 2..1023 are what the
// library reports as out of range. Temperature is in raw chip counts, 256 being the
// reference at which the coefficients (calibration bytes 6..8, minus 128) add
// nothing; the drift is coefficient x 0.48 x (T - 256) sixteenths of a raw count.
//
// The rough-offset measurement reports, per channel, 21 + round(d / 226) clamped
// to 0..255, d being the channel's deviation from 512 without rough shift: the
// library's "reading - 5" is then the setting that brings the channel nearest 512.
#ifndef VPHONE_KMXC_MODEL_H
#define VPHONE_KMXC_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>

#include "vphone/vphone.h"

namespace vphone {

class KmxcModel : public BusDevice {
public:
    struct Vec3 {
        double x = 0, y = 0, z = 0;
    };
    static constexpr uint8_t kAddress = 0x2E;
    static constexpr int kRoughCentre = 16;      // setting with no shift
    static constexpr int kRawPerRoughStep = 226;  // raw counts per rough step
    static constexpr double kMicroteslaPerCount = 0.4;  // one corrected count

    KmxcModel();

    // ---- Physical inputs (take effect at the next measurement start) ----
    void setField(Vec3 microtesla);     // ambient field in the phone's axes
    void setHardIron(Vec3 microtesla);  // offset fixed to the phone, phone axes
    void setTemperature(uint16_t raw);  // chip temperature, raw counts (0..2047)
    void setNoise(uint32_t seed, double sigmaRaw);  // Gaussian, raw counts; 0 = off
    // Default: sensitivity 100 x identity, coefficients 0 (82 20 FA 08 20 44 80 80 80).
    void setCalibration(const std::array<uint8_t, 9> &bytes);
    // Chip-to-phone mounting: the nine numbers of the profile's fields 10..18
    // (row i = phone axis i in chip axes). Default identity.
    void setMounting(const std::array<int8_t, 9> &matrix);

    // ---- What the chip was told ----
    const std::array<uint8_t, 3> &roughOffset() const { return rough_; }  // power-on 16
    bool roughOffsetGiven() const { return roughGiven_ == 0x7; }  // all channels written
    int gpo() const { return gpo_; }  // -1 never set, else 0 / 1

    // ---- Predictions (noise-free, unquantised) ----
    // What the library's corrected vector should read, in uT, phone axes.
    Vec3 expectedMicrotesla() const;
    // The raw channels 0..2 a measurement started now would report (no noise).
    std::array<int, 3> rawChannels() const;

    // ---- Bus side (attach(KmxcModel::kAddress, &model)); times from now_us() ----
    int write(const uint8_t *data, size_t length) override;  // every byte is a command
    int read(uint8_t *data, size_t length) override;         // the block of the mode

private:
    enum class Mode { Idle, Calibration, Prepared, Rough, Measure };
    void command(uint8_t byte, uint64_t nowUs);
    std::array<double, 3> idealCentredChannels() const;  // t / 16 before drift and rough
    std::array<int, 3> channels(const std::array<double, 3> &noise) const;
    double driftRaw(int channel) const;

    Vec3 field_{}, hardIron_{};
    uint16_t temperature_ = 256;
    std::array<uint8_t, 9> calib_{};
    std::array<int8_t, 9> mounting_{};
    uint32_t measureUs_ = 13000, roughUs_ = 2000;
    std::mt19937 rng_{0};
    double sigma_ = 0;

    std::array<uint8_t, 3> rough_{};
    unsigned roughGiven_ = 0;
    int gpo_ = -1;
    Mode mode_ = Mode::Idle;
    uint64_t startUs_ = 0;
    std::array<uint8_t, 8> block_{};
    std::array<uint8_t, 6> roughBlock_{};
};

}  // namespace vphone

#endif  // VPHONE_KMXC_MODEL_H
