// The sensor-stream parser on arbitrary text: it must accept or refuse, never crash.
// What it accepts pairs with itself sample for sample (every time is an acceleration's
// own), and the field log that makes, if its accelerations read as m/s^2, reads back equal.
#include <sstream>
#include <string>

#include "vphone/scene/sensor_streams.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace vphone::scene;
    std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
    const ParsedStream parsed = parse_stream(in, kFieldLogMaxMps2);
    if (!parsed.ok) {
        if (parsed.error.empty() || !parsed.samples.empty()) __builtin_trap();  // a refusal says why, keeps nothing
        return 0;
    }
    const auto &s = parsed.samples;
    for (size_t i = 1; i < s.size(); ++i)
        if (s[i].time_ns <= s[i - 1].time_ns) __builtin_trap();
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
