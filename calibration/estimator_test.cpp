// Sample buffer, offset access and batch statistics of the offset estimator.
#include <gtest/gtest.h>

#include <vector>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

double value(const MSFLOAT &f) { return f.sign * std::ldexp(f.mantissa, f.exponent - 128); }

TEST(EstimatorBuffer, BatchRestartsRingSlidesLow16BitsKept) {
    for (int8_t ring : {0, 1}) {
        KmxAxesMsCalib02Config config{1, 24576, nullptr, ring, 1, {}};
        KmxAxesMsCalib02Context ctx;
        KmxAxesMsCalib02_Init(&ctx, &config);
        const int32_t wide[17] = {65536 + 4464, 32768, -32769, INT32_MIN, INT32_MAX};
        const int16_t kept[17] = {4464, -32768, 32767, 0, -1};
        for (int32_t i = 0; i < 17; ++i) {
            const KmxAxesData s{i < 5 ? wide[i] : i, -i, 7};
            KmxAxesMsCalib02_AddToBuffer1(&ctx, &s);
        }
        EXPECT_TRUE(ctx.count == (ring ? 16 : 1) && ctx.writeIndex == 1 && ctx.buffer[0][0] == 16) << int(ring);
        for (int i = 1; i < 5; ++i) EXPECT_EQ(ctx.buffer[i][0], kept[i]) << i;
        const KmxAxesData set{1, 2, 3};  // drops the batch, not the slots
        KmxAxesMsCalib02_SetOffset(&ctx, &set);
        KmxAxesData got{};
        KmxAxesMsCalib02_GetOffset(&ctx, &got);
        EXPECT_TRUE(ctx.count == 0 && ctx.writeIndex == 0 && got.z == 3 && ctx.buffer[5][1] == -5);
    }
}

// Against a double-precision formulation, down to degenerate and full-scale batches
// whose deviations exceed 46340 counts (squares beyond 32 bits, formed exactly).
TEST(EstimatorStatistics, MatchDoublePrecisionNormalEquations) {
    Rng rng{3};
    Batch extreme, truncating{}, same;
    extreme.fill({-32768, 32767, -32768});
    extreme[3] = {32767, -32768, 32767};  // deviation 61439 on every axis
    truncating[0] = {-17, 17, 0};         // centre (-1, 1, 0): truncated toward zero
    same.fill({-300, 25, 7000});
    std::vector<Batch> batches{extreme, truncating, same};
    for (int i = 0; i < 30; ++i) {
        Batch b = sphere_batch({rng.uniform(-900, 900), 0, 300}, 130, 2, rng);
        if (i % 2)
            for (auto &s : b) s = {rng.integer(-32768, 32767), rng.integer(-32768, 32767), rng.integer(-32768, 32767)};
        batches.push_back(b);
    }
    for (const Batch &batch : batches) {
        int16_t in[16][3];
        double sum[3] = {}, d[16][3], r2 = 0, m[6] = {}, b[3] = {}, s = 0, scale = 0;
        for (int i = 0; i < 16; ++i)
            for (int k = 0; k < 3; ++k) sum[k] += in[i][k] = int16_t((&batch[size_t(i)].x)[k]);
        KmxAxesData c;
        MSFLOAT gm[6], gb[3], gs;
        ASSERT_EQ(KmxAxesMsCalib02_CalcStatistics(in, 16, &c, gm, gb, &gs), 0);
        for (int k = 0; k < 3; ++k) ASSERT_EQ((&c.x)[k], std::trunc(sum[k] / 16));
        for (int i = 0; i < 16; ++i)
            for (int k = 0; k < 3; ++k) d[i][k] = in[i][k] - (&c.x)[k], r2 += d[i][k] * d[i][k] / 16;
        for (auto &p : d) {
            const double q = p[0] * p[0] + p[1] * p[1] + p[2] * p[2] - r2;
            const double row[6] = {p[0] * p[0], p[0] * p[1], p[0] * p[2], p[1] * p[1], p[1] * p[2], p[2] * p[2]};
            for (int j = 0; j < 6; ++j) m[j] += row[j];
            for (int k = 0; k < 3; ++k) b[k] += p[k] * q / 2;
            s += q * q / 4, scale += (std::fabs(q) + r2) * (std::fabs(q) + r2);
        }
        for (int j = 0; j < 6; ++j) ASSERT_NEAR(value(gm[j]), m[j], 0x1p-12 * 16 * r2) << j;
        for (int k = 0; k < 3; ++k) ASSERT_NEAR(value(gb[k]), b[k], 0x1p-12 * std::sqrt(16 * r2 * scale)) << k;
        ASSERT_NEAR(value(gs), s, 0x1p-12 * scale);
    }
}

}  // namespace
