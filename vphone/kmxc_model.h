// Simulated Kmxc magnetometer for the virtual phone (drivers/kmxc_protocol.h has its
// bus address, commands, blocks and timings).
//
// Use: KmxcModel chip; attach(KmxcModel::kAddress, &chip); chip.set_field_ut(20, 0, -40);
//
// A command state machine behind the bus transfers (the shape of ChipModel):
//
//   command               effect
//   kCmdPrepare then      kCmdRoughMeasure: a rough-offset measurement (ready after
//                         kRoughConversionMs); kCmdMeasure: the field is sampled now,
//                         reads return the eight-byte block, busy (byte 0 bit 7) until
//                         kConversionMs of virtual time have passed
//   kCmdStartUp           (no preparation pending) start-up
//   kCmdReadCalibration   reads return the nine calibration bytes
//   kCmdRoughChannel[k]|r rough offset r (0..31) of channel k
//   coil commands         accepted, no effect
//   kCmdGpoLow / High     general-purpose output low / high
//
// Raw channels are made by inverting the library's correction chain (mounting
// matrix, sensitivity matrix of the calibration bytes, channel mixing, temperature
// term), so the library turns them back into
//
//     field + hard iron + rough shift (rough setting)      in phone axes,
//
// within quantisation: at most 3.1 corrected counts (1.25 uT) per axis while the
// channels are in range and noise is off. One rough step lowers its channel by
// kRawPerRoughStep raw counts; the setting kRoughCentre adds no shift
// (expected_microtesla() gives the whole prediction). Channels saturate at 0 and
// 2047; values outside 2..1023 are what the library reports as out of range. The
// chip's temperature reads raw_temperature(celsius), 256 at 25 degrees C, where the
// coefficients (calibration bytes 6..8, minus 128) add nothing; the drift is
// coefficient x 0.48 x (T - 256) sixteenths of a raw count.
//
// The rough-offset measurement reports, per channel, 21 + round(d / 226) clamped
// to 0..255, d being the channel's deviation from 512 without rough shift: the
// library's "reading - 5" is then the setting that brings the channel nearest 512.
#ifndef VPHONE_KMXC_MODEL_H
#define VPHONE_KMXC_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "drivers/kmxc_protocol.h"
#include "vphone/chip_model.h"

namespace vphone {

class KmxcModel : public ChipModel {
public:
    static constexpr uint8_t kAddress = kmxc::kBusAddress;
    static constexpr double kMicroteslaPerCount = kmxc::kMicroteslaPerCount;  // one corrected count

    // The chip's temperature scale: raw 256 at 25 degrees C, 4 counts per degree,
    // rounded and clamped to 0..2047; celsius() is its inverse on whole counts.
    static int raw_temperature(double celsius);
    static double celsius(int raw);

    KmxcModel();

    // Default: sensitivity 100 x identity, coefficients 0 (82 20 FA 08 20 44 80 80 80).
    void set_calibration(const std::array<uint8_t, 9> &bytes);

    // ---- What the chip was told ----
    const std::array<uint8_t, 3> &rough_offset() const { return rough_; }  // power-on 16
    bool rough_offset_given() const { return roughGiven_ == 0x7; }         // all channels written
    int gpo() const { return gpo_; }                                       // -1 never set, else 0 / 1

    // ---- Predictions (noise-free, unquantised) ----
    // What the library's corrected vector should read, in uT, phone axes.
    Vec3 expected_microtesla() const;
    // The raw channels 0..2 a measurement started now would report (no noise).
    std::array<int, 3> raw_channels() const;

protected:
    int on_write(const uint8_t *data, size_t length) override;  // every byte is a command
    int on_read(uint8_t *data, size_t length) override;         // the block of the mode
    bool write_carries(uint8_t command, const uint8_t *data, size_t length) const override;
    uint8_t read_answers() const override;

private:
    enum class Mode { Idle, Calibration, Prepared, Rough, Measure };
    void command(uint8_t byte, uint64_t nowUs);
    std::array<double, 3> idealCentredChannels() const;  // t / 16 before drift and rough
    std::array<int, 3> channels(const std::array<double, 3> &noise) const;
    double driftRaw(int channel) const;
    int temperatureRaw() const { return raw_temperature(physics_.temperature_c); }

    std::array<uint8_t, 9> calib_{};
    std::array<uint8_t, 3> rough_{};
    unsigned roughGiven_ = 0;
    int gpo_ = -1;
    Mode mode_ = Mode::Idle;
    uint64_t startUs_ = 0;
    std::array<uint8_t, kmxc::kMeasureBlockBytes> block_{};
    std::array<uint8_t, kmxc::kRoughBlockBytes> roughBlock_{};
};

}  // namespace vphone

#endif  // VPHONE_KMXC_MODEL_H
