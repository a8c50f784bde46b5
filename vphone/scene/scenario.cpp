// Scripts and physics of the scenarios; conventions in frames.h.
#include "vphone/scene/scenario.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {

const std::vector<Scenario::Entry> &Scenario::table() {
    static const std::vector<Entry> entries{
        {{"default", "on the table, picked up, a figure-eight, carried while walking, laid flat and turned, set down"},
         &Scenario::script_default},
        {{"planar", "only ever turned flat on the table"}, &Scenario::script_planar},
        {{"two-planes", "turned flat, then stood on its edge and turned"}, &Scenario::script_two_planes},
        {{"magnet", "calibrated, then a magnetic clip is attached and a second figure-eight follows"},
         &Scenario::script_magnet},
        {{"still", "lies on the table"}, &Scenario::script_still},
        {{"slow", "turned slowly by hand (10 to 20 degrees per second) through all orientations"},
         &Scenario::script_slow},
    };
    return entries;
}

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

bool is_scenario_name(const std::string &name) {
    const auto &n = scenario_names();
    return std::find(n.begin(), n.end(), name) != n.end();
}

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

Scenario::Scenario(const ScenarioSettings &s) : settings_(s), rng_(s.seed) {
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

namespace {
const Pose kFlat{40, 0, 0};  // lying face up, heading 40 degrees
}  // namespace

void Scenario::script_planar() {
    // Only ever turned on the table: samples lie in one plane.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Spin, "turned flat", 40, kFlat, 120);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_two_planes() {
    // Turned flat on the table, then stood on its bottom edge and turned again.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Spin, "turned flat", 12, kFlat, 120);
    add(Segment::Move, "stood up", 2, Pose{40, -90, 0});
    add(Segment::Spin, "turned upright", 12, Pose{40, -90, 0}, 120);
    add(Segment::Move, "laid down", 2, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_magnet() {
    // Calibrated in a figure-eight; then a magnetic clip goes onto the phone on the
    // table (the magnetometer's channels leave their range, and the service moves
    // the rough offset), and a second figure-eight calibrates again.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Move, "picked up", 1, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 12, Pose{40, -30, 0});
    add(Segment::Move, "laid down", 1, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
    magnet_from_s_ = duration_s_;
    add(Segment::Hold, "magnet clipped on", 4, kFlat);
    add(Segment::Move, "picked up", 1, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 12, Pose{40, -30, 0});
    add(Segment::Move, "laid down", 1, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_slow() {
    // Turned slowly by hand through all its orientations (10 to 20 degrees per
    // second): each batch of consecutive samples spans only a few degrees.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Tumble, "turned slowly by hand", 60, kFlat);
    add(Segment::Move, "laid down", 2, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_still() { add(Segment::Hold, "on table", 20, kFlat); }

void Scenario::script_default() {
    add(Segment::Hold, "on table", 6, kFlat);
    add(Segment::Move, "picked up", 2, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 16, Pose{40, -30, 0});
    add(Segment::Move, "raised to read", 1, Pose{40, -35, 0});
    add(Segment::Walk, "walking", 30, Pose{130, -35, 0});
    add(Segment::Move, "laid flat", 2, Pose{130, 0, 0});
    add(Segment::Spin, "turned flat", 15, Pose{130, 0, 0}, 120);
    add(Segment::Hold, "set down", 6, kFlat);
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
    }
    return b;
}

Vec3 Scenario::linear_accel_g(const Segment &seg, double u) const {
    if (seg.kind != Segment::Walk) return {0, 0, 0};
    // Step bounce (vertical) and sway (forward), in the magnetic world frame is close
    // enough: the bounce is what matters to the accelerometer.
    return {0.0, 0.03 * std::sin(2 * kPi * 2 * u + 0.5), 0.12 * std::sin(2 * kPi * 2 * u)};
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
    const Vec3 earth = to_phone(tr.attitude, earth_field_uT(settings_.field_uT, settings_.inclination_deg));
    const Vec3 acc = linear_accel_g(*seg, u);
    const Vec3 g = to_phone(tr.attitude, Vec3{-acc[0], -acc[1], -1.0 - acc[2]});
    const bool magnet = magnet_from_s_ >= 0 && t >= magnet_from_s_;
    for (int k = 0; k < 3; ++k) {
        tr.field_uT[k] = earth[k];
        tr.hard_iron_uT[k] = settings_.hard_iron_uT[k] + (magnet ? settings_.magnet_uT[k] : 0.0);
        tr.gravity_g[k] = g[k];
    }
    tr.temperature_C = settings_.temperature_C + settings_.temp_drift_C_per_min * t / 60.0;
    return tr;
}

Truth Scenario::sample(double t) {
    Truth tr = ideal(t);
    std::normal_distribution<double> mag(0.0, settings_.noise_uT), acc(0.0, settings_.accel_noise_g);
    for (int k = 0; k < 3; ++k) {
        if (settings_.noise_uT > 0) tr.field_uT[k] += mag(rng_);
        if (settings_.accel_noise_g > 0) tr.gravity_g[k] += acc(rng_);
    }
    return tr;
}

}  // namespace vphone::scene
