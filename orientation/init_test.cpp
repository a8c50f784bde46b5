#include <gtest/gtest.h>

#include <cstring>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

TEST(Init, ZeroesOffsetsFreesTheFilterAndKeepsTheHeadingHistory) {
    const KmxAxesData ms{100, 0, 0}, gs{0, 0, 5};
    KmxAxesLibSetMsOffset(&ms);
    KmxAxesLibSetGsOffset(&gs);
    KmxAxesLibAzimuthFilterInit();
    double out = 0;
    for (int i = 0; i < 10; ++i) KmxAxesLibGetAzimuthFiltered(0.0, &out);
    ASSERT_EQ(KmxAxesLibAzimuthFilterState.hold, 1);  // holding 3
    const KmxAxesLibSmootherHistory history{-400, -401, -402, -403};
    KmxAxesLibDirectionState = history;

    EXPECT_EQ(KmxAxesLibInit(), 0);
    KmxAxesData back{1, 1, 1};
    KmxAxesLibGetMsOffset(&back);
    EXPECT_TRUE(back.x == 0 && back.y == 0 && back.z == 0);
    back = {1, 1, 1};
    KmxAxesLibGetGsOffset(&back);
    EXPECT_TRUE(back.x == 0 && back.y == 0 && back.z == 0);
    EXPECT_EQ(KmxAxesLibGetAzimuthFiltered(0.0, &out), 0);
    EXPECT_EQ(out, 0.0);  // free again: the input comes back, not the held 3
    EXPECT_EQ(std::memcmp(&KmxAxesLibDirectionState, &history, sizeof history), 0);
}

}  // namespace
