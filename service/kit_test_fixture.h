// The kit's test fixture: the shipped library, the chip models and the scripted
// physics of tools/ on the virtual phone, with the kit in charge of the call order.
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
#include "tools/phone.h"
#include "tools/scenario.h"
#include "vphone/phone_fixture.h"

#include <unistd.h>

namespace kit_test {

using namespace compass;

constexpr const char *kCfg = "/misc/sensor/kmxc_orvane.cfg";
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
    // The phone's files in a directory of the test's own (the Phone selects it as
    // the sandbox, which drops the fixture's).
    void SetUp() override {
        vphone::PhoneTest::SetUp();
        dir_ = (std::filesystem::temp_directory_path() / ("kmxc-kit-test-" + std::to_string(getpid()))).string();
        std::string error;
        ASSERT_TRUE(phone_.open_sandbox(dir_, true, 1, &error)) << error;
        phone_.attach_chips(1, kDemoCalib);
    }
    void TearDown() override {
        vphone::PhoneTest::TearDown();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // Runs a scenario through the kit at rate_hz until until_s (or the script's end);
    // disturb may change what the phone senses at each instant.
    Trace run(ScenarioSettings settings, int rate_hz, double until_s = 1e9,
              const std::function<void(double t, Truth &)> &disturb = {}) {
        Trace r;
        Scenario scenario(settings);
        const uint64_t start_us = vphone::now_us();
        Truth t0 = scenario.sample(0.0);
        if (disturb) disturb(0.0, t0);
        phone_.sense(t0);
        r.start_rc = kmxc_service_start(static_cast<uint32_t>(rate_hz), &r.start);
        if (r.start_rc != 0) return r;
        const double end_s = std::min(until_s, scenario.duration_s());
        const uint64_t period = 1000000u / static_cast<uint64_t>(rate_hz);
        for (uint64_t i = 0;; ++i) {
            const uint64_t due = start_us + i * period;
            if (vphone::now_us() < due) usleep(static_cast<useconds_t>(due - vphone::now_us()));
            const double t = static_cast<double>(vphone::now_us() - start_us) / 1e6;
            if (t > end_s) break;
            Truth truth = scenario.sample(t);
            if (disturb) disturb(t, truth);
            phone_.sense(truth);
            vphone::clear_transcript();
            KmxcServiceEvent e;
            EXPECT_EQ(kmxc_service_cycle(static_cast<int64_t>(vphone::now_us() - start_us) * 1000, &e),
                      KMXC_SERVICE_OK);
            if (r.first_fit_s < 0 && (e.flags & KMXC_SERVICE_FIT_3D)) r.first_fit_s = t;
            r.events.push_back(e);
            r.truths.push_back(truth);
            r.true_offsets.push_back(phone_.true_offset_counts());
        }
        kmxc_service_stop();
        return r;
    }

    static double offset_error_uT(const KmxcServiceEvent &e, const Vec3 &truth) {
        double sq = 0;
        for (int k = 0; k < 3; ++k) sq += (e.offset[k] - truth[k]) * (e.offset[k] - truth[k]);
        return std::sqrt(sq) * 0.4;
    }

    Phone phone_;
    std::string dir_;
};

// The calibration file's text after its three rough-offset fields, and up to them.
inline size_t after_rough(const std::string &line) {
    size_t at = 0;
    for (int i = 0; i < 3 && at != std::string::npos; ++i) at = line.find(',', at) + 1;
    return at;
}

inline ScenarioSettings scenario(const char *name) { return ScenarioSettings{.name = name}; }

}  // namespace kit_test

#endif  // KMXC_SERVICE_KIT_TEST_FIXTURE_H
