// field_log_pair: a phone's magnetometer and accelerometer streams, logged as two CSV
// files, paired into one field log that compass_service --replay-field runs: a row at
// each magnetometer sample's time, the acceleration interpolated there
// (vphone/scene/sensor_streams.h; docs/field-log-format.md).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "vphone/scene/csv_log.h"
#include "vphone/scene/sensor_streams.h"

namespace {

namespace fs = std::filesystem;
using namespace vphone::scene;

constexpr const char *kUsage =
    "usage: field_log_pair MAG.csv ACCEL.csv OUT.csv\n"
    "  MAG.csv    the magnetometer's stream: uncalibrated field, uT\n"
    "  ACCEL.csv  the accelerometer's stream: acceleration with gravity, m/s^2\n"
    "  each a header line naming time_ns or time_us and x, y, z (other columns ignored),\n"
    "  then a sample per line; '#' lines are comments\n"
    "  OUT.csv    the field log written: a row per magnetometer sample, the acceleration\n"
    "             interpolated at its time\n";

int fail(const std::string &message) {
    std::cerr << "field_log_pair: " << message << '\n';
    return 2;
}

// The stream in path, or the message of why not (printed; 2 returned).
int read_stream(const std::string &path, const char *what, double limit, ParsedStream *out) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return fail("cannot read the " + std::string(what) + " stream '" + path + "'");
    std::ifstream in(path, std::ios::binary);
    *out = parse_stream(in, limit);
    if (!in.eof() || !out->ok)
        return fail(std::string(what) + " stream '" + path + "': " + (out->ok ? "read failed" : out->error));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::cout << kUsage;
        return 0;
    }
    if (argc != 4) return fail("three files are needed: MAG.csv ACCEL.csv OUT.csv (--help says more)");
    const std::string mag_path = argv[1], accel_path = argv[2], out_path = argv[3];
    std::error_code ec;
    for (const std::string &input : {mag_path, accel_path})
        if (fs::equivalent(input, out_path, ec))
            return fail("the field log '" + out_path + "' would overwrite the stream it is made from");
    ParsedStream mag, accel;
    if (int status = read_stream(mag_path, "magnetometer", kFieldLogMaxMicrotesla, &mag); status != 0) return status;
    if (int status = read_stream(accel_path, "accelerometer", kFieldLogMaxMps2, &accel); status != 0) return status;

    PairCounts counts;
    const FieldLog log = pair_streams(mag.samples, accel.samples, &counts);
    if (log.rows.empty())
        return fail("no magnetometer sample lies within the accelerometer's samples: nothing to pair");
    if (const std::string problem = field_log_units_problem(log); !problem.empty())
        return fail("accelerometer stream '" + accel_path + "': " + problem);
    if (const std::string note = field_log_units_warning(log); !note.empty())
        std::cerr << "field_log_pair: magnetometer stream '" << mag_path << "': " << note << '\n';
    std::ofstream out(out_path, std::ios::binary | std::ios::trunc);
    write_field_log_header(out, log.columns);
    for (const FieldLogRow &r : log.rows) write_field_log_row(out, r, log.columns);
    out.flush();
    if (!out) {
        std::cerr << "field_log_pair: cannot write the field log '" << out_path << "'\n";
        return 1;
    }
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.1f", field_log_rate_hz(log));
    std::cout << "field log " << out_path << ": " << counts.paired << " rows at the magnetometer's times (" << rate
              << " Hz); left out: " << counts.outside << " outside the accelerometer's samples, " << counts.gap
              << " between accelerations more than " << kMaxAccelGapNs / 1000000 << " ms apart, " << counts.same_us
              << " in the microsecond of the one before\n";
    return 0;
}
