#include "vphone/scene/field_log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <istream>
#include <ostream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

constexpr const char *kMagic = "# kmxc field log 1";
constexpr const char *kColumns = "time_us,mag_x,mag_y,mag_z,accel_x,accel_y,accel_z";
constexpr const char *kTemperatureColumn = ",temperature";
constexpr const char *kReferenceColumns = ",ref_x,ref_y,ref_z,ref_w";
constexpr const char *kReferenceNames[4] = {"ref_x", "ref_y", "ref_z", "ref_w"};

// A data line's fields into r; "" or the problem.
std::string read_row(const std::vector<std::string> &f, const FieldLogColumns &columns, FieldLogRow *r) {
    struct Value {
        const char *name;
        double limit_lo, limit_hi, *to;
    };
    const double m = kFieldLogMaxMicrotesla, a = kFieldLogMaxMps2, q = 1 + kFieldLogReferenceNormTolerance;
    std::vector<Value> values = {{"mag_x", -m, m, &r->mag_uT[0]},       {"mag_y", -m, m, &r->mag_uT[1]},
                                 {"mag_z", -m, m, &r->mag_uT[2]},       {"accel_x", -a, a, &r->accel_mps2[0]},
                                 {"accel_y", -a, a, &r->accel_mps2[1]}, {"accel_z", -a, a, &r->accel_mps2[2]}};
    if (columns.temperature) values.push_back({"temperature", kFieldLogMinC, kFieldLogMaxC, &r->temperature_C});
    if (columns.reference)
        for (size_t k = 0; k < 4; ++k) values.push_back({kReferenceNames[k], -q, q, &r->reference[k]});
    const size_t n = 1 + values.size();
    if (f.size() != n) return "expected " + std::to_string(n) + " values, found " + std::to_string(f.size());
    if (!csv_time(f[0], &r->time_us))
        return "time_us '" + f[0] + "' is not a whole number in 0.." + std::to_string(kCsvMaxTime);
    for (size_t i = 0; i < values.size(); ++i) {
        const Value &v = values[i];
        if (!csv_number(f[i + 1], v.limit_lo, v.limit_hi, v.to))
            return std::string(v.name) + " '" + f[i + 1] + "' is not a number in " + shortest_text(v.limit_lo) + ".." +
                   shortest_text(v.limit_hi);
    }
    return columns.reference ? reference_problem(r->reference, "ref_x..ref_w") : "";
}

std::string column_line(const FieldLogColumns &c) {
    return std::string(kColumns) + (c.temperature ? kTemperatureColumn : "") + (c.reference ? kReferenceColumns : "");
}

}  // namespace

std::string reference_problem(const Quaternion &q, const std::string &named) {
    const double length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (std::fabs(length - 1) <= kFieldLogReferenceNormTolerance) return "";
    return named + " is not a unit quaternion: its length is " + shortest_text(length);
}

void write_field_log_header(std::ostream &out, const FieldLogColumns &columns) {
    out << kMagic << '\n' << column_line(columns) << '\n';
}

void write_field_log_row(std::ostream &out, const FieldLogRow &r, const FieldLogColumns &columns) {
    out << r.time_us;
    for (double v : r.mag_uT) out << ',' << shortest_text(v);
    for (double v : r.accel_mps2) out << ',' << shortest_text(v);
    if (columns.temperature) out << ',' << shortest_text(r.temperature_C);
    if (columns.reference)
        for (double v : r.reference) out << ',' << shortest_text(v);
    out << '\n';
}

