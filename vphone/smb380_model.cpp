#include "vphone/smb380_model.h"

#include <cerrno>
#include <cmath>

namespace vphone {

namespace {

constexpr uint8_t kControl = 0x0A;
constexpr uint8_t kImageFirst = 0x0B;
constexpr uint8_t kImageLast = 0x1D;
constexpr uint8_t kEepromOffset = 0x20;
constexpr uint8_t kRangeBandwidth = 0x14;

// EEPROM content at delivery: a setting image that differs from what the library
// programs (range code 1, bandwidth code 6), so a missing setting shows.
constexpr std::array<uint8_t, 19> kDefaultImage = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                   0x00, 0x00, 0x0E, 0x00, 0x00, 0x00, 0x00,
                                                   0x00, 0x00, 0x00, 0x00, 0x00};

std::array<double, 3> times(const std::array<double, 9> &m, const std::array<double, 3> &v) {
    std::array<double, 3> out{};
    for (int i = 0; i < 3; ++i) out[i] = m[3 * i] * v[0] + m[3 * i + 1] * v[1] + m[3 * i + 2] * v[2];
    return out;
}

}  // namespace

Smb380Model::Smb380Model() : rng_(0) {
    for (size_t i = 0; i < kDefaultImage.size(); ++i) regs_[kImageFirst + kEepromOffset + i] = kDefaultImage[i];
    load_image();
    regs_[0x00] = 0x02;
    regs_[0x01] = 0x12;
    regs_[0x08] = 0x40;
    inverse_ = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    set_gravity_g(0, 0, -1);
}

void Smb380Model::set_gravity_g(double x, double y, double z) {
    gravity_phone_ = {x, y, z};
    gravity_chip_ = times(inverse_, gravity_phone_);
    counts_.reset();
}

void Smb380Model::set_gravity_ms2(double x, double y, double z) {
    set_gravity_g(x / kStandardGravity, y / kStandardGravity, z / kStandardGravity);
}

void Smb380Model::set_counts(int x, int y, int z) {
    auto clamp = [](int v) { return static_cast<int16_t>(v < -512 ? -512 : v > 511 ? 511 : v); };
    counts_ = std::array<int16_t, 3>{clamp(x), clamp(y), clamp(z)};
}

bool Smb380Model::set_mounting(const std::array<int8_t, 9> &matrix) {
    // Inverse by the adjugate: inverse[i][j] = cofactor[j][i] / det.
    auto m = [&](int r, int c) { return static_cast<double>(matrix[3 * (r % 3) + (c % 3)]); };
    std::array<double, 9> adj{};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            adj[3 * c + r] = m(r + 1, c + 1) * m(r + 2, c + 2) - m(r + 1, c + 2) * m(r + 2, c + 1);
    const double det = m(0, 0) * adj[0] + m(0, 1) * adj[3] + m(0, 2) * adj[6];
    if (det == 0) return false;
    for (double &a : adj) a /= det;
    inverse_ = adj;
    gravity_chip_ = times(inverse_, gravity_phone_);
    return true;
}

void Smb380Model::set_noise(double sigma_counts, uint32_t seed) {
    noise_sigma_ = sigma_counts;
    rng_.seed(seed);
}

void Smb380Model::load_image() {
    for (uint8_t a = kImageFirst; a <= kImageLast; ++a) regs_[a] = regs_[a + kEepromOffset];
}

void Smb380Model::sample() {
    if ((regs_[kControl] & 0x01) != 0) return;  // asleep: the registers keep the last sample
    if (counts_) {
        last_ = *counts_;
    } else {
        const int range = (regs_[kRangeBandwidth] >> 3) & 0x03;
        const double per_g = 256.0 / (1 << (range > 2 ? 2 : range));
        std::normal_distribution<double> noise(0.0, noise_sigma_ > 0 ? noise_sigma_ : 1.0);
        for (int i = 0; i < 3; ++i) {
            double v = gravity_chip_[i] * per_g;
            if (noise_sigma_ > 0) v += noise(rng_);
            const long n = std::lround(v);
            last_[i] = static_cast<int16_t>(n < -512 ? -512 : n > 511 ? 511 : n);
        }
    }
    for (int i = 0; i < 3; ++i) {
        const auto bits = static_cast<uint16_t>(last_[i] & 0x3FF);
        regs_[2 + 2 * i] = static_cast<uint8_t>(((bits & 0x03) << 6) | 0x01);  // bit 0: new data
        regs_[3 + 2 * i] = static_cast<uint8_t>(bits >> 2);
    }
}

void Smb380Model::store(uint8_t address, uint8_t value) {
    if (address == kControl) {
        if ((value & 0x02) != 0) {  // soft reset: power-on registers, EEPROM kept
            const auto eeprom = regs_;
            regs_.fill(0);
            for (uint8_t a = kImageFirst + kEepromOffset; a <= kImageLast + kEepromOffset; ++a) regs_[a] = eeprom[a];
            regs_[0x00] = eeprom[0x00];
            regs_[0x01] = eeprom[0x01];
            regs_[0x08] = eeprom[0x08];
            load_image();
            return;
        }
        if ((value & 0x20) != 0) load_image();
        regs_[kControl] = static_cast<uint8_t>(value & ~0x62);
        return;
    }
    if (address >= kImageFirst + kEepromOffset && address <= kImageLast + kEepromOffset) {
        if ((regs_[kControl] & 0x10) == 0) {
            ++ignored_eeprom_writes_;
            return;
        }
    }
    regs_[address] = value;
}

int Smb380Model::write(const uint8_t *data, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (i % 2 == 0 && (data[i] & 0x80) != 0) return -EIO;
    size_t i = 0;
    for (; i + 1 < length; i += 2) store(data[i], data[i + 1]);
    if (i < length) pointer_ = data[i];
    return static_cast<int>(length);
}

int Smb380Model::read(uint8_t *data, size_t length) {
    if (pointer_ <= 0x07 && pointer_ + length > 0x02) sample();
    for (size_t i = 0; i < length; ++i) {
        data[i] = regs_[pointer_];
        pointer_ = static_cast<uint8_t>((pointer_ + 1) & 0x7F);
    }
    return static_cast<int>(length);
}

}  // namespace vphone
