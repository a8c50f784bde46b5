// Sample buffer, offset access and batch statistics of the offset estimator.
#include <gtest/gtest.h>

#include <vector>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"
#include "numerics/msfloat_reference.h"

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
        EXPECT_EQ(ctx.count, (ring ? 16 : 1)) << int(ring);
        EXPECT_EQ(ctx.writeIndex, 1) << int(ring);
        EXPECT_EQ(ctx.buffer[0][0], 16) << int(ring);
        for (int i = 1; i < 5; ++i) EXPECT_EQ(ctx.buffer[i][0], kept[i]) << i;
        const KmxAxesData set{1, 2, 3};  // drops the batch, not the slots
        KmxAxesMsCalib02_SetOffset(&ctx, &set);
        KmxAxesData got{};
        KmxAxesMsCalib02_GetOffset(&ctx, &got);
        EXPECT_EQ(ctx.count, 0);
        EXPECT_EQ(ctx.writeIndex, 0);
        EXPECT_EQ(got.z, 3);
        EXPECT_EQ(ctx.buffer[5][1], -5);
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

namespace ref = msfloat_reference;

// The MSFLOAT of an integer of any width: its 16 leading bits, the rest dropped.
MSFLOAT leading_bits(int64_t v) {
    if (v == 0) return MSFLOAT{0, 0, 0};
    uint64_t magnitude = v < 0 ? 0 - uint64_t(v) : uint64_t(v);
    int width = 0;
    while (width < 64 && (magnitude >> width) != 0) ++width;
    const int shift = width - 16;
    const uint64_t m = shift >= 0 ? magnitude >> shift : magnitude << -shift;
    return MSFLOAT{int8_t(v < 0 ? -1 : 1), uint8_t(128 + shift), uint16_t(m)};
}

bool same(const MSFLOAT &a, const MSFLOAT &b) {
    return a.sign == b.sign && a.exponent == b.exponent && a.mantissa == b.mantissa;
}

// The statistics sum term by term, in sample order, with the first MSFLOAT; the
// library's register sums and 32-bit shortcuts must give the very same bits.
TEST(EstimatorStatistics, EqualTheTermByTermSumsOfTheFirstMsfloatBitForBit) {
    Rng rng{11};
    int batches = 0, wide = 0;
    for (int round = 0; round < 400; ++round, ++batches) {
        int16_t in[16][3];
        const int32_t spread = round % 4 == 0 ? 32767 : round % 4 == 1 ? 3000 : 200;
        for (auto &s : in)
            for (auto &v : s) v = int16_t(rng.integer(-spread, spread));
        if (round % 4 == 0) {  // a crowd at one end, one sample at the other: deviations to 61439
            for (auto &s : in)
                for (auto &v : s) v = int16_t(rng.integer(-32768, -30000));
            for (auto &v : in[round % 16]) v = int16_t(rng.integer(30000, 32767));
        }
        KmxAxesData c;
        MSFLOAT gm[6], gb[3], gs;
        ASSERT_EQ(KmxAxesMsCalib02_CalcStatistics(in, 16, &c, gm, gb, &gs), 0);
        int64_t d[16][3];
        bool beyond = false;
        for (int i = 0; i < 16; ++i)
            for (int k = 0; k < 3; ++k) {
                d[i][k] = in[i][k] - (&c.x)[k];
                beyond |= d[i][k] > 46340 || d[i][k] < -46340;
            }
        wide += beyond;
        MSFLOAT r2{0, 0, 0}, m[6] = {}, b[3] = {}, s{0, 0, 0}, count;
        for (auto &p : d)
            for (int64_t v : p) {
                const MSFLOAT t = leading_bits(v * v);
                ref::OpPlusEq(&r2, &t);
            }
        ref::I2F(&count, 16);
        ref::OpDivEq(&r2, &count);
        const int pairs[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};
        for (auto &p : d) {
            for (int j = 0; j < 6; ++j) {
                const MSFLOAT t = leading_bits(p[pairs[j][0]] * p[pairs[j][1]]);
                ref::OpPlusEq(&m[j], &t);
            }
            MSFLOAT q = leading_bits(p[0] * p[0]);
            for (int k = 1; k < 3; ++k) {
                const MSFLOAT t = leading_bits(p[k] * p[k]);
                ref::OpPlusEq(&q, &t);
            }
            ref::OpMinusEq(&q, &r2);
            MSFLOAT qq = q;
            ref::OpMultiEq(&qq, &q);
            ref::OpPlusEq(&s, &qq);
            for (int k = 0; k < 3; ++k) {
                MSFLOAT t = leading_bits(p[k]);
                ref::OpMultiEq(&t, &q);
                ref::OpShiftEq(&t, -1);
                ref::OpPlusEq(&b[k], &t);
            }
        }
        ref::OpShiftEq(&s, -2);
        for (int j = 0; j < 6; ++j) ASSERT_TRUE(same(gm[j], m[j])) << "matrix " << j << ", batch " << round;
        for (int k = 0; k < 3; ++k) ASSERT_TRUE(same(gb[k], b[k])) << "vector " << k << ", batch " << round;
        ASSERT_TRUE(same(gs, s)) << "scalar, batch " << round;
    }
    EXPECT_GT(wide, 50) << "batches with deviations beyond 46340 counts, of " << batches;
}

}  // namespace
