// The magnetometer model's bus protocol, checked directly (without the library).
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include "vphone/kmxc_model.h"

namespace {

using vphone::KmxcModel;

struct KmxcModelTest : ::testing::Test {
    void SetUp() override { vphone::reset(); }
    void send(std::initializer_list<uint8_t> bytes) {
        const std::vector<uint8_t> v(bytes);
        ASSERT_EQ(chip.write(v.data(), v.size()), static_cast<int>(v.size()));
    }
    std::vector<uint8_t> receive(size_t n) {
        std::vector<uint8_t> v(n, 0xEE);
        EXPECT_EQ(chip.read(v.data(), n), static_cast<int>(n));
        return v;
    }
    KmxcModel chip;
};

TEST_F(KmxcModelTest, MeasurementIsBusyUntilItsConversionTimeHasPassed) {
    chip.set_temperature_c(KmxcModel::celsius(0x5A3));
    send({0xC0, 0x02});
    vphone::advance_us(12999);
    EXPECT_EQ(receive(8)[0] & 0x80, 0x80);
    vphone::advance_us(1);
    // Zero field, rough setting 16: every channel 512 (0x200), listed last to first.
    EXPECT_EQ(receive(8), (std::vector<uint8_t>{0x02, 0x00, 0x02, 0x00, 0x02, 0x00, 0x05, 0xA3}));
}

TEST_F(KmxcModelTest, RoughReadingIsFivePlusTheSettingThatCentresEachChannel) {
    struct Case {
        const char *name;
        vphone::Vec3 hard_iron;  // uT; with 100 x identity one count = 1 raw count
        std::array<uint8_t, 3> reading;
    } cases[] = {
        {"no field", {0, 0, 0}, {21, 21, 21}},
        // x is -channel 0: +226 counts (90.4 uT) lowers channel 0 by one step.
        {"one step on x", {90.4, 0, 0}, {20, 21, 21}},
        // y = t2 - t1, z = t1 + t2 (in 16ths): z = +452 counts raises channels 1 and 2 by one step.
        {"z raises channels 1 and 2", {0, 0, 180.8}, {21, 22, 22}},
        {"clamped at 0", {3000, 0, 0}, {0, 21, 21}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        chip.set_hard_iron_ut(c.hard_iron[0], c.hard_iron[1], c.hard_iron[2]);
        send({0xC0, 0x01});
        EXPECT_EQ(receive(6)[0] & 0x80, 0x80);
        vphone::advance_us(2000);
        const auto b = receive(6);  // status, then the channels last to first
        EXPECT_EQ((std::array<uint8_t, 4>{b[0], b[5], b[3], b[1]}),
                  (std::array<uint8_t, 4>{0, c.reading[0], c.reading[1], c.reading[2]}));
    }
}

TEST_F(KmxcModelTest, RoughCommandsMoveTheirChannelAndAreReported) {
    EXPECT_FALSE(chip.rough_offset_given());
    send({0x3F, 0x40});
    EXPECT_FALSE(chip.rough_offset_given());
    send({0x71});
    EXPECT_TRUE(chip.rough_offset_given());
    EXPECT_EQ(chip.rough_offset(), (std::array<uint8_t, 3>{31, 0, 17}));
    // Each step above 16 lowers the channel by 226 from 512; saturating at 0 and 2047.
    EXPECT_EQ(chip.raw_channels(), (std::array<int, 3>{0, 2047, 512 - 226}));
    send({0xF5});
    EXPECT_EQ(chip.gpo(), 1);
}

TEST_F(KmxcModelTest, NoiseIsRepeatableForASeed) {
    auto sample = [this](uint32_t seed) {
        chip.set_noise(seed, 3.0);
        std::vector<std::vector<uint8_t>> all;
        for (int i = 0; i < 5; ++i) {
            send({0xC0, 0x02});
            vphone::advance_us(13000);
            all.push_back(receive(8));
        }
        return all;
    };
    EXPECT_EQ(sample(7), sample(7));
    EXPECT_NE(sample(7), sample(8));
}

}  // namespace
