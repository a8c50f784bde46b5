// Rotation matrix and Euler angles in double precision. Every expression is
// written in the order it must be evaluated; the build forbids FMA contraction,
// so results are reproducible to the bit.
#include <math.h>

#include "orientation/orientation.h"

namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;  // nearest double to 180/pi

// Length with the squares summed x, y, then z.
double length(const double *v) { return sqrt((v[0] * v[0] + v[1] * v[1]) + v[2] * v[2]); }

void divide(double *v, double by) {
    v[0] = v[0] / by;
    v[1] = v[1] / by;
    v[2] = v[2] / by;
}

void cross(const double *p, const double *q, double *out) {
    out[0] = p[1] * q[2] - p[2] * q[1];
    out[1] = p[2] * q[0] - p[0] * q[2];
    out[2] = p[0] * q[1] - p[1] * q[0];
}

// Truncation toward zero that keeps the sign of zero (-0.4 gives -0.0). NaN and
// values too large to have a fraction pass unchanged; no integer conversion of an
// out-of-range double happens.
double truncated(double v) {
    if (!(v > -4503599627370496.0 && v < 4503599627370496.0)) return v;
    const double t = static_cast<double>(static_cast<int64_t>(v));
    return (t == 0.0 && signbit(v)) ? -0.0 : t;
}

}  // namespace

int8_t KmxAxesLibGetRotationMatrix(const double *gravity, const double *field, double *matrix) {
    if (field == nullptr || gravity == nullptr || matrix == nullptr) return KMXC_ORI_INVALID;
    const double gravity_length = length(gravity);
    const double field_length = length(field);
    if (gravity_length == 0.0 || field_length == 0.0) return KMXC_ORI_INVALID;
    double a[3] = {gravity[0], gravity[1], gravity[2]};
    double b[3] = {field[0], field[1], field[2]};
    divide(a, gravity_length);
    divide(b, field_length);

    double c[3];  // east
    cross(a, b, c);
    const double c_length = length(c);
    if (c_length == 0.0) return KMXC_ORI_INVALID;  // field parallel to gravity
    divide(c, c_length);
    double d[3];  // north
    cross(c, a, d);
    const double d_length = length(d);
    if (d_length == 0.0) return KMXC_ORI_INVALID;
    divide(d, d_length);

    for (int i = 0; i < 3; ++i) {
        matrix[i] = c[i];
        matrix[3 + i] = d[i];
        matrix[6 + i] = -a[i];  // up; a zero component becomes -0.0
    }
    return KMXC_ORI_OK;
}

int8_t KmxAxesLibGetEuler(const double *matrix, double *angles) {
    if (angles == nullptr || matrix == nullptr) return KMXC_ORI_INVALID;
    const double *r = matrix;
    double yaw = atan2(r[1] - r[3], r[0] + r[4]) * kDegreesPerRadian;
    double pitch = -asin(r[7]) * kDegreesPerRadian;
    if (r[8] < 0.0) {  // facing down: fold the pitch beyond +-90
        pitch = -180.0 - pitch;
        if (pitch < -180.0) pitch += 360.0;
    }
    const double roll = -asin(r[6]) * kDegreesPerRadian;
    if (yaw < 0.0) yaw += 360.0;

    angles[0] = truncated(yaw);
    // The filter replaces the azimuth; yaw lies within 0..360, which it accepts.
    (void)KmxAxesLibGetAzimuthFiltered(angles[0], &angles[0]);
    angles[1] = truncated(pitch);
    angles[2] = truncated(roll);
    return KMXC_ORI_OK;
}
