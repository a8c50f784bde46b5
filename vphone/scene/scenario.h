// Scenarios: scripted handlings of the phone in virtual time, and the physics that
// turns each instant into what the two chips would sense (frames.h has the
// conventions).
#ifndef KMXC_VPHONE_SCENE_SCENARIO_H
#define KMXC_VPHONE_SCENE_SCENARIO_H

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "vphone/scene/frames.h"

namespace vphone::scene {

struct ScenarioSettings {
    std::string name = "default";  // which script, see scenario_names()
    // Scenario "magnet": a magnetic clip is attached to the phone halfway, adding
    // this to the hard iron.
    Vec3 magnet_uT{230.0, 0.0, 0.0};
    double field_uT = 48.0;         // Earth field strength, 25..65
    double inclination_deg = 60.0;  // -90..90
    double declination_deg = 3.0;   // -180..180
    Vec3 hard_iron_uT{18.0, -12.0, 9.0};
    double noise_uT = 0.15;             // magnetometer noise, standard deviation per axis
    double accel_noise_g = 0.003;       // accelerometer noise, standard deviation per axis
    double temperature_C = 25.0;        // at the start of the run
    double temp_drift_C_per_min = 0.5;  // warming (or cooling) during the run
    int profile = 1;                    // mounting profile, see mounting_profiles()
    uint32_t seed = 1;
};

// What the phone experiences at one instant.
struct Truth {
    double t_s = 0;
    const char *phase = "";
    Pose pose;            // script pose (geographic heading)
    Mat3 attitude{};      // rows: magnetic east, north, up in phone axes
    Vec3 field_uT{};      // ambient field in phone axes: Earth + noise
    Vec3 hard_iron_uT{};  // field fixed to the phone, phone axes
    Vec3 gravity_g{};     // accelerometer reading in phone axes, g
    double temperature_C = 0;
};

// The shipped scenarios, in one table (scenario.cpp): name, a line for --help, script.
struct ScenarioInfo {
    const char *name;
    const char *description;
};
const std::vector<ScenarioInfo> &scenarios();
const std::vector<std::string> &scenario_names();
bool is_scenario_name(const std::string &name);

// One mounting profile: the line the phone's transformation profile file holds for
// it (accelerometer matrix, then magnetometer matrix, row-major, chip to phone).
struct MountingProfile {
    std::array<int, 9> accel;
    std::array<int, 9> mag;
};
const std::vector<MountingProfile> &mounting_profiles();  // profile n is entry n-1

class Scenario {
public:
    explicit Scenario(const ScenarioSettings &settings);

    double duration_s() const { return duration_s_; }
    // Advance to time t (non-decreasing between calls) and draw that instant's noise.
    Truth sample(double t_s);
    // The same instant without noise (deterministic, for checks).
    Truth ideal(double t_s) const;

private:
    struct Segment {
        enum Kind { Hold, Move, FigureEight, Walk, Spin, Tumble } kind;
        const char *phase;
        double duration_s;
        Pose from, to;          // Move: eased interpolation from -> to
        double rate_deg_s = 0;  // Spin: heading rate
    };
    // The scripts of the scenario table; each adds its segments in order.
    void add(Segment::Kind kind, const char *phase, double duration_s, Pose to, double rate_deg_s = 0);
    void script_default();
    void script_planar();
    void script_two_planes();
    void script_magnet();
    void script_still();
    void script_slow();
    struct Entry {
        ScenarioInfo info;
        void (Scenario::*script)();
    };
    static const std::vector<Entry> &table();
    friend const std::vector<ScenarioInfo> &scenarios();

    Pose pose_at(double t_s, const Segment **seg, double *local_s) const;
    Vec3 linear_accel_g(const Segment &seg, double local_s) const;

    ScenarioSettings settings_;
    std::vector<Segment> script_;
    double duration_s_ = 0;
    double magnet_from_s_ = -1;  // the magnet clip is on from then, when >= 0
    std::mt19937 rng_;
};

}  // namespace vphone::scene

#endif
