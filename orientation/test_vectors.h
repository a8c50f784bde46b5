// Double-precision vector helpers for the orientation tests: reference
// formulations independent of the library's code.
#ifndef KMXC_ORIENTATION_TEST_VECTORS_H
#define KMXC_ORIENTATION_TEST_VECTORS_H

#include <array>
#include <cmath>
#include <random>

#include "orientation/orientation.h"

namespace kmxc_test {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = 180.0 / kPi;

struct V3 {
    double x, y, z;
};
inline V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline V3 operator*(double k, V3 a) { return {k * a.x, k * a.y, k * a.z}; }
inline double dot(V3 a, V3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline V3 cross(V3 a, V3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline V3 unit(V3 a) { return (1.0 / std::sqrt(dot(a, a))) * a; }

inline V3 random_direction(std::mt19937 &rng) {
    std::normal_distribution<double> n;
    return unit(V3{n(rng), n(rng), n(rng)});
}

// v rounded to whole counts.
inline KmxAxesData rounded(V3 v) {
    return {int32_t(std::lround(v.x)), int32_t(std::lround(v.y)), int32_t(std::lround(v.z))};
}

// The components of v, so that one EXPECT_EQ prints all three on a mismatch.
inline std::array<int32_t, 3> xyz(const KmxAxesData &v) { return {v.x, v.y, v.z}; }

// Signed difference a - b of two angles in degrees, brought into -180..180.
inline double angle_difference(double a, double b) {
    double d = std::fmod(a - b, 360.0);
    if (d >= 180.0) d -= 360.0;
    if (d < -180.0) d += 360.0;
    return d;
}

}  // namespace kmxc_test

#endif
