#include "tools/record.h"

#include <charconv>
#include <istream>
#include <type_traits>
#include <ostream>

namespace compass {
namespace {

constexpr const char *kMagic = "# kmxc raw record 1";
constexpr const char *kColumns = "time_us,ms0,ms1,ms2,temperature,gs_x,gs_y,gs_z";

std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> f{""};
    for (char c : line) {
        if (c == ',')
            f.emplace_back();
        else if (c != '\r' && c != ' ' && c != '\t')
            f.back() += c;
    }
    return f;
}

bool to_int(const std::string &s, long long lo, long long hi, long long *out) {
    const char *b = s.data(), *e = s.data() + s.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, *out);
    return r.ec == std::errc() && r.ptr == e && b != e && *out >= lo && *out <= hi;
}

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

ParsedRecord parse_record(std::istream &in) {
    ParsedRecord p;
    RecordHeader &h = p.record.header;
    std::string line;
    int n = 0;
    bool magic = false, columns = false, have_calib = false, have_rough = false, have_transformation = false;
    auto fail = [&](const std::string &why) {
        p.error = "line " + std::to_string(n) + ": " + why;
        return p;
    };
    // Reads fields 1.. of a header line into v, each within lo..hi.
    auto fields = [&](const std::vector<std::string> &f, auto &v, long long lo, long long hi) -> std::string {
        if (f.size() != v.size() + 1)
            return "'" + f[0] + "' needs " + std::to_string(v.size()) + " values, found " +
                   std::to_string(f.size() - 1);
        for (size_t i = 0; i < v.size(); ++i) {
            long long x = 0;
            if (!to_int(f[i + 1], lo, hi, &x))
                return "'" + f[0] + "' value " + std::to_string(i + 1) + " ('" + f[i + 1] +
                       "') is not a whole number in " + std::to_string(lo) + ".." + std::to_string(hi);
            v[i] = static_cast<std::remove_reference_t<decltype(v[0])>>(x);
        }
        return "";
    };

    while (std::getline(in, line)) {
        ++n;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!magic) {
            if (line != kMagic) return fail("not a raw record: the first line must be '" + std::string(kMagic) + "'");
            magic = true;
            continue;
        }
        if (line.empty() || line[0] == '#') continue;
        const auto f = split(line);
        if (!columns) {
            std::string e;
            if (f[0] == "profile") {
                std::array<int, 1> v{};
                e = fields(f, v, 1, 255);
                h.profile = v[0];
            } else if (f[0] == "transformation") {
                e = fields(f, h.transformation, -1, 1);
                have_transformation = true;
            } else if (f[0] == "calib") {
                e = fields(f, h.calib, 0, 255);
                have_calib = true;
            } else if (f[0] == "rough") {
                e = fields(f, h.rough, 0, 31);
                have_rough = true;
            } else if (f[0] == "stored") {
                e = fields(f, h.stored, -2147483648LL, 2147483647LL);
                h.has_stored = true;
            } else if (line == kColumns) {
                if (!have_calib || !have_rough || !have_transformation)
                    return fail("the header needs 'transformation', 'calib' and 'rough' lines before the columns");
                columns = true;
            } else {
                return fail("unknown header line '" + f[0] + "'");
            }
            if (!e.empty()) return fail(e);
            continue;
        }
        if (f[0] == "rough_reading") {
            std::array<int, 3> reading{};
            const std::string e = fields(f, reading, 0, 255);
            if (!e.empty()) return fail(e);
            p.record.rough_readings.push_back(reading);
            continue;
        }
        if (f.size() != 8) return fail("expected 8 values, found " + std::to_string(f.size()));
        RecordRow r;
        long long v[8];
        static const char *names[8] = {"time_us", "ms0", "ms1", "ms2", "temperature", "gs_x", "gs_y", "gs_z"};
        static const long long lo[8] = {0, 0, 0, 0, 0, -32768, -32768, -32768};
        static const long long hi[8] = {(1LL << 53), 2047, 2047, 2047, 2047, 32767, 32767, 32767};
        for (int i = 0; i < 8; ++i)
            if (!to_int(f[i], lo[i], hi[i], &v[i]))
                return fail(std::string(names[i]) + " '" + f[i] + "' is not a whole number in " +
                            std::to_string(lo[i]) + ".." + std::to_string(hi[i]));
        r.time_us = v[0];
        if (!p.record.rows.empty() && r.time_us <= p.record.rows.back().time_us)
            return fail("time_us " + f[0] + " does not increase");
        for (int k = 0; k < 3; ++k) {
            r.ms[k] = static_cast<int>(v[1 + k]);
            r.gs[k] = static_cast<int>(v[5 + k]);
        }
        r.temperature = static_cast<int>(v[4]);
        p.record.rows.push_back(r);
    }
    if (!magic) {
        p.error = "empty file";
        return p;
    }
    if (!columns) return fail("no column line '" + std::string(kColumns) + "'");
    if (p.record.rows.empty()) return fail("no samples");
    p.ok = true;
    return p;
}

}  // namespace compass
