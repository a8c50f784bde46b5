// Sample buffer, offset access and batch statistics of the offset estimator.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "calibration/calibration_internal.h"
#include "calibration/estimator_math.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

double value(const MSFLOAT &f) { return f.sign * std::ldexp(f.mantissa, f.exponent - 128); }

KmxAxesMsCalib02Context context_with(int8_t ringMode) {
    KmxAxesMsCalib02Config config{1, 24576, KmxAxesMsCalibCheckDistribution, ringMode, 1, {}};
    KmxAxesMsCalib02Context c;
    KmxAxesMsCalib02_Init(&c, &config);
    return c;
}

TEST(EstimatorBuffer, SeventeenthSampleRestartsBatchOrSlidesRing) {
    struct {
        const char *name;
        int8_t ringMode, count;
    } const cases[] = {{"batch mode", 0, 1}, {"ring mode", 1, 16}};
    for (const auto &c : cases) {
        KmxAxesMsCalib02Context ctx = context_with(c.ringMode);
        KmxAxesData offset{9, 9, 9};
        KmxAxesMsCalib02_GetOffset(&ctx, &offset);
        EXPECT_TRUE(offset.x == 0 && offset.y == 0 && offset.z == 0 && ctx.count == 0) << c.name;
        for (int32_t i = 0; i < 17; ++i) {
            const KmxAxesData s{i, -i, 100 + i};
            EXPECT_EQ(KmxAxesMsCalib02_AddToBuffer1(&ctx, &s), 0);
        }
        EXPECT_EQ(ctx.count, c.count) << c.name;
        EXPECT_EQ(ctx.writeIndex, 1) << c.name;
        EXPECT_TRUE(ctx.buffer[0][0] == 16 && ctx.buffer[0][1] == -16 && ctx.buffer[1][2] == 101) << c.name;
        // Setting an offset drops the batch but not the slot contents.
        const KmxAxesData set{1, 2, 3};
        KmxAxesMsCalib02_SetOffset(&ctx, &set);
        KmxAxesMsCalib02_GetOffset(&ctx, &offset);
        EXPECT_TRUE(ctx.count == 0 && ctx.writeIndex == 0 && offset.z == 3 && ctx.buffer[5][0] == 5) << c.name;
    }
}

TEST(EstimatorBuffer, KeepsLowSixteenBitsOfEachComponent) {
    const struct {
        int32_t in;
        int16_t stored;
    } cases[] = {{65536 + 4464, 4464}, {32768, -32768}, {-32769, 32767}, {INT32_MIN, 0}, {INT32_MAX, -1}, {-5, -5}};
    for (const auto &c : cases) {
        KmxAxesMsCalib02Context ctx = context_with(0);
        const KmxAxesData s{c.in, 0, c.in};
        KmxAxesMsCalib02_AddToBuffer1(&ctx, &s);
        EXPECT_TRUE(ctx.buffer[0][0] == c.stored && ctx.buffer[0][2] == c.stored) << c.in;
    }
}

// Exact 64-bit conversion: MSFLOAT_I2F inside int32, its truncation rule beyond.
TEST(EstimatorMath, WideConversionTruncatesLikeTheIntegerConversion) {
    Rng rng(11);
    for (int i = 0; i < 2000; ++i) {
        const int bits = 1 + i % 63;
        int64_t v = static_cast<int64_t>(rng.next() >> (64 - bits));
        if (rng.next() & 1) v = -v;
        MSFLOAT got, want;
        kmxc_calibration::i2f_wide(&got, v);
        if (v >= INT32_MIN && v <= INT32_MAX) {
            MSFLOAT_I2F(&want, static_cast<int32_t>(v));
        } else {
            const uint64_t m = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            const int length = 64 - __builtin_clzll(m);
            want = {static_cast<int8_t>(v < 0 ? -1 : 1), static_cast<uint8_t>(128 + length - 16),
                    static_cast<uint16_t>(m >> (length - 16))};
        }
        ASSERT_TRUE(got.sign == want.sign && got.exponent == want.exponent && got.mantissa == want.mantissa) << v;
    }
}

