#include "vphone/smb380_model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>

namespace vphone {

using namespace smb380_regs;

namespace {

constexpr uint8_t kPowerOnTemperature = 0x40;

// EEPROM content at delivery: a setting image that differs from what the library
// programs (range code 1, bandwidth code 6), so a missing setting shows.
constexpr std::array<uint8_t, kImageLength> kDefaultImage = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0E,
                                                             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

int16_t clamp_count(long v) {
    return static_cast<int16_t>(std::clamp(v, static_cast<long>(kAccelMin), static_cast<long>(kAccelMax)));
}

bool is_eeprom(uint8_t address) {
    return address >= (kImageFirst | kEepromBit) && address <= (kImageLast | kEepromBit);
}

}  // namespace

Smb380Model::Smb380Model() {
    for (size_t i = 0; i < kDefaultImage.size(); ++i) regs_[(kImageFirst | kEepromBit) + i] = kDefaultImage[i];
    load_image();
    regs_[kChipId] = kChipIdValue;
    regs_[kVersion] = kVersionValue;
    regs_[kTemperature] = kPowerOnTemperature;
}

void Smb380Model::set_counts(int x, int y, int z) {
    counts_ = std::array<int16_t, 3>{clamp_count(x), clamp_count(y), clamp_count(z)};
}

void Smb380Model::load_image() {
    for (uint8_t a = kImageFirst; a <= kImageLast; ++a) regs_[a] = regs_[a | kEepromBit];
}

void Smb380Model::sample() {
    if ((regs_[kControl] & kCtlSleep) != 0) return;  // asleep: the registers keep the last sample
    if (counts_) {
        last_ = *counts_;
    } else {
        const int range = (regs_[kRangeBandwidth] & kRangeMask) >> kRangeShift;
        const double per_g = counts_per_g(range);
        const Vec3 chip = times(phone_to_chip(), physics_.gravity_g);
        const Vec3 n = noise();
        for (int i = 0; i < 3; ++i) last_[i] = clamp_count(std::lround(chip[i] * per_g + n[i]));
    }
    for (int i = 0; i < 3; ++i) {
        const auto bits = static_cast<uint16_t>(static_cast<uint32_t>(last_[i]) & kAccelBits);
        const auto low = static_cast<uint8_t>(bits & ((1u << kAccelHighShift) - 1u));
        regs_[kAccelX + 2 * i] = static_cast<uint8_t>((low << kAccelLowShift) | kNewData);
        regs_[kAccelX + 2 * i + 1] = static_cast<uint8_t>(bits >> kAccelHighShift);
    }
}

void Smb380Model::store(uint8_t address, uint8_t value) {
    if (address == kControl) {
        if ((value & kCtlSoftReset) != 0) {  // power-on registers, EEPROM kept
            const auto eeprom = regs_;
            regs_.fill(0);
            for (uint8_t a = kImageFirst | kEepromBit; a <= (kImageLast | kEepromBit); ++a) regs_[a] = eeprom[a];
            for (uint8_t a : {kChipId, kVersion, kTemperature}) regs_[a] = eeprom[a];
            load_image();
            return;
        }
        if ((value & kCtlUpdateImage) != 0) load_image();
        regs_[kControl] = static_cast<uint8_t>(value & ~(kCtlSoftReset | kCtlUpdateImage | kCtlResetInterrupt));
        return;
    }
    if (is_eeprom(address) && (regs_[kControl] & kCtlEeWriteEnable) == 0) {
        ++ignored_eeprom_writes_;
        return;
    }
    regs_[address] = value;
}

bool Smb380Model::write_carries(uint8_t reg, const uint8_t *data, size_t length) const {
    for (size_t i = 0; i < length; i += 2)
        if (data[i] == reg) return true;
    return false;
}

int Smb380Model::on_write(const uint8_t *data, size_t length) {
    for (size_t i = 0; i < length; i += 2)
        if ((data[i] & kReadFlag) != 0) return -EIO;
    size_t i = 0;
    for (; i + 1 < length; i += 2) store(data[i], data[i + 1]);
    if (i < length) pointer_ = data[i];
    return static_cast<int>(length);
}

int Smb380Model::on_read(uint8_t *data, size_t length) {
    if (pointer_ <= kAccelLast && pointer_ + length > kAccelX) sample();
    for (size_t i = 0; i < length; ++i) {
        data[i] = regs_[pointer_];
        pointer_ = static_cast<uint8_t>((pointer_ + 1) & kRegisterMask);
    }
    return static_cast<int>(length);
}

}  // namespace vphone
