// The shape every chip model of the virtual phone has: a command/register state
// machine behind one bus-transfer interface (BusDevice), fed physical quantities
// through the same calls for every chip, with seeded noise and per-command faults.
//
//   chip.set_field_ut(20, 0, -40);     // ambient field, uT, phone axes
//   chip.set_hard_iron_ut(30, -10, 5); // the phone's own magnetism, uT, phone axes
//   chip.set_gravity_g(0, 0.5, -0.87); // gravity, g, phone axes
//   chip.set_temperature_c(31.5);      // chip temperature
//   chip.set_mounting(matrix);         // profile matrix: row i = phone axis i in chip axes
//   chip.set_noise(seed, sigma);       // Gaussian, chip counts; 0 = off
//   chip.fail_command(cmd, EIO, 2);    // the next 2 transfers carrying cmd fail
//
// Each chip senses what it can (the magnetometer field, hard iron and temperature;
// the accelerometer gravity) and takes its inputs at its next sample.
#ifndef KMXC_VPHONE_CHIP_MODEL_H
#define KMXC_VPHONE_CHIP_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>

#include "vphone/vphone.h"

namespace vphone {

using Vec3 = std::array<double, 3>;

// What the phone is exposed to, in the phone's axes.
struct Physics {
    Vec3 field_ut{};           // ambient magnetic field
    Vec3 hard_iron_ut{};       // magnetism fixed to the phone
    Vec3 gravity_g{0, 0, -1};  // lying flat, face up
    double temperature_c = 25.0;
};

class ChipModel : public BusDevice {
public:
    // ---- Physical inputs ----
    void set_field_ut(double x, double y, double z);
    void set_hard_iron_ut(double x, double y, double z);
    void set_gravity_g(double x, double y, double z);
    void set_temperature_c(double celsius);
    void set_physics(const Physics &physics);
    const Physics &physics() const { return physics_; }

    // Chip-to-phone mounting, the nine numbers of the transformation profile (row i =
    // phone axis i in chip axes). false, and unchanged, when it is singular.
    bool set_mounting(const std::array<int8_t, 9> &matrix);
    const std::array<int8_t, 9> &mounting() const { return mounting_; }

    // Gaussian noise of sigma chip counts on every sample, from a generator seeded
    // with seed; sigma 0 turns it off.
    void set_noise(uint32_t seed, double sigma_counts);

    // Per-command faults: the next count transfers that carry command (a write that
    // holds the byte as a command or register address, or a read that answers it)
    // fail with errno error; the chip's state does not move.
    void fail_command(uint8_t command, int error, int count = 1);

    // ---- Bus side: faults first, then the chip's state machine ----
    int write(const uint8_t *data, size_t length) final;
    int read(uint8_t *data, size_t length) final;

protected:
    ChipModel();
    virtual int on_write(const uint8_t *data, size_t length) = 0;
    virtual int on_read(uint8_t *data, size_t length) = 0;
    // Whether a write carries the command, and what a read now answers.
    virtual bool write_carries(uint8_t command, const uint8_t *data, size_t length) const = 0;
    virtual uint8_t read_answers() const = 0;
    // After any physical input or the mounting changed.
    virtual void inputs_changed() {}

    // One sample's noise for three channels (zeros when off).
    Vec3 noise();
    // The mounting's inverse (chip = inverse x phone).
    const std::array<double, 9> &phone_to_chip() const { return inverse_; }

    Physics physics_;

private:
    int take_fault(bool is_write, const uint8_t *data, size_t length);

    std::array<int8_t, 9> mounting_{1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::array<double, 9> inverse_{1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::mt19937 rng_{0};
    double sigma_ = 0;
    struct Fault {
        int error;
        int left;
    };
    std::map<uint8_t, Fault> faults_;
};

// m x v for a row-major 3x3 matrix.
Vec3 times(const std::array<double, 9> &m, const Vec3 &v);
// The inverse of a row-major 3x3 matrix; false (and *inverse unchanged) when singular.
bool invert(const std::array<double, 9> &matrix, std::array<double, 9> *inverse);

}  // namespace vphone

#endif  // KMXC_VPHONE_CHIP_MODEL_H