struct Statistics {
    KmxAxesData centre;
    MSFLOAT m[6], b[3], s;
};

Statistics statistics(const Batch &batch, int8_t n = 16) {
    int16_t samples[16][3];
    for (size_t i = 0; i < 16; ++i)
        for (int k = 0; k < 3; ++k) samples[i][k] = static_cast<int16_t>((&batch[i].x)[k]);
    Statistics st;
    EXPECT_EQ(KmxAxesMsCalib02_CalcStatistics(samples, n, &st.centre, st.m, st.b, &st.s), 0);
    return st;
}

TEST(EstimatorStatistics, DegenerateBatches) {
    Batch same{};
    same.fill({-300, 25, 7000});
    Statistics st = statistics(same);
    EXPECT_TRUE(st.centre.x == -300 && st.centre.y == 25 && st.centre.z == 7000);
    for (const MSFLOAT &f : st.m) EXPECT_EQ(f.sign, 0);
    EXPECT_TRUE(st.b[0].sign == 0 && st.b[1].sign == 0 && st.b[2].sign == 0 && st.s.sign == 0);

    Batch sums{};  // per-axis sums -17 and 17: centres truncate toward zero
    sums[0] = {-17, 17, 0};
    st = statistics(sums);
    EXPECT_TRUE(st.centre.x == -1 && st.centre.y == 1 && st.centre.z == 0);
    EXPECT_EQ(statistics(sums, 0).centre.x, 0);  // no samples: all zero, no division
}

// The normal equations against a double-precision formulation, including full-scale
// batches whose deviations exceed 46340 counts (squares beyond 32 bits).
TEST(EstimatorStatistics, MatchDoublePrecisionNormalEquations) {
    Rng rng(3);
    std::vector<Batch> batches;
    for (int i = 0; i < 20; ++i) batches.push_back(sphere_batch({rng.uniform(-900, 900), 0, 300}, 130, 2, rng));
    for (int i = 0; i < 20; ++i) {
        Batch b;
        for (auto &s : b) s = {rng.integer(-32768, 32767), rng.integer(-32768, 32767), rng.integer(-32768, 32767)};
        batches.push_back(b);
    }
    Batch extreme;
    extreme.fill({-32768, 32767, -32768});
    extreme[3] = {32767, -32768, 32767};  // deviation 61439 on every axis
    batches.push_back(extreme);
    for (const Batch &batch : batches) {
        const Statistics st = statistics(batch);
        double d[16][3], r2 = 0, m[6] = {}, b[3] = {}, s = 0, scale_m = 0, scale_b = 0, scale_s = 0;
        for (int i = 0; i < 16; ++i)
            for (int k = 0; k < 3; ++k) {
                d[i][k] = (&batch[size_t(i)].x)[k] - (&st.centre.x)[k];
                r2 += d[i][k] * d[i][k] / 16;
            }
        const int pairs[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};
        for (auto &p : d) {
            const double q = p[0] * p[0] + p[1] * p[1] + p[2] * p[2] - r2;
            for (int j = 0; j < 6; ++j) m[j] += p[pairs[j][0]] * p[pairs[j][1]];
            for (int k = 0; k < 3; ++k) b[k] += p[k] * q / 2, scale_b += std::fabs(p[k]) * (std::fabs(q) + r2);
            scale_m += p[0] * p[0] + p[1] * p[1] + p[2] * p[2];
            s += q * q / 4, scale_s += (std::fabs(q) + r2) * (std::fabs(q) + r2);
        }
        constexpr double kRelative = 0x1p-12;
        for (int j = 0; j < 6; ++j) ASSERT_NEAR(value(st.m[j]), m[j], kRelative * scale_m) << j;
        for (int k = 0; k < 3; ++k) ASSERT_NEAR(value(st.b[k]), b[k], kRelative * scale_b) << k;
        ASSERT_NEAR(value(st.s), s, kRelative * scale_s);
        int32_t sum_x = 0;
        for (const KmxAxesData &p : batch) sum_x += p.x;
        EXPECT_EQ(st.centre.x, sum_x / 16);
    }
}

}  // namespace
