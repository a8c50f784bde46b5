// Synthetic magnetometer streams for the calibration tests: seeded and deterministic
// (own generator, no library distributions), built from plain geometry in double.
#ifndef KMXC_CALIBRATION_TEST_STREAMS_H
#define KMXC_CALIBRATION_TEST_STREAMS_H

#include <array>
#include <cmath>
#include <cstdint>

#include "orientation/orientation.h"

namespace calib_test {

using Batch = std::array<KmxAxesData, 16>;

struct Vec {
    double x, y, z;
};

inline Vec operator+(Vec a, Vec b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec operator*(double s, Vec a) { return {s * a.x, s * a.y, s * a.z}; }
inline double dot(Vec a, Vec b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec cross(Vec a, Vec b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline Vec unit(Vec a) { return (1.0 / std::sqrt(dot(a, a))) * a; }

// splitmix64: tiny, seeded, identical on every compiler and standard library.
struct Rng {
    uint64_t state;
    explicit Rng(uint64_t seed) : state(seed) {}
    uint64_t next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    int32_t integer(int32_t lo, int32_t hi) {  // [lo, hi]
        return lo + static_cast<int32_t>(next() % static_cast<uint64_t>(int64_t{hi} - lo + 1));
    }
    Vec direction() {  // uniform on the unit sphere
        const double z = uniform(-1.0, 1.0), phi = uniform(0.0, 6.283185307179586);
        const double r = std::sqrt(1.0 - z * z);
        return {r * std::cos(phi), r * std::sin(phi), z};
    }
};

inline KmxAxesData to_sample(Vec p, Rng &rng, int32_t noise) {
    return {static_cast<int32_t>(std::lround(p.x)) + rng.integer(-noise, noise),
            static_cast<int32_t>(std::lround(p.y)) + rng.integer(-noise, noise),
            static_cast<int32_t>(std::lround(p.z)) + rng.integer(-noise, noise)};
}

// 16 well-spread points on a sphere (a spiral of equal-area bands, turned by a random
// rotation), rounded to counts, with integer noise of up to +-noise per component.
inline Batch sphere_batch(Vec centre, double radius, int32_t noise, Rng &rng) {
    const Vec a = rng.direction();
    const Vec b = unit(cross(a, rng.direction()));
    const Vec c = cross(a, b);
    Batch out{};
    for (int i = 0; i < 16; ++i) {
        const double z = 1.0 - (2.0 * i + 1.0) / 16.0;
        const double r = std::sqrt(1.0 - z * z), phi = 2.399963229728653 * i;  // golden angle
        const Vec local{r * std::cos(phi), r * std::sin(phi), z};
        const Vec p = centre + radius * (local.x * a + local.y * b + local.z * c);
        out[static_cast<size_t>(i)] = to_sample(p, rng, noise);
    }
    return out;
}

// 16 evenly spaced points of a circle around `centre` in the plane through it whose
// normal is `normal` (unit), starting at a random phase.
inline Batch circle_batch(Vec centre, Vec normal, double radius, int32_t noise, Rng &rng) {
    const Vec seed = std::fabs(normal.x) < 0.9 ? Vec{1, 0, 0} : Vec{0, 1, 0};
    const Vec u = unit(cross(normal, seed));
    const Vec v = cross(normal, u);
    const double phase = rng.uniform(0.0, 6.283185307179586);
    Batch out{};
    for (int i = 0; i < 16; ++i) {
        const double phi = phase + 6.283185307179586 * i / 16.0;
        out[static_cast<size_t>(i)] = to_sample(centre + radius * (std::cos(phi) * u + std::sin(phi) * v), rng, noise);
    }
    return out;
}

// 16 points on a segment through `centre` along `direction`, +-half_length.
inline Batch line_batch(Vec centre, Vec direction, double half_length, int32_t noise, Rng &rng) {
    Batch out{};
    for (int i = 0; i < 16; ++i)
        out[static_cast<size_t>(i)] = to_sample(centre + (half_length * (i - 7.5) / 7.5) * direction, rng, noise);
    return out;
}

inline double distance(const KmxAxesData &a, Vec b) {
    const Vec d{a.x - b.x, a.y - b.y, a.z - b.z};
    return std::sqrt(dot(d, d));
}

}  // namespace calib_test

#endif  // KMXC_CALIBRATION_TEST_STREAMS_H
