#include "vphone/scene/sensor_streams.h"

#include <cmath>
#include <istream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

// Where the header put the columns read; -1 when absent.
struct Layout {
    size_t width = 0;
    int time = -1, xyzw[4] = {-1, -1, -1, -1};
    int values = 3;  // x, y, z; a reference's w too
    int64_t ns_per_unit = 1;
};

constexpr char kValueNames[] = "xyzw";

std::string read_header(const std::vector<std::string> &names, Layout *l) {
    l->width = names.size();
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string &n = names[i];
        int *column = nullptr;
        if (n == "time_ns" || n == "time_us") {
            column = &l->time;
            l->ns_per_unit = n == "time_us" ? 1000 : 1;
        } else if (n.size() == 1) {
            for (int k = 0; k < l->values; ++k)
                if (n[0] == kValueNames[k]) column = &l->xyzw[k];
        }
        if (column == nullptr) continue;
        if (*column >= 0) return "the columns name " + (column == &l->time ? std::string("a time") : n) + " twice";
        *column = static_cast<int>(i);
    }
    if (l->time < 0) return "the header names no time column (time_ns or time_us)";
    for (int k = 0; k < l->values; ++k)
        if (l->xyzw[k] < 0) return std::string("the header names no ") + kValueNames[k] + " column";
    return "";
}

std::string read_sample(const std::vector<std::string> &f, const Layout &l, double limit, StreamSample *s) {
    if (f.size() != l.width)
        return "expected " + std::to_string(l.width) + " values, found " + std::to_string(f.size());
    const std::string &time = f[static_cast<size_t>(l.time)];
    if (!csv_time(time, &s->time_ns))
        return "time '" + time + "' is not a whole number in 0.." + std::to_string(kCsvMaxTime);
    s->time_ns *= l.ns_per_unit;  // at most 2^53 * 1000, within int64
    for (int k = 0; k < l.values; ++k) {
        const std::string &v = f[static_cast<size_t>(l.xyzw[k])];
        if (!csv_number(v, -limit, limit, k < 3 ? &s->value[static_cast<size_t>(k)] : &s->w))
            return std::string(1, kValueNames[k]) + " '" + v + "' is not a number in " + shortest_text(-limit) + ".." +
                   shortest_text(limit);
    }
    return l.values == 4 ? reference_problem({s->value[0], s->value[1], s->value[2], s->w}, "x..w") : "";
}

ParsedStream parse_values(std::istream &in, double limit, int values) {
    ParsedStream p;
    Layout layout;
    layout.values = values;
    bool header = false;
    p.error = read_csv_log(
        in, "", "sensor stream",
        [&](const std::vector<std::string> &f, const std::string &) -> std::string {
            if (!header) {
                header = true;
                return read_header(f, &layout);
            }
            StreamSample s;
            if (std::string problem = read_sample(f, layout, limit, &s); !problem.empty()) return problem;
            if (!p.samples.empty() && s.time_ns <= p.samples.back().time_ns) return "the time does not increase";
            p.samples.push_back(s);
            return "";
        },
        [&]() -> std::string {
            if (!header) return "no header line";
            return p.samples.empty() ? "no samples" : "";
        });
    p.ok = p.error.empty();
    if (!p.ok) p.samples.clear();
    return p;
}

// Where time t falls in a stream, from *next (the first sample at or after the last time
// asked) on: the samples around it, both the same at an equal time.
enum class Around { kFound, kOutside, kGap };
Around around(const std::vector<StreamSample> &s, size_t *next, int64_t t, const StreamSample **before,
              const StreamSample **after) {
    while (*next < s.size() && s[*next].time_ns < t) ++*next;
    if (*next == s.size() || (*next == 0 && s[0].time_ns > t)) return Around::kOutside;
    *after = &s[*next];
    *before = (*after)->time_ns == t ? *after : &s[*next - 1];
    return (*after)->time_ns - (*before)->time_ns > kMaxPairGapNs ? Around::kGap : Around::kFound;
}

// How far t lies from before to after: 0..1, 0 at an equal time.
double fraction(const StreamSample &before, const StreamSample &after, int64_t t) {
    return before.time_ns == after.time_ns
               ? 0.0
               : static_cast<double>(t - before.time_ns) / static_cast<double>(after.time_ns - before.time_ns);
}

Quaternion quaternion(const StreamSample &s) { return {s.value[0], s.value[1], s.value[2], s.w}; }

// The attitude f of the way from one reference sample to the next along the shorter
// rotation: the two quaternions blended and brought to unit length, the second's sign
// turned where it names its rotation the long way round. Between samples up to 10
// degrees apart this stays within 0.0013 degrees of turning at an even rate; it needs no
// trigonometry, whose last bits differ between x86-64's and armel's libraries.
Quaternion blend(const StreamSample &from, const StreamSample &to, double f) {
    const Quaternion a = quaternion(from);
    Quaternion b = quaternion(to);
    if (a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3] < 0)
        for (double &c : b) c = -c;
    Quaternion q;
    for (size_t k = 0; k < 4; ++k) q[k] = a[k] + (b[k] - a[k]) * f;
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    for (double &c : q) c /= n;
    return q;
}

}  // namespace

ParsedStream parse_stream(std::istream &in, double limit) { return parse_values(in, limit, 3); }

ParsedStream parse_reference_stream(std::istream &in) {
    return parse_values(in, 1 + kFieldLogReferenceNormTolerance, 4);
}

FieldLog pair_streams(const std::vector<StreamSample> &mag, const std::vector<StreamSample> &accel,
                      const std::vector<StreamSample> *reference, PairCounts *counts) {
    *counts = {};
    FieldLog log;
    log.columns.reference = reference != nullptr;
    size_t next_accel = 0, next_reference = 0;
    for (const StreamSample &m : mag) {
        const StreamSample *a0, *a1, *q0 = nullptr, *q1 = nullptr;
        Around found = around(accel, &next_accel, m.time_ns, &a0, &a1);
        if (reference != nullptr && found == Around::kFound)
            found = around(*reference, &next_reference, m.time_ns, &q0, &q1);
        if (found != Around::kFound) {
            ++(found == Around::kOutside ? counts->outside : counts->gap);
            continue;
        }
        FieldLogRow r;
        r.time_us = m.time_ns / 1000;
        r.mag_uT = m.value;
        const double f = fraction(*a0, *a1, m.time_ns);
        for (size_t k = 0; k < 3; ++k) r.accel_mps2[k] = a0->value[k] + (a1->value[k] - a0->value[k]) * f;
        if (q0 != nullptr) r.reference = q0 == q1 ? quaternion(*q0) : blend(*q0, *q1, fraction(*q0, *q1, m.time_ns));
        if (!log.rows.empty() && r.time_us == log.rows.back().time_us) {
            ++counts->same_us;
            continue;
        }
        log.rows.push_back(r);
        ++counts->paired;
    }
    return log;
}

}  // namespace vphone::scene
