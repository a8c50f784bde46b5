// compass_service: the phone's sensor service, played against the shipped
// libkmxc_orvane.so on the virtual phone.
//
// This file is the reference integration: the order in which a sensor service calls
// the library, from start-up to shut-down, with nothing else in the way. Read the
// functions in order: start(), set_rough_offset(), load_stored_offsets(), cycle(),
// change_rough_offset(), stop(). Everything around them (the scripted handling of
// the phone, the chip models, raw records, the report and the plot) lives in the
// other files of tools/.
//
// Rules the library sets for its caller, all honoured here: one thread, one call at
// a time; the service owns every record it passes; offsets move between the
// library's layers only through the service (calibration -> orientation -> file).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "platform/platform.h"
#include "tools/options.h"
#include "tools/phone.h"
#include "tools/record.h"
#include "tools/report.h"
#include "tools/scenario.h"
#include "vphone/vphone.h"

namespace {

using namespace compass;

// ---- 1. Start ---------------------------------------------------------------------
// Library state first, then both drivers (the first of them opens /dev/compass; each
// reads its mounting matrix from the transformation profile).
bool start(std::string *error)
{
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    const int ms = KmxAxesDrvMsInit();
    if (ms != 0) {
        *error = "magnetometer start-up failed: KmxAxesDrvMsInit returned " + std::to_string(ms);
        return false;
    }
    const int gs = KmxAxesDrvGsInit();
    if (gs != 0) {
        *error = "accelerometer start-up failed: KmxAxesDrvGsInit returned " + std::to_string(gs);
        return false;
    }
    return true;
}

// ---- 2. Rough offset ----------------------------------------------------------------
// The magnetometer measures nothing (-126) until a rough offset is written. Use the
// stored one when it is valid; otherwise let the driver measure one. Store what was
// written. Returns whether it was measured.
bool set_rough_offset(uint8_t rough[3], bool *measured, std::string *error)
{
    uint8_t stored[3] = {255, 255, 255};
    const bool use_stored = msmachdep_LoadRoughOffset(stored) == 0 && KmxAxesLibIsValidRoughOffset(stored);
    const int rc = KmxAxesDrvMsSetRoughOffset(use_stored ? stored : nullptr);
    if (rc != 0) {
        *error = "rough offset: KmxAxesDrvMsSetRoughOffset returned " + std::to_string(rc);
        return false;
    }
    KmxAxesDrvMsGetWrittenRoughOffset(rough);
    msmachdep_SaveRoughOffset(rough);
    *measured = !use_stored;
    return true;
}

// ---- 3. Stored offsets --------------------------------------------------------------
// A valid stored magnetic offset goes to the orientation library and to the
// calibration (which then refines it instead of starting from zero). Returns whether
// one was loaded.
bool load_stored_offsets()
{
    bool calibrated = false;
    int32_t ms[3];
    if (msmachdep_LoadMsOffset(ms) == 0) {
        const KmxAxesData offset{ms[0], ms[1], ms[2]};
        if (KmxAxesLibIsValidMsOffset(&offset)) {
            KmxAxesLibSetMsOffset(&offset);
            KmxAxesMsCalibSetOffset(&offset);
            calibrated = true;
        }
    }
    int32_t gs[3];
    if (msmachdep_LoadGsOffset(gs) == 0) {
        const KmxAxesData offset{gs[0], gs[1], gs[2]};
        KmxAxesLibSetGsOffset(&offset);
    }
    return calibrated;
}

// ---- 4. One cycle -------------------------------------------------------------------
// Measure both chips, feed the calibration, move a new offset across, and ask for
// the attitude both ways. raw receives the chips' raw values (for the record).
SampleOutput cycle(KmxcDrvRawData *raw)
{
    SampleOutput s;
    KmxAxesData ms = KmxAxesData_Constructor, gs = KmxAxesData_Constructor;
    s.ms_rc = KmxAxesDrvMsMeasure(&ms, raw); // waits 13 ms for the conversion
    s.gs_rc = KmxAxesDrvGsMeasure(&gs, raw);
    if (s.ms_rc < 0 || s.gs_rc < 0) return s; // busy or bus failure: try next cycle

    // The calibration takes the magnetic vector before any offset is subtracted.
    s.calib_rc = KmxAxesMsCalibUpdate(&ms);
    s.calib_status = KmxAxesMsCalibGetStatus();
    if (s.calib_rc == 63 || (s.calib_rc > 0 && (s.calib_rc & 0x38) != 0)) {
        KmxAxesData offset;
        KmxAxesMsCalibGetOffset(&offset);
        KmxAxesLibSetMsOffset(&offset);
        const int32_t save[3] = {offset.x, offset.y, offset.z};
        msmachdep_SaveMsOffset(save);
    }

    // Integer path: Q12 attitude rows, then the smoothed heading in whole degrees.
    KmxAxesAttitude attitude;
    s.attitude_rc = KmxAxesLibGetAttitude(&ms, &gs, &attitude);
    uint16_t heading = 0;
    KmxAxesLibCalcDirection(&attitude, &heading, kDirectionThreshold);
    s.heading_int = heading;

    // Double path: physical units, rotation matrix, Euler angles (azimuth filtered).
    double gravity[3], field[3], matrix[9], euler[3] = {0, 0, 0};
    KmxAxesLibGetGravityEarth(&gs, gravity);
    KmxAxesLibGetMagneticT(&ms, field);
    s.rotation_rc = KmxAxesLibGetRotationMatrix(gravity, field, matrix);
    if (s.rotation_rc == 0) KmxAxesLibGetEuler(matrix, euler);
    for (int k = 0; k < 3; ++k) s.euler[k] = static_cast<int>(euler[k]);

    KmxAxesData offset;
    KmxAxesLibGetMsOffset(&offset);
    s.offset = {offset.x, offset.y, offset.z};
    return s;
}

// ---- 5. Rough-offset change -----------------------------------------------------------
// A channel out of range means the field moved far from where the rough offset put
// it (a magnet nearby, say). Measure a new rough offset and carry the magnetic offset
// over to it, so the calibration need not start again.
bool change_rough_offset(uint8_t rough[3])
{
    uint8_t fresh[3];
    if (KmxAxesDrvMsSetRoughOffset(nullptr) != 0) return false; // measure and write
    KmxAxesDrvMsGetWrittenRoughOffset(fresh);
    KmxAxesData offset, carried;
    KmxAxesLibGetMsOffset(&offset);
    KmxAxesLibRecalcMsOffset(&offset, &carried, rough, fresh);
    if (KmxAxesLibIsValidMsOffset(&carried)) {
        KmxAxesLibSetMsOffset(&carried);
        KmxAxesMsCalibSetOffset(&carried);
        const int32_t save[3] = {carried.x, carried.y, carried.z};
        msmachdep_SaveMsOffset(save);
    }
    msmachdep_SaveRoughOffset(fresh);
    for (int k = 0; k < 3; ++k) rough[k] = fresh[k];
    return true;
}

// ---- 6. Stop ------------------------------------------------------------------------
// The last of the two closes /dev/compass.
void stop()
{
    KmxAxesDrvMsTerm();
    KmxAxesDrvGsTerm();
}

// ==== The demo around the service ======================================================

int fail(const std::string &message, int code)
{
    std::cerr << "compass_service: " << message << '\n';
    return code;
}

// The calibration file's nine fields as the run starts (the defaults when there is
// none yet), for the record's header.
bool stored_line(std::array<long long, 9> *out)
{
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

std::string persisted_text(const std::string &sandbox)
{
    uint8_t rough[3];
    int32_t ms[3], gs[3];
    std::ostringstream o;
    if (msmachdep_LoadRoughOffset(rough) != 0 || msmachdep_LoadMsOffset(ms) != 0 || msmachdep_LoadGsOffset(gs) != 0)
        return "nothing readable";
    o << sandbox << "/misc/sensor/kmxc_orvane.cfg: rough offset " << int(rough[0]) << ',' << int(rough[1]) << ','
      << int(rough[2]) << "; magnetic offset ";
    if (ms[0] == 2147483647) o << "not known";
    else o << ms[0] << ',' << ms[1] << ',' << ms[2] << " counts";
    o << "; gravity offset " << gs[0] << ',' << gs[1] << ',' << gs[2];
    return o.str();
}

int run(const Options &opt)
{
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

    // Output files must be writable before the run starts, not after it.
    for (const std::string *path : {&opt.outputs_path, &opt.plot_path})
        if (!path->empty() && !std::ofstream(*path)) return fail("cannot write '" + *path + "'", 2);

    // The virtual phone: files in the sandbox, chip models on the bus.
    Phone phone;
    std::string error;
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
    if (!replaying) phone.sense(scenario.sample(0.0)); // what the chips sense at start-up

    RecordHeader header;
    header.has_stored = stored_line(&header.stored);

    // The service starts.
    uint8_t rough[3];
    bool measured = false;
    if (!start(&error) || !set_rough_offset(rough, &measured, &error)) return fail(error, 1);
    const bool calibrated = load_stored_offsets();

    std::ofstream record;
    if (!opt.record_path.empty()) {
        record.open(opt.record_path);
        if (!record) return fail("cannot write record file '" + opt.record_path + "'", 2);
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
              << (calibrated ? "starting from the stored magnetic offset" : "no stored magnetic offset") << "\n";

    Report report(std::cout, opt.quiet);
    report.set_started_calibrated(calibrated);
    const uint64_t period_us = static_cast<uint64_t>(1e6 / opt.rate_hz);
    const size_t cycles = replaying ? replay.rows.size()
                                    : static_cast<size_t>(scenario.duration_s() * opt.rate_hz) + 1;
    uint64_t last_rough_change_us = 0;
    int rough_changes = 0;
    for (size_t i = 0; i < cycles; ++i) {
        // Wait (in virtual time) for the cycle's start.
        const uint64_t due = replaying ? static_cast<uint64_t>(replay.rows[i].time_us) : i * period_us;
        if (vphone::now_us() < due) usleep(static_cast<useconds_t>(due - vphone::now_us()));
        const uint64_t now = vphone::now_us();
        Truth truth;
        if (replaying) phone.deliver(replay.rows[i]);
        else phone.sense(truth = scenario.sample(static_cast<double>(now) / 1e6));

        vphone::clear_transcript(); // the demo does not read it; keep long replays small
        KmxcDrvRawData raw{};
        SampleOutput s = cycle(&raw);
        s.time_us = static_cast<int64_t>(now);
        if (!replaying) {
            s.has_truth = true;
            s.phase = truth.phase;
            s.truth = true_angles(truth.attitude);
            s.true_offset = phone.true_offset_counts();
        }
        if (record.is_open() && s.ms_rc >= 0 && s.gs_rc >= 0)
            write_record_row(record, RecordRow{s.time_us, {raw.ms[0], raw.ms[1], raw.ms[2]}, raw.temperature,
                                               {raw.gs[0], raw.gs[1], raw.gs[2]}});
        report.add(s);

        // Channels out of range: move the rough offset (at most once a second).
        if (s.ms_rc > 0 && (rough_changes == 0 || now - last_rough_change_us >= 1000000)) {
            last_rough_change_us = now;
            if (change_rough_offset(rough)) {
                ++rough_changes;
                std::cout << "  rough offset changed to " << int(rough[0]) << ',' << int(rough[1]) << ','
                          << int(rough[2]) << "; magnetic offset carried over\n";
            }
            log_rough_readings();
        }
    }
    stop();

    report.print_summary(persisted_text(opt.sandbox) +
                         (rough_changes ? "; rough offset changed " + std::to_string(rough_changes) + " time(s)" : ""));
    int status = 0;
    if (!opt.outputs_path.empty() && !report.write_outputs(opt.outputs_path, &error)) status = fail(error, 3);
    if (!opt.plot_path.empty()) {
        const std::string title = replaying ? "Compass service, replay of " + opt.replay_path
                                            : "Compass service on the virtual phone, scenario " + settings.name;
        if (report.write_plot(opt.plot_path, title, &error)) std::cout << "  plot                      " << opt.plot_path << '\n';
        else status = fail(error, 3);
    }
    if (record.is_open()) {
        record.flush();
        if (!record) status = fail("writing record file '" + opt.record_path + "' failed", 3);
        else std::cout << "  raw record                " << opt.record_path << '\n';
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
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
