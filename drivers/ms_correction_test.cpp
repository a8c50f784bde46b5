#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"

namespace {

using Mat16 = std::array<int16_t, 9>;
constexpr Mat16 kSensitivityOfZeros = {100, -32, -8, -32, 38, -32, -32, -32, 66};
constexpr Mat16 kHundredIdentity = {100, 0, 0, 0, 100, 0, 0, 0, 100};

TEST(SensitivityMatrix, FieldsOfTheFirstSixBytesWithTheirBiases) {
    // Bytes 0..5 read as one big-endian 48-bit word of fields 6,4,6,6,6,6,6,7 bits wide;
    // bit 0 and bytes 6..8 are unused.
    const struct {
        const char *name;
        std::array<uint8_t, 9> calib;
        Mat16 expected;
    } cases[] = {
        {"all 0x00", {}, kSensitivityOfZeros},
        {"all 0xFF", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {100, 31, 7, 31, 101, 31, 31, 31, 193}},
        {"straddling", {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xFF, 0xFF, 0xFF}, {100, -28, 0, 20, 59, 7, 2, -6, 160}},
    };
    for (const auto &c : cases) {
        Mat16 s{};
        KmxcDrvMakeSensitivityMatrix(c.calib.data(), s.data());
        EXPECT_EQ(s, c.expected) << c.name;
    }
}

TEST(CheckMatrix, AmongUnitEntryMatricesAcceptsExactlyTheOrthogonalOnes) {
    // With entries in {-1, 0, 1}, one unit entry per row and column is M * M^T = I.
    int accepted = 0;
    for (int code = 0; code < 19683; ++code) {
        int8_t m[9];
        for (int i = 0, c = code; i < 9; ++i, c /= 3) m[i] = static_cast<int8_t>(c % 3 - 1);
        bool orthogonal = true;
        for (int i = 0; i < 9; ++i) {
            int dot = 0;
            for (int k = 0; k < 3; ++k) dot += m[3 * (i / 3) + k] * m[3 * (i % 3) + k];
            orthogonal = orthogonal && dot == (i / 3 == i % 3);
        }
        ASSERT_EQ(KmxAxesDrvCheckMatrix(m), orthogonal ? 0 : -1) << "code " << code;
        accepted += orthogonal;
    }
    EXPECT_EQ(accepted, 48);
    const int8_t other_values[9] = {1, 5, 0, 0, 1, 0, -128, 127, 1};  // only +-1 is counted
    EXPECT_EQ(KmxAxesDrvCheckMatrix(other_values), 0);
}

TEST(MsensCorrection, WorkedExamples) {
    const struct {
        const char *name;
        Mat16 correction;
        std::array<int8_t, 3> coef;
        std::array<uint16_t, 3> raw;
        uint16_t temperature;
        std::array<int32_t, 3> expected;
    } cases[] = {
        {"reference temperature: no drift", kSensitivityOfZeros, {-128, 127, 5}, {512, 512, 512}, 256, {0, 0, 0}},
        // Drift trunc(coef * 31457 * (T - 256) / 65536) is removed from t0; x = drift / 16.
        {"warm: drift 9599.9", kHundredIdentity, {100, 0, 0}, {512, 512, 512}, 456, {599, 0, 0}},
        {"cold: drift rounds toward zero too", kHundredIdentity, {100, 0, 0}, {512, 512, 512}, 56, {-599, 0, 0}},
        // -128 * 31457 * 744 wraps to +1299254272: drift 19825.
        {"drift product wraps at 32 bits", kHundredIdentity, {-128, 0, 0}, {512, 512, 512}, 1000, {1239, 0, 0}},
        // t1 = t2 = 24560: u2 = 49120 wraps to -16416.
        {"mixed sum wraps at 16 bits", kHundredIdentity, {0, 0, 0}, {512, 2047, 2047}, 256, {0, 0, -1026}},
        // raw * 16 is kept in 16 bits, so 4096 and 8192 are channel 0: t = -8192 each,
        // u = (8192, 0, -16384); z truncates toward zero from -839.68.
        {"scaled channel wraps at 16 bits", kSensitivityOfZeros, {0, 0, 0}, {4096, 8192, 0}, 256, {593, 163, -839}},
    };
    KmxcDrvState &st = *KmxcDrvHandle();
    for (const auto &c : cases) {
        for (int i = 0; i < 9; ++i) st.correction[i] = c.correction[i];
        for (int i = 0; i < 3; ++i) st.tempCoef[i] = c.coef[i];
        KmxAxesData out{INT32_MIN, INT32_MIN, INT32_MIN};
        EXPECT_EQ(KmxAxesDrvMsensCorrection(c.raw.data(), c.temperature, &out), 0u);
        EXPECT_EQ((std::array<int32_t, 3>{out.x, out.y, out.z}), c.expected) << c.name;
    }
}

}  // namespace
