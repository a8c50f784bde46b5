// The SMB380 model on its own bus protocol: (register, value) pair writes, address
// then read.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "vphone/smb380_model.h"

namespace {

struct Chip : vphone::Smb380Model {
    void set(std::vector<uint8_t> pairs) { ASSERT_EQ(write(pairs.data(), pairs.size()), int(pairs.size())); }
    std::vector<uint8_t> get(uint8_t reg, size_t n) {
        std::vector<uint8_t> out(n);
        write(&reg, 1);
        read(out.data(), n);
        return out;
    }
    // Chip z axis in counts, from one read of all three axes.
    int z() {
        const auto b = get(0x02, 6);
        const int v = b[5] << 2 | b[4] >> 6;
        return v >= 512 ? v - 1024 : v;
    }
};

TEST(Smb380Model, RangeCodeSetsCountsPerGAndMountingIsInverted) {
    Chip chip;
    // Chip z is the phone's -x: 0.5 g along phone x reads -0.5 g on chip z.
    ASSERT_TRUE(chip.set_mounting({0, 0, -1, 0, 1, 0, 1, 0, 0}));
    chip.set_gravity_g(0.5, 0, 0);
    const struct {
        uint8_t reg14;
        int z;
    } cases[] = {{0x00, -128}, {0x08, -64}, {0x10, -32}, {0x18, -32}};
    for (const auto &c : cases) {
        chip.set({0x14, c.reg14});
        EXPECT_EQ(chip.z(), c.z) << int(c.reg14);
        EXPECT_EQ(chip.last_counts()[2], c.z);
    }
    EXPECT_FALSE(chip.set_mounting({1, 0, 0, 1, 0, 0, 0, 0, 1}));  // singular: refused
    chip.set_gravity_g(-2.5, 0, 0);                                // beyond the range: clamped
    chip.set({0x14, 0x00});
    EXPECT_EQ(chip.z(), 511);
}

TEST(Smb380Model, EepromNeedsWriteEnableAndReachesTheImageOnUpdateOrReset) {
    Chip chip;
    chip.set({0x34, 0x13});  // write enable clear: ignored
    EXPECT_EQ(chip.ignored_eeprom_writes(), 1);
    chip.set({0x0A, 0x10, 0x34, 0x0A, 0x0A, 0x00});
    EXPECT_EQ(chip.get(0x34, 1)[0], 0x0A);
    EXPECT_EQ(chip.get(0x14, 1)[0], 0x0E);  // the image keeps its power-on value
    chip.set({0x0A, 0x20});
    EXPECT_EQ(chip.get(0x0A, 1)[0], 0x00);  // update bit clears itself
    EXPECT_EQ(chip.get(0x14, 1)[0], 0x0A);
    chip.set({0x14, 0x00, 0x0A, 0x02});  // soft reset: EEPROM image again
    EXPECT_EQ(chip.get(0x00, 2), (std::vector<uint8_t>{0x02, 0x12}));
    EXPECT_EQ(chip.get(0x14, 1)[0], 0x0A);
}

TEST(Smb380Model, SleepHoldsTheLastSampleAndNoiseIsSeeded) {
    Chip chip;
    chip.set({0x14, 0x00});
    chip.set_gravity_g(0, 0, 1);
    EXPECT_EQ(chip.z(), 256);
    chip.set({0x0A, 0x01});
    chip.set_gravity_g(0, 0, -1);
    EXPECT_EQ(chip.z(), 256);
    chip.set({0x0A, 0x00});
    EXPECT_EQ(chip.z(), -256);
    std::vector<int> first, second;
    for (auto *run : {&first, &second}) {
        chip.set_noise(77, 3.0);
        for (int i = 0; i < 8; ++i) run->push_back(chip.z());
    }
    EXPECT_EQ(first, second);
    for (int z : first) EXPECT_NEAR(z, -256, 15);
    EXPECT_NE(first, std::vector<int>(8, -256));
}

TEST(Smb380Model, RegisterAddressesAreSevenBit) {
    Chip chip;
    const uint8_t flagged[] = {0x82}, pairs[] = {0x10, 0x5A, 0x82, 0x01};
    EXPECT_EQ(chip.write(flagged, 1), -EIO);
    EXPECT_EQ(chip.write(pairs, 4), -EIO);
    EXPECT_EQ(chip.reg(0x10), 0x00);  // nothing of a refused write lands
}

}  // namespace
