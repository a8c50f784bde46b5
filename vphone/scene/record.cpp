#include "vphone/scene/record.h"

#include <istream>
#include <ostream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

constexpr const char *kMagic = "# kmxc raw record 1";
constexpr const char *kColumns = "time_us,ms0,ms1,ms2,temperature,gs_x,gs_y,gs_z";

template <size_t N, typename T>
void join(std::ostream &out, const char *key, const std::array<T, N> &v) {
    out << key;
    for (const T &x : v) out << ',' << x;
    out << '\n';
}

}  // namespace

void write_record_header(std::ostream &out, const RecordHeader &h) {
    out << kMagic << '\n';
    out << "profile," << h.profile << '\n';
    join(out, "transformation", h.transformation);
    join(out, "calib", h.calib);
    join(out, "rough", h.rough);
    if (h.has_stored) join(out, "stored", h.stored);
    out << kColumns << '\n';
}

void write_record_row(std::ostream &out, const RecordRow &r) {
    out << r.time_us << ',' << r.ms[0] << ',' << r.ms[1] << ',' << r.ms[2] << ',' << r.temperature << ',' << r.gs[0]
        << ',' << r.gs[1] << ',' << r.gs[2] << '\n';
}

void write_rough_reading(std::ostream &out, const std::array<int, 3> &reading) { join(out, "rough_reading", reading); }

namespace {

// Reads fields 1.. of a header line into v, each within lo..hi; "" or the problem.
template <typename Array>
std::string read_fields(const std::vector<std::string> &f, Array &v, long long lo, long long hi) {
    if (f.size() != v.size() + 1)
        return "'" + f[0] + "' needs " + std::to_string(v.size()) + " values, found " + std::to_string(f.size() - 1);
    for (size_t i = 0; i < v.size(); ++i) {
        long long x = 0;
        if (!csv_number(f[i + 1], lo, hi, &x))
            return "'" + f[0] + "' value " + std::to_string(i + 1) + " ('" + f[i + 1] + "') is not a whole number in " +
                   std::to_string(lo) + ".." + std::to_string(hi);
        v[i] = static_cast<typename Array::value_type>(x);
    }
    return "";
}

// The record read so far and what the header has named; each line's reader returns
// "" or the problem with it.
struct RecordReader {
    Record record;
    bool columns = false, have_calib = false, have_rough = false, have_transformation = false;

    std::string header_line(const std::vector<std::string> &f, const std::string &line) {
        RecordHeader &h = record.header;
        if (f[0] == "profile") {
            std::array<int, 1> v{};
            const std::string e = read_fields(f, v, 1, 255);
            h.profile = v[0];
            return e;
        }
        if (f[0] == "transformation") {
            have_transformation = true;
            return read_fields(f, h.transformation, -1, 1);
        }
        if (f[0] == "calib") {
            have_calib = true;
            return read_fields(f, h.calib, 0, 255);
        }
        if (f[0] == "rough") {
            have_rough = true;
            return read_fields(f, h.rough, 0, 31);
        }
        if (f[0] == "stored") {
            h.has_stored = true;
            return read_fields(f, h.stored, -2147483648LL, 2147483647LL);
        }
        if (line != kColumns) return "unknown header line '" + f[0] + "'";
        if (!have_calib || !have_rough || !have_transformation)
            return "the header needs 'transformation', 'calib' and 'rough' lines before the columns";
        columns = true;
        return "";
    }

    std::string rough_reading_line(const std::vector<std::string> &f) {
        std::array<int, 3> reading{};
        const std::string e = read_fields(f, reading, 0, 255);
        if (e.empty()) record.rough_readings.push_back(reading);
        return e;
    }

    std::string data_line(const std::vector<std::string> &f) {
        if (f.size() != 8) return "expected 8 values, found " + std::to_string(f.size());
        static const char *names[8] = {"time_us", "ms0", "ms1", "ms2", "temperature", "gs_x", "gs_y", "gs_z"};
        static const long long lo[8] = {0, 0, 0, 0, 0, -32768, -32768, -32768};
        static const long long hi[8] = {kCsvMaxTime, 2047, 2047, 2047, 2047, 32767, 32767, 32767};
        long long v[8];
        for (int i = 0; i < 8; ++i)
            if (!csv_number(f[i], lo[i], hi[i], &v[i]))
                return std::string(names[i]) + " '" + f[i] + "' is not a whole number in " + std::to_string(lo[i]) +
                       ".." + std::to_string(hi[i]);
        RecordRow r;
        r.time_us = v[0];
        if (!record.rows.empty() && r.time_us <= record.rows.back().time_us)
            return "time_us " + f[0] + " does not increase";
        for (int k = 0; k < 3; ++k) {
            r.ms[k] = static_cast<int>(v[1 + k]);
            r.gs[k] = static_cast<int>(v[5 + k]);
        }
        r.temperature = static_cast<int>(v[4]);
        record.rows.push_back(r);
        return "";
    }
};

}  // namespace

ParsedRecord parse_record(std::istream &in) {
    ParsedRecord p;
    RecordReader reader;
    p.error = read_csv_log(
        in, kMagic, "raw record",
        [&reader](const std::vector<std::string> &f, const std::string &line) {
            if (!reader.columns) return reader.header_line(f, line);
            if (f[0] == "rough_reading") return reader.rough_reading_line(f);
            return reader.data_line(f);
        },
        [&reader]() -> std::string {
            if (!reader.columns) return "no column line '" + std::string(kColumns) + "'";
            return reader.record.rows.empty() ? "no samples" : "";
        });
    p.ok = p.error.empty();
    p.record = std::move(reader.record);
    return p;
}

double record_rate_hz(const Record &r) {
    std::vector<int64_t> t;
    for (const RecordRow &row : r.rows) t.push_back(row.time_us);
    return median_rate_hz(std::move(t));
}

}  // namespace vphone::scene
