// A hand holding the phone to read a map while its owner walks, for the browse
// scenario: the reading pose, its slow wander and the hand's tremor, drawn from a seed.
#ifndef KMXC_VPHONE_SCENE_BROWSE_H
#define KMXC_VPHONE_SCENE_BROWSE_H

#include <array>
#include <random>

#include "vphone/scene/frames.h"

namespace vphone::scene {

// What every drawn hand keeps to: the phone within this of level (tremor included),
// turned with the walker at most this fast on average over a turn.
constexpr double kBrowseMaxTiltDeg = 30.0;
constexpr double kBrowseMaxTurnRateDeg = 28.0;
constexpr double kBrowseS = 180.0;  // the scenario's length

class HandWander {
public:
    HandWander() = default;
    explicit HandWander(std::mt19937 &rng);

    // The reading pose's pitch: the top edge raised this far (negative, as pitch is).
    double reading_pitch_deg() const { return reading_pitch_deg_; }
    // Wander and tremor at t, added to the reading pose (heading, pitch, roll).
    Pose offset(double t_s) const;

private:
    struct Wave {
        double amplitude_deg = 0, period_s = 1, phase = 0;
        double at(double t_s) const;
    };
    double reading_pitch_deg_ = -18;
    std::array<Wave, 2> pitch_, roll_;  // slow wander: seconds
    std::array<Wave, 3> tremor_;        // heading, pitch, roll: a tenth of a second
};

}  // namespace vphone::scene

#endif
