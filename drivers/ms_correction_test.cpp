#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>

#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"

namespace {

// The records the calling service shares, field for field.
static_assert(offsetof(KmxcDrvState, roughOffset) == 9 && offsetof(KmxcDrvState, roughOffsetWritten) == 12);
static_assert(offsetof(KmxcDrvState, correction) == 14 && offsetof(KmxcDrvState, tempCoef) == 32);
static_assert(offsetof(KmxcDrvState, initFlags) == 35 && sizeof(KmxcDrvState) == 36);
static_assert(offsetof(KmxcDrvRawData, gs) == 6 && offsetof(KmxcDrvRawData, temperature) == 12);
static_assert(sizeof(KmxcDrvRawData) == 14);

using Mat16 = std::array<int16_t, 9>;
constexpr Mat16 kSensitivityOfZeros = {100, -32, -8, -32, 38, -32, -32, -32, 66};
constexpr Mat16 kHundredIdentity = {100, 0, 0, 0, 100, 0, 0, 0, 100};

KmxAxesData correct(const Mat16 &correction, std::array<int8_t, 3> coef, std::array<uint16_t, 3> raw, uint16_t t) {
    KmxcDrvState &st = *KmxcDrvHandle();
    for (int i = 0; i < 9; ++i) st.correction[i] = correction[i];
    for (int i = 0; i < 3; ++i) st.tempCoef[i] = coef[i];
    KmxAxesData out{INT32_MIN, INT32_MIN, INT32_MIN};
    EXPECT_EQ(KmxAxesDrvMsensCorrection(raw.data(), t, &out), 0u);
    return out;
}

TEST(SensitivityMatrix, FieldsSitAtTheirBitPositionsOfTheFirstSixBytes) {
    // Bytes 0..5 read as one big-endian 48-bit word; bit 0 and bytes 6..8 unused.
    std::mt19937 rng(4101);
    for (int n = 0; n < 2000; ++n) {
        uint8_t calib[9];
        for (auto &b : calib) b = static_cast<uint8_t>(rng());
        uint64_t w = 0;
        for (int i = 0; i < 6; ++i) w = (w << 8) | calib[i];
        auto bits = [w](int hi, int width) { return int((w >> (hi - width + 1)) & ((1u << width) - 1)); };
        const Mat16 expected = {100, int16_t(bits(47, 6) - 32), int16_t(bits(41, 4) - 8),
                                int16_t(bits(37, 6) - 32), int16_t(bits(31, 6) + 38), int16_t(bits(25, 6) - 32),
                                int16_t(bits(19, 6) - 32), int16_t(bits(13, 6) - 32), int16_t(bits(7, 7) + 66)};
        Mat16 s{};
        KmxcDrvMakeSensitivityMatrix(calib, s.data());
        ASSERT_EQ(s, expected) << "case " << n;
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

TEST(CorrectionMatrix, IsTheProductModulo65536) {
    std::mt19937 rng(4102);
    for (int n = 0; n < 500; ++n) {
        int8_t t[9];
        int16_t s[9], c[9];
        for (auto &v : t) v = static_cast<int8_t>(rng());
        for (auto &v : s) v = static_cast<int16_t>(rng());
        EXPECT_EQ(KmxcDrvMakeCorrectionMatrix(t, s, c), 0u);
        for (int e = 0; e < 9; ++e) {
            int64_t exact = 0;
            for (int k = 0; k < 3; ++k) exact += int64_t{t[3 * (e / 3) + k]} * s[3 * k + e % 3];
            ASSERT_EQ(c[e], static_cast<int16_t>(static_cast<uint16_t>(exact & 0xFFFF))) << n << " " << e;
        }
    }
}

TEST(Transform, SumsWrapAt32Bits) {
    const int16_t m[9] = {32767, 32767, 32767, 1, 2, 3, -1, 0, 0};
    const int16_t v[3] = {-32768, -32768, -32768};
    int32_t out[3];
    EXPECT_EQ(KmxcDrvTransform(m, v, out), 0u);
    EXPECT_EQ(out[0], 1073840128);  // -3221127168 modulo 2^32
    EXPECT_EQ(out[1], -196608);
    EXPECT_EQ(out[2], 32768);
}

TEST(MsensCorrection, WorkedExamples) {
    struct Case {
        const char *name;
        Mat16 correction;
        std::array<int8_t, 3> coef;
        std::array<uint16_t, 3> raw;
        uint16_t temperature;
        KmxAxesData expected;
    } cases[] = {
        // t = -8192 each, u = (8192, 0, -16384); z truncates toward zero from -839.68.
        {"zero channels", kSensitivityOfZeros, {0, 0, 0}, {0, 0, 0}, 256, {593, 163, -839}},
        // t = (929, 479, 0), u = (-929, -479, 479).
        {"above the reference temperature", kHundredIdentity, {10, -10, 0}, {600, 512, 512}, 356, {-58, -29, 29}},
        {"centred channels", kSensitivityOfZeros, {0, 0, 0}, {512, 512, 512}, 1234, {0, 0, 0}},
        {"reference temperature", kSensitivityOfZeros, {-128, 127, 5}, {512, 512, 512}, 256, {0, 0, 0}},
        // Drift trunc(coef * 31457 * (T - 256) / 65536) is removed from t0; x = drift / 16.
        {"warm: drift 9599.9", kHundredIdentity, {100, 0, 0}, {512, 512, 512}, 456, {599, 0, 0}},
        {"cold: drift rounds toward zero too", kHundredIdentity, {100, 0, 0}, {512, 512, 512}, 56, {-599, 0, 0}},
        // -128 * 31457 * 744 wraps to +1299254272: drift 19825.
        {"drift product wraps at 32 bits", kHundredIdentity, {-128, 0, 0}, {512, 512, 512}, 1000, {1239, 0, 0}},
        // t1 = t2 = 24560: u2 = 49120 wraps to -16416.
        {"mixed sum wraps at 16 bits", kHundredIdentity, {0, 0, 0}, {512, 2047, 2047}, 256, {0, 0, -1026}},
        // raw * 16 is kept in 16 bits: 4096 is the same channel as 0.
        {"scaled channel wraps at 16 bits", kSensitivityOfZeros, {0, 0, 0}, {4096, 8192, 0}, 256, {593, 163, -839}},
    };
    for (const auto &c : cases) {
        const KmxAxesData out = correct(c.correction, c.coef, c.raw, c.temperature);
        EXPECT_EQ(out.x, c.expected.x) << c.name;
        EXPECT_EQ(out.y, c.expected.y) << c.name;
        EXPECT_EQ(out.z, c.expected.z) << c.name;
    }
}

TEST(MsensCorrection, TemperatureTermIsSymmetricInSign) {
    // At centred channels only the drift remains: opposite coefficients must give
    // exactly opposite vectors (the shift rounds toward zero on both sides).
    std::mt19937 rng(4104);
    for (int n = 0; n < 1000; ++n) {
        const auto c = static_cast<int8_t>(static_cast<int>(rng() % 255) - 127);
        const auto t = static_cast<uint16_t>(rng() % 2048);
        const auto m = static_cast<int8_t>(-c);
        const KmxAxesData plus = correct(kSensitivityOfZeros, {c, c, m}, {512, 512, 512}, t);
        const KmxAxesData minus = correct(kSensitivityOfZeros, {m, m, c}, {512, 512, 512}, t);
        ASSERT_EQ(plus.x, -minus.x) << "coef " << int{c} << " T " << t;
        ASSERT_EQ(plus.y, -minus.y) << "coef " << int{c} << " T " << t;
        ASSERT_EQ(plus.z, -minus.z) << "coef " << int{c} << " T " << t;
    }
}

}  // namespace
