// The frames the simulated world is described in, the phone's attitude in them, and
// the angles each of the library's paths should report for an attitude.
//
// Conventions (all right-handed):
//   World frame, magnetic: x magnetic east, y magnetic north, z up. The geographic
//   frame differs by the declination D (magnetic north lies D degrees east of
//   geographic north); script headings are geographic, and every "true heading" the
//   scene reports is magnetic (geographic - D), because that is what a compass measures.
//   Phone axes: x to the right edge, y to the top edge, z out of the screen.
//   Attitude: heading psi (of the phone's y axis, from north toward east), pitch and
//   roll as the library reports them (pitch = minus the elevation of the y axis,
//   roll about the phone's y axis, positive with the right edge going down). The
//   phone-to-world rotation is R = Rz(-psi) * Rx(-pitch) * Ry(roll) applied to phone
//   vectors; rows of R are east, north and up expressed in phone axes.
//   Earth field in the magnetic world frame: B (0, cos I, -sin I) for strength B and
//   inclination I (positive: the field dips below the horizon, northern hemisphere).
//   Gravity sample: points the way gravity pulls, minus any linear acceleration, in g:
//   a phone lying flat reads (0, 0, -1).
//   Soft iron: the phone's soft metal distorts the ambient field it sits in, a
//   symmetric matrix S applied to the Earth field in phone axes.
//   Hard iron: a field fixed to the phone, added in phone axes. The magnetometer
//   senses S * Earth + hard iron.
#ifndef KMXC_VPHONE_SCENE_FRAMES_H
#define KMXC_VPHONE_SCENE_FRAMES_H

#include <array>

#include "vphone/chip_model.h"

namespace vphone::scene {

using Mat3 = std::array<Vec3, 3>;  // row-major

constexpr double kStandardGravity = 9.80665;  // m/s^2 in one g

struct Pose {
    double heading_deg = 0;  // geographic heading of the phone's y axis
    double pitch_deg = 0;
    double roll_deg = 0;
};

// The phone axis the integer heading follows: the service changes axis with a margin
// and says which in each event, so the truth takes the axis from there.
enum class HeadingAxis { kY, kZ };

// The angles each library path reports, computed from the true attitude with the
// definitions the library documents (whole-degree truncation left out).
struct TrueAngles {
    double integer_heading;  // of the axis asked for: y_heading, or (kZ) z_heading
    double y_heading;        // heading of the y axis
    double z_heading;        // heading of the -z axis, or of +z when the y axis points down
    double double_azimuth;   // rotation about the vertical: atan2(E.y - N.x, E.x + N.y)
    double pitch;            // -asin(up.y), folded beyond +-90 when facing down
    double roll;             // -asin(up.x)
};

Mat3 attitude_matrix(const Pose &pose_magnetic);
Vec3 earth_field_uT(double strength_uT, double inclination_deg);  // magnetic world frame
Vec3 to_phone(const Mat3 &attitude, const Vec3 &world);           // attitude^T * world
Vec3 to_world(const Mat3 &attitude, const Vec3 &phone);           // attitude * phone, any matrix times a vector
Mat3 multiply(const Mat3 &a, const Mat3 &b);
// Eigenvalues of a symmetric matrix, largest first.
Vec3 symmetric_eigenvalues(const Mat3 &m);
TrueAngles true_angles(const Mat3 &attitude, HeadingAxis axis);
// An attitude as the unit quaternion x, y, z, w (w >= 0) that turns phone axes into the
// world's, a phone's rotation vector; and back, the quaternion taken at unit length.
// Written out in one order of operations, so that x86-64 and armel compute them alike.
using Quaternion = std::array<double, 4>;
Quaternion quaternion_of(const Mat3 &attitude);
Mat3 attitude_of(const Quaternion &q);
// Signed difference a - b of two headings, in -180..180.
double heading_difference(double a_deg, double b_deg);

}  // namespace vphone::scene

#endif
