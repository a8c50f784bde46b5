#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

// From a fresh filter: ten headings of 0 are held at 3, the smoothed heading once it
// settles, not the input; turning to 20 releases the hold, and the filter holds again
// at 21 through a degree or two of jitter.
TEST(AzimuthFilter, HoldsWhileStillAndReleasesWhenTurned) {
    const double inputs[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 20, 20, 20, 20, 20, 20, 20, 20, 20, 21, 19, 22, 20};
    const double outputs[] = {0, 0, 0, 0, 3, 3, 3, 3, 3, 3, 3, 20, 20, 20, 21, 21, 21, 21, 21, 21, 21, 21, 21, 21};
    KmxAxesLibAzimuthFilterInit();
    for (size_t i = 0; i < std::size(inputs); ++i) {
        double out = -7;
        ASSERT_EQ(KmxAxesLibGetAzimuthFiltered(inputs[i], &out), 0);
        EXPECT_EQ(out, outputs[i]) << "step " << i;
    }
}

// The stage history is settled at 2 degrees, so feeding 2 keeps the smoothed
// heading at 2; holding and releasing happen just beyond 5 degrees, across 0 too.
TEST(AzimuthFilter, HoldsAndReleasesBeyondFiveDegreesTheShortWayRound) {
    const struct {
        const char *name;
        int8_t hold;
        uint16_t held;
        int16_t recent[5];
        double out;
        int8_t hold_after;
    } cases[] = {{"held 5 away across 0: kept", 1, 357, {}, 357, 1},
                 {"held 6 away: released", 1, 356, {}, 2, 0},
                 {"recent within 5 across 0: held", 0, 0, {0, 7, 357, 2, 2}, 2, 1},
                 {"one recent 6 away: stays free", 0, 0, {0, 8, 2, 2, 2}, 2, 0}};
    for (const auto &c : cases) {
        KmxAxesLibAzimuthFilterInit();
        auto &f = KmxAxesLibAzimuthFilterState;
        f.stage = {-712, -712, -712, -712};  // 2 degrees in centred quarter-degrees
        f.hold = c.hold;
        f.heldAzimuth = c.held;
        std::copy(c.recent, c.recent + 5, f.recent);
        double out = -7;
        ASSERT_EQ(KmxAxesLibGetAzimuthFiltered(2.0, &out), 0);
        EXPECT_EQ(out, c.out) << c.name;
        EXPECT_EQ(f.hold, c.hold_after) << c.name;
    }
}

// A free filter writes the input truncated to whole degrees; inputs outside
// 0..360 are refused and leave both the output and the filter state alone.
TEST(AzimuthFilter, FreeFilterTruncatesAndRefusesOutOfRangeInputs) {
    const struct {
        double heading;
        int8_t result;
        double out;
    } cases[] = {{360.0, 0, 360.0}, {359.99, 0, 359.0}, {0.0, 0, 0.0},
                 {360.5, -1, -7},   {-1e-300, -1, -7},  {std::nan(""), -1, -7}};
    for (const auto &c : cases) {
        KmxAxesLibAzimuthFilterInit();
        double out = -7;
        KmxAxesLibGetAzimuthFiltered(42.0, &out);  // some history for a refusal to keep
        struct KmxAxesLibAzimuthFilterState before;
        std::memcpy(&before, &KmxAxesLibAzimuthFilterState, sizeof before);
        out = -7;
        EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(c.heading, &out), c.result) << c.heading;
        EXPECT_EQ(out, c.out) << c.heading;
        if (c.result != 0) {  // a refused heading leaves the filter as it was
            EXPECT_EQ(std::memcmp(&before, &KmxAxesLibAzimuthFilterState, sizeof before), 0) << c.heading;
        }
    }
    EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(10.0, nullptr), -1);
}

}  // namespace
