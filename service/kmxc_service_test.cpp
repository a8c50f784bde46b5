// The kit's start on the virtual phone: the rates it serves and the events'
// conventions.
#include <gtest/gtest.h>

#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// ---- Start-up ----------------------------------------------------------------------------

TEST_F(Kit, RatesOutsideTheServedRangeAreRefusedBeforeAnything) {
    for (uint32_t rate : {0u, KMXC_SERVICE_RATE_MAX_HZ + 1u}) {
        EXPECT_EQ(kmxc_service_start(rate, nullptr), -1) << rate;
        EXPECT_EQ(vphone::open_compass_descriptors(), 0);
        EXPECT_FALSE(vphone::exists(kCfg));
    }
    KmxcServiceEvent e;
    EXPECT_EQ(kmxc_service_cycle(0, &e), -1) << "not started";
    EXPECT_EQ(kmxc_service_stop(), -1);
}

TEST_F(Kit, EventsFollowTheAndroidConventions) {
    ScenarioSettings s = scenario("still");
    s.noise_uT = 0;
    s.accel_noise_g = 0;
    const Trace r = run(s, 10, 1);
    const KmxcServiceEvent &e = r.events.back();
    ASSERT_TRUE(e.flags & KMXC_SERVICE_MEASURED);
    EXPECT_NEAR(e.acceleration_ms2[2], 9.80665, 0.05) << "face up reads +g on z";
    EXPECT_NEAR(e.acceleration_ms2[0], 0, 0.05);
    for (int k = 0; k < 3; ++k) {
        EXPECT_FLOAT_EQ(e.magnetic_uT[k], e.uncalibrated_uT[k] - e.bias_uT[k]) << k;
        EXPECT_FLOAT_EQ(e.uncalibrated_uT[k], e.ms[k] * 0.4f) << k;
    }
    ASSERT_TRUE(e.flags & KMXC_SERVICE_ORIENTATION_VALID);
    EXPECT_GE(e.orientation_deg[0], 0);
    EXPECT_LT(e.orientation_deg[0], 360);
}

}  // namespace
