// The reading hand of the browse scenario (browse.h).
#include "vphone/scene/browse.h"

#include <cmath>

#include "vphone/scene/scene_math.h"

namespace vphone::scene {
namespace {

double uniform(std::mt19937 &rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }

}  // namespace

double HandWander::Wave::at(double t) const { return amplitude_deg * std::sin(2 * kPi * t / period_s + phase); }

// Pitch within -20 - 5 - 2 .. -15 + 5 + 2 and roll within 4 + 1.5 of level, each with
// 0.45 of tremor: at most about 28 degrees from level.
HandWander::HandWander(std::mt19937 &rng) : reading_pitch_deg_(uniform(rng, -20, -15)) {
    pitch_ = {Wave{uniform(rng, 3, 5), uniform(rng, 7, 13), uniform(rng, 0, 2 * kPi)},
              Wave{uniform(rng, 1, 2), uniform(rng, 2.5, 4.5), uniform(rng, 0, 2 * kPi)}};
    roll_ = {Wave{uniform(rng, 2, 4), uniform(rng, 6, 11), uniform(rng, 0, 2 * kPi)},
             Wave{uniform(rng, 0.5, 1.5), uniform(rng, 2, 4), uniform(rng, 0, 2 * kPi)}};
    for (Wave &w : tremor_) w = Wave{uniform(rng, 0.2, 0.45), 1 / uniform(rng, 7, 11), uniform(rng, 0, 2 * kPi)};
}

Pose HandWander::offset(double t) const {
    return {tremor_[0].at(t), pitch_[0].at(t) + pitch_[1].at(t) + tremor_[1].at(t),
            roll_[0].at(t) + roll_[1].at(t) + tremor_[2].at(t)};
}

}  // namespace vphone::scene
