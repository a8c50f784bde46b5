// Synthetic magnetometer streams for the calibration tests: seeded and deterministic
// (own generator, no library distributions), built from plain geometry in double.
#ifndef KMXC_CALIBRATION_TEST_STREAMS_H
#define KMXC_CALIBRATION_TEST_STREAMS_H

#include <array>
#include <cmath>
#include <cstdint>

#include "numerics/splitmix.h"
#include "orientation/orientation.h"

namespace calib_test {

using Batch = std::array<KmxAxesData, 16>;
struct Point {
    double x, y, z;
};
inline Point operator+(Point a, Point b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Point operator*(double s, Point a) { return {s * a.x, s * a.y, s * a.z}; }
inline double distance(const KmxAxesData &a, Point b) { return std::hypot(a.x - b.x, a.y - b.y, a.z - b.z); }

struct Rng : SplitMix64 {
    double uniform(double lo, double hi) { return lo + (hi - lo) * static_cast<double>(next() >> 11) * 0x1.0p-53; }
    int32_t integer(int32_t lo, int32_t hi) {
        return lo + static_cast<int32_t>(next() % uint64_t(int64_t{hi} - lo + 1));
    }
    KmxAxesData sample(Point p, int32_t noise) {
        return {int32_t(std::lround(p.x)) + integer(-noise, noise), int32_t(std::lround(p.y)) + integer(-noise, noise),
                int32_t(std::lround(p.z)) + integer(-noise, noise)};
    }
};

// 16 well-spread points of a sphere (a golden-angle spiral of equal-area bands).
inline Batch sphere_batch(Point centre, double radius, int32_t noise, Rng &rng) {
    Batch out{};
    const double phase = rng.uniform(0, 6.283185307179586);
    for (int i = 0; i < 16; ++i) {
        const double z = 1.0 - (2.0 * i + 1.0) / 16.0, r = std::sqrt(1.0 - z * z), phi = phase + 2.399963229728653 * i;
        out[size_t(i)] = rng.sample(centre + radius * Point{r * std::cos(phi), r * std::sin(phi), z}, noise);
    }
    return out;
}

// 16 evenly spaced points of a circle around `centre` in the plane of unit vectors u and v
// (v = 0 gives a line segment of length 2 radius along u).
inline Batch circle_batch(Point centre, Point u, Point v, double radius, int32_t noise, Rng &rng) {
    const double phase = rng.uniform(0, 6.283185307179586);
    Batch out{};
    for (int i = 0; i < 16; ++i) {
        const double phi = phase + 6.283185307179586 * i / 16.0;
        out[size_t(i)] = rng.sample(centre + radius * (std::cos(phi) * u + std::sin(phi) * v), noise);
    }
    return out;
}

}  // namespace calib_test

#endif  // KMXC_CALIBRATION_TEST_STREAMS_H
