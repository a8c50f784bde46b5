// SMB380 accelerometer model for the virtual phone's bus (slave 0x38).
//
// Bus protocol, as the chip speaks it over /dev/compass:
//   write of one byte               sets the register pointer
//   write of 2n bytes               n (register, value) pairs, each written in turn
//                                   (an odd trailing byte sets the pointer)
//   read of n bytes                 registers from the pointer on, auto-incrementing
// Register addresses are 7-bit: an address byte with bit 7 set fails the transfer
// with EIO (a controller that forgot to strip a read flag shows up at once).
//
// Registers:
//   0x00 chip id (0x02), 0x01 version (0x12), 0x08 temperature, 0x09 interrupt status
//   0x02..0x07 acceleration, x, y, z as LSB/MSB pairs: value bits 1..0 in LSB bits
//        7..6 (LSB bit 0 is a new-data flag), bits 9..2 in the MSB, two's complement.
//        A read that starts at or before 0x07 and reaches into 0x02..0x07 takes one
//        fresh sample first, so the six bytes of one read belong together. In sleep
//        (0x0A bit 0) the last sample is kept.
//   0x0A control: bit 1 soft reset (power-on image), bit 5 copies EEPROM to the image,
//        bit 6 interrupt reset; these three clear themselves. Bit 4 enables EEPROM
//        writes; the other bits are kept as written.
//   0x0B..0x1D setting image (0x14 bits 4..3 range, 2..0 bandwidth), loaded from the
//        EEPROM at power-on and reset.
//   0x2B..0x3D EEPROM cells behind the image registers; written only while 0x0A bit 4
//        is set (other writes are counted in ignored_eeprom_writes()).
//   Everything else reads as written.
//
// Acceleration: the gravity vector given in the phone's axes is taken into the chip's
// axes through the inverse of the mounting matrix (the profile's accelerometer
// matrix, row i = phone axis i as a combination of chip axes, so phone = M * chip),
// scaled to 256 counts per g at range code 0 (128 at 1, 64 at 2 and 3), plus
// optional Gaussian noise, rounded to the nearest count and clamped to -512..511.
// The offset registers do not shift the output.
#ifndef KMXC_VPHONE_SMB380_MODEL_H
#define KMXC_VPHONE_SMB380_MODEL_H

#include <array>
#include <cstdint>
#include <optional>
#include <random>

#include "vphone/vphone.h"

namespace vphone {

class Smb380Model : public BusDevice {
public:
    static constexpr int kAddress = 0x38;
    static constexpr double kStandardGravity = 9.80665;  // m/s^2 per g

    Smb380Model();  // power-on state, gravity (0, 0, -1) g, identity mounting, no noise

    // Gravity in the phone's axes, in g or in m/s^2.
    void set_gravity_g(double x, double y, double z);
    void set_gravity_ms2(double x, double y, double z);
    // Raw chip counts served as they are (chip axes, clamped to -512..511) until the
    // next set_gravity_*.
    void set_counts(int x, int y, int z);
    // The mounting matrix of the transformation profile; false (and unchanged) when it
    // is singular.
    bool set_mounting(const std::array<int8_t, 9> &matrix);
    // Gaussian noise of the given standard deviation in counts, from a seeded
    // generator; 0 turns it off.
    void set_noise(double sigma_counts, uint32_t seed);

    uint8_t reg(uint8_t address) const { return regs_[address & 0x7F]; }
    void set_reg(uint8_t address, uint8_t value) { regs_[address & 0x7F] = value; }
    // The chip counts of the last sample taken.
    std::array<int16_t, 3> last_counts() const { return last_; }
    int ignored_eeprom_writes() const { return ignored_eeprom_writes_; }

    int write(const uint8_t *data, size_t length) override;
    int read(uint8_t *data, size_t length) override;

private:
    void store(uint8_t address, uint8_t value);
    void load_image();
    void sample();

    std::array<uint8_t, 128> regs_{};
    uint8_t pointer_ = 0;
    std::array<double, 3> gravity_chip_{};      // g, chip axes
    std::array<double, 3> gravity_phone_{};     // g, phone axes
    std::array<double, 9> inverse_{};           // chip = inverse * phone
    std::optional<std::array<int16_t, 3>> counts_;
    std::array<int16_t, 3> last_{};
    double noise_sigma_ = 0;
    std::mt19937 rng_;
    int ignored_eeprom_writes_ = 0;
};

}  // namespace vphone

#endif  // KMXC_VPHONE_SMB380_MODEL_H
