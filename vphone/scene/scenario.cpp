// Scripts and physics of the scenarios; conventions in frames.h.
#include "vphone/scene/scenario.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {

const std::vector<ScenarioInfo> &scenarios() {
    static const std::vector<ScenarioInfo> infos = [] {
        std::vector<ScenarioInfo> v;
        for (const auto &e : Scenario::table()) v.push_back(e.info);
        return v;
    }();
    return infos;
}

const std::vector<std::string> &scenario_names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (const ScenarioInfo &i : scenarios()) v.emplace_back(i.name);
        return v;
    }();
    return names;
}

bool is_scenario_name(const std::string &name) { return find_scenario(name) != nullptr; }

const ScenarioInfo *find_scenario(const std::string &name) {
    for (const ScenarioInfo &i : scenarios())
        if (name == i.name) return &i;
    return nullptr;
}

Mat3 soft_iron_matrix(const std::array<double, 6> &s) {
    return {{{s[0], s[3], s[4]}, {s[3], s[1], s[5]}, {s[4], s[5], s[2]}}};
}

std::string soft_iron_problem(const std::array<double, 6> &s) {
    const Vec3 e = symmetric_eigenvalues(soft_iron_matrix(s));
    if (e[0] <= kSoftIronMaxEigenvalue && e[2] >= kSoftIronMinEigenvalue) return "";
    char b[200];
    if (e[2] <= 0)
        std::snprintf(b, sizeof b, "eigenvalues %.3g, %.3g, %.3g: not positive definite, no soft iron does that", e[0],
                      e[1], e[2]);
    else
        std::snprintf(b, sizeof b,
                      "eigenvalues %.3g, %.3g, %.3g: each must lie within %g..%g, as a phone's soft iron does", e[0],
                      e[1], e[2], kSoftIronMinEigenvalue, kSoftIronMaxEigenvalue);
    return b;
}

namespace {

// The noise and the scripts draw from generators of their own, so a script that
// draws leaves every other scenario's noise as it was.
std::mt19937 script_generator(uint32_t seed) {
    std::seed_seq seq{seed, 0x5c1u};
    return std::mt19937(seq);
}

}  // namespace

