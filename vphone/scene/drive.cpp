// A drive in a car (drive.h).
#include "vphone/scene/drive.h"

#include <algorithm>
#include <cmath>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {
namespace {

double uniform(std::mt19937 &rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
bool coin(std::mt19937 &rng) { return std::uniform_int_distribution<int>(0, 1)(rng) == 1; }

// An eased change of speed (a half cosine) whose peak acceleration is peak_mps2.
double speed_change_s(double v0, double v1, double peak_mps2) { return std::fabs(v1 - v0) * kPi / (2 * peak_mps2); }

// A turn of angle_deg at speed v whose yaw rate rises and falls as 1 - cos: its peak
// rate is twice the mean, so the peak centripetal acceleration v * rate is peak_mps2.
double turn_s(double v, double angle_deg, double peak_mps2) { return v * 2 * std::fabs(angle_deg) * kDeg / peak_mps2; }

// The traffic's speed, acceleration and distance u into leg l, added to v, along and s.
void traffic_at(const DriveLeg &l, double u, double *v, double *along, double *s) {
    const double T = l.duration_s;
    if (T <= 0) return;
    for (int k = 0; k < 2; ++k) {
        const double w = kPi * l.traffic_m[k] / T, a = l.traffic_mps[k];
        *v += a * std::sin(w * u);
        *along += a * w * std::cos(w * u);
        *s += a / w * (1 - std::cos(w * u));
    }
}

}  // namespace

Drive::Drive(std::mt19937 &rng, double heading_deg) {
    plan(rng);
    fill_in(heading_deg);
}

void Drive::plan(std::mt19937 &rng) {
    enum Maneuver { Left, Right, Roundabout };
    std::vector<Maneuver> maneuvers{Left, Right, Roundabout};
    // A turn about once a minute or more, as in town: eight to twelve manoeuvres.
    const int extra = std::uniform_int_distribution<int>(5, 9)(rng);
    for (int i = 0; i < extra; ++i) maneuvers.push_back(coin(rng) ? Left : Right);
    std::shuffle(maneuvers.begin(), maneuvers.end(), rng);
    for (int k = 0; k < 2; ++k) {
        slope_amp_[k] = (k == 0 ? uniform(rng, 2.0, 3.5) : uniform(rng, 0.5, 1.5)) * kDeg;
        slope_wave_m_[k] = k == 0 ? uniform(rng, 400, 900) : uniform(rng, 150, 300);
        slope_phase_[k] = uniform(rng, 0, 2 * kPi);
    }
    for (int k = 0; k < 3; ++k) {
        tone_hz_[k] = uniform(rng, 11.0 + 13 * k, 17.0 + 15 * k);
        tone_phase_[k] = uniform(rng, 0, 2 * kPi);
    }
    const double g = kStandardGravity;
    auto turn = [&](const char *phase, double v, double angle_deg, double peak_g) {
        legs_.push_back({DriveLeg::Turn, phase, turn_s(v, angle_deg, peak_g * g), v, v, angle_deg});
    };
    auto speed = [&](const char *phase, double v0, double v1, double peak_g) {
        legs_.push_back({DriveLeg::Speed, phase, speed_change_s(v0, v1, peak_g * g), v0, v1});
    };
    std::vector<size_t> stretches;  // the straight legs, whose lengths are set last
    auto straight = [&](double v) {
        stretches.push_back(legs_.size());
        legs_.push_back({DriveLeg::Speed, "driving straight", 0, v, v});
    };
    double v = uniform(rng, 11, 16);
    speed("driving: pulling away", 0, v, uniform(rng, 0.15, 0.3));
    for (Maneuver m : maneuvers) {
        straight(v);
        const double slow = m == Roundabout ? uniform(rng, 6, 8) : uniform(rng, 4.5, 7);
        speed("driving: braking", v, slow, uniform(rng, 0.2, 0.38));
        if (m == Roundabout) {
            // In right-hand traffic: right to enter, left round the island, right to
            // leave, straight on or to the left.
            const double entry = uniform(rng, 40, 55), net = coin(rng) ? 0.0 : -90.0;
            turn("driving: roundabout", slow, entry, uniform(rng, 0.2, 0.35));
            turn("driving: roundabout", slow, -(2 * entry - net), uniform(rng, 0.2, 0.35));
            turn("driving: roundabout", slow, entry, uniform(rng, 0.2, 0.35));
        } else {
            turn(m == Left ? "driving: turning left" : "driving: turning right", slow, m == Left ? -90.0 : 90.0,
                 uniform(rng, 0.2, 0.38));
        }
        v = uniform(rng, 11, 17);
        speed("driving: accelerating", slow, v, uniform(rng, 0.15, 0.3));
    }
    straight(v);
    speed("driving: stopping", v, 0, uniform(rng, 0.15, 0.3));
    // The straight stretches share the rest of the drive's time in drawn proportions.
    double fixed = 0, weights = 0;
    for (const DriveLeg &l : legs_) fixed += l.duration_s;
    std::vector<double> w(stretches.size());
    for (double &x : w) weights += x = uniform(rng, 0.5, 1.5);
    for (size_t i = 0; i < stretches.size(); ++i) legs_[stretches[i]].duration_s = (kDriveS - fixed) * w[i] / weights;
    // The traffic from a generator of its own, a copy of the route's moved far past the
    // draws that follow (the mount's): the route and the mount stay as drawn without it.
    std::mt19937 traffic = rng;
    traffic.discard(1 << 16);
    draw_traffic(traffic);
}

void Drive::draw_traffic(std::mt19937 &rng) {
    // Two waves per stretch: a slow one of 20 to 40 s and up to 1.8 m/s, a quicker one
    // of 8 to 16 s and up to 0.8 m/s; each a whole number of half waves long.
    constexpr double period_lo[2] = {20, 8}, period_hi[2] = {40, 16}, amp_lo[2] = {0.8, 0.3}, amp_hi[2] = {1.8, 0.8};
    static_assert(amp_hi[0] + amp_hi[1] <= kDriveMaxTrafficMps);
    for (DriveLeg &l : legs_) {
        if (l.kind != DriveLeg::Speed || l.v0_mps != l.v1_mps) continue;
        for (int k = 0; k < 2; ++k) {
            const double period = uniform(rng, period_lo[k], period_hi[k]);
            l.traffic_m[k] = std::max(1, static_cast<int>(std::lround(2 * l.duration_s / period)));
            l.traffic_mps[k] = (coin(rng) ? 1 : -1) * uniform(rng, amp_lo[k], amp_hi[k]);
        }
    }
}

void Drive::fill_in(double heading_deg) {
    double t = 0, s = 0;
    for (DriveLeg &l : legs_) {
        l.start_s = t;
        l.heading_deg = heading_deg;
        l.distance_m = s;
        s += l.kind == DriveLeg::Speed ? (l.v0_mps + l.v1_mps) / 2 * l.duration_s : l.v0_mps * l.duration_s;
        double v = 0, along = 0;
        traffic_at(l, l.duration_s, &v, &along, &s);
        heading_deg += l.turn_deg;
        t += l.duration_s;
    }
}

double Drive::slope_rad(double s, double *per_m) const {
    double slope = 0;
    *per_m = 0;
    for (int k = 0; k < 2; ++k) {
        const double w = 2 * kPi / slope_wave_m_[k];
        slope += slope_amp_[k] * std::sin(w * s + slope_phase_[k]);
        *per_m += slope_amp_[k] * w * std::cos(w * s + slope_phase_[k]);
    }
    return slope;
}

CarMotion Drive::at(double t) const {
    if (legs_.empty()) return {"", 0, 0, 0, {}};
    const DriveLeg *leg = &legs_.back();
    for (const DriveLeg &l : legs_)
        if (t < l.start_s + l.duration_s) {
            leg = &l;
            break;
        }
    const double T = leg->duration_s, u = std::clamp(t - leg->start_s, 0.0, T);
    double v = leg->v0_mps, along = 0, yaw_rate = 0, heading = leg->heading_deg, s = leg->distance_m + v * u;
    if (leg->kind == DriveLeg::Speed && T > 0) {
        // v0 + (v1 - v0) ease(u / T), its derivative, and its integral.
        const double dv = leg->v1_mps - leg->v0_mps;
        v += dv * ease(u / T);
        along = dv * kPi / (2 * T) * std::sin(kPi * u / T);
        s += dv * (u / 2 - T / (2 * kPi) * std::sin(kPi * u / T));
        traffic_at(*leg, u, &v, &along, &s);
    } else if (leg->kind == DriveLeg::Turn && T > 0) {
        // Yaw rate A / T (1 - cos(2 pi u / T)) and its integral.
        const double a = leg->turn_deg * kDeg;
        yaw_rate = a / T * (1 - std::cos(2 * kPi * u / T));
        heading += a / T * (u - T / (2 * kPi) * std::sin(2 * kPi * u / T)) / kDeg;
    }
    double per_m = 0;
    const double slope = slope_rad(s, &per_m);
    return {leg->phase, heading, slope / kDeg, v, {v * yaw_rate * std::cos(slope), along, v * v * per_m}};
}

Vec3 Drive::vibration_g(double t, double v) const {
    const double amplitude = 0.006 + 0.0015 * v;
    double tones[3];
    for (int k = 0; k < 3; ++k) tones[k] = std::sin(2 * kPi * tone_hz_[k] * t + tone_phase_[k]);
    return {amplitude * 0.4 * tones[1], 0.0, amplitude * (0.5 * tones[0] + 0.3 * tones[1] + 0.2 * tones[2])};
}

}  // namespace vphone::scene
