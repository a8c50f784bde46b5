#include "vphone/scene/sensor_streams.h"

#include <istream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

// Where the header put the columns read; -1 when absent.
struct Layout {
    size_t width = 0;
    int time = -1, xyz[3] = {-1, -1, -1};
    int64_t ns_per_unit = 1;
};

std::string read_header(const std::vector<std::string> &names, Layout *l) {
    l->width = names.size();
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string &n = names[i];
        int *column = nullptr;
        if (n == "time_ns" || n == "time_us") {
            column = &l->time;
            l->ns_per_unit = n == "time_us" ? 1000 : 1;
        } else if (n.size() == 1 && n[0] >= 'x' && n[0] <= 'z') {
            column = &l->xyz[n[0] - 'x'];
        }
        if (column == nullptr) continue;
        if (*column >= 0) return "the columns name " + (column == &l->time ? std::string("a time") : n) + " twice";
        *column = static_cast<int>(i);
    }
    if (l->time < 0) return "the header names no time column (time_ns or time_us)";
    for (int k = 0; k < 3; ++k)
        if (l->xyz[k] < 0) return std::string("the header names no ") + char('x' + k) + " column";
    return "";
}

std::string read_sample(const std::vector<std::string> &f, const Layout &l, double limit, StreamSample *s) {
    if (f.size() != l.width)
        return "expected " + std::to_string(l.width) + " values, found " + std::to_string(f.size());
    const std::string &time = f[static_cast<size_t>(l.time)];
    if (!csv_time(time, &s->time_ns))
        return "time '" + time + "' is not a whole number in 0.." + std::to_string(kCsvMaxTime);
    s->time_ns *= l.ns_per_unit;  // at most 2^53 * 1000, within int64
    for (int k = 0; k < 3; ++k) {
        const std::string &v = f[static_cast<size_t>(l.xyz[k])];
        if (!csv_number(v, -limit, limit, &s->value[static_cast<size_t>(k)]))
            return std::string(1, char('x' + k)) + " '" + v + "' is not a number in " + shortest_text(-limit) + ".." +
                   shortest_text(limit);
    }
    return "";
}

}  // namespace

ParsedStream parse_stream(std::istream &in, double limit) {
    ParsedStream p;
    Layout layout;
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

FieldLog pair_streams(const std::vector<StreamSample> &mag, const std::vector<StreamSample> &accel,
                      PairCounts *counts) {
    *counts = {};
    FieldLog log;
    size_t a = 0;  // the first acceleration at or after the magnetometer sample's time
    for (const StreamSample &m : mag) {
        while (a < accel.size() && accel[a].time_ns < m.time_ns) ++a;
        if (a == accel.size() || (a == 0 && accel[0].time_ns > m.time_ns)) {
            ++counts->outside;
            continue;
        }
        FieldLogRow r;
        r.time_us = m.time_ns / 1000;
        r.mag_uT = m.value;
        if (accel[a].time_ns == m.time_ns) {
            r.accel_mps2 = accel[a].value;
        } else {
            const StreamSample &before = accel[a - 1], &after = accel[a];
            const int64_t span = after.time_ns - before.time_ns;
            if (span > kMaxAccelGapNs) {
                ++counts->gap;
                continue;
            }
            const double f = static_cast<double>(m.time_ns - before.time_ns) / static_cast<double>(span);
            for (size_t k = 0; k < 3; ++k) r.accel_mps2[k] = before.value[k] + (after.value[k] - before.value[k]) * f;
        }
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
