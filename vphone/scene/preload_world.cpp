// A moving phone for programs run with LD_PRELOAD: preloaded after libkmxc_vphone.so,
// this library reads the environment when it is loaded and puts a scenario's phone
// (or a raw record, or a field log) on the simulated bus, so a sensor service written
// against the shipped library sees the phone being handled in virtual time.
//
//   VPHONE_SCENARIO=NAME       a scenario (default, slow, magnet, ...; scenario.h)
//   VPHONE_REPLAY=FILE         or a raw record written by compass_service --record
//   VPHONE_FIELD_LOG=FILE      or a field log: any phone's uT and m/s^2 (field_log.h)
//   VPHONE_OPTIONS="--field 30 --seed 2"   the world's options (scene_options.h)
//
// The chips sense the scenario (or the last logged row due; a log's times count from
// the load) at the virtual time of each bus transfer. Bad settings end the program at
// load with a one-line message and status 2. Files go to the sandbox (VPHONE_ROOT):
// the transformation profile, and for a replay its calibration file; a field log, of
// another phone, starts without one.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "vphone/kmxc_model.h"
#include "vphone/scene/field_log.h"
#include "vphone/scene/record.h"
#include "vphone/scene/rig.h"
#include "vphone/scene/scenario.h"
#include "vphone/scene/scene_options.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace {

using namespace vphone::scene;

// The scene the preloaded program's chips sense: a scenario, a record's rows or a field
// log's.
struct PreloadedScene {
    Rig rig;
    Scenario scenario;
    Record replay;
    FieldLog log;
    bool replaying = false, logged = false;
    size_t row = 0;
    uint64_t last_us = UINT64_MAX;

    explicit PreloadedScene(const ScenarioSettings &s) : scenario(s) {}

    // What the chips sense now: the scenario's instant, or the last recorded row due.
    void catch_up() {
        const uint64_t now = vphone::now_us();
        if (now == last_us) return;
        last_us = now;
        if (replaying) {
            while (row + 1 < replay.rows.size() && static_cast<uint64_t>(replay.rows[row + 1].time_us) <= now) ++row;
            if (!replay.rows.empty()) rig.deliver(replay.rows[row]);
        } else if (logged) {
            const int64_t first = log.rows.front().time_us;
            while (row + 1 < log.rows.size() && static_cast<uint64_t>(log.rows[row + 1].time_us - first) <= now) ++row;
            rig.sense(truth_of(log.rows[row]));
        } else {
            rig.sense(scenario.sample(static_cast<double>(now) / 1e6));
        }
    }
};

// A chip whose scene is brought up to the transfer's virtual time before it answers.
class ChipInScene : public vphone::BusDevice {
public:
    ChipInScene(PreloadedScene *scene, vphone::BusDevice *chip) : scene_(scene), chip_(chip) {}
    int write(const uint8_t *data, size_t length) override {
        scene_->catch_up();
        return chip_->write(data, length);
    }
    int read(uint8_t *data, size_t length) override {
        scene_->catch_up();
        return chip_->read(data, length);
    }

private:
    PreloadedScene *scene_;
    vphone::BusDevice *chip_;
};

[[noreturn]] void refuse(const std::string &message) {
    std::fprintf(stderr, "vphone: %s\n", message.c_str());
    std::fflush(stderr);
    _exit(2);
}

// The file a variable names, read by parse (a record's or a field log's parser).
template <typename Parse>
auto read_or_refuse(const char *variable, const char *path, Parse parse) {
    std::ifstream in(path);
    if (!in) refuse(std::string(variable) + ": cannot read '" + path + "'");
    auto parsed = parse(in);
    if (!parsed.ok) refuse(std::string(variable) + ": '" + path + "' " + parsed.error);
    return parsed;
}

// The settings VPHONE_SCENARIO and VPHONE_OPTIONS describe (name null: a replay's).
ScenarioSettings settings_from(const char *name, const char *options) {
    std::vector<std::string> args;
    std::istringstream words(options != nullptr ? options : "");
    for (std::string w; words >> w;) args.push_back(w);
    // A replay's phone is its record or log: the world's options describe only scenarios.
    if (name == nullptr && !args.empty())
        refuse("VPHONE_OPTIONS needs VPHONE_SCENARIO (a replay's world is its file's)");
    if (name != nullptr) args.insert(args.begin(), {"--scenario", name});
    const ParsedScene p = parse_scene_options(args);
    if (!p.ok) refuse("VPHONE_OPTIONS: " + p.error);
    return p.settings;
}

void start_scene() {
    const char *name = std::getenv("VPHONE_SCENARIO");
    const char *replay = std::getenv("VPHONE_REPLAY");
    const char *field_log = std::getenv("VPHONE_FIELD_LOG");
    const char *options = std::getenv("VPHONE_OPTIONS");
    const int sources = (name != nullptr) + (replay != nullptr) + (field_log != nullptr);
    if (sources == 0) {
        if (options != nullptr) refuse("VPHONE_OPTIONS needs VPHONE_SCENARIO");
        return;
    }
    if (sources > 1) refuse("VPHONE_SCENARIO, VPHONE_REPLAY and VPHONE_FIELD_LOG cannot be combined: name one");
    const ScenarioSettings s = settings_from(name, options);

    // Never destroyed: the program may use the bus until it exits.
    PreloadedScene *scene = new PreloadedScene(s);
    if (replay != nullptr) {
        scene->replay = read_or_refuse("VPHONE_REPLAY", replay, parse_record).record;
        scene->replaying = true;
        write_replay_files(scene->replay.header);
        scene->rig.attach_replay_chips(scene->replay);
    } else {
        if (field_log != nullptr) {
            const ParsedFieldLog parsed = read_or_refuse("VPHONE_FIELD_LOG", field_log, parse_field_log);
            if (!parsed.warning.empty()) std::fprintf(stderr, "vphone: VPHONE_FIELD_LOG: %s\n", parsed.warning.c_str());
            scene->log = parsed.log;
            scene->logged = true;
        }
        // A scenario that starts with no stored offset starts without the file, and so
        // does a field log (its phone's offsets are not this one's).
        if (scene->logged || find_scenario(s.name)->fresh) vphone::remove_file(kCalibrationFile);
        write_profile_files(s.profile);
        scene->rig.attach_chips(s.profile, kRigCalibration);
    }
    for (int address : {int{vphone::KmxcModel::kAddress}, int{vphone::Smb380Model::kAddress}})
        vphone::attach(address, new ChipInScene(scene, vphone::attached(address)));
    scene->catch_up();
}

// Runs when the preloaded library is loaded, before the program's main.
__attribute__((constructor)) void load() { start_scene(); }

}  // namespace
