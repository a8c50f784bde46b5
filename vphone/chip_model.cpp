#include "vphone/chip_model.h"

namespace vphone {

Vec3 times(const std::array<double, 9> &m, const Vec3 &v) {
    Vec3 out{};
    for (int i = 0; i < 3; ++i) out[i] = m[3 * i] * v[0] + m[3 * i + 1] * v[1] + m[3 * i + 2] * v[2];
    return out;
}

ChipModel::ChipModel() = default;

void ChipModel::set_field_ut(double x, double y, double z) {
    physics_.field_ut = {x, y, z};
    inputs_changed();
}

void ChipModel::set_hard_iron_ut(double x, double y, double z) {
    physics_.hard_iron_ut = {x, y, z};
    inputs_changed();
}

void ChipModel::set_gravity_g(double x, double y, double z) {
    physics_.gravity_g = {x, y, z};
    inputs_changed();
}

void ChipModel::set_temperature_c(double celsius) {
    physics_.temperature_c = celsius;
    inputs_changed();
}

void ChipModel::set_physics(const Physics &physics) {
    physics_ = physics;
    inputs_changed();
}

bool invert(const std::array<double, 9> &m, std::array<double, 9> *inverse) {
    const double det =
        m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) + m[2] * (m[3] * m[7] - m[4] * m[6]);
    if (det == 0) return false;
    const double d = 1.0 / det;
    *inverse = {(m[4] * m[8] - m[5] * m[7]) * d, (m[2] * m[7] - m[1] * m[8]) * d, (m[1] * m[5] - m[2] * m[4]) * d,
                (m[5] * m[6] - m[3] * m[8]) * d, (m[0] * m[8] - m[2] * m[6]) * d, (m[2] * m[3] - m[0] * m[5]) * d,
                (m[3] * m[7] - m[4] * m[6]) * d, (m[1] * m[6] - m[0] * m[7]) * d, (m[0] * m[4] - m[1] * m[3]) * d};
    return true;
}

bool ChipModel::set_mounting(const std::array<int8_t, 9> &matrix) {
    std::array<double, 9> m{};
    for (int i = 0; i < 9; ++i) m[i] = matrix[i];
    if (!invert(m, &inverse_)) return false;
    mounting_ = matrix;
    inputs_changed();
    return true;
}

void ChipModel::set_noise(uint32_t seed, double sigma_counts) {
    rng_.seed(seed);
    sigma_ = sigma_counts;
}

Vec3 ChipModel::noise() {
    Vec3 n{};
    if (sigma_ > 0) {
        // A fresh distribution per sample: three draws, the fourth of the pair dropped.
        std::normal_distribution<double> gauss(0.0, sigma_);
        for (double &v : n) v = gauss(rng_);
    }
    return n;
}

void ChipModel::fail_command(uint8_t command, int error, int count) { faults_[command] = Fault{error, count}; }

int ChipModel::take_fault(bool is_write, const uint8_t *data, size_t length) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        const bool hit = is_write ? write_carries(it->first, data, length) : read_answers() == it->first;
        if (!hit) continue;
        const int error = it->second.error;
        if (--it->second.left <= 0) faults_.erase(it);
        return error;
    }
    return 0;
}

int ChipModel::write(const uint8_t *data, size_t length) {
    if (const int error = take_fault(true, data, length); error != 0) return -error;
    return on_write(data, length);
}

int ChipModel::read(uint8_t *data, size_t length) {
    if (const int error = take_fault(false, data, length); error != 0) return -error;
    return on_read(data, length);
}

}  // namespace vphone
