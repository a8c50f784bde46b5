// compass_service: the phone's sensor service, played against the shipped
// libkmxc_orvane.so on the virtual phone, through the sensor-service kit
// (service/kmxc_service.h), which owns the library's call order, the calibration's
// sample feed, the accuracy, anomaly and persistence rules.
//
// What stays here is the demo around the kit: its command line, the run of a scenario,
// a raw record or a field log on the scene's rig (vphone/scene), the logs it writes, the
// report and the plot.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "drivers/drivers.h"
#include "platform/platform.h"
#include "service/kmxc_service.h"
#include "tools/options.h"
#include "tools/report.h"
#include "tools/run_files.h"
#include "vphone/fault_plan.h"
#include "vphone/scene/field_log.h"
#include "vphone/scene/record.h"
#include "vphone/scene/rig.h"
#include "vphone/scene/scenario.h"
#include "vphone/scene/scripted_run.h"
#include "vphone/vphone.h"

namespace {

using namespace compass;
using namespace vphone::scene;

// A scenario's world written as a field log: with the chip's temperature, and the true
// attitude as the reference that scores a replay of it.
constexpr FieldLogColumns kFieldRecordColumns{.temperature = true, .reference = true};

// One kit event as the report sees it.
SampleOutput to_sample(const KmxcServiceEvent &e) {
    SampleOutput s;
    s.time_us = e.timestamp_ns / 1000;
    s.ms_rc = e.mag_result;
    s.gs_rc = e.accel_result;
    s.calib_rc = e.calib_result;
    s.calib_status = e.calib_status;
    s.integer_heading = e.heading_deg;
    s.heading_valid = (e.flags & KMXC_SERVICE_HEADING_VALID) != 0;
    s.orientation_valid = (e.flags & KMXC_SERVICE_ORIENTATION_VALID) != 0;
    for (int k = 0; k < 3; ++k) {
        s.euler[k] = static_cast<int>(e.orientation_deg[k]);
        s.offset[k] = e.offset[k];
    }
    s.accuracy = e.accuracy;
    s.anomaly = e.anomaly;
    s.flags = e.flags;
    s.strength_uT = e.strength_centi_uT / 100.0;
    s.dip_cos = e.dip_cos_permille / 1000.0;
    s.ratio_min = e.calib_ratio_min;
    s.ratio_mid = e.calib_ratio_mid;
    s.residual = e.calib_residual;
    s.estimator = e.estimator;
    s.coverage_cells = e.coverage_cells;
    return s;
}

// Virtual time as the notes under the per-second lines show it: seconds, "%5.1f".
std::string seconds_text(uint64_t us) {
    char b[32];
    std::snprintf(b, sizeof b, "%5.1f", static_cast<double>(us) / 1e6);
    return b;
}

// One run of the service: the phone set up as the options say, the kit started, one
// kit cycle per scenario cycle, recorded row or field log instant, then the report.
class Session {
public:
    explicit Session(const Options &opt)
        : opt_(opt),
          replaying_(!opt.replay_path.empty()),
          logged_(!opt.field_log_path.empty()),
          rate_hz_(static_cast<uint32_t>(std::lround(opt.rate_hz))),
          scenario_(opt.scenario),
          run_(rig_, scenario_, rate_hz_),
          report_(std::cout, opt.quiet) {}

    int run() {
        if (int status = read_replay(); status != 0) return status;
        if (int status = read_field_log(); status != 0) return status;
        if (int status = check_files(); status != 0) return status;
        if (int status = set_up_phone(); status != 0) return status;
        if (int status = start_service(); status != 0) return status;
        for (size_t i = 0; next_cycle(i); ++i) cycle();
        kmxc_service_stop();
        kmxc_service_saves(&saves_, &save_failures_);  // the stop's save of a newer offset included
        return finish();
    }

private:
    int read_replay();
    int read_field_log();
    int take_rate(const std::string &what, double hz, const char *advice);
    int check_files();
    int set_up_phone();
    int start_service();
    void write_record_header(const KmxcServiceStart &started);
    void log_rough_readings();
    bool next_cycle(size_t i);
    bool next_logged_cycle(size_t i);
    void cycle();
    int finish();
    int write_files();

