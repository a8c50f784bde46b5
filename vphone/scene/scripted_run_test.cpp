// Scripted runs on the rig, in virtual time, without the library: when the cycles come,
// what the chips then sense, and the offset arithmetic the reports use.
#include "vphone/scene/scripted_run.h"

#include <gtest/gtest.h>

#include "vphone/vphone.h"

namespace vphone::scene {
namespace {

struct ScriptedRunTest : ::testing::Test {
    void SetUp() override {
        reset();
        make_sandbox();
        rig.attach_chips(1, kRigCalibration);
    }
    void TearDown() override {
        reset();
        remove_sandbox();
    }
    Rig rig;
};

// A service slower than the period delays the next cycle to when the last one ended
// instead of crowding them, and samples the truth when it starts.
TEST_F(ScriptedRunTest, CyclesComeEveryWholePeriodFromTheStartUpToAndIncludingTheEndOrWhenTheLastEnded) {
    const struct {
        const char *name;
        uint32_t rate_hz;
        double until_s;
        uint64_t busy_us, period_us;
        size_t cycles;
    } cases[] = {
        {"still", 10, 1e9, 0, 100000, 201},  // the script's 20 s, its last instant included
        {"still", 3, 2, 0, 333333, 7},       // 6 x 333333 us is still within 2 s
        {"planar", 100, 1, 0, 10000, 101},
        // The magnetometer's conversion alone takes 13 ms: 1 s / 13 ms, and the one at 0.
        {"still", 100, 1, 13000, 13000, 77},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + " at " + std::to_string(c.rate_hz) + " Hz");
        advance_us(1234567);  // a run starts whenever it is made
        Scenario scenario(ScenarioSettings{.name = c.name});
        ScriptedRun run(rig, scenario, c.rate_hz, c.until_s);
        const uint64_t start = now_us();
        size_t n = 0;
        for (; run.next(); ++n) {
            ASSERT_EQ(now_us() - start, n * c.period_us) << "cycle " << n;
            ASSERT_EQ(run.elapsed_us(), n * c.period_us);
            ASSERT_EQ(run.truth().t_s, static_cast<double>(n * c.period_us) / 1e6);
            advance_us(c.busy_us);
        }
        EXPECT_EQ(n, c.cycles);
    }
}

// The chips sense the truth after the disturbance: a field fixed to the phone added by
// it is in the offset the calibration should find, which with the rough offset at its
// centre is the hard iron in counts of 0.4 uT.
TEST_F(ScriptedRunTest, TheChipsSenseTheDisturbedTruthAndItsHardIronIsTheTrueOffset) {
    ScenarioSettings settings{.name = "still"};
    settings.hard_iron_uT = {10, -20, 4};
    Scenario scenario(settings);
    ScriptedRun run(rig, scenario, 10, 1, [](double t, Truth &truth) { truth.hard_iron_uT[2] += 100 * t; });
    run.sense_start();
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(rig.true_offset_counts()[k], (Vec3{25, -50, 10})[k], 1e-9);
    while (run.next()) { EXPECT_NEAR(rig.true_offset_counts()[2], (4 + 100 * run.truth().t_s) / 0.4, 1e-9); }
    EXPECT_DOUBLE_EQ(offset_error_uT(std::array<int32_t, 3>{28, -50, 6}, Vec3{25, -50, 10}), 2.0) << "3-4-5 counts";
}

}  // namespace
}  // namespace vphone::scene
