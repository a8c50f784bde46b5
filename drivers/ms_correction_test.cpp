#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <random>

#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"

namespace {

using Mat8 = std::array<int8_t, 9>;
using Mat16 = std::array<int16_t, 9>;

struct CorrectionState {
    CorrectionState(const Mat16 &correction, std::array<int8_t, 3> coef) {
        saved_ = *KmxcDrvHandle();
        for (int i = 0; i < 9; ++i) KmxcDrvHandle()->correction[i] = correction[i];
        for (int i = 0; i < 3; ++i) KmxcDrvHandle()->tempCoef[i] = coef[i];
    }
    ~CorrectionState() { *KmxcDrvHandle() = saved_; }
    KmxcDrvState saved_;
};

KmxAxesData correct(std::array<uint16_t, 3> raw, uint16_t t) {
    KmxAxesData out{INT32_MIN, INT32_MIN, INT32_MIN};
    EXPECT_EQ(KmxAxesDrvMsensCorrection(raw.data(), t, &out), 0u);
    return out;
}

constexpr Mat16 kSensitivityOfZeros = {100, -32, -8, -32, 38, -32, -32, -32, 66};
constexpr Mat16 kHundredIdentity = {100, 0, 0, 0, 100, 0, 0, 0, 100};

// ---- Sensitivity matrix --------------------------------------------------------------

// The calibration bytes 0..5 read as one 48-bit big-endian word: the fields sit at
// fixed bit positions of it.
Mat16 sensitivity_from_word(const uint8_t *c) {
    uint64_t w = 0;
    for (int i = 0; i < 6; ++i) w = (w << 8) | c[i];
    auto bits = [w](int hi, int width) { return static_cast<int>((w >> (hi - width + 1)) & ((1u << width) - 1)); };
    return {100,
            static_cast<int16_t>(bits(47, 6) - 32),
            static_cast<int16_t>(bits(41, 4) - 8),
            static_cast<int16_t>(bits(37, 6) - 32),
            static_cast<int16_t>(bits(31, 6) + 38),
            static_cast<int16_t>(bits(25, 6) - 32),
            static_cast<int16_t>(bits(19, 6) - 32),
            static_cast<int16_t>(bits(13, 6) - 32),
            static_cast<int16_t>(bits(7, 7) + 66)};
}

TEST(SensitivityMatrix, ExtremeCalibrationBytes) {
    struct Case {
        const char *name;
        uint8_t byte;
        Mat16 expected;
    } cases[] = {
        {"all 0x00", 0x00, kSensitivityOfZeros},
        {"all 0xFF", 0xFF, {100, 31, 7, 31, 101, 31, 31, 31, 193}},
    };
    for (const auto &c : cases) {
        uint8_t calib[9];
        for (auto &b : calib) b = c.byte;
        Mat16 s{};
        KmxcDrvMakeSensitivityMatrix(calib, s.data());
        EXPECT_EQ(s, c.expected) << c.name;
    }
}

TEST(SensitivityMatrix, FieldsSitAtTheirBitPositionsForRandomBytes) {
    std::mt19937 rng(4101);
    for (int n = 0; n < 2000; ++n) {
        uint8_t calib[9];
        for (auto &b : calib) b = static_cast<uint8_t>(rng());
        Mat16 s{};
        KmxcDrvMakeSensitivityMatrix(calib, s.data());
        ASSERT_EQ(s, sensitivity_from_word(calib)) << "case " << n;
    }
}

TEST(SensitivityMatrix, BitZeroOfByteFiveAndBytesSixToEightAreUnused) {
    uint8_t a[9] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x00, 0x00, 0x00};
    uint8_t b[9] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBD, 0xFF, 0x01, 0x80};
    Mat16 sa{}, sb{};
    KmxcDrvMakeSensitivityMatrix(a, sa.data());
    KmxcDrvMakeSensitivityMatrix(b, sb.data());
    EXPECT_EQ(sa, sb);
}

// ---- Matrix check -------------------------------------------------------------------

TEST(CheckMatrix, Table) {
    struct Case {
        const char *name;
        Mat8 m;
        int8_t expected;
    } cases[] = {
        {"identity", {1, 0, 0, 0, 1, 0, 0, 0, 1}, 0},
        {"swap x y, flip z", {0, 1, 0, 1, 0, 0, 0, 0, -1}, 0},
        {"other values are not counted", {1, 5, 0, 0, 1, 0, 0, 0, 1}, 0},
        {"row with two unit entries", {1, -1, 0, 0, 1, 0, 0, 0, 1}, -1},
        {"column without a unit entry", {1, 0, 0, 1, 0, 0, 0, 0, 1}, -1},
        {"row 2 with no unit entry", {1, 0, 0, 0, 1, 0, 0, 0, 2}, -1},
        {"all zero (profile below 1)", {0, 0, 0, 0, 0, 0, 0, 0, 0}, -1},
        {"only -128 and 127", {-128, 127, 0, 0, -128, 127, 127, 0, -128}, -1},
    };
    for (const auto &c : cases) EXPECT_EQ(KmxAxesDrvCheckMatrix(c.m.data()), c.expected) << c.name;
}

