#include "vphone/kmxc_model.h"

#include <algorithm>
#include <cmath>

namespace vphone {

using namespace kmxc;

namespace {

using Mat3 = std::array<double, 9>;

constexpr std::array<uint8_t, 9> kDefaultCalibration = {0x82, 0x20, 0xFA, 0x08, 0x20, 0x44, 0x80, 0x80, 0x80};
constexpr double kCountsPerMicrotesla = 1.0 / KmxcModel::kMicroteslaPerCount;
constexpr double kDriftPerCoefficientCount = kDriftPerCoefUnit / 65536.0;  // centred units per coef per count

// The sensitivity matrix of the calibration bytes, as the driver reads it.
Mat3 sensitivity(const std::array<uint8_t, 9> &c) {
    int16_t s[9];
    sensitivity_matrix(c.data(), s);
    Mat3 m{};
    for (int i = 0; i < 9; ++i) m[i] = s[i];
    return m;
}

Mat3 multiply(const Mat3 &a, const Mat3 &b) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[3 * i + j] += a[3 * i + k] * b[3 * k + j];
    return r;
}

// A singular chip reads zero field.
Mat3 inverse(const Mat3 &m) {
    Mat3 r{};
    return invert(m, &r) ? r : Mat3{};
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

// The field the chip senses, in corrected counts, phone axes.
Vec3 sensed_counts(const Physics &p) {
    Vec3 c{};
    for (int i = 0; i < 3; ++i) c[i] = (p.field_ut[i] + p.hard_iron_ut[i]) * kCountsPerMicrotesla;
    return c;
}

}  // namespace

int KmxcModel::raw_temperature(double celsius) {
    const long raw = kTemperatureReference + std::lround((celsius - 25.0) * 4.0);
    return static_cast<int>(std::clamp(raw, 0L, static_cast<long>(kRawMax)));
}

double KmxcModel::celsius(int raw) { return 25.0 + (raw - kTemperatureReference) / 4.0; }

KmxcModel::KmxcModel() : calib_(kDefaultCalibration) { rough_.fill(kRoughCentre); }

void KmxcModel::set_calibration(const std::array<uint8_t, 9> &bytes) { calib_ = bytes; }

std::array<double, 3> KmxcModel::idealCentredChannels() const {
    return times(inverse(response(mounting(), calib_)), sensed_counts(physics_));
}

double KmxcModel::driftRaw(int channel) const {
    const int coef = static_cast<int>(calib_[kTempCoefFirstByte + channel]) - kTempCoefBias;
    return coef * kDriftPerCoefficientCount * (static_cast<double>(temperatureRaw()) - kTemperatureReference) / 16.0;
}

std::array<int, 3> KmxcModel::channels(const std::array<double, 3> &noise) const {
    const auto ideal = idealCentredChannels();
    std::array<int, 3> raw{};
    for (int k = 0; k < 3; ++k) {
        const double v =
            kChannelCentre + ideal[k] + driftRaw(k) - kRawCountsPerRoughStep * (rough_[k] - kRoughCentre) + noise[k];
        raw[k] = static_cast<int>(std::clamp(std::lround(v), 0L, static_cast<long>(kRawMax)));
    }
    return raw;
}

std::array<int, 3> KmxcModel::raw_channels() const { return channels({0, 0, 0}); }

Vec3 KmxcModel::expected_microtesla() const {
    std::array<double, 3> shift{};
    for (int k = 0; k < 3; ++k) shift[k] = -static_cast<double>(kRawCountsPerRoughStep) * (rough_[k] - kRoughCentre);
    const auto counts = times(response(mounting(), calib_), shift);
    Vec3 out{};
    for (int i = 0; i < 3; ++i)
        out[i] = physics_.field_ut[i] + physics_.hard_iron_ut[i] + counts[i] * kMicroteslaPerCount;
    return out;
}

void KmxcModel::command(uint8_t byte, uint64_t nowUs) {
    if (byte == kCmdStartUp) {  // also kCmdRoughMeasure
        static_assert(kCmdStartUp == kCmdRoughMeasure);
        if (mode_ == Mode::Prepared) {
            // Rough-offset measurement: per channel, the setting that brings it
            // nearest 512, plus five.
            const auto ideal = idealCentredChannels();
            uint8_t reading[3];
            for (int k = 0; k < 3; ++k) {
                const double d = ideal[k] + driftRaw(k);
                reading[k] = clamp_byte(kRoughCentre + kRoughReadingBias + std::lround(d / kRawCountsPerRoughStep));
            }
            roughBlock_.fill(0);
            for (int k = 0; k < 3; ++k) roughBlock_[kRoughChannelAt[k]] = reading[k];
            mode_ = Mode::Rough;
            startUs_ = nowUs;
        } else {
            mode_ = Mode::Idle;  // start-up
        }
    } else if (byte == kCmdReadCalibration) {
        mode_ = Mode::Calibration;
    } else if (byte == kCmdPrepare) {
        mode_ = Mode::Prepared;
    } else if (byte == kCmdMeasure) {
        const std::array<int, 3> raw = channels(noise());
        auto put11 = [this](int at, int word) {
            block_[at] = static_cast<uint8_t>((word >> 8) & kHighBitsMask);
            block_[at + 1] = static_cast<uint8_t>(word & 0xFF);
        };
        for (int k = 0; k < 3; ++k) put11(kMeasureChannelAt[k], raw[k]);
        put11(kMeasureTemperatureAt, temperatureRaw());
        mode_ = Mode::Measure;
        startUs_ = nowUs;
    } else if (byte >= kCmdRoughChannel[0] && byte <= (kCmdRoughChannel[2] | kRoughSettingMask)) {
        const int channel = (byte >> 5) - 1;
        rough_[channel] = static_cast<uint8_t>(byte & kRoughSettingMask);
        roughGiven_ |= 1u << channel;
    } else if (byte == kCmdGpoLow || byte == kCmdGpoHigh) {
        gpo_ = byte == kCmdGpoHigh ? 1 : 0;
    }
    // Coil commands and anything else: accepted, no effect.
}

int KmxcModel::on_write(const uint8_t *data, size_t length) {
    for (size_t i = 0; i < length; ++i) command(data[i], now_us());
    return static_cast<int>(length);
}

bool KmxcModel::write_carries(uint8_t command, const uint8_t *data, size_t length) const {
    return std::find(data, data + length, command) != data + length;
}

uint8_t KmxcModel::read_answers() const {
    switch (mode_) {
    case Mode::Calibration: return kCmdReadCalibration;
    case Mode::Measure: return kCmdMeasure;
    case Mode::Rough: return kCmdRoughMeasure;
    case Mode::Prepared: return kCmdPrepare;
    default: return 0;
    }
}

int KmxcModel::on_read(uint8_t *data, size_t length) {
    const uint64_t nowUs = now_us();
    std::fill(data, data + length, uint8_t{0});
    auto copy = [&](const uint8_t *from, size_t n) { std::copy(from, from + std::min(n, length), data); };
    switch (mode_) {
    case Mode::Calibration: copy(calib_.data(), calib_.size()); break;
    case Mode::Measure:
        copy(block_.data(), block_.size());
        if (length > 0 && nowUs - startUs_ < kConversionMs * 1000u) data[0] |= kBusy;
        break;
    case Mode::Rough:
        copy(roughBlock_.data(), roughBlock_.size());
        if (length > 0 && nowUs - startUs_ < kRoughConversionMs * 1000u) data[0] |= kBusy;
        break;
    default: break;
    }
    return static_cast<int>(length);
}

}  // namespace vphone
