#include "vphone/kmxc_model.h"

#include <algorithm>
#include <cmath>

namespace vphone {

namespace {

using Mat3 = std::array<double, 9>;

constexpr std::array<uint8_t, 9> kDefaultCalibration = {0x82, 0x20, 0xFA, 0x08, 0x20, 0x44, 0x80, 0x80, 0x80};
constexpr double kCountsPerMicrotesla = 1.0 / KmxcModel::kMicroteslaPerCount;
constexpr double kDriftPerCoefficientCount = 31457.0 / 65536.0;  // centred units per coef per count

// The sensitivity matrix the chip's calibration bytes describe: nine bit fields of
// bytes 0..5 read as one big-endian 48-bit word, each with a fixed bias.
Mat3 sensitivity(const std::array<uint8_t, 9> &c) {
    uint64_t w = 0;
    for (int i = 0; i < 6; ++i) w = (w << 8) | c[i];
    auto field = [w](int hi, int width) { return static_cast<double>((w >> (hi - width + 1)) & ((1u << width) - 1)); };
    return {100.0,
            field(47, 6) - 32, field(41, 4) - 8,  field(37, 6) - 32, field(31, 6) + 38,
            field(25, 6) - 32, field(19, 6) - 32, field(13, 6) - 32, field(7, 7) + 66};
}

Mat3 multiply(const Mat3 &a, const Mat3 &b) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[3 * i + j] += a[3 * i + k] * b[3 * k + j];
    return r;
}

std::array<double, 3> apply(const Mat3 &m, const std::array<double, 3> &v) {
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

Mat3 inverse(const Mat3 &m) {
    const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                       m[2] * (m[3] * m[7] - m[4] * m[6]);
    const double d = det != 0 ? 1.0 / det : 0.0;  // a singular chip reads zero field
    return {(m[4] * m[8] - m[5] * m[7]) * d, (m[2] * m[7] - m[1] * m[8]) * d, (m[1] * m[5] - m[2] * m[4]) * d,
            (m[5] * m[6] - m[3] * m[8]) * d, (m[0] * m[8] - m[2] * m[6]) * d, (m[2] * m[3] - m[0] * m[5]) * d,
            (m[3] * m[7] - m[4] * m[6]) * d, (m[1] * m[6] - m[0] * m[7]) * d, (m[0] * m[4] - m[1] * m[3]) * d};
}

// Phone-axis response of the library to raw channel deviations (raw counts):
// centring x16, mixing into chip axes, mounting x sensitivity, / 1600.
Mat3 response(const std::array<int8_t, 9> &mounting, const std::array<uint8_t, 9> &calib) {
    Mat3 m{};
    for (int i = 0; i < 9; ++i) m[i] = mounting[i];
    // u = mix * t: u0 = -t0, u1 = t2 - t1, u2 = t1 + t2.
    const Mat3 mix = {-1, 0, 0, 0, -1, 1, 0, 1, 1};
    Mat3 r = multiply(multiply(m, sensitivity(calib)), mix);
    for (double &v : r) v *= 16.0 / 1600.0;
    return r;
}

uint8_t clamp_byte(long v) { return static_cast<uint8_t>(std::clamp(v, 0L, 255L)); }

}  // namespace

KmxcModel::KmxcModel() : calib_(kDefaultCalibration), mounting_{1, 0, 0, 0, 1, 0, 0, 0, 1} {
    rough_.fill(static_cast<uint8_t>(kRoughCentre));
}

void KmxcModel::setField(Vec3 microtesla) { field_ = microtesla; }
void KmxcModel::setHardIron(Vec3 microtesla) { hardIron_ = microtesla; }
void KmxcModel::setTemperature(uint16_t raw) { temperature_ = static_cast<uint16_t>(raw & 0x7FF); }
void KmxcModel::setNoise(uint32_t seed, double sigmaRaw) {
    rng_.seed(seed);
    sigma_ = sigmaRaw;
}
void KmxcModel::setCalibration(const std::array<uint8_t, 9> &bytes) { calib_ = bytes; }
void KmxcModel::setMounting(const std::array<int8_t, 9> &matrix) { mounting_ = matrix; }

std::array<double, 3> KmxcModel::idealCentredChannels() const {
    const Vec3 sum = {field_.x + hardIron_.x, field_.y + hardIron_.y, field_.z + hardIron_.z};
    const std::array<double, 3> counts = {sum.x * kCountsPerMicrotesla, sum.y * kCountsPerMicrotesla,
                                          sum.z * kCountsPerMicrotesla};
    return apply(inverse(response(mounting_, calib_)), counts);
}

double KmxcModel::driftRaw(int channel) const {
    const int coef = static_cast<int>(calib_[6 + channel]) - 128;
    return coef * kDriftPerCoefficientCount * (static_cast<double>(temperature_) - 256.0) / 16.0;
}

std::array<int, 3> KmxcModel::channels(const std::array<double, 3> &noise) const {
    const auto ideal = idealCentredChannels();
    std::array<int, 3> raw{};
    for (int k = 0; k < 3; ++k) {
        const double v =
            512.0 + ideal[k] + driftRaw(k) - kRawPerRoughStep * (rough_[k] - kRoughCentre) + noise[k];
        raw[k] = static_cast<int>(std::clamp(std::lround(v), 0L, 2047L));
    }
    return raw;
}

std::array<int, 3> KmxcModel::rawChannels() const { return channels({0, 0, 0}); }

KmxcModel::Vec3 KmxcModel::expectedMicrotesla() const {
    std::array<double, 3> shift{};
    for (int k = 0; k < 3; ++k) shift[k] = -static_cast<double>(kRawPerRoughStep) * (rough_[k] - kRoughCentre);
    const auto counts = apply(response(mounting_, calib_), shift);
    return {field_.x + hardIron_.x + counts[0] * kMicroteslaPerCount,
            field_.y + hardIron_.y + counts[1] * kMicroteslaPerCount,
            field_.z + hardIron_.z + counts[2] * kMicroteslaPerCount};
}

void KmxcModel::command(uint8_t byte, uint64_t nowUs) {
    if (byte == 0x01) {
        if (mode_ == Mode::Prepared) {
            // Rough-offset measurement: per channel, the setting that brings it
            // nearest 512, plus five.
            const auto ideal = idealCentredChannels();
            uint8_t reading[3];
            for (int k = 0; k < 3; ++k) {
                const double d = ideal[k] + driftRaw(k);
                reading[k] = clamp_byte(kRoughCentre + 5 + std::lround(d / kRawPerRoughStep));
            }
            roughBlock_ = {0, reading[2], 0, reading[1], 0, reading[0]};
            mode_ = Mode::Rough;
            startUs_ = nowUs;
        } else {
            mode_ = Mode::Idle;  // start-up
        }
    } else if (byte == 0xC8) {
        mode_ = Mode::Calibration;
    } else if (byte == 0xC0) {
        mode_ = Mode::Prepared;
    } else if (byte == 0x02) {
        std::array<double, 3> noise{};
        if (sigma_ > 0) {
            std::normal_distribution<double> gauss(0.0, sigma_);
            for (double &n : noise) n = gauss(rng_);
        }
        const std::array<int, 3> raw = channels(noise);
        // Channels last to first, then the temperature; bits 10..8 in the low bits
        // of the first byte of each pair.
        const int words[4] = {raw[2], raw[1], raw[0], temperature_};
        for (int i = 0; i < 4; ++i) {
            block_[2 * i] = static_cast<uint8_t>((words[i] >> 8) & 0x07);
            block_[2 * i + 1] = static_cast<uint8_t>(words[i] & 0xFF);
        }
        mode_ = Mode::Measure;
        startUs_ = nowUs;
    } else if (byte >= 0x20 && byte <= 0x7F) {
        const int channel = (byte >> 5) - 1;
        rough_[channel] = static_cast<uint8_t>(byte & 0x1F);
        roughGiven_ |= 1u << channel;
    } else if (byte == 0xF4 || byte == 0xF5) {
        gpo_ = byte & 1;
    }
    // 0x80..0x97 (coil) and anything else: accepted, no effect.
}

int KmxcModel::write(const uint8_t *data, size_t length) {
    for (size_t i = 0; i < length; ++i) command(data[i], now_us());
    return static_cast<int>(length);
}

int KmxcModel::read(uint8_t *data, size_t length) {
    const uint64_t nowUs = now_us();
    std::fill(data, data + length, uint8_t{0});
    auto copy = [&](const uint8_t *from, size_t n) { std::copy(from, from + std::min(n, length), data); };
    switch (mode_) {
    case Mode::Calibration: copy(calib_.data(), calib_.size()); break;
    case Mode::Measure:
        copy(block_.data(), block_.size());
        if (length > 0 && nowUs - startUs_ < measureUs_) data[0] |= 0x80;
        break;
    case Mode::Rough:
        copy(roughBlock_.data(), roughBlock_.size());
        if (length > 0 && nowUs - startUs_ < roughUs_) data[0] |= 0x80;
        break;
    default: break;
    }
    return static_cast<int>(length);
}

}  // namespace vphone
