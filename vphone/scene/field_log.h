// Field logs: what a phone's own sensors reported, in physical units and the phone's
// axes (the uncalibrated magnetic field in uT, the acceleration in m/s^2, as a phone's
// sensor API gives them), with the time of each sample. A field log from any phone
// replays through the chip models of the virtual phone: the rig's magnetometer and
// accelerometer sense each logged instant as they would sense a scenario's, so the
// library and the kit run on it as on this phone's own chips. The format is documented
// in docs/field-log-format.md.
#ifndef KMXC_VPHONE_SCENE_FIELD_LOG_H
#define KMXC_VPHONE_SCENE_FIELD_LOG_H

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "vphone/scene/scenario.h"

namespace vphone::scene {

// Without a temperature column, the chips sense this.
constexpr double kFieldLogTemperatureC = 25.0;
// The largest value a log may hold, per axis: beyond any phone's magnetometer range, and
// beyond 8 g (the accelerometer saturates at its own range long before).
constexpr double kFieldLogMaxMicrotesla = 2000.0;
constexpr double kFieldLogMaxMps2 = 8 * kStandardGravity;
constexpr double kFieldLogMinC = -40.0, kFieldLogMaxC = 85.0;
// What a log's magnitudes say about its units. A phone's accelerometer reads gravity's
// length most of the time, so the median length of a log's accelerations lies within
// these bounds (a log in g reads about 1: refused). The Earth's field is 25..65 uT, and a
// median strength below the floor suggests gauss or millitesla (a warning only: the
// phone's own field may cancel much of the Earth's).
constexpr double kFieldLogMinMedianG = 0.5, kFieldLogMaxMedianG = 2.0;
constexpr double kFieldLogMinMedianMicrotesla = 10.0;
// A reference attitude is a unit quaternion: its length may differ from 1 by this much
// (a logger's rounding), and is taken as 1.
constexpr double kFieldLogReferenceNormTolerance = 0.01;

// A reference quaternion (x, y, z, w) whose length is off 1 by more than the tolerance:
// "<named> is not a unit quaternion: its length is L"; else "".
std::string reference_problem(const Quaternion &q, const std::string &named);

struct FieldLogRow {
    int64_t time_us = 0;  // strictly increasing
    Vec3 mag_uT{};        // uncalibrated: the phone's own field (hard iron) included
    Vec3 accel_mps2{};    // gravity included: a phone lying face up reads (0, 0, +9.81)
    double temperature_C = kFieldLogTemperatureC;
    // The phone's true attitude, when the log has one: the unit quaternion x, y, z, w that
    // turns phone axes into the magnetic world frame (x east, y magnetic north, z up), the
    // convention of a phone's rotation vector. A log scored against it is a log whose
    // attitude came from a reference (a rig, a survey), not from this magnetometer.
    Quaternion reference{0, 0, 0, 1};
    bool operator==(const FieldLogRow &) const = default;
};

// The optional columns a log has.
struct FieldLogColumns {
    bool temperature = false;
    bool reference = false;  // ref_x, ref_y, ref_z, ref_w
    bool operator==(const FieldLogColumns &) const = default;
};

struct FieldLog {
    FieldLogColumns columns;
    std::vector<FieldLogRow> rows;
    bool operator==(const FieldLog &) const = default;
};

void write_field_log_header(std::ostream &out, const FieldLogColumns &columns);
// Exact: every double is written with the digits that read back to the same value.
void write_field_log_row(std::ostream &out, const FieldLogRow &r, const FieldLogColumns &columns);

struct ParsedFieldLog {
    bool ok = false;
    std::string error;    // "line N: ..." when !ok
    std::string warning;  // when ok: field_log_units_warning's
    FieldLog log;
};
ParsedFieldLog parse_field_log(std::istream &in);
double field_log_rate_hz(const FieldLog &log);  // median_rate_hz (csv_log.h) of its rows
// The median accelerations' length outside kFieldLogMinMedianG..kFieldLogMaxMedianG: the
// problem, with the likely unit; else "". parse_field_log refuses a log that has one.
std::string field_log_units_problem(const FieldLog &log);
// The median field strength below kFieldLogMinMedianMicrotesla: a note; else "".
std::string field_log_units_warning(const FieldLog &log);

// What the chips sense at a logged instant: the whole logged field as the ambient one
// (a log cannot tell the phone's own field from the Earth's, so a replay's offset has no
// truth), the acceleration turned into the scene's gravity sample (g, pointing the way
// gravity pulls), the temperature.
Truth truth_of(const FieldLogRow &r);
// The row a scene instant logged: what the scene's chips sensed then (truth_of's inverse),
// and the phone's true attitude as its reference (attitude_of, frames.h, reads it back).
FieldLogRow row_of(int64_t time_us, const Truth &t);

}  // namespace vphone::scene

#endif
