// Scripted runs in virtual time (scripted_run.h).
#include "vphone/scene/scripted_run.h"

#include <unistd.h>

#include <algorithm>

#include "vphone/vphone.h"

namespace vphone::scene {

void wait_until(uint64_t due_us) {
    while (now_us() < due_us)
        if (usleep(static_cast<useconds_t>(std::min<uint64_t>(due_us - now_us(), 999999))) != 0) break;
}

ScriptedRun::ScriptedRun(Rig &rig, Scenario &scenario, uint32_t rate_hz, double until_s, Disturbance disturb)
    : rig_(rig),
      scenario_(scenario),
      start_us_(now_us()),
      period_us_(1000000u / rate_hz),
      end_us_(static_cast<uint64_t>(std::min(until_s, scenario.duration_s()) * 1e6)),
      disturb_(std::move(disturb)) {}

uint64_t ScriptedRun::elapsed_us() const { return now_us() - start_us_; }

void ScriptedRun::sense_start() {
    truth_ = scenario_.sample(0.0);
    if (disturb_) disturb_(0.0, truth_);
    rig_.sense(truth_);
}

bool ScriptedRun::next() {
    // A cycle lasts at least the magnetometer's 13 ms, so at high rates the cycles
    // start late, not more often.
    wait_until(start_us_ + cycle_++ * period_us_);
    if (elapsed_us() > end_us_) return false;
    const double t = static_cast<double>(elapsed_us()) / 1e6;
    truth_ = scenario_.sample(t);
    if (disturb_) disturb_(t, truth_);
    rig_.sense(truth_);
    clear_transcript();
    return true;
}

}  // namespace vphone::scene
