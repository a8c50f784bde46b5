// SMB380 accelerometer model for the virtual phone's bus (smb380/smb380_protocol.h has
// its address, registers and bit fields). The shape of ChipModel: it senses gravity;
// field and temperature do not reach it.
//
// Bus protocol, as the chip speaks it over /dev/compass:
//   write of one byte               sets the register pointer
//   write of 2n bytes               n (register, value) pairs, each written in turn
//                                   (an odd trailing byte sets the pointer)
//   read of n bytes                 registers from the pointer on, auto-incrementing
// Register addresses are 7-bit: an address byte with bit 7 set fails the transfer
// with EIO (a controller that forgot to strip a read flag shows up at once).
// fail_command(register, ...) fails writes that address the register and reads that
// start at it.
//
// Registers:
//   chip id (0x02), version (0x12), temperature (0x40), interrupt status: as set
//   acceleration x, y, z as LSB/MSB pairs: value bits 1..0 in LSB bits 7..6 (LSB bit
//        0 is a new-data flag), bits 9..2 in the MSB, two's complement. A read that
//        starts at or before the last acceleration register and reaches into them
//        takes one fresh sample first, so the six bytes of one read belong together.
//        In sleep (control bit 0) the last sample is kept.
//   control: soft reset (power-on image), image update (copies EEPROM to the image)
//        and interrupt reset clear themselves. EEPROM write enable and the other bits
//        are kept as written.
//   setting image (range and bandwidth among them), loaded from the EEPROM at
//        power-on and reset.
//   EEPROM cells behind the image registers; written only while EEPROM writes are
//        enabled (other writes are counted in ignored_eeprom_writes()).
//   Everything else reads as written.
//
// Acceleration: gravity in the phone's axes taken into the chip's axes through the
// inverse of the mounting matrix (phone = M * chip), scaled by counts_per_g of the
// range code, plus optional Gaussian noise, rounded to the nearest count and clamped to
// -512..511. The offset registers do not shift the output.
#ifndef KMXC_VPHONE_SMB380_MODEL_H
#define KMXC_VPHONE_SMB380_MODEL_H

#include <array>
#include <cstdint>
#include <optional>

#include "smb380/smb380_protocol.h"
#include "vphone/chip_model.h"

namespace vphone {

class Smb380Model : public ChipModel {
public:
    static constexpr uint8_t kAddress = smb380_regs::kBusAddress;

    Smb380Model();  // power-on state, gravity (0, 0, -1) g, identity mounting, no noise

    // Raw chip counts served as they are (chip axes, clamped to -512..511) until the
    // next physical input.
    void set_counts(int x, int y, int z);

    uint8_t reg(uint8_t address) const { return regs_[address & smb380_regs::kRegisterMask]; }
    void set_reg(uint8_t address, uint8_t value) { regs_[address & smb380_regs::kRegisterMask] = value; }
    // The chip counts of the last sample taken.
    std::array<int16_t, 3> last_counts() const { return last_; }
    int ignored_eeprom_writes() const { return ignored_eeprom_writes_; }

protected:
    int on_write(const uint8_t *data, size_t length) override;
    int on_read(uint8_t *data, size_t length) override;
    bool write_carries(uint8_t command, const uint8_t *data, size_t length) const override;
    uint8_t read_answers() const override { return pointer_; }
    void inputs_changed() override { counts_.reset(); }

private:
    void store(uint8_t address, uint8_t value);
    void load_image();
    void sample();

    std::array<uint8_t, 128> regs_{};
    uint8_t pointer_ = 0;
    std::optional<std::array<int16_t, 3>> counts_;
    std::array<int16_t, 3> last_{};
    int ignored_eeprom_writes_ = 0;
};

}  // namespace vphone

#endif  // KMXC_VPHONE_SMB380_MODEL_H
