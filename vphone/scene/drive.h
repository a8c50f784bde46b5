// A drive in a car, for the car scenarios: a route of legs drawn from a seed (pulling
// away, straight stretches, 90-degree turns left and right, one roundabout, braking
// before each and accelerating after it, stopping at the end) over gently sloping
// roads, and the car's motion along it, in closed form so its acceleration is exactly
// the derivative of its velocity. On the straight stretches the speed follows the
// traffic: a metre or two per second up and down over 8 to 40 s, gentle accelerations
// (up to about 0.1 g) that tilt what the accelerometer reads as much as the road's
// slopes do.
//
// Car frame: x to the right, y forward, z up (the phone's axes for a phone lying face
// up with its top forward). Headings are geographic, positive to the right.
#ifndef KMXC_VPHONE_SCENE_DRIVE_H
#define KMXC_VPHONE_SCENE_DRIVE_H

#include <random>
#include <vector>

#include "vphone/scene/frames.h"

namespace vphone::scene {

// What every drawn route keeps to.
constexpr double kDriveS = 600.0;            // the drive's length in time
constexpr double kDriveMaxAccelG = 0.4;      // braking, accelerating or cornering
constexpr double kDriveMaxSlopeDeg = 5.0;    // the road's pitch
constexpr double kDriveMaxTrafficMps = 2.6;  // a straight stretch's speed about its own

struct DriveLeg {
    enum Kind { Still, Speed, Turn } kind;
    const char *phase;
    double duration_s;
    double v0_mps, v1_mps;  // Speed: eased from v0 to v1; Turn: v0 throughout; Still: 0
    double turn_deg = 0;    // Turn: heading change, positive to the right
    // A straight stretch's traffic: its speed varies by sum a sin(pi m u / T) about v0
    // (u the time into it, T its length), back to v0 at its ends.
    double traffic_mps[2] = {0, 0};
    int traffic_m[2] = {1, 1};
    // The car at the leg's start: time from the drive's start, heading, distance.
    double start_s = 0, heading_deg = 0, distance_m = 0;
};

// The car at one instant.
struct CarMotion {
    const char *phase;
    double heading_deg;  // geographic, of the forward axis
    double slope_deg;    // the road's pitch, positive uphill
    double speed_mps;
    Vec3 accel_mps2;  // car frame: centripetal along x, along the road y, over a crest or dip z
};

class Drive {
public:
    Drive() = default;  // no route
    // A route of kDriveS seconds from heading_deg, drawn from rng.
    Drive(std::mt19937 &rng, double heading_deg);

    const std::vector<DriveLeg> &legs() const { return legs_; }
    double duration_s() const { return legs_.empty() ? 0.0 : legs_.back().start_s + legs_.back().duration_s; }
    // The car t seconds after the drive's start (held still after its end).
    CarMotion at(double t_s) const;
    // Engine and road vibration at t, car frame, g: stronger with speed.
    Vec3 vibration_g(double t_s, double speed_mps) const;

private:
    void plan(std::mt19937 &rng);
    void fill_in(double heading_deg);
    void draw_traffic(std::mt19937 &rng);
    double slope_rad(double distance_m, double *per_m) const;

    std::vector<DriveLeg> legs_;
    // The road's pitch over distance: two waves (amplitude rad, wavelength m, phase).
    double slope_amp_[2] = {0, 0}, slope_wave_m_[2] = {1, 1}, slope_phase_[2] = {0, 0};
    // Vibration: three tones (frequency Hz, phase) on x and z.
    double tone_hz_[3] = {0, 0, 0}, tone_phase_[3] = {0, 0, 0};
};

}  // namespace vphone::scene

#endif
