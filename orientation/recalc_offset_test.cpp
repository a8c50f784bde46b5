#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "orientation/test_vectors.h"

namespace {

using kmxc_test::xyz;

// Correction 100 x identity, no temperature term: one rough step (226 raw counts)
// on channel 0, 1, 2 moves the corrected vector by (-226, 0, 0), (0, -226, 226)
// and (0, 226, 226): channel 0 is the chip's -x, channels 1 and 2 mix into y and z.
TEST(RecalcMsOffset, AppliesEachStepResponseOncePerStep) {
    const KmxcDrvState saved = *KmxcDrvHandle();
    const uint16_t saved_temperature = g_Temprature;
    KmxcDrvState &st = *KmxcDrvHandle();
    for (int i = 0; i < 9; ++i) st.correction[i] = i % 4 == 0 ? 100 : 0;
    for (auto &t : st.tempCoef) t = 0;
    g_Temprature = 256;

    using Steps = std::array<uint8_t, 3>;
    // in_place: in and out are the same record.
    const struct {
        const char *name;
        Steps from, to;
        KmxAxesData expected;
        bool in_place;
    } cases[] = {
        {"no change", {5, 5, 5}, {5, 5, 5}, {1000, 2000, 3000}, false},
        {"channel 0 up, no range check: 0 -> 255", {0, 0, 0}, {255, 0, 0}, {1000 + 255 * 226, 2000, 3000}, false},
        {"channel 1 down one", {5, 5, 5}, {5, 4, 5}, {1000, 2000 - 226, 3000 + 226}, false},
        {"channel 2 up two", {5, 5, 5}, {5, 5, 7}, {1000, 2000 - 2 * 226, 3000 - 2 * 226}, false},
        {"all channels, in place", {10, 10, 10}, {9, 12, 11}, {1000 - 226, 2000 + 226, 3000 - 3 * 226}, true},
    };
    for (const auto &c : cases) {
        KmxAxesData in{1000, 2000, 3000}, out{};
        KmxAxesData *to = c.in_place ? &in : &out;
        EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, to, c.from.data(), c.to.data()), 0) << c.name;
        EXPECT_EQ(xyz(*to), xyz(c.expected)) << c.name;
    }

    // A null pointer in any of the four places is refused and out is left alone.
    const KmxAxesData in{1, 2, 3};
    KmxAxesData out{7, 8, 9};
    const Steps from{0, 0, 0}, to{1, 1, 1};
    EXPECT_EQ(KmxAxesLibRecalcMsOffset(nullptr, &out, from.data(), to.data()), -1);
    EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, nullptr, from.data(), to.data()), -1);
    EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, &out, nullptr, to.data()), -1);
    EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, &out, from.data(), nullptr), -1);
    EXPECT_EQ(xyz(out), (std::array<int32_t, 3>{7, 8, 9}));
    *KmxcDrvHandle() = saved;
    g_Temprature = saved_temperature;
}

}  // namespace
