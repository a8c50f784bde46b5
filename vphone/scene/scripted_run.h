// A scenario played on the rig at a fixed rate, in virtual time: each step waits until
// the next cycle is due, samples the scenario at that instant and makes the chips
// sense it. The service under test runs its own cycle after each step.
//
//   ScriptedRun run(rig, scenario, 20);
//   run.sense_start();                  // what the chips sense while the service starts
//   start the service ...
//   while (run.next()) { the service's cycle at run.elapsed_us(); run.truth() ... }
#ifndef KMXC_VPHONE_SCENE_SCRIPTED_RUN_H
#define KMXC_VPHONE_SCENE_SCRIPTED_RUN_H

#include <cstdint>
#include <functional>

#include "vphone/scene/rig.h"
#include "vphone/scene/scenario.h"

namespace vphone::scene {

// Sleeps (virtual time) until the clock reads due_us, in steps under a second (usleep
// takes less, and useconds_t may be 32 bits). A failed sleep ends the wait early.
void wait_until(uint64_t due_us);

class ScriptedRun {
public:
    // May change what the phone senses at each instant (t from the run's start).
    using Disturbance = std::function<void(double t_s, Truth &truth)>;

    // Cycles every 1/rate_hz s (whole microseconds) from the virtual time now, which
    // is the scenario's t = 0, until the script ends or until_s, whichever is first.
    ScriptedRun(Rig &rig, Scenario &scenario, uint32_t rate_hz, double until_s = 1e9, Disturbance disturb = {});

    // The chips sense the scenario's t = 0.
    void sense_start();
    // Waits for the next cycle; false once it would start past the end (the clock has
    // then moved to it). Otherwise the chips now sense that instant (truth()), and the
    // transcript is cleared, so a long run keeps it small.
    bool next();

    const Truth &truth() const { return truth_; }
    uint64_t elapsed_us() const;  // since the run's start

private:
    Rig &rig_;
    Scenario &scenario_;
    uint64_t start_us_, period_us_, end_us_;
    Disturbance disturb_;
    uint64_t cycle_ = 0;
    Truth truth_;
};

}  // namespace vphone::scene

#endif