    const Options &opt_;
    const bool replaying_;  // a raw record
    const bool logged_;     // a field log
    uint32_t rate_hz_;      // the service's rate: --rate's, or what a replay's times show
    Record replay_;
    FieldLog field_log_;
    size_t logged_row_ = 0;         // the field log's row the chips sense
    uint64_t logged_start_us_ = 0;  // virtual time of the field log's first row
    Rig rig_;
    Scenario scenario_;
    ScriptedRun run_;
    Report report_;
    std::ofstream record_;
    std::ofstream field_record_;
    RecordHeader header_;
    std::vector<vphone::PlannedFault> faults_;
    int rough_changes_ = 0;
    uint32_t saves_ = 0, save_failures_ = 0;
};

// Reads a replayed file with parse (a record's or a field log's parser); what: how the
// messages name it. 0, or the exit status of the one line said.
template <typename Parsed, typename Parse>
int read_replayed(const std::string &path, const std::string &what, Parse parse, Parsed *out) {
    std::ifstream in(path);
    if (!in) return fail("cannot read " + what + " '" + path + "': " + std::strerror(errno), 2);
    if (std::filesystem::is_directory(path))
        return fail("cannot read " + what + " '" + path + "': it is a directory", 2);
    *out = parse(in);
    return out->ok ? 0 : fail(what + " '" + path + "' " + out->error, 2);
}

int Session::read_replay() {
    if (!replaying_) return 0;
    ParsedRecord p;
    if (int status = read_replayed(opt_.replay_path, "replay file", parse_record, &p); status != 0) return status;
    replay_ = std::move(p.record);
    // The service runs at the rate the record was taken at: its windows and hold times
    // are counted in cycles.
    return take_rate("replay file '" + opt_.replay_path + "'", record_rate_hz(replay_), "");
}

int Session::read_field_log() {
    if (!logged_) return 0;
    const std::string &path = opt_.field_log_path;
    ParsedFieldLog p;
    if (int status = read_replayed(path, "field log", parse_field_log, &p); status != 0) return status;
    if (!p.warning.empty()) std::cerr << "compass_service: field log '" << path << "': " << p.warning << '\n';
    field_log_ = std::move(p.log);
    // A world sampled at the rate asked for, or at the one the log was taken at.
    if (opt_.rate_given) return 0;
    return take_rate("field log '" + path + "'", field_log_rate_hz(field_log_), " (--rate samples it at another)");
}

// The rate a replay's times show (0: a single row) becomes the service's, if it can run at
// it; what: the file as the message names it.
int Session::take_rate(const std::string &what, double hz, const char *advice) {
    if (hz <= 0) return 0;
    if (hz < KMXC_SERVICE_RATE_MIN_HZ - 0.5 || hz >= KMXC_SERVICE_RATE_MAX_HZ + 0.5)
        return fail(what + ": its rows are " + std::to_string(std::lround(1e6 / hz)) +
                        " us apart; the service runs at " + std::to_string(KMXC_SERVICE_RATE_MIN_HZ) + " to " +
                        std::to_string(KMXC_SERVICE_RATE_MAX_HZ) + " Hz" + advice,
                    2);
    rate_hz_ = static_cast<uint32_t>(std::lround(hz));
    return 0;
}

// Everything named on the command line is checked before the sandbox is touched.
int Session::check_files() {
    if (int status = check_output_paths(opt_); status != 0) return status;
    if (!opt_.record_path.empty()) {
        record_.open(opt_.record_path);
        if (!record_) return fail("cannot write record file '" + opt_.record_path + "'", 2);
    }
    if (!opt_.field_record_path.empty()) {
        field_record_.open(opt_.field_record_path);
        if (!field_record_) return fail("cannot write field log '" + opt_.field_record_path + "'", 2);
        write_field_log_header(field_record_, kFieldRecordColumns);
    }
    std::string error;
    if (!opt_.fault_plan.empty() && !vphone::parse_fault_plan(opt_.fault_plan, &faults_, &error))
        return fail("--fault: " + error, 2);
    return 0;
}

// The virtual phone: files in the sandbox, chip models on the bus sensing the start.
int Session::set_up_phone() {
    std::string error;
    const int profile = opt_.scenario.profile;
    // A scenario that starts with no stored offset empties the sandbox as --fresh does;
    // so does a field log, of a phone whose offsets are not this sandbox's.
    const bool fresh = opt_.fresh || logged_ || find_scenario(opt_.scenario.name)->fresh;
    const bool sandbox_ok = replaying_ ? rig_.open_replay_sandbox(opt_.sandbox, replay_.header, &error)
                                       : rig_.open_sandbox(opt_.sandbox, fresh, profile, &error);
    if (!sandbox_ok) return fail(error, 1);
    if (replaying_) {
        rig_.attach_replay_chips(replay_);
    } else {
        rig_.attach_chips(profile, kRigCalibration);
        if (logged_)
            rig_.sense(truth_of(field_log_.rows.front()));
        else
            run_.sense_start();
    }
    header_.has_stored = stored_calibration_line(&header_.stored);
    return 0;
}

int Session::start_service() {
    // Faults planned with --fault count from here: the service's first call.
    vphone::apply_fault_plan(faults_);
    KmxcServiceStart started{};
    if (const int32_t rc = kmxc_service_start(rate_hz_, &started); rc != 0)
        return fail(std::string("the kit could not start: kmxc_service_start returned ") +
                        kmxc_service_result_name(rc) + " (" + std::to_string(rc) + ")",
                    1);
    if (record_.is_open()) write_record_header(started);
    log_rough_readings();

    const uint8_t *rough = started.rough;
    const bool calibrated = started.offset_loaded != 0;
    std::cout << (replaying_ || logged_ ? "Replaying " + replay_input(opt_) : "Scenario " + opt_.scenario.name)
              << " at " << rate_hz_ << " Hz on the virtual phone (sandbox " << opt_.sandbox << "); rough offset "
              << int(rough[0]) << ',' << int(rough[1]) << ',' << int(rough[2])
              << (started.rough_measured ? " measured" : " from the file") << "; "
              << (calibrated ? "stored magnetic offset loaded (unreliable until the field confirms it)"
                             : "no stored magnetic offset")
              << (started.file_repaired ? "; the calibration file was empty or garbled and was reset" : "") << "\n";
    report_.set_started_calibrated(calibrated);
    return 0;
}

void Session::write_record_header(const KmxcServiceStart &started) {
    const int profile = opt_.scenario.profile;
    const MountingProfile &m = mounting_profiles()[static_cast<size_t>(profile - 1)];
    header_.profile = profile;
    for (int i = 0; i < 9; ++i) {
        header_.transformation[i] = m.accel[i];
        header_.transformation[9 + i] = m.mag[i];
        header_.calib[i] = KmxcDrvHandle()->calib[i];
    }
    for (int k = 0; k < 3; ++k) header_.rough[k] = started.rough[k];
    vphone::scene::write_record_header(record_, header_);
}

void Session::log_rough_readings() {
    for (const auto &r : rig_.take_rough_readings())
        if (record_.is_open()) write_rough_reading(record_, r);
}

// Waits for cycle i and feeds the chips: the scenario's instant, the recorded row or the
// logged instant.
bool Session::next_cycle(size_t i) {
    if (logged_) return next_logged_cycle(i);
    if (!replaying_) return run_.next();
    if (i >= replay_.rows.size()) return false;
    wait_until(static_cast<uint64_t>(replay_.rows[i].time_us));
    rig_.deliver(replay_.rows[i]);
    vphone::clear_transcript();  // the demo does not read it; keep long replays small
    return true;
}

// A field log's cycle i: at the time of the row after the one sensed last, or every
// 1/--rate s from its first row (the chips sensing the last row logged by then), until its
// last row's time. Log times count from the first cycle and run as the phone's: a cycle
// that starts late (the chips take 13 ms a cycle, a 100 Hz log's rows are 10 ms apart)
// senses the last row logged by the time it starts, as a phone would, rather than every
// row in slow motion.
bool Session::next_logged_cycle(size_t i) {
    const std::vector<FieldLogRow> &rows = field_log_.rows;
    const int64_t first = rows.front().time_us;
    if (i == 0) logged_start_us_ = vphone::now_us();
    const int64_t now = first + static_cast<int64_t>(vphone::now_us() - logged_start_us_);
    int64_t planned;
    if (opt_.rate_given) {
        planned = first + static_cast<int64_t>(i) * (1000000 / rate_hz_);
    } else {
        const size_t next = i == 0 ? 0 : logged_row_ + 1;
        if (next >= rows.size()) return false;
        planned = rows[next].time_us;
    }
    const int64_t at = std::max(planned, now);
    if (at > rows.back().time_us) return false;
    while (logged_row_ + 1 < rows.size() && rows[logged_row_ + 1].time_us <= at) ++logged_row_;
    wait_until(logged_start_us_ + static_cast<uint64_t>(at - first));
    rig_.sense(truth_of(rows[logged_row_]));
    vphone::clear_transcript();
    return true;
}

void Session::cycle() {
    const uint64_t now = vphone::now_us();
    KmxcServiceEvent e;
    kmxc_service_cycle(static_cast<int64_t>(now) * 1000, &e);
    SampleOutput s = to_sample(e);
    // The integer heading's truth is of the axis the kit says it followed.
    const HeadingAxis axis = (e.flags & KMXC_SERVICE_HEADING_Z_AXIS) != 0 ? HeadingAxis::kZ : HeadingAxis::kY;
    if (!replaying_ && !logged_) {
        s.has_truth = s.offset_known = true;
        s.phase = run_.truth().phase;
        s.truth = true_angles(run_.truth().attitude, axis);
        s.true_offset = rig_.true_offset_counts();
        s.mounted_s = run_.truth().mounted_s;
    } else if (logged_ && field_log_.columns.reference) {
        // A log's reference attitude scores the headings; its offset stays unknown.
        s.has_truth = true;
        s.phase = "logged";
        s.truth = true_angles(attitude_of(field_log_.rows[logged_row_].reference), axis);
    }
    if (record_.is_open() && s.ms_rc >= 0 && s.gs_rc >= 0)
        write_record_row(record_, RecordRow{s.time_us,
                                            {uint16_t(e.raw_mag[0]), uint16_t(e.raw_mag[1]), uint16_t(e.raw_mag[2])},
                                            uint16_t(e.raw_temperature),
                                            {e.raw_accel[0], e.raw_accel[1], e.raw_accel[2]}});
    if (field_record_.is_open())
        write_field_log_row(field_record_, row_of(s.time_us, run_.truth()), kFieldRecordColumns);
    report_.add(s);
    if (e.flags & KMXC_SERVICE_SAVE_FAILED)
        std::cout << "  t " << seconds_text(now)
                  << " s  saving the calibration file failed; the previous file is kept\n";
    if (e.flags & KMXC_SERVICE_ROUGH_CHANGED) {
        ++rough_changes_;
        std::cout << "  rough offset changed to " << int(e.rough[0]) << ',' << int(e.rough[1]) << ',' << int(e.rough[2])
                  << "; magnetic offset carried over\n";
    }
    log_rough_readings();
    saves_ = e.saves;
    save_failures_ = e.save_failures;
}

int Session::finish() {
    report_.set_saves(saves_, save_failures_, rough_changes_);
    report_.print_summary(
        persisted_text(opt_.sandbox) +
        (rough_changes_ ? "; rough offset changed " + std::to_string(rough_changes_) + " time(s)" : ""));
    int status = 0;
    if (save_failures_ > 0)
        status = fail("saving the calibration file failed " + std::to_string(save_failures_) +
                          " time(s); the file keeps what it held before",
                      3);
    if (int written = write_files(); written != 0) status = written;
    return status;
}

// The summary JSON, the outputs, the plot and the record; 3 when any failed.
int Session::write_files() {
    int status = 0;
    std::string error;
    if (!opt_.summary_json_path.empty() && !report_.write_summary_json(opt_.summary_json_path, &error))
        status = fail(error, 3);
    if (!opt_.outputs_path.empty() && !report_.write_outputs(opt_.outputs_path, &error)) status = fail(error, 3);
    if (!opt_.plot_path.empty()) {
        const std::string title = replaying_ || logged_
                                      ? "Compass service, replay of " + replay_input(opt_)
                                      : "Compass service on the virtual phone, scenario " + opt_.scenario.name;
        if (report_.write_plot(opt_.plot_path, title, &error))
            std::cout << "  plot                      " << opt_.plot_path << '\n';
        else
            status = fail(error, 3);
    }
    // A log written during the run: flushed, and named in the summary or reported.
    auto finish_log = [&status](std::ofstream &log, const std::string &path, const char *what, const char *label) {
        if (!log.is_open()) return;
        log.flush();
        if (!log)
            status = fail(std::string("writing ") + what + " '" + path + "' failed", 3);
        else
            std::cout << "  " << label << path << '\n';
    };
    finish_log(record_, opt_.record_path, "record file", "raw record                ");
    finish_log(field_record_, opt_.field_record_path, "field log", "field log                 ");
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    const ParsedOptions p = parse_options(std::vector<std::string>(argv + 1, argv + argc));
    if (!p.ok) return fail(p.error, 2);
    if (p.options.help) {
        std::cout << usage_text();
        return 0;
    }
    if (p.options.version) {
        std::cout << "compass_service " KMXC_ORVANE_VERSION "\n";
        return 0;
    }
    return Session(p.options).run();
}
