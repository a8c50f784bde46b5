// The sensor-stream parsers on arbitrary text: they must accept or refuse, never crash.
// What the sensor parser accepts pairs with itself sample for sample (every time is an
// acceleration's own), and the field log that makes, if its accelerations read as m/s^2,
// reads back equal; what the reference parser accepts pairs in as logged.
#include <sstream>
#include <string>

#include "vphone/scene/sensor_streams.h"

namespace {

using namespace vphone::scene;

// A refusal says why and keeps nothing; what is accepted has increasing times.
bool well_formed(const ParsedStream &p) {
    if (!p.ok) return !p.error.empty() && p.samples.empty();
    for (size_t i = 1; i < p.samples.size(); ++i)
        if (p.samples[i].time_ns <= p.samples[i - 1].time_ns) return false;
    return true;
}

// As a reference stream: every accepted quaternion passes the field log's check and
// pairs in as logged (each field sample at a reference sample's own time).
void check_as_reference(const std::string &text) {
    std::istringstream in(text);
    const ParsedStream parsed = parse_reference_stream(in);
    if (!well_formed(parsed)) __builtin_trap();
    if (!parsed.ok) return;
    PairCounts counts;
    const FieldLog log = pair_streams(parsed.samples, parsed.samples, &parsed.samples, &counts);
    for (size_t i = 0, row = 0; i < parsed.samples.size() && row < log.rows.size(); ++i) {
        const StreamSample &q = parsed.samples[i];
        if (log.rows[row].time_us != q.time_ns / 1000) continue;  // left out: a shared microsecond
        if (log.rows[row++].reference != std::array<double, 4>{q.value[0], q.value[1], q.value[2], q.w})
            __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    check_as_reference(text);
    std::istringstream in(text);
    const ParsedStream parsed = parse_stream(in, kFieldLogMaxMps2);
    if (!well_formed(parsed)) __builtin_trap();
    if (!parsed.ok) return 0;
    const auto &s = parsed.samples;
    PairCounts counts;
    const FieldLog log = pair_streams(s, s, nullptr, &counts);
    if (counts.outside != 0 || counts.gap != 0 || counts.paired + counts.same_us != static_cast<int>(s.size()))
        __builtin_trap();
    for (const FieldLogRow &r : log.rows)
        if (r.mag_uT != r.accel_mps2) __builtin_trap();
    if (!field_log_units_problem(log).empty()) return 0;  // accelerations not in m/s^2: the log is refused
    std::ostringstream out;
    write_field_log_header(out, log.columns);
    for (const FieldLogRow &r : log.rows) write_field_log_row(out, r, log.columns);
    std::istringstream again(out.str());
    const ParsedFieldLog reread = parse_field_log(again);
    if (!reread.ok || !(reread.log == log)) __builtin_trap();
    return 0;
}
