// A moving phone for programs run with LD_PRELOAD: preloaded after libkmxc_vphone.so,
// this library reads the environment when it is loaded and puts the demo's scripted
// phone (or a raw record) on the simulated bus, so a sensor service written against
// the shipped library sees the phone being handled in virtual time.
//
//   VPHONE_SCENARIO=NAME       a scenario of tools/scenario (default, slow, magnet, ...)
//   VPHONE_REPLAY=FILE         or a raw record written by compass_service --record
//   VPHONE_OPTIONS="--field 30 --seed 2"   scenario options, as compass_service takes them
//
// The chips sense the scenario at the virtual time of each bus transfer. Bad settings
// end the program at load with a one-line message and status 2. Files go to the
// sandbox (VPHONE_ROOT): the transformation profile, and for a replay its calibration
// file.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/options.h"
#include "tools/phone.h"
#include "tools/record.h"
#include "tools/scenario.h"
#include "vphone/kmxc_model.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace {

using namespace compass;

struct World {
    Phone phone;
    Scenario scenario;
    Record replay;
    bool replaying = false;
    size_t row = 0;
    uint64_t last_us = UINT64_MAX;

    explicit World(const ScenarioSettings &s) : scenario(s) {}

    // What the chips sense now: the scenario's instant, or the last recorded row due.
    void update() {
        const uint64_t now = vphone::now_us();
        if (now == last_us) return;
        last_us = now;
        if (replaying) {
            while (row + 1 < replay.rows.size() && static_cast<uint64_t>(replay.rows[row + 1].time_us) <= now) ++row;
            if (!replay.rows.empty()) phone.deliver(replay.rows[row]);
        } else {
            phone.sense(scenario.sample(static_cast<double>(now) / 1e6));
        }
    }
};

// Brings the world up to the transfer's time, then lets the chip model answer.
class Forward : public vphone::BusDevice {
public:
    Forward(World *world, vphone::BusDevice *inner) : world_(world), inner_(inner) {}
    int write(const uint8_t *data, size_t length) override {
        world_->update();
        return inner_->write(data, length);
    }
    int read(uint8_t *data, size_t length) override {
        world_->update();
        return inner_->read(data, length);
    }

private:
    World *world_;
    vphone::BusDevice *inner_;
};

[[noreturn]] void refuse(const std::string &message) {
    std::fprintf(stderr, "vphone: %s\n", message.c_str());
    std::fflush(stderr);
    _exit(2);
}

void start_world() {
    const char *name = std::getenv("VPHONE_SCENARIO");
    const char *replay = std::getenv("VPHONE_REPLAY");
    const char *extra = std::getenv("VPHONE_OPTIONS");
    if (name == nullptr && replay == nullptr) {
        if (extra != nullptr) refuse("VPHONE_OPTIONS needs VPHONE_SCENARIO");
        return;
    }
    if (name != nullptr && replay != nullptr) refuse("VPHONE_SCENARIO and VPHONE_REPLAY cannot be combined");
    std::vector<std::string> args;
    if (name != nullptr)
        args = {"--scenario", name};
    else
        args = {"--replay", replay};
    std::istringstream words(extra != nullptr ? extra : "");
    for (std::string w; words >> w;) args.push_back(w);
    const ParsedOptions p = parse_options(args);
    if (!p.ok) refuse("VPHONE_OPTIONS: " + p.error);
    const ScenarioSettings &s = p.options.scenario;

    // Never destroyed: the program may use the bus until it exits.
    World *world = new World(s);
    if (replay != nullptr) {
        std::ifstream in(replay);
        if (!in) refuse(std::string("VPHONE_REPLAY: cannot read '") + replay + "'");
        ParsedRecord r = parse_record(in);
        if (!r.ok) refuse(std::string("VPHONE_REPLAY: '") + replay + "' " + r.error);
        world->replay = std::move(r.record);
        world->replaying = true;
        const RecordHeader &h = world->replay.header;
        write_replay_profile_files(h);
        if (h.has_stored) {
            std::string cfg;
            for (size_t i = 0; i < h.stored.size(); ++i) cfg += (i ? "," : "") + std::to_string(h.stored[i]);
            vphone::write_file("/misc/sensor/kmxc_orvane.cfg", cfg);
        }
        world->phone.attach_replay_chips(h);
        for (const auto &rough : world->replay.rough_readings) world->phone.queue_rough(rough);
    } else {
        write_profile_files(s.profile);
        world->phone.attach_chips(s.profile, kDemoCalib);
    }
    for (int address : {int{vphone::KmxcModel::kAddress}, int{vphone::Smb380Model::kAddress}})
        vphone::attach(address, new Forward(world, vphone::attached(address)));
    world->update();
}

// Runs when the preloaded library is loaded, before the program's main.
__attribute__((constructor)) void load() { start_world(); }

}  // namespace
