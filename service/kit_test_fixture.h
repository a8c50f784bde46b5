// The kit's test fixture: the shipped library on the virtual phone, the scene's
// scenarios played on its rig (vphone/scene), with the kit in charge of the call order.
// Each test drives a handling of the phone, optionally disturbs the field, and checks
// what the kit reported against the physics.
#ifndef KMXC_SERVICE_KIT_TEST_FIXTURE_H
#define KMXC_SERVICE_KIT_TEST_FIXTURE_H

#include "service/kmxc_service.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "orientation/orientation.h"
#include "vphone/phone_fixture.h"
#include "vphone/scene/rig.h"
#include "vphone/scene/scenario.h"
#include "vphone/scene/scripted_run.h"

#include <unistd.h>

namespace kit_test {

using namespace vphone::scene;
using vphone::Vec3;

constexpr const char *kCfg = kCalibrationFile;
// What a reset file holds after the rough offset.
constexpr const char *kDefaultOffsets = "0,0,0,2147483647,2147483647,2147483647";

struct Trace {
    std::vector<KmxcServiceEvent> events;
    std::vector<Truth> truths;
    std::vector<Vec3> true_offsets;  // counts
    KmxcServiceStart start{};
    int start_rc = 0;
    double first_fit_s = -1;
};

class Kit : public vphone::PhoneTest {
protected:
    // The phone's files in a directory of the test's own (the rig selects it as the
    // sandbox, which drops the fixture's).
    void SetUp() override {
        vphone::PhoneTest::SetUp();
        dir_ = (std::filesystem::temp_directory_path() / ("kmxc-kit-test-" + std::to_string(getpid()))).string();
        std::string error;
        ASSERT_TRUE(rig_.open_sandbox(dir_, true, 1, &error)) << error;
        rig_.attach_chips(1, kRigCalibration);
    }
    void TearDown() override {
        vphone::PhoneTest::TearDown();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // Powers the phone on again with its chips (the files stay as they are).
    void power_on() {
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
    }

    // Runs a scenario through the kit at rate_hz until until_s (or the script's end);
    // disturb may change what the phone senses at each instant.
    Trace run(ScenarioSettings settings, int rate_hz, double until_s = 1e9,
              const ScriptedRun::Disturbance &disturb = {}) {
        Trace r;
        Scenario scenario(settings);
        ScriptedRun run(rig_, scenario, static_cast<uint32_t>(rate_hz), until_s, disturb);
        run.sense_start();
        r.start_rc = kmxc_service_start(static_cast<uint32_t>(rate_hz), &r.start);
        if (r.start_rc != 0) return r;
        while (run.next()) {
            KmxcServiceEvent e;
            EXPECT_EQ(kmxc_service_cycle(static_cast<int64_t>(run.elapsed_us()) * 1000, &e), KMXC_SERVICE_OK);
            if (r.first_fit_s < 0 && (e.flags & KMXC_SERVICE_FIT_3D)) r.first_fit_s = run.truth().t_s;
            r.events.push_back(e);
            r.truths.push_back(run.truth());
            r.true_offsets.push_back(rig_.true_offset_counts());
        }
        kmxc_service_stop();
        return r;
    }

    // The offset error of an event (the scene's arithmetic, uT).
    static double offset_error_uT(const KmxcServiceEvent &e, const Vec3 &truth) {
        return vphone::scene::offset_error_uT(e.offset, truth);
    }

    Rig rig_;
    std::string dir_;
};

// The double path's azimuth error of an event against the scene's attitude, degrees.
inline double azimuth_error_deg(const KmxcServiceEvent &e, const Truth &t) {
    return heading_difference(e.orientation_deg[0], true_angles(t.attitude, HeadingAxis::kY).double_azimuth);
}

// The calibration file's text after its three rough-offset fields, and up to them.
inline size_t after_rough(const std::string &line) {
    size_t at = 0;
    for (int i = 0; i < 3 && at != std::string::npos; ++i) at = line.find(',', at) + 1;
    return at;
}

inline ScenarioSettings scenario(const char *name) { return ScenarioSettings{.name = name}; }

}  // namespace kit_test

#endif  // KMXC_SERVICE_KIT_TEST_FIXTURE_H
