// Field logs: what a phone's own sensors reported, in physical units and the phone's
// axes (the uncalibrated magnetic field in uT, the acceleration in m/s^2, as a phone's
// sensor API gives them), with the time of each sample. A field log from any phone
// replays through the chip models of the virtual phone: the rig's magnetometer and
// accelerometer sense each logged instant as they would sense a scenario's, so the
// library and the kit run on it as on this phone's own chips. The format is documented
// in docs/field-log-format.md.
#ifndef KMXC_VPHONE_SCENE_FIELD_LOG_H
#define KMXC_VPHONE_SCENE_FIELD_LOG_H

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

struct FieldLogRow {
    int64_t time_us = 0;  // strictly increasing
    Vec3 mag_uT{};        // uncalibrated: the phone's own field (hard iron) included
    Vec3 accel_mps2{};    // gravity included: a phone lying face up reads (0, 0, +9.81)
    double temperature_C = kFieldLogTemperatureC;
    bool operator==(const FieldLogRow &) const = default;
};

struct FieldLog {
    bool has_temperature = false;
    std::vector<FieldLogRow> rows;
    bool operator==(const FieldLog &) const = default;
};

void write_field_log_header(std::ostream &out, bool with_temperature);
// Exact: every double is written with the digits that read back to the same value.
void write_field_log_row(std::ostream &out, const FieldLogRow &r, bool with_temperature);

struct ParsedFieldLog {
    bool ok = false;
    std::string error;  // "line N: ..." when !ok
    FieldLog log;
};
ParsedFieldLog parse_field_log(std::istream &in);
double field_log_rate_hz(const FieldLog &log);  // median_rate_hz (csv_log.h) of its rows

// What the chips sense at a logged instant: the whole logged field as the ambient one
// (a log cannot tell the phone's own field from the Earth's; the truth of a replay is
// unknown), the acceleration turned into the scene's gravity sample (g, pointing the way
// gravity pulls), the temperature.
Truth truth_of(const FieldLogRow &r);
// The row a scene instant logged: what the scene's chips sensed then (truth_of's inverse).
FieldLogRow row_of(int64_t time_us, const Truth &t);

}  // namespace vphone::scene

#endif
