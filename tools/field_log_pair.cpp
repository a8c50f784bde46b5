// field_log_pair: a phone's magnetometer and accelerometer streams, logged as two CSV
// files, and optionally a reference attitude's, paired into one field log that
// compass_service --replay-field runs: a row at each magnetometer sample's time, the
// others interpolated there (vphone/scene/sensor_streams.h; docs/field-log-format.md).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "vphone/scene/csv_log.h"
#include "vphone/scene/sensor_streams.h"

namespace {

namespace fs = std::filesystem;
using namespace vphone::scene;

constexpr const char *kUsage =
    "usage: field_log_pair [--reference REF.csv] MAG.csv ACCEL.csv OUT.csv\n"
    "  MAG.csv    the magnetometer's stream: uncalibrated field, uT\n"
    "  ACCEL.csv  the accelerometer's stream: acceleration with gravity, m/s^2\n"
    "  REF.csv    a reference attitude's stream (a rig's, a survey's): unit quaternions x, y, z, w\n"
    "             from phone axes to magnetic east, north, up; compass_service scores the log by it\n"
    "  each a header line naming time_ns or time_us and x, y, z (and w), other columns ignored,\n"
    "  then a sample per line; '#' lines are comments\n"
    "  OUT.csv    the field log written: a row per magnetometer sample, the acceleration\n"
    "             (and the attitude) interpolated at its time\n";

int fail(const std::string &message) {
    std::cerr << "field_log_pair: " << message << '\n';
    return 2;
}

// The stream in path, read by parse, or the message of why not (printed; 2 returned).
template <typename Parse>
int read_stream(const std::string &path, const char *what, Parse parse, ParsedStream *out) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return fail("cannot read the " + std::string(what) + " stream '" + path + "'");
    std::ifstream in(path, std::ios::binary);
    *out = parse(in);
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
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string reference_path;
    if (args.size() >= 2 && args[0] == "--reference") {
        reference_path = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.size() != 3)
        return fail("three files are needed: [--reference REF.csv] MAG.csv ACCEL.csv OUT.csv (--help says more)");
    const std::string &mag_path = args[0], &accel_path = args[1], &out_path = args[2];
    std::error_code ec;
    for (const std::string &input : {mag_path, accel_path, reference_path})
        if (fs::equivalent(input, out_path, ec))
            return fail("the field log '" + out_path + "' would overwrite the stream it is made from");
    auto sensor = [](double limit) { return [limit](std::istream &in) { return parse_stream(in, limit); }; };
    ParsedStream mag, accel, reference;
    if (int status = read_stream(mag_path, "magnetometer", sensor(kFieldLogMaxMicrotesla), &mag); status != 0)
        return status;
    if (int status = read_stream(accel_path, "accelerometer", sensor(kFieldLogMaxMps2), &accel); status != 0)
        return status;
    if (!reference_path.empty())
        if (int status = read_stream(reference_path, "reference", parse_reference_stream, &reference); status != 0)
            return status;

    PairCounts counts;
    const FieldLog log =
        pair_streams(mag.samples, accel.samples, reference_path.empty() ? nullptr : &reference.samples, &counts);
    if (log.rows.empty()) return fail("no magnetometer sample lies within the other streams' samples: nothing to pair");
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
              << " Hz" << (log.columns.reference ? ", with the reference" : "") << "); left out: " << counts.outside
              << " outside another stream's samples, " << counts.gap << " between its samples more than "
              << kMaxPairGapNs / 1000000 << " ms apart, " << counts.same_us
              << " in the microsecond of the one before\n";
    return 0;
}