TEST(CheckMatrix, OverAllUnitEntryMatricesAcceptsExactlyTheOrthogonalOnes) {
    // With entries in {-1, 0, 1}, one unit entry per row and column is the same as
    // M * M^T = I: exactly the 48 signed permutations.
    int accepted = 0;
    for (int code = 0; code < 19683; ++code) {
        Mat8 m{};
        for (int i = 0, c = code; i < 9; ++i, c /= 3) m[i] = static_cast<int8_t>(c % 3 - 1);
        bool orthogonal = true;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                int dot = 0;
                for (int k = 0; k < 3; ++k) dot += m[3 * i + k] * m[3 * j + k];
                orthogonal = orthogonal && dot == (i == j ? 1 : 0);
            }
        const int8_t r = KmxAxesDrvCheckMatrix(m.data());
        ASSERT_EQ(r, orthogonal ? 0 : -1) << "code " << code;
        accepted += (r == 0);
    }
    EXPECT_EQ(accepted, 48);
}

// ---- Correction matrix and transform ------------------------------------------------------

TEST(CorrectionMatrix, SignedPermutationReordersAndNegatesRows) {
    const Mat8 t = {0, 1, 0, 1, 0, 0, 0, 0, -1};
    Mat16 c{};
    EXPECT_EQ(KmxcDrvMakeCorrectionMatrix(t.data(), kSensitivityOfZeros.data(), c.data()), 0u);
    const Mat16 expected = {-32, 38, -32, 100, -32, -8, 32, 32, -66};
    EXPECT_EQ(c, expected);
}

TEST(CorrectionMatrix, EqualsTheProductModulo65536) {
    std::mt19937 rng(4102);
    for (int n = 0; n < 500; ++n) {
        Mat8 t{};
        Mat16 s{};
        for (auto &v : t) v = static_cast<int8_t>(rng());
        for (auto &v : s) v = static_cast<int16_t>(rng());
        Mat16 c{};
        KmxcDrvMakeCorrectionMatrix(t.data(), s.data(), c.data());
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                int64_t exact = 0;
                for (int k = 0; k < 3; ++k) exact += int64_t{t[3 * i + k]} * s[3 * k + j];
                ASSERT_EQ(c[3 * i + j], static_cast<int16_t>(static_cast<uint16_t>(exact & 0xFFFF)))
                    << "case " << n << " entry " << i << j;
            }
    }
}

TEST(Transform, WrapsAt32Bits) {
    struct Case {
        const char *name;
        Mat16 m;
        std::array<int16_t, 3> v;
        std::array<int32_t, 3> expected;
    } cases[] = {
        {"identity", {1, 0, 0, 0, 1, 0, 0, 0, 1}, {7, -8, 9}, {7, -8, 9}},
        {"row sums", {1, 2, 3, -1, -2, -3, 0, 0, 4}, {100, 10, 1}, {123, -123, 4}},
        // 3 * 32767 * -32768 = -3221127168, which wraps to 1073840128.
        {"sum beyond 32 bits",
         {32767, 32767, 32767, 0, 0, 0, -32768, -32768, -32768},
         {-32768, -32768, -32768},
         {1073840128, 0, static_cast<int32_t>(UINT32_C(3221225472))}},
    };
    for (const auto &c : cases) {
        std::array<int32_t, 3> out{};
        EXPECT_EQ(KmxcDrvTransform(c.m.data(), c.v.data(), out.data()), 0u);
        EXPECT_EQ(out, c.expected) << c.name;
    }
}

// ---- Raw-to-corrected conversion ----------------------------------------------------------

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
        {"temperature above reference", kHundredIdentity, {10, -10, 0}, {600, 512, 512}, 356, {-58, -29, 29}},
        {"centred channels, any matrix", kSensitivityOfZeros, {0, 0, 0}, {512, 512, 512}, 1234, {0, 0, 0}},
        {"centred channels, reference temperature", kSensitivityOfZeros, {-128, 127, 5}, {512, 512, 512}, 256,
         {0, 0, 0}},
        // k = 31457 * 1791; 127 * k wraps to -1434819743, so t0 = +21893, u0 = -21893.
        {"product wraps at 32 bits", kHundredIdentity, {127, 0, 0}, {512, 512, 512}, 2047, {-1368, 0, 0}},
        // t1 = 16 * 2047 - 8192 = 24560, t2 = 24560: u2 = 49120 wraps to -16416.
        {"mixed sum wraps at 16 bits", kHundredIdentity, {0, 0, 0}, {512, 2047, 2047}, 256, {0, 0, -1026}},
    };
    for (const auto &c : cases) {
        CorrectionState st(c.correction, c.coef);
        const KmxAxesData out = correct(c.raw, c.temperature);
        EXPECT_EQ(out.x, c.expected.x) << c.name;
        EXPECT_EQ(out.y, c.expected.y) << c.name;
        EXPECT_EQ(out.z, c.expected.z) << c.name;
    }
}

