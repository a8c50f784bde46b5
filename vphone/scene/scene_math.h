// Small numeric helpers the scene's units share (internal).
#ifndef KMXC_VPHONE_SCENE_SCENE_MATH_H
#define KMXC_VPHONE_SCENE_SCENE_MATH_H

#include <algorithm>
#include <cmath>

namespace vphone::scene {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

inline double wrap360(double deg) {
    deg = std::fmod(deg, 360.0);
    return deg < 0 ? deg + 360.0 : deg;
}

// 0..1 -> 0..1 with zero slope at both ends.
inline double ease(double u) {
    u = std::clamp(u, 0.0, 1.0);
    return 0.5 - 0.5 * std::cos(kPi * u);
}

}  // namespace vphone::scene

#endif