const std::vector<MountingProfile> &mounting_profiles() {
    // 1: both chips aligned with the phone. 2: magnetometer turned a quarter turn
    // about z, accelerometer turned the other way. 3: magnetometer on the back of the
    // board (upside down about y), accelerometer aligned.
    static const std::vector<MountingProfile> profiles{
        {{1, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
        {{0, 1, 0, -1, 0, 0, 0, 0, 1}, {0, -1, 0, 1, 0, 0, 0, 0, 1}},
        {{1, 0, 0, 0, 1, 0, 0, 0, 1}, {-1, 0, 0, 0, 1, 0, 0, 0, -1}},
    };
    return profiles;
}

Scenario::Scenario(const ScenarioSettings &s)
    : settings_(s), soft_iron_(soft_iron_matrix(s.soft_iron)), rng_(s.seed), script_rng_(script_generator(s.seed)) {
    for (const Entry &e : table())
        if (s.name == e.info.name) {
            (this->*e.script)();
            return;
        }
    // The command line accepts only the table's names; anything else is a programming error.
    std::fprintf(stderr, "vphone: unknown scenario '%s'\n", s.name.c_str());
    std::abort();
}

void Scenario::add(Segment::Kind kind, const char *phase, double dur, Pose to, double rate) {
    Pose from = to;  // each segment starts where the one before ended
    if (!script_.empty()) {
        const Segment *seg = nullptr;
        double local = 0;
        from = pose_at(duration_s_, &seg, &local);
    }
    script_.push_back(Segment{kind, phase, dur, from, to, rate});
    duration_s_ += dur;
}

Pose Scenario::pose_at(double t, const Segment **seg_out, double *local_out) const {
    double start = 0;
    const Segment *seg = &script_.back();
    for (const Segment &s : script_) {
        if (t < start + s.duration_s) {
            seg = &s;
            break;
        }
        start += s.duration_s;
    }
    if (seg == &script_.back() && t >= duration_s_) start = duration_s_ - seg->duration_s;
    const double u = std::min(t - start, seg->duration_s);
    *seg_out = seg;
    *local_out = u;
    return pose_in(*seg, t, u);
}

Pose Scenario::pose_in(const Segment &segment, double t, double u) const {
    const Segment *seg = &segment;
    const Pose &a = seg->from, &b = seg->to;
    switch (seg->kind) {
    case Segment::Hold: return a;
    case Segment::Move: {
        // Turns the short way round to the target heading.
        const double k = ease(u / seg->duration_s);
        return {a.heading_deg + k * heading_difference(b.heading_deg, a.heading_deg),
                a.pitch_deg + k * (b.pitch_deg - a.pitch_deg), a.roll_deg + k * (b.roll_deg - a.roll_deg)};
    }
    case Segment::FigureEight: {
        // A figure-eight in the air, period 4 s: the heading swings, the top edge dips
        // twice per period, and the phone rolls over to one side and back.
        const double w = 2 * kPi / 4.0;
        return {b.heading_deg + 110 * std::sin(w * u), b.pitch_deg + 50 * std::sin(2 * w * u),
                b.roll_deg + 40 * (1 - std::cos(w * u))};
    }
    case Segment::Walk: {
        // Held in front while walking; turns a corner halfway, bobs with every step.
        const double k = ease((u / seg->duration_s - 0.4) / 0.2);
        return {a.heading_deg + k * (b.heading_deg - a.heading_deg), b.pitch_deg + 3 * std::sin(2 * kPi * 2 * u),
                b.roll_deg + 3 * std::sin(2 * kPi * u)};
    }
    case Segment::Tumble: {
        // Heading 9 degrees per second, pitch and roll swing slowly (up to 11 and 6
        // degrees per second): about 15 degrees per second of turning in all.
        const double k = std::min(u, 1.0);  // eases in over the first second
        return {a.heading_deg + 9 * u, a.pitch_deg - 70 * k * std::sin(2 * kPi * u / 40),
                a.roll_deg + 50 * k * std::sin(2 * kPi * u / 55)};
    }
    case Segment::Spin: {
        // Turned at a steady rate, speeding up over the first second and slowing down
        // over the last one.
        const double d = seg->duration_s;
        auto ramp = [](double x) { return 0.5 * x - std::sin(kPi * x) / (2 * kPi); };  // angle over a 1 s ramp
        double turns;
        if (u < 1.0)
            turns = ramp(u);
        else if (u > d - 1.0)
            turns = (d - 1.0) - ramp(d - u);
        else
            turns = u - 0.5;
        return {a.heading_deg + seg->rate_deg_s * turns, a.pitch_deg, a.roll_deg};
    }
    case Segment::Reading: {
        // Turned with the walker (or not), in a hand that wanders and trembles: fading
        // in over the first 1.5 s in the hand, so the pick-up joins smoothly.
        const double k = ease(u / seg->duration_s), hand = ease((t - seg->in_hand_s) / 1.5);
        const Pose o = hand_.offset(t);
        return {a.heading_deg + k * (b.heading_deg - a.heading_deg) + hand * o.heading_deg,
                a.pitch_deg + hand * o.pitch_deg, hand * o.roll_deg};
    }
    case Segment::Driving: return mount_pose(drive_.at(t - drive_from_s_));
    }
    return b;
}

Pose Scenario::mount_pose(const CarMotion &car) const {
    // Car heading and slope, then the mount's tilt, both about the car's x axis, then
    // its swivel about the phone's long axis.
    return {car.heading_deg, -(mount_tilt_deg_ + car.slope_deg), mount_swivel_deg_};
}

double Scenario::car_field_share(double t) const {
    if (mounted_s_ < 0 || t < mounted_s_ - kCarFieldRampS) return 0;
    if (t >= mounted_s_) return 1;
    const double x = (t - (mounted_s_ - kCarFieldRampS)) / kCarFieldRampS;
    return x * x * x;  // as the cube of the closing distance, roughly
}

Vec3 Scenario::linear_accel_g(const Segment &seg, double t, double u) const {
    if (seg.kind == Segment::Walk) {
        // Step bounce (vertical) and sway (forward), in the magnetic world frame is
        // close enough: the bounce is what matters to the accelerometer.
        return {0.0, 0.03 * std::sin(2 * kPi * 2 * u + 0.5), 0.12 * std::sin(2 * kPi * 2 * u)};
    }
    if (seg.kind == Segment::Reading && seg.walking) {
        // The same bounce, two steps a second, and the sway along the walker's heading.
        const double h = (seg.to.heading_deg - settings_.declination_deg) * kDeg;
        const double sway = 0.03 * std::sin(2 * kPi * 2 * t + 0.5);
        return {sway * std::sin(h), sway * std::cos(h), 0.12 * std::sin(2 * kPi * 2 * t)};
    }
    if (seg.kind == Segment::Driving) {
        const CarMotion car = drive_.at(t - drive_from_s_);
        const Vec3 a = to_world(car_attitude(car), car.accel_mps2);
        return {a[0] / kStandardGravity, a[1] / kStandardGravity, a[2] / kStandardGravity};
    }
    return {0, 0, 0};
}

Mat3 Scenario::car_attitude(const CarMotion &car) const {
    return attitude_matrix(Pose{car.heading_deg - settings_.declination_deg, -car.slope_deg, 0});
}

Truth Scenario::ideal(double t) const {
    Truth tr;
    const Segment *seg = nullptr;
    double u = 0;
    tr.t_s = t;
    tr.pose = pose_at(t, &seg, &u);
    tr.phase = seg->phase;
    Pose magnetic = tr.pose;
    magnetic.heading_deg -= settings_.declination_deg;
    tr.attitude = attitude_matrix(magnetic);
    tr.earth_uT = to_phone(tr.attitude, earth_field_uT(settings_.field_uT, settings_.inclination_deg));
    tr.field_uT = to_world(soft_iron_, tr.earth_uT);
    const Vec3 acc = linear_accel_g(*seg, t, u);
    const Vec3 g = to_phone(tr.attitude, Vec3{-acc[0], -acc[1], -1.0 - acc[2]});
    const bool magnet = magnet_from_s_ >= 0 && t >= magnet_from_s_;
    const double car_share = car_field_share(t);
    for (int k = 0; k < 3; ++k) {
        tr.hard_iron_uT[k] = settings_.hard_iron_uT[k] + (magnet ? settings_.magnet_uT[k] : 0.0);
        if (car_share > 0) tr.hard_iron_uT[k] += car_share * settings_.car_field_uT[k];
        tr.gravity_g[k] = g[k];
    }
    tr.temperature_C = settings_.temperature_C + settings_.temp_drift_C_per_min * t / 60.0;
    tr.mounted_s = mounted_s_;
    if (seg->kind == Segment::Driving) {
        const CarMotion car = drive_.at(t - drive_from_s_);
        const Vec3 forward = to_world(car_attitude(car), Vec3{0, 1, 0});
        for (int k = 0; k < 3; ++k) tr.velocity_mps[k] = car.speed_mps * forward[k];
    }
    return tr;
}

Truth Scenario::sample(double t) {
    Truth tr = ideal(t);
    std::normal_distribution<double> mag(0.0, settings_.noise_uT), acc(0.0, settings_.accel_noise_g);
    for (int k = 0; k < 3; ++k) {
        if (settings_.noise_uT > 0) tr.field_uT[k] += mag(rng_);
        if (settings_.accel_noise_g > 0) tr.gravity_g[k] += acc(rng_);
        tr.gravity_g[k] += settings_.accel_offset_mg[k] / 1000;
    }
    // In the mount with the engine running, the car shakes the phone.
    if (mounted_s_ >= 0 && t >= mounted_s_ && t <= drive_from_s_ + drive_.duration_s()) {
        const double speed = t < drive_from_s_ ? 0.0 : drive_.at(t - drive_from_s_).speed_mps;
        const Vec3 shake =
            to_phone(attitude_matrix(Pose{0, -mount_tilt_deg_, mount_swivel_deg_}), drive_.vibration_g(t, speed));
        for (int k = 0; k < 3; ++k) tr.gravity_g[k] -= settings_.car_vibration * shake[k];
    }
    return tr;
}

}  // namespace vphone::scene
