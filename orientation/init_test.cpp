#include <gtest/gtest.h>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

// CalcDirection smooths with its own history, which re-initialisation keeps; an
// attitude without a heading is smoothed as heading 0. Init zeroes both offsets and
// frees the azimuth filter.
TEST(Init, ZeroesOffsetsFreesTheFilterAndKeepsTheHeadingHistory) {
    const KmxAxesAttitude east{{0, 4096, 0, -4096, 0, 0, 0, 0, 4096}, 0, 0, 0, {}, {}};
    const KmxAxesAttitude none{{4096, 0, 0, 0, 0, 4096, 0, 100, 0}, 0, 0, 0, {}, {}};
    uint16_t heading = 999;
    const KmxAxesData ms{100, 0, 0}, gs{0, 0, 5};
    KmxAxesLibSetMsOffset(&ms);
    KmxAxesLibSetGsOffset(&gs);
    KmxAxesLibAzimuthFilterInit();
    double out = 0;
    for (int i = 0; i < 10; ++i) KmxAxesLibGetAzimuthFiltered(0.0, &out);
    ASSERT_EQ(out, 3.0);  // held
    KmxAxesLibDirectionState = {0, 0, 0, 0};
    for (uint16_t want : {157, 132}) {  // the smoother's sequence for 90
        EXPECT_EQ(KmxAxesLibCalcDirection(&east, &heading, 3000), 0);
        EXPECT_EQ(heading, want);
    }

    EXPECT_EQ(KmxAxesLibInit(), 0);
    KmxAxesData back[2] = {ms, gs};
    KmxAxesLibGetMsOffset(&back[0]);
    KmxAxesLibGetGsOffset(&back[1]);
    for (const auto &b : back) {
        EXPECT_EQ(b.x, 0) << b.x << "," << b.y << "," << b.z;
        EXPECT_EQ(b.y, 0) << b.x << "," << b.y << "," << b.z;
        EXPECT_EQ(b.z, 0) << b.x << "," << b.y << "," << b.z;
    }
    EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(0.0, &out), 0);
    EXPECT_EQ(out, 0.0);  // free again: the input comes back, not the held 3
    for (const auto &[attitude, want] : {std::pair{&east, 108}, {&none, 73}}) {
        EXPECT_EQ(KmxAxesLibCalcDirection(attitude, &heading, 3000), 0);
        EXPECT_EQ(heading, want);
    }
}

}  // namespace
