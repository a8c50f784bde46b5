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

#include "vphone/scene/browse.h"
#include "vphone/scene/drive.h"
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
    double noise_uT = 0.15;        // magnetometer noise, standard deviation per axis
    double accel_noise_g = 0.003;  // accelerometer noise, standard deviation per axis
    // The accelerometer's zero-g offset, phone axes, mg: what it reads at rest beyond
    // gravity. A phone's part is trimmed to within some tens of mg; each mg tilts the
    // gravity it reads by up to 0.057 degrees, and the attitude with it.
    Vec3 accel_offset_mg{0.0, 0.0, 0.0};
    double temperature_C = 25.0;        // at the start of the run
    double temp_drift_C_per_min = 0.5;  // warming (or cooling) during the run
    int profile = 1;                    // mounting profile, see mounting_profiles()
    uint32_t seed = 1;                  // noise, and the details of the browse and car scripts
    // The phone's soft iron, a symmetric matrix XX, YY, ZZ, XY, XZ, YZ applied to the
    // ambient field in phone axes (identity: none); see soft_iron_problem().
    std::array<double, 6> soft_iron{1, 1, 1, 0, 0, 0};
    // Scenarios "car" and "car-fresh": the car's field, fixed to the phone once it is
    // in the dashboard mount, added to the hard iron from then on.
    Vec3 car_field_uT{-8.0, 12.0, 14.0};
    // ... and the engine's and the road's vibration there, times the car's own (0.006 g
    // idling, up to 0.03 g at speed): a motorbike's or a rough road's is ten times more.
    double car_vibration = 1.0;
    bool operator==(const ScenarioSettings &) const = default;
};

// A soft-iron matrix's eigenvalues stay within these: a phone's metal scales the field
// it sits in by at most a factor of two either way.
constexpr double kSoftIronMinEigenvalue = 0.5;
constexpr double kSoftIronMaxEigenvalue = 2.0;
Mat3 soft_iron_matrix(const std::array<double, 6> &xx_yy_zz_xy_xz_yz);
// "" for a plausible soft iron (symmetric by construction, positive definite with every
// eigenvalue within the limits), else the problem on one line.
std::string soft_iron_problem(const std::array<double, 6> &xx_yy_zz_xy_xz_yz);

// The phone in the car's dashboard mount: upright, screen to the driver, its top edge
// between these above the horizontal (leaning back by the rest), drawn from the seed...
constexpr double kMountTiltMinDeg = 60.0;
constexpr double kMountTiltMaxDeg = 85.0;
// ... and swivelled toward the driver (about its long axis) by up to this either way.
constexpr double kMountSwivelMaxDeg = 20.0;
// The car's field grows over the last part of the mounting move, as the phone nears the
// mount's steel and the dashboard's (a dipole's field falls as the cube of the distance:
// most of it arrives in the last few centimetres).
constexpr double kCarFieldRampS = 1.5;

// What the phone experiences at one instant.
struct Truth {
    double t_s = 0;
    const char *phase = "";
    Pose pose;        // script pose (geographic heading)
    Mat3 attitude{};  // rows: magnetic east, north, up in phone axes
    Vec3 earth_uT{};  // the Earth field in phone axes
    // The field at the magnetometer but for the phone's own: soft iron applied to the
    // Earth field, plus noise. What a reading with the true offset taken off shows.
    Vec3 field_uT{};
    Vec3 hard_iron_uT{};  // field fixed to the phone, phone axes (the true offset)
    Vec3 gravity_g{};     // accelerometer reading in phone axes, g
    double temperature_C = 0;
    Vec3 velocity_mps{};    // car scenarios: the car's velocity, magnetic world frame
    double mounted_s = -1;  // car scenarios: when the phone went into the mount; else -1
};

// The shipped scenarios, in one table (scenario.cpp): name, a line for --help, script.
struct ScenarioInfo {
    const char *name;
    const char *description;
    bool fresh = false;  // starts with no stored offset: a program empties its sandbox first
};
const std::vector<ScenarioInfo> &scenarios();
const ScenarioInfo *find_scenario(const std::string &name);  // null when unknown
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
    double mounted_s() const { return mounted_s_; }  // car scenarios; else -1
    // Advance to time t (non-decreasing between calls) and draw that instant's noise.
    Truth sample(double t_s);
    // The same instant without noise (deterministic, for checks).
    Truth ideal(double t_s) const;

private:
    struct Segment {
        enum Kind { Hold, Move, FigureEight, Walk, Spin, Tumble, Reading, Driving } kind;
        const char *phase;
        double duration_s;
        Pose from, to;          // Move, Reading: eased interpolation from -> to
        double rate_deg_s = 0;  // Spin: heading rate
        bool walking = false;   // Reading: the walker's steps shake the phone
        double in_hand_s = 0;   // Reading: when the phone was last picked up
    };
    // The scripts of the scenario table (scripts.cpp); each adds its segments in order.
    void add(Segment::Kind kind, const char *phase, double duration_s, Pose to, double rate_deg_s = 0);
    void add_browse(const char *phase, double duration_s, double heading_from_deg, double heading_to_deg, bool walking,
                    double in_hand_s);
    void script_default();
    void script_planar();
    void script_two_planes();
    void script_magnet();
    void script_still();
    void script_slow();
    void script_browse();
    void script_car();
    void script_car_fresh();
    void add_drive();  // the legs of drive_, then parked
    Pose mount_pose(const CarMotion &car) const;
    void draw_mount();                         // the mount's tilt and swivel, from the script's generator
    double car_field_share(double t_s) const;  // 0 before the ramp, 1 once mounted
    struct Entry {
        ScenarioInfo info;
        void (Scenario::*script)();
    };
    static const std::vector<Entry> &table();
    friend const std::vector<ScenarioInfo> &scenarios();

    Pose pose_at(double t_s, const Segment **seg, double *local_s) const;
    Pose pose_in(const Segment &seg, double t_s, double local_s) const;
    // The phone's acceleration, magnetic world frame, g.
    Vec3 linear_accel_g(const Segment &seg, double t_s, double local_s) const;
    Mat3 car_attitude(const CarMotion &car) const;  // car to magnetic world

    ScenarioSettings settings_;
    std::vector<Segment> script_;
    double duration_s_ = 0;
    double magnet_from_s_ = -1;  // the magnet clip is on from then, when >= 0
    double mounted_s_ = -1;      // in the car's mount from then, when >= 0
    double drive_from_s_ = 0;    // the drive's start
    double mount_tilt_deg_ = 75, mount_swivel_deg_ = 0;
    Mat3 soft_iron_{};
    std::mt19937 rng_;         // noise
    std::mt19937 script_rng_;  // the details of the browse and car scripts
    HandWander hand_;
    Drive drive_;
};

}  // namespace vphone::scene

#endif
