// Attitude and angle truth of the simulated world; conventions in frames.h.
#include "vphone/scene/frames.h"

#include <algorithm>
#include <cmath>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {
namespace {

Mat3 multiply(const Mat3 &a, const Mat3 &b) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
    return r;
}

// Heading in degrees 0..360 of a direction given by its east and north components.
double heading_of(double east, double north) { return wrap360(std::atan2(east, north) / kDeg); }

}  // namespace

Mat3 attitude_matrix(const Pose &p) {
    // Phone-to-world rotation R = Rz(-heading) * Rx(-pitch) * Ry(roll).
    const double h = -p.heading_deg * kDeg, e = -p.pitch_deg * kDeg, r = p.roll_deg * kDeg;
    const Mat3 rz{{{std::cos(h), -std::sin(h), 0}, {std::sin(h), std::cos(h), 0}, {0, 0, 1}}};
    const Mat3 rx{{{1, 0, 0}, {0, std::cos(e), -std::sin(e)}, {0, std::sin(e), std::cos(e)}}};
    const Mat3 ry{{{std::cos(r), 0, std::sin(r)}, {0, 1, 0}, {-std::sin(r), 0, std::cos(r)}}};
    return multiply(multiply(rz, rx), ry);
}

Vec3 earth_field_uT(double strength_uT, double inclination_deg) {
    const double i = inclination_deg * kDeg;
    return {0.0, strength_uT * std::cos(i), -strength_uT * std::sin(i)};
}

Vec3 to_phone(const Mat3 &a, const Vec3 &w) {
    // R maps phone to world, so phone = R^T * world.
    Vec3 v{};
    for (int j = 0; j < 3; ++j) v[j] = a[0][j] * w[0] + a[1][j] * w[1] + a[2][j] * w[2];
    return v;
}

TrueAngles true_angles(const Mat3 &a) {
    // a[i][j]: world axis i (east, north, up) component along phone axis j.
    TrueAngles t{};
    const double up_y = a[2][1];
    if (std::fabs(up_y) > kDirectionThresholdQ12 / 4096.0) {
        // Heading of the -z axis, or of +z when the y axis points down.
        const double s = up_y >= 0 ? -1.0 : 1.0;
        t.integer_heading = heading_of(s * a[0][2], s * a[1][2]);
    } else {
        t.integer_heading = heading_of(a[0][1], a[1][1]);
    }
    t.double_azimuth = wrap360(std::atan2(a[0][1] - a[1][0], a[0][0] + a[1][1]) / kDeg);
    double pitch = -std::asin(std::clamp(a[2][1], -1.0, 1.0)) / kDeg;
    if (a[2][2] < 0) {
        pitch = -180.0 - pitch;
        if (pitch < -180.0) pitch += 360.0;
    }
    t.pitch = pitch;
    t.roll = -std::asin(std::clamp(a[2][0], -1.0, 1.0)) / kDeg;
    return t;
}

double heading_difference(double a, double b) {
    double d = std::fmod(a - b, 360.0);
    if (d > 180.0) d -= 360.0;
    if (d < -180.0) d += 360.0;
    return d;
}

}  // namespace vphone::scene
