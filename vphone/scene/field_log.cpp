#include "vphone/scene/field_log.h"

#include <charconv>
#include <istream>
#include <ostream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

constexpr const char *kMagic = "# kmxc field log 1";
constexpr const char *kColumns = "time_us,mag_x,mag_y,mag_z,accel_x,accel_y,accel_z";
constexpr const char *kTemperatureColumn = ",temperature";

bool to_number(const std::string &s, double lo, double hi, double *out) {
    const char *b = s.data(), *e = s.data() + s.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, *out);
    // nan and inf fail the range.
    return r.ec == std::errc() && r.ptr == e && b != e && *out >= lo && *out <= hi;
}

bool to_time(const std::string &s, int64_t *out) {
    const char *b = s.data(), *e = s.data() + s.size();
    const auto r = std::from_chars(b, e, *out);
    return r.ec == std::errc() && r.ptr == e && b != e && *out >= 0 && *out <= (int64_t{1} << 53);
}

// The shortest digits that read back to v.
std::string text(double v) {
    char b[32];
    const auto r = std::to_chars(b, b + sizeof b, v);
    return std::string(b, r.ptr);
}

// A data line's fields into r; "" or the problem.
std::string read_row(const std::vector<std::string> &f, bool with_temperature, FieldLogRow *r) {
    const size_t n = with_temperature ? 8 : 7;
    if (f.size() != n) return "expected " + std::to_string(n) + " values, found " + std::to_string(f.size());
    if (!to_time(f[0], &r->time_us))
        return "time_us '" + f[0] + "' is not a whole number in 0.." + std::to_string(int64_t{1} << 53);
    static const char *names[7] = {"", "mag_x", "mag_y", "mag_z", "accel_x", "accel_y", "accel_z"};
    for (int i = 1; i < 7; ++i) {
        const double limit = i < 4 ? kFieldLogMaxMicrotesla : kFieldLogMaxMps2;
        double *v = i < 4 ? &r->mag_uT[static_cast<size_t>(i - 1)] : &r->accel_mps2[static_cast<size_t>(i - 4)];
        if (!to_number(f[static_cast<size_t>(i)], -limit, limit, v))
            return std::string(names[i]) + " '" + f[static_cast<size_t>(i)] + "' is not a number in " + text(-limit) +
                   ".." + text(limit);
    }
    if (with_temperature && !to_number(f[7], kFieldLogMinC, kFieldLogMaxC, &r->temperature_C))
        return "temperature '" + f[7] + "' is not a number in " + text(kFieldLogMinC) + ".." + text(kFieldLogMaxC);
    return "";
}

}  // namespace

void write_field_log_header(std::ostream &out, bool with_temperature) {
    out << kMagic << '\n' << kColumns << (with_temperature ? kTemperatureColumn : "") << '\n';
}

void write_field_log_row(std::ostream &out, const FieldLogRow &r, bool with_temperature) {
    out << r.time_us;
    for (double v : r.mag_uT) out << ',' << text(v);
    for (double v : r.accel_mps2) out << ',' << text(v);
    if (with_temperature) out << ',' << text(r.temperature_C);
    out << '\n';
}

ParsedFieldLog parse_field_log(std::istream &in) {
    ParsedFieldLog p;
    FieldLog &log = p.log;
    const std::string with_temperature = std::string(kColumns) + kTemperatureColumn;
    bool columns = false;
    p.error = read_csv_log(
        in, kMagic, "field log",
        [&](const std::vector<std::string> &f, const std::string &line) -> std::string {
            if (!columns) {
                if (line != kColumns && line != with_temperature)
                    return "the column line must be '" + std::string(kColumns) + "', optionally followed by '" +
                           kTemperatureColumn + "'";
                log.has_temperature = line == with_temperature;
                columns = true;
                return "";
            }
            FieldLogRow r;
            if (std::string problem = read_row(f, log.has_temperature, &r); !problem.empty()) return problem;
            if (!log.rows.empty() && r.time_us <= log.rows.back().time_us)
                return "time_us " + std::to_string(r.time_us) + " does not increase";
            log.rows.push_back(r);
            return "";
        },
        [&]() -> std::string {
            if (!columns) return "no column line '" + std::string(kColumns) + "'";
            return log.rows.empty() ? "no samples" : "";
        });
    p.ok = p.error.empty();
    return p;
}

double field_log_rate_hz(const FieldLog &log) {
    std::vector<int64_t> t;
    for (const FieldLogRow &row : log.rows) t.push_back(row.time_us);
    return median_rate_hz(std::move(t));
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
    return r;
}

}  // namespace vphone::scene
