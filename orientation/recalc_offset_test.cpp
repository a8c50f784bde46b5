#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "drivers/drivers.h"
#include "orientation/orientation.h"

namespace {

// Correction 100 x identity, no temperature term: one rough step (226 raw counts)
// on channel 0, 1, 2 moves the corrected vector by (-226, 0, 0), (0, -226, 226)
// and (0, 226, 226): channel 0 is the chip's -x, channels 1 and 2 mix into y and z.
struct RecalcOffsetTest : ::testing::Test {
    void SetUp() override {
        saved_ = *KmxcDrvHandle();
        savedT_ = g_Temprature;
        KmxcDrvState &st = *KmxcDrvHandle();
        const int16_t c[9] = {100, 0, 0, 0, 100, 0, 0, 0, 100};
        for (int i = 0; i < 9; ++i) st.correction[i] = c[i];
        for (auto &t : st.tempCoef) t = 0;
        g_Temprature = 256;
    }
    void TearDown() override {
        *KmxcDrvHandle() = saved_;
        g_Temprature = savedT_;
    }
    KmxcDrvState saved_;
    uint16_t savedT_ = 0;
};

TEST_F(RecalcOffsetTest, AppliesEachStepResponseOncePerStep) {
    struct Case {
        const char *name;
        std::array<uint8_t, 3> from, to;
        KmxAxesData expected;
    } cases[] = {
        {"no change", {5, 5, 5}, {5, 5, 5}, {1000, 2000, 3000}},
        {"channel 0 up three", {5, 5, 5}, {8, 5, 5}, {1000 + 3 * 226, 2000, 3000}},
        {"channel 1 down one", {5, 5, 5}, {5, 4, 5}, {1000, 2000 - 226, 3000 + 226}},
        {"channel 2 up two", {5, 5, 5}, {5, 5, 7}, {1000, 2000 - 2 * 226, 3000 - 2 * 226}},
        {"all channels", {10, 10, 10}, {9, 12, 11}, {1000 - 226, 2000 + 2 * 226 - 226, 3000 - 2 * 226 - 226}},
        {"no range check: 0 -> 255", {0, 0, 0}, {255, 0, 0}, {1000 + 255 * 226, 2000, 3000}},
    };
    for (const auto &c : cases) {
        const KmxAxesData in{1000, 2000, 3000};
        KmxAxesData out{};
        EXPECT_EQ(KmxAxesLibRecalcMsOffset(&in, &out, c.from.data(), c.to.data()), 0) << c.name;
        EXPECT_EQ(out.x, c.expected.x) << c.name;
        EXPECT_EQ(out.y, c.expected.y) << c.name;
        EXPECT_EQ(out.z, c.expected.z) << c.name;
    }
}

TEST_F(RecalcOffsetTest, GoingThereAndBackRestoresTheOffset) {
    const std::array<uint8_t, 3> a{3, 17, 30}, b{31, 0, 12};
    KmxAxesData offset{-1234, 567, 8901};
    KmxAxesLibRecalcMsOffset(&offset, &offset, a.data(), b.data());  // in and out may alias
    EXPECT_NE(offset.x, -1234);
    KmxAxesLibRecalcMsOffset(&offset, &offset, b.data(), a.data());
    EXPECT_EQ(offset.x, -1234);
    EXPECT_EQ(offset.y, 567);
    EXPECT_EQ(offset.z, 8901);
}

TEST_F(RecalcOffsetTest, NullPointerAnywhereLeavesOutUntouched) {
    const KmxAxesData in{1, 2, 3};
    const std::array<uint8_t, 3> from{0, 0, 0}, to{1, 1, 1};
    struct Case {
        const char *name;
        bool in, out, from, to;
    } cases[] = {
        {"in", false, true, true, true},
        {"out", true, false, true, true},
        {"old rough", true, true, false, true},
        {"new rough", true, true, true, false},
    };
    for (const auto &c : cases) {
        KmxAxesData out{7, 8, 9};
        EXPECT_EQ(KmxAxesLibRecalcMsOffset(c.in ? &in : nullptr, c.out ? &out : nullptr,
                                           c.from ? from.data() : nullptr, c.to ? to.data() : nullptr),
                  -1)
            << c.name;
        EXPECT_EQ(out.x, 7) << c.name;
        EXPECT_EQ(out.y, 8) << c.name;
        EXPECT_EQ(out.z, 9) << c.name;
    }
}

}  // namespace
