#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

struct FilterSequence {
    const char *name;
    std::vector<double> inputs, outputs;
};

TEST(AzimuthFilter, HoldsWhileStillAndReleasesWhenTurned) {
    // Each sequence continues from the one before it; the first starts fresh.
    const FilterSequence sequences[] = {
        {"0 ten times: held at 3 once the smoothed heading settles",
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         {0, 0, 0, 0, 3, 3, 3, 3, 3, 3}},
        {"20 ten times, then 21 19 22 20: released, then held at 21",
         {20, 20, 20, 20, 20, 20, 20, 20, 20, 20, 21, 19, 22, 20},
         {3, 20, 20, 20, 21, 21, 21, 21, 21, 21, 21, 21, 21, 21}},
    };
    KmxAxesLibAzimuthFilterInit();
    for (const auto &s : sequences) {
        for (size_t i = 0; i < s.inputs.size(); ++i) {
            double out = -7;
            ASSERT_EQ(KmxAxesLibGetAzimuthFiltered(s.inputs[i], &out), 0);
            EXPECT_EQ(out, s.outputs[i]) << s.name << " step " << i;
        }
    }
}

TEST(AzimuthFilter, FreeFilterWritesTheTruncatedHeading) {
    const struct {
        double heading, out;
    } cases[] = {{360.0, 360.0}, {359.99, 359.0}, {0.0, 0.0}, {123.9, 123.0}};
    for (const auto &c : cases) {
        KmxAxesLibAzimuthFilterInit();
        double out = -7;
        EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(c.heading, &out), 0) << c.heading;
        EXPECT_EQ(out, c.out) << c.heading;
    }
}

TEST(AzimuthFilter, RefusedCallsChangeNothing) {
    KmxAxesLibAzimuthFilterInit();
    double out = 0;
    KmxAxesLibGetAzimuthFiltered(42.0, &out);
    struct KmxAxesLibAzimuthFilterState before;
    std::memcpy(&before, &KmxAxesLibAzimuthFilterState, sizeof before);
    for (double bad : {-0.5, 360.5, -1e-300, std::nan("")}) {
        out = -7;
        EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(bad, &out), -1) << bad;
        EXPECT_EQ(out, -7) << bad;
    }
    EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(10.0, nullptr), -1);
    EXPECT_EQ(std::memcmp(&before, &KmxAxesLibAzimuthFilterState, sizeof before), 0);
}

}  // namespace
