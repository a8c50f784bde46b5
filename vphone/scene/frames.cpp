// Attitude and angle truth of the simulated world; conventions in frames.h.
#include "vphone/scene/frames.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {
namespace {

// Heading in degrees 0..360 of a direction given by its east and north components.
double heading_of(double east, double north) { return wrap360(std::atan2(east, north) / kDeg); }

}  // namespace

Mat3 multiply(const Mat3 &a, const Mat3 &b) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
    return r;
}

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

Vec3 to_world(const Mat3 &a, const Vec3 &p) {
    Vec3 v{};
    for (int i = 0; i < 3; ++i) v[i] = a[i][0] * p[0] + a[i][1] * p[1] + a[i][2] * p[2];
    return v;
}

Vec3 symmetric_eigenvalues(const Mat3 &m) {
    // The closed form for symmetric 3x3 matrices: the eigenvalues are q + 2p cos(phi +
    // 2 pi k / 3) for the matrix's mean diagonal q, spread p and angle phi of the
    // normalised B = (m - qI) / p.
    const double off = m[0][1] * m[0][1] + m[0][2] * m[0][2] + m[1][2] * m[1][2];
    if (off == 0) {
        Vec3 d{m[0][0], m[1][1], m[2][2]};
        std::sort(d.begin(), d.end(), std::greater<>());
        return d;
    }
    const double q = (m[0][0] + m[1][1] + m[2][2]) / 3;
    const double p = std::sqrt(
        ((m[0][0] - q) * (m[0][0] - q) + (m[1][1] - q) * (m[1][1] - q) + (m[2][2] - q) * (m[2][2] - q) + 2 * off) / 6);
    Mat3 b = m;
    for (int i = 0; i < 3; ++i) {
        b[i][i] -= q;
        for (int j = 0; j < 3; ++j) b[i][j] /= p;
    }
    const double det = b[0][0] * (b[1][1] * b[2][2] - b[1][2] * b[2][1]) -
                       b[0][1] * (b[1][0] * b[2][2] - b[1][2] * b[2][0]) +
                       b[0][2] * (b[1][0] * b[2][1] - b[1][1] * b[2][0]);
    const double phi = std::acos(std::clamp(det / 2, -1.0, 1.0)) / 3;
    const double largest = q + 2 * p * std::cos(phi), smallest = q + 2 * p * std::cos(phi + 2 * kPi / 3);
    return {largest, 3 * q - largest - smallest, smallest};
}

TrueAngles true_angles(const Mat3 &a, HeadingAxis axis) {
    // a[i][j]: world axis i (east, north, up) component along phone axis j.
    TrueAngles t{};
    const double up_y = a[2][1];
    const double s = up_y >= 0 ? -1.0 : 1.0;
    t.y_heading = heading_of(a[0][1], a[1][1]);
    t.z_heading = heading_of(s * a[0][2], s * a[1][2]);
    t.integer_heading = axis == HeadingAxis::kZ ? t.z_heading : t.y_heading;
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

Quaternion quaternion_of(const Mat3 &a) {
    // Four times each product of two components: the squares from the diagonal, the
    // others from the off-diagonal sums and differences. The largest square's root is
    // the well-conditioned start; each component follows from its product with it.
    const double x2 = 1 + a[0][0] - a[1][1] - a[2][2], y2 = 1 - a[0][0] + a[1][1] - a[2][2],
                 z2 = 1 - a[0][0] - a[1][1] + a[2][2], w2 = 1 + a[0][0] + a[1][1] + a[2][2];
    const double xy = a[0][1] + a[1][0], xz = a[0][2] + a[2][0], yz = a[1][2] + a[2][1];
    const double xw = a[2][1] - a[1][2], yw = a[0][2] - a[2][0], zw = a[1][0] - a[0][1];
    const double products[4][4] = {{x2, xy, xz, xw}, {xy, y2, yz, yw}, {xz, yz, z2, zw}, {xw, yw, zw, w2}};
    size_t k = 0;
    for (size_t i = 1; i < 4; ++i)
        if (products[i][i] > products[k][k]) k = i;
    const double four_qk = 2 * std::sqrt(products[k][k]);
    Quaternion q;
    for (size_t j = 0; j < 4; ++j) q[j] = products[k][j] / four_qk;
    if (q[3] < 0)  // q and -q are the same rotation
        for (double &c : q) c = -c;
    return q;
}

Mat3 attitude_of(const Quaternion &q) {
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double x = q[0] / n, y = q[1] / n, z = q[2] / n, w = q[3] / n;
    return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
             {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
             {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
}

double heading_difference(double a, double b) {
    double d = std::fmod(a - b, 360.0);
    if (d > 180.0) d -= 360.0;
    if (d < -180.0) d += 360.0;
    return d;
}

}  // namespace vphone::scene