ParsedFieldLog parse_field_log(std::istream &in) {
    ParsedFieldLog p;
    FieldLog &log = p.log;
    bool columns = false;
    p.error = read_csv_log(
        in, kMagic, "field log",
        [&](const std::vector<std::string> &f, const std::string &line) -> std::string {
            if (!columns) {
                for (const bool temperature : {false, true})
                    for (const bool reference : {false, true})
                        if (line == column_line({temperature, reference})) {
                            log.columns = {temperature, reference};
                            columns = true;
                        }
                if (!columns)
                    return "the column line must be '" + std::string(kColumns) + "', optionally followed by '" +
                           kTemperatureColumn + "', then optionally by '" + kReferenceColumns + "'";
                return "";
            }
            FieldLogRow r;
            if (std::string problem = read_row(f, log.columns, &r); !problem.empty()) return problem;
            if (!log.rows.empty() && r.time_us <= log.rows.back().time_us)
                return "time_us " + std::to_string(r.time_us) + " does not increase";
            log.rows.push_back(r);
            return "";
        },
        [&]() -> std::string {
            if (!columns) return "no column line '" + std::string(kColumns) + "'";
            return log.rows.empty() ? "no samples" : field_log_units_problem(log);
        });
    p.ok = p.error.empty();
    if (p.ok) p.warning = field_log_units_warning(log);
    return p;
}

double field_log_rate_hz(const FieldLog &log) {
    std::vector<int64_t> t;
    for (const FieldLogRow &row : log.rows) t.push_back(row.time_us);
    return median_rate_hz(std::move(t));
}

namespace {

// The median length of a vector of each row.
double median_length(const FieldLog &log, const Vec3 FieldLogRow::*v) {
    std::vector<double> lengths;
    for (const FieldLogRow &r : log.rows) {
        const Vec3 &x = r.*v;
        lengths.push_back(std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]));
    }
    const auto mid = lengths.begin() + static_cast<std::ptrdiff_t>(lengths.size() / 2);
    std::nth_element(lengths.begin(), mid, lengths.end());
    return *mid;
}

std::string two_digits(double v) {
    char b[32];
    std::snprintf(b, sizeof b, "%.2f", v);
    return b;
}

}  // namespace

std::string field_log_units_problem(const FieldLog &log) {
    if (log.rows.empty()) return "";
    const double g = median_length(log, &FieldLogRow::accel_mps2) / kStandardGravity;
    if (g >= kFieldLogMinMedianG && g <= kFieldLogMaxMedianG) return "";
    return "the accelerations' median length is " + two_digits(g * kStandardGravity) +
           " m/s^2, where a phone reads gravity's 9.81 most of the time" +
           (std::fabs(g * kStandardGravity - 1) < 0.5 ? ": is the log in g (times 9.80665 is m/s^2)?" : "");
}

std::string field_log_units_warning(const FieldLog &log) {
    if (log.rows.empty()) return "";
    const double uT = median_length(log, &FieldLogRow::mag_uT);
    if (uT >= kFieldLogMinMedianMicrotesla) return "";
    return "the field's median strength is " + two_digits(uT) +
           " uT, where the Earth's is 25 to 65: is the log in gauss (1 G = 100 uT) or millitesla (1 mT = 1000 uT)?";
}

Truth truth_of(const FieldLogRow &r) {
    Truth t;
    t.t_s = static_cast<double>(r.time_us) / 1e6;
    t.phase = "logged";
    t.field_uT = r.mag_uT;
    // The scene's gravity sample points the way gravity pulls; a phone's accelerometer
    // reads the opposite (the push that holds the phone up).
    for (size_t k = 0; k < 3; ++k) t.gravity_g[k] = -r.accel_mps2[k] / kStandardGravity;
    t.temperature_C = r.temperature_C;
    return t;
}

FieldLogRow row_of(int64_t time_us, const Truth &t) {
    FieldLogRow r;
    r.time_us = time_us;
    for (size_t k = 0; k < 3; ++k) {
        r.mag_uT[k] = t.field_uT[k] + t.hard_iron_uT[k];
        r.accel_mps2[k] = -t.gravity_g[k] * kStandardGravity;
    }
    r.temperature_C = t.temperature_C;
    r.reference = quaternion_of(t.attitude);
    return r;
}

}  // namespace vphone::scene
