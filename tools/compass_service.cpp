// compass_service: the phone's sensor service, played against the shipped
// libkmxc_orvane.so on the virtual phone, through the sensor-service kit
// (service/kmxc_service.h), which owns the library's call order, the calibration's
// sample feed, the accuracy, anomaly and persistence rules.
//
// What stays here is the demo around the kit: the scripted handling of the phone, the
// chip models, raw records and replays, the report and the plot.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include "drivers/drivers.h"
#include "platform/platform.h"
#include "service/kmxc_service.h"
#include "tools/options.h"
#include "tools/phone.h"
#include "tools/record.h"
#include "tools/report.h"
#include "tools/scenario.h"
#include "vphone/fault_plan.h"
#include "vphone/vphone.h"

namespace {

using namespace compass;

// One kit event as the report sees it.
SampleOutput to_sample(const KmxcServiceEvent &e) {
    SampleOutput s;
    s.time_us = static_cast<int64_t>(e.time_us);
    s.ms_rc = e.ms_result;
    s.gs_rc = e.gs_result;
    s.calib_rc = e.calib_result;
    s.calib_status = e.calib_status;
    s.heading_int = e.heading_deg;
    s.attitude_rc = (e.flags & KMXC_SERVICE_HEADING_VALID) ? 0 : -1;
    s.rotation_rc = (e.flags & KMXC_SERVICE_ORIENTATION_VALID) ? 0 : -1;
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
    return s;
}

const char *start_error(int32_t rc) {
    switch (rc) {
    case -1: return "the kit refused the rate";
    case -2: return "magnetometer start-up failed";
    case -3: return "accelerometer start-up failed";
    case -4: return "the rough offset could not be written";
    default: return "the kit could not start";
    }
}

// ==== The demo around the service ======================================================

std::string fmt1(uint64_t us) {
    char b[32];
    std::snprintf(b, sizeof b, "%5.1f", static_cast<double>(us) / 1e6);
    return b;
}

int fail(const std::string &message, int code) {
    std::cerr << "compass_service: " << message << '\n';
    return code;
}

// The calibration file's nine fields as the run starts (the defaults when there is
// none yet), for the record's header.
bool stored_line(std::array<long long, 9> *out) {
    const auto text = vphone::read_file("/misc/sensor/kmxc_orvane.cfg");
    std::array<long long, 9> v{255, 255, 255, 0, 0, 0, 2147483647, 2147483647, 2147483647};
    if (text) {
        std::istringstream in(*text);
        char comma = ',';
        for (size_t i = 0; i < v.size(); ++i)
            if (!(in >> v[i]) || (i + 1 < v.size() && !(in >> comma))) return false;
    }
    *out = v;
    return true;
}

std::string persisted_text(const std::string &sandbox) {
    uint8_t rough[3];
    int32_t ms[3], gs[3];
    std::ostringstream o;
    if (msmachdep_LoadRoughOffset(rough) != 0 || msmachdep_LoadMsOffset(ms) != 0 || msmachdep_LoadGsOffset(gs) != 0)
        return "nothing readable";
    o << sandbox << "/misc/sensor/kmxc_orvane.cfg: rough offset " << int(rough[0]) << ',' << int(rough[1]) << ','
      << int(rough[2]) << "; magnetic offset ";
    if (ms[0] == 2147483647)
        o << "not known";
    else
        o << ms[0] << ',' << ms[1] << ',' << ms[2] << " counts";
    o << "; gravity offset " << gs[0] << ',' << gs[1] << ',' << gs[2];
    return o.str();
}

// Whether path names something inside dir (symbolic links followed as far as they exist).
bool is_inside(const std::string &path, const std::string &dir) {
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path p = fs::weakly_canonical(fs::absolute(path, ec), ec);
    const fs::path d = fs::weakly_canonical(fs::absolute(dir, ec), ec);
    if (ec) return false;
    auto pi = p.begin(), di = d.begin();
    for (; di != d.end() && !di->empty(); ++pi, ++di)
        if (pi == p.end() || *pi != *di) return false;
    return pi != p.end();
}

int run(const Options &opt) {
    const bool replaying = !opt.replay_path.empty();
    Record replay;
    if (replaying) {
        std::ifstream in(opt.replay_path);
        if (!in) return fail("cannot read replay file '" + opt.replay_path + "': " + std::strerror(errno), 2);
        if (std::filesystem::is_directory(opt.replay_path))
            return fail("cannot read replay file '" + opt.replay_path + "': it is a directory", 2);
        ParsedRecord p = parse_record(in);
        if (!p.ok) return fail("replay file '" + opt.replay_path + "' " + p.error, 2);
        replay = std::move(p.record);
    }

    // Output files must be writable before the run starts (and before the sandbox is
    // touched), not after it; and none of them may be the record being replayed.
    for (const std::string *path : {&opt.outputs_path, &opt.plot_path, &opt.summary_json_path, &opt.record_path}) {
        std::error_code ec;
        if (replaying && !path->empty() && std::filesystem::equivalent(*path, opt.replay_path, ec))
            return fail("'" + *path + "' is the replay file; name another file", 2);
    }
    // The sandbox is the phone's file system, emptied by --fresh and by every replay: a
    // file named on the command line may not live in it, or it would be lost (a record
    // written there would go to a file already deleted).
    for (const std::string *path :
         {&opt.replay_path, &opt.outputs_path, &opt.plot_path, &opt.summary_json_path, &opt.record_path})
        if (!path->empty() && is_inside(*path, opt.sandbox))
            return fail("'" + *path + "' is inside the sandbox '" + opt.sandbox +
                            "', which --fresh and replays empty; name a file outside it",
                        2);
    for (const std::string *path : {&opt.outputs_path, &opt.plot_path, &opt.summary_json_path})
        if (!path->empty() && !std::ofstream(*path)) return fail("cannot write '" + *path + "'", 2);
    std::ofstream record;
    if (!opt.record_path.empty()) {
        record.open(opt.record_path);
        if (!record) return fail("cannot write record file '" + opt.record_path + "'", 2);
    }

    std::vector<vphone::PlannedFault> faults;
    std::string error;
    if (!opt.fault_plan.empty() && !vphone::parse_fault_plan(opt.fault_plan, &faults, &error))
        return fail("--fault: " + error, 2);

    // The virtual phone: files in the sandbox, chip models on the bus.
    Phone phone;
    const ScenarioSettings &settings = opt.scenario;
    const bool sandbox_ok = replaying ? phone.open_replay_sandbox(opt.sandbox, replay.header, &error)
                                      : phone.open_sandbox(opt.sandbox, opt.fresh, settings.profile, &error);
    if (!sandbox_ok) return fail(error, 1);
    if (replaying) {
        phone.attach_replay_chips(replay.header);
        for (const auto &r : replay.rough_readings) phone.queue_rough(r);
    } else {
        phone.attach_chips(settings.profile, kDemoCalib);
    }
    Scenario scenario(settings);
    if (!replaying) phone.sense(scenario.sample(0.0));  // what the chips sense at start-up

    RecordHeader header;
    header.has_stored = stored_line(&header.stored);

    // Faults planned with --fault count from here: the service's first call.
    vphone::apply_fault_plan(faults);

    // The service starts.
    KmxcServiceStart started{};
    const uint32_t rate = static_cast<uint32_t>(std::lround(opt.rate_hz));
    if (const int32_t rc = kmxc_service_start(rate, &started); rc != 0)
        return fail(std::string(start_error(rc)) + " (kmxc_service_start returned " + std::to_string(rc) + ")", 1);
    const uint8_t *rough = started.rough;
    const bool measured = started.rough_measured != 0;
    const bool calibrated = started.offset_loaded != 0;
    if (record.is_open()) {
        const MountingProfile &m = mounting_profiles()[static_cast<size_t>(settings.profile - 1)];
        header.profile = settings.profile;
        for (int i = 0; i < 9; ++i) {
            header.transformation[i] = m.accel[i];
            header.transformation[9 + i] = m.mag[i];
            header.calib[i] = KmxcDrvHandle()->calib[i];
        }
        for (int k = 0; k < 3; ++k) header.rough[k] = rough[k];
        write_record_header(record, header);
    }
    auto log_rough_readings = [&] {
        for (const auto &r : phone.take_rough_readings())
            if (record.is_open()) write_rough_reading(record, r);
    };
    log_rough_readings();

    std::cout << (replaying ? "Replaying " + opt.replay_path : "Scenario " + settings.name) << " on the virtual phone"
              << " (sandbox " << opt.sandbox << "); rough offset " << int(rough[0]) << ',' << int(rough[1]) << ','
              << int(rough[2]) << (measured ? " measured" : " from the file") << "; "
              << (calibrated ? "stored magnetic offset loaded (unreliable until the field confirms it)"
                             : "no stored magnetic offset")
              << (started.file_repaired ? "; the calibration file was empty or garbled and was reset" : "") << "\n";

    Report report(std::cout, opt.quiet);
    report.set_started_calibrated(calibrated);
    const uint64_t period_us = static_cast<uint64_t>(1e6 / opt.rate_hz);
    const uint64_t end_us = static_cast<uint64_t>(scenario.duration_s() * 1e6);
    const size_t cycles = replaying ? replay.rows.size() : SIZE_MAX;
    int rough_changes = 0;
    uint32_t saves = 0, save_failures = 0;
    for (size_t i = 0; i < cycles; ++i) {
        // Wait (in virtual time) for the cycle's start. A cycle lasts at least the
        // magnetometer's 13 ms, so at high rates the cycles start late, not more often.
        const uint64_t due = replaying ? static_cast<uint64_t>(replay.rows[i].time_us) : i * period_us;
        // usleep takes less than a second (and useconds_t may be 32 bits): a long gap
        // in a recording is waited out in steps.
        // A failed usleep ends the wait rather than spinning on it.
        while (vphone::now_us() < due)
            if (usleep(static_cast<useconds_t>(std::min<uint64_t>(due - vphone::now_us(), 999999))) != 0) break;
        const uint64_t now = vphone::now_us();
        if (!replaying && now > end_us) break;
        Truth truth;
        if (replaying)
            phone.deliver(replay.rows[i]);
        else
            phone.sense(truth = scenario.sample(static_cast<double>(now) / 1e6));

        vphone::clear_transcript();  // the demo does not read it; keep long replays small
        KmxcServiceEvent e;
        kmxc_service_cycle(now, &e);
        SampleOutput s = to_sample(e);
        if (!replaying) {
            s.has_truth = true;
            s.phase = truth.phase;
            s.truth = true_angles(truth.attitude);
            s.true_offset = phone.true_offset_counts();
        }
        if (record.is_open() && s.ms_rc >= 0 && s.gs_rc >= 0)
            write_record_row(record, RecordRow{s.time_us,
                                               {uint16_t(e.raw_ms[0]), uint16_t(e.raw_ms[1]), uint16_t(e.raw_ms[2])},
                                               uint16_t(e.raw_temperature),
                                               {e.raw_gs[0], e.raw_gs[1], e.raw_gs[2]}});
        report.add(s);
        if (e.flags & KMXC_SERVICE_SAVE_FAILED)
            std::cout << "  t " << fmt1(now) << " s  saving the calibration file failed; the previous file is kept\n";
        if (e.flags & KMXC_SERVICE_ROUGH_CHANGED) {
            ++rough_changes;
            std::cout << "  rough offset changed to " << int(e.rough[0]) << ',' << int(e.rough[1]) << ','
                      << int(e.rough[2]) << "; magnetic offset carried over\n";
        }
        log_rough_readings();
        saves = e.saves;
        save_failures = e.save_failures;
    }
    kmxc_service_stop();
    kmxc_service_saves(&saves, &save_failures);  // the stop's save of a newer offset included
    report.set_saves(saves, save_failures, rough_changes);

    report.print_summary(persisted_text(opt.sandbox) +
                         (rough_changes ? "; rough offset changed " + std::to_string(rough_changes) + " time(s)" : ""));
    int status = 0;
    if (save_failures > 0)
        status = fail("saving the calibration file failed " + std::to_string(save_failures) +
                          " time(s); the file keeps what it held before",
                      3);
    if (!opt.summary_json_path.empty() && !report.write_summary_json(opt.summary_json_path, &error))
        status = fail(error, 3);
    if (!opt.outputs_path.empty() && !report.write_outputs(opt.outputs_path, &error)) status = fail(error, 3);
    if (!opt.plot_path.empty()) {
        const std::string title = replaying ? "Compass service, replay of " + opt.replay_path
                                            : "Compass service on the virtual phone, scenario " + settings.name;
        if (report.write_plot(opt.plot_path, title, &error))
            std::cout << "  plot                      " << opt.plot_path << '\n';
        else
            status = fail(error, 3);
    }
    if (record.is_open()) {
        record.flush();
        if (!record)
            status = fail("writing record file '" + opt.record_path + "' failed", 3);
        else
            std::cout << "  raw record                " << opt.record_path << '\n';
    }
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
    return run(p.options);
}
