#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "drivers/drivers.h"
#include "orientation/orientation.h"

namespace {

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
        {"channel 0 up three", {5, 5, 5}, {8, 5, 5}, {1000 + 3 * 226, 2000, 3000}, false},
        {"channel 1 down one", {5, 5, 5}, {5, 4, 5}, {1000, 2000 - 226, 3000 + 226}, false},
        {"channel 2 up two", {5, 5, 5}, {5, 5, 7}, {1000, 2000 - 2 * 226, 3000 - 2 * 226}, false},
        {"all channels, in place", {10, 10, 10}, {9, 12, 11}, {1000 - 226, 2000 + 226, 3000 - 3 * 226}, true},
        {"no range check: 0 -> 255", {0, 0, 0}, {255, 0, 0}, {1000 + 255 * 226, 2000, 3000}, false},
    };
    for (const auto &c : cases) {
        KmxAxesData in{1000, 2000, 3000}, out{};
        KmxAxesData *to = c.in_place ? &in : &out;
        EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, to, c.from.data(), c.to.data()), 0) << c.name;
        EXPECT_EQ(to->x, c.expected.x) << c.name << ": " << to->x << "," << to->y << "," << to->z;
        EXPECT_EQ(to->y, c.expected.y) << c.name << ": " << to->x << "," << to->y << "," << to->z;
        EXPECT_EQ(to->z, c.expected.z) << c.name << ": " << to->x << "," << to->y << "," << to->z;
    }

    // A null pointer in any of the four places is refused and out is left alone.
    const KmxAxesData in{1, 2, 3};
    const Steps from{0, 0, 0}, to{1, 1, 1};
    for (int null_at = 0; null_at < 4; ++null_at) {
        KmxAxesData out{7, 8, 9};
        EXPECT_EQ(KmxAxesLibRecalcMsOffset(null_at == 0 ? nullptr : &in, null_at == 1 ? nullptr : &out,
                                           null_at == 2 ? nullptr : from.data(), null_at == 3 ? nullptr : to.data()),
                  -1)
            << null_at;
        EXPECT_EQ(out.x, 7) << null_at;
        EXPECT_EQ(out.y, 8) << null_at;
        EXPECT_EQ(out.z, 9) << null_at;
    }
    *KmxcDrvHandle() = saved;
    g_Temprature = saved_temperature;
}

}  // namespace
