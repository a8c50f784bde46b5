#include <gtest/gtest.h>

#include "smb380/recording_bus.h"
#include "smb380/smb380.h"

using namespace smb380_test;

namespace {

const uint8_t kImage[19] = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87, 0x98, 0xA9,
                            0xBA, 0xCB, 0xDC, 0xED, 0xFE, 0x0F, 0x1E, 0x2D, 0x3C};

// Each argument is one call's result; failures name the argument's position.
template <class... Results>
void expect_null_dev(Results... results) {
    int call = 0;
    for (const int32_t r : {results...}) EXPECT_EQ(r, SMB380_ERR_NULL_DEV) << "call " << call++;
}

// One call per null-record check (the settings' shared helpers check once for all).
TEST(Smb380WithoutRecord, EveryFunctionReturns129AndTouchesNothing) {
    attach();
    p_smb380 = nullptr;
    uint8_t byte = 0x5A, image[19] = {0x77};
    uint16_t offset = 0x1234;
    int16_t axis = 77;
    smb380_accel accel{1, 2, 3};
    expect_null_dev(smb380_soft_reset(), smb380_update_image(), smb380_set_ee_w(1), smb380_set_image(kImage),
                    smb380_get_image(image), smb380_get_offset(0, &offset), smb380_set_offset(0, 1),
                    smb380_set_offset_eeprom(0, 1), smb380_selftest(1), smb380_read_reg(0, &byte, 1),
                    smb380_write_reg(0, &byte, 1), smb380_write_ee(0x16, 1), smb380_pause(10), smb380_set_range(3),
                    smb380_set_bandwidth(0), smb380_get_range(&byte), smb380_set_low_g_threshold(1),
                    smb380_set_any_motion_count(1), smb380_set_alert_int(1), smb380_set_mode(1), smb380_get_mode(),
                    smb380_set_interrupt_mask(0xFF), smb380_get_interrupt_mask(&byte), smb380_read_accel_x(&axis),
                    smb380_read_accel_xyz(&accel), smb380_read_temperature(&byte));
    EXPECT_TRUE(g_bus.calls.empty());
    EXPECT_EQ((std::vector<int>{byte, offset, axis, accel.z, image[0]}), (std::vector<int>{0x5A, 0x1234, 77, 3, 0x77}));
    attach();  // writing the EEPROM needs the wait callback too
    g_dev.sleep_fn = nullptr;
    EXPECT_EQ(smb380_write_ee(0x16, 1), SMB380_ERR_NULL_DEV);
    EXPECT_TRUE(g_bus.calls.empty());
}

TEST(Smb380Init, StoresIdentificationFieldsAndSumsTheTwoReads) {
    attach({{0x00, 0xFA}, {0x01, 0xA7}});
    g_bus.results = {1, 2};
    p_smb380 = nullptr;
    EXPECT_EQ(smb380_init(&g_dev), 3);
    EXPECT_EQ(p_smb380, &g_dev);
    EXPECT_EQ(g_dev.slave_address, SMB380_SLAVE_ADDRESS);
    EXPECT_EQ((std::vector<int>{g_dev.chip_id, g_dev.version_low, g_dev.version_high}), (std::vector<int>{2, 7, 10}));
    EXPECT_EQ(g_bus.calls, (std::vector<Call>{R(0x80, {0xFA}), R(0x81, {0xA7})}));
}

TEST(Smb380Core, SequencesMakeExactlyTheseTransfersAndSumTheseResults) {
    uint8_t buf[19];
    uint16_t offset;
    const std::vector<uint8_t> image(kImage, kImage + 19);
    const Sequence cases[] = {
        {"soft reset overwrites 0x0A", {{0x0A, 0xFF}}, [] { return smb380_soft_reset(); }, {W(0x0A, {0x02})}, 1},
        {"update image overwrites 0x0A", {{0x0A, 0xFF}}, [] { return smb380_update_image(); }, {W(0x0A, {0x20})}, 1},
        // Only the flag's bit 0 counts (the enabling write is write_ee's).
        {"ee_w off", {{0x0A, 0xFF}}, [] { return smb380_set_ee_w(0xFE); }, {R(0x8A, {0xFF}), W(0x0A, {0xEF})}, 2},
        {"set_image: one write, 0x0A read again",
         {{0x0A, 0x41}},
         [] { return smb380_set_image(kImage); },
         {R(0x8A, {0x41}), W(0x0A, {0x51}), W(0x0B, image), R(0x8A, {0x51}), W(0x0A, {0x41})},
         16},
        {"get_image: one 19-byte read, disabled from the first reading",
         {{0x0A, 0x41}, {0x0B, 0x99}, {0x1D, 0x66}},
         [&] { return smb380_get_image(buf); },
         {R(0x8A, {0x41}), W(0x0A, {0x51}), R(0x8B, {0x99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x66}),
          W(0x0A, {0x41})},
         8},
        {"get_offset",
         {{0x17, 0xC5}, {0x1B, 0x80}},
         [&] { return smb380_get_offset(1, &offset); },
         {R(0x97, {0xC5}), R(0x9B, {0x80})},
         3},
        {"set_offset 0x3FF keeps the other field",
         {{0x16, 0x15}},
         [] { return smb380_set_offset(0, 0x3FF); },
         {R(0x96, {0x15}), W(0x16, {0xD5}), W(0x1A, {0xFF})},
         7},
        {"offset EEPROM cells, 34 ms each",
         {{0x17, 0x2A}},
         [] { return smb380_set_offset_eeprom(1, 0x2C6); },
         {R(0x97, {0x2A}), W(0x37, {0xAA}), S(34), W(0x3B, {0xB1}), S(34)},
         7},
        {"read_reg sets bit 7",
         {{0x40, 9}, {0x41, 8}},
         [&] { return smb380_read_reg(0x40, buf, 2); },
         {R(0xC0, {9, 8})},
         1},
        {"write_reg as given", {}, [] { return smb380_write_reg(0x0C, kImage, 3); }, {W(0x0C, {0x10, 0x21, 0x32})}, 1},
        {"write_ee: 0x16 to cell 0x36, enabled",
         {{0x0A, 0x01}},
         [] { return smb380_write_ee(0x16, 0x5C); },
         {R(0x8A, {0x01}), W(0x0A, {0x11}), W(0x36, {0x5C}), S(28), R(0x8A, {0x11}), W(0x0A, {0x01})},
         2 + 4 + 16},
        {"pause returns its argument", {}, [] { return smb380_pause(10); }, {S(10)}, 10},
    };
    for (const auto &c : cases) check(c);
    EXPECT_EQ(offset, 515);
}

}  // namespace
