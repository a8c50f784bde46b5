#include <gtest/gtest.h>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"
#include "orientation/test_vectors.h"

namespace {

using kmxc_test::xyz;

// The offsets are set and read back independently. CalcDirection smooths with its own
// history, which re-initialisation keeps; an attitude without a heading is smoothed as
// heading 0. Init zeroes both offsets and frees the azimuth filter.
TEST(Init, ZeroesOffsetsFreesTheFilterAndKeepsTheHeadingHistory) {
    const KmxAxesAttitude east{{0, 4096, 0, -4096, 0, 0, 0, 0, 4096}, 0, 0, 0, {}, {}};
    const KmxAxesAttitude none{{4096, 0, 0, 0, 0, 4096, 0, 100, 0}, 0, 0, 0, {}, {}};
    uint16_t heading = 999;
    const KmxAxesData ms{100, -6, 7}, gs{-1, 2, 5};
    KmxAxesData got_ms{}, got_gs{};
    KmxAxesLibSetMsOffset(&ms);
    KmxAxesLibSetGsOffset(&gs);
    KmxAxesLibGetMsOffset(&got_ms);
    KmxAxesLibGetGsOffset(&got_gs);
    EXPECT_EQ(xyz(got_ms), xyz(ms));
    EXPECT_EQ(xyz(got_gs), xyz(gs));
    KmxAxesLibAzimuthFilterInit();
    double out = 0;
    for (int i = 0; i < 10; ++i) KmxAxesLibGetAzimuthFiltered(0.0, &out);
    ASSERT_EQ(out, 3.0);  // held
    KmxAxesLibDirectionState = {0, 0, 0, 0};
    KmxAxesLibCalcDirection(&east, &heading, 3000);  // 157, 132: the smoother's sequence for 90
    KmxAxesLibCalcDirection(&east, &heading, 3000);

    EXPECT_EQ(KmxAxesLibInit(), 0);
    KmxAxesLibGetMsOffset(&got_ms);
    KmxAxesLibGetGsOffset(&got_gs);
    EXPECT_EQ(xyz(got_ms), xyz(KmxAxesData_Constructor));
    EXPECT_EQ(xyz(got_gs), xyz(KmxAxesData_Constructor));
    EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(0.0, &out), 0);
    EXPECT_EQ(out, 0.0);  // free again: the input comes back, not the held 3
    for (const auto &[attitude, want] : {std::pair{&east, 108}, {&none, 73}}) {  // 108: the sequence goes on
        EXPECT_EQ(KmxAxesLibCalcDirection(attitude, &heading, 3000), 0);
        EXPECT_EQ(heading, want);
    }
}

}  // namespace