TEST(MsensCorrection, ReferenceTemperatureCancelsAnyCoefficients) {
    std::mt19937 rng(4103);
    for (int n = 0; n < 300; ++n) {
        Mat16 m{};
        for (auto &v : m) v = static_cast<int16_t>(static_cast<int>(rng() % 400) - 200);
        const std::array<uint16_t, 3> raw = {static_cast<uint16_t>(rng() % 2048), static_cast<uint16_t>(rng() % 2048),
                                             static_cast<uint16_t>(rng() % 2048)};
        KmxAxesData plain, drifted;
        {
            CorrectionState st(m, {0, 0, 0});
            plain = correct(raw, 256);
        }
        {
            CorrectionState st(m, {static_cast<int8_t>(rng()), static_cast<int8_t>(rng()), static_cast<int8_t>(rng())});
            drifted = correct(raw, 256);
        }
        ASSERT_EQ(plain.x, drifted.x) << "case " << n;
        ASSERT_EQ(plain.y, drifted.y) << "case " << n;
        ASSERT_EQ(plain.z, drifted.z) << "case " << n;
    }
}

TEST(MsensCorrection, TemperatureTermIsSymmetricInSign) {
    // At centred channels the vector is only the drift term; opposite coefficients
    // must give exactly opposite vectors (the shift rounds toward zero on both sides).
    std::mt19937 rng(4104);
    for (int n = 0; n < 1000; ++n) {
        const auto c = static_cast<int8_t>(static_cast<int>(rng() % 255) - 127);
        const auto t = static_cast<uint16_t>(rng() % 2048);
        KmxAxesData plus, minus;
        {
            CorrectionState st(kHundredIdentity, {c, c, static_cast<int8_t>(-c)});
            plus = correct({512, 512, 512}, t);
        }
        {
            CorrectionState st(kHundredIdentity, {static_cast<int8_t>(-c), static_cast<int8_t>(-c), c});
            minus = correct({512, 512, 512}, t);
        }
        ASSERT_EQ(plus.x, -minus.x) << "coef " << int{c} << " T " << t;
        ASSERT_EQ(plus.y, -minus.y) << "coef " << int{c} << " T " << t;
        ASSERT_EQ(plus.z, -minus.z) << "coef " << int{c} << " T " << t;
    }
}

TEST(MsensCorrection, DriftIsCoefficientTimesPointFourEightPerTemperatureCount) {
    // At centred channels with 100 x identity, x = -t0 / 16 = shift / 16 where
    // shift = trunc(coef * 31457 * (T - 256) / 65536), the product taken in 32 bits.
    struct Case {
        const char *name;
        int8_t coef;
        uint16_t temperature;
        int32_t shift;
    } cases[] = {
        {"warm, positive coefficient", 100, 456, 9599},  // 9599.9
        {"cold, positive coefficient", 100, 56, -9599},
        {"one count rounds to nothing", 1, 257, 0},
        // -128 * 31457 * 744 = -2995713024 wraps to +1299254272.
        {"product beyond 32 bits", -128, 1000, 19825},
    };
    for (const auto &c : cases) {
        CorrectionState st(kHundredIdentity, {c.coef, 0, 0});
        const KmxAxesData out = correct({512, 512, 512}, c.temperature);
        EXPECT_EQ(out.x, 100 * c.shift / 1600) << c.name;
        EXPECT_EQ(out.y, 0) << c.name;
    }
}

TEST(MsensCorrection, ChannelsWrapAt16BitsAfterScaling) {
    // raw * 16 is kept in 16 bits, so raw and raw + 4096 are the same channel.
    std::mt19937 rng(4105);
    CorrectionState st(kSensitivityOfZeros, {3, -7, 11});
    for (int n = 0; n < 200; ++n) {
        const std::array<uint16_t, 3> raw = {static_cast<uint16_t>(rng() % 4096), static_cast<uint16_t>(rng() % 4096),
                                             static_cast<uint16_t>(rng() % 4096)};
        const auto t = static_cast<uint16_t>(rng() % 2048);
        const KmxAxesData a = correct(raw, t);
        const KmxAxesData b = correct({static_cast<uint16_t>(raw[0] + 4096), raw[1], static_cast<uint16_t>(raw[2] + 8192)}, t);
        ASSERT_EQ(a.x, b.x);
        ASSERT_EQ(a.y, b.y);
        ASSERT_EQ(a.z, b.z);
    }
}

}  // namespace
