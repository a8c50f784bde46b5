// Sample buffer, offset access and batch statistics of the offset estimator.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"
#include "numerics/msfloat_reference.h"
#include "numerics/numerics_test_util.h"
#include "orientation/test_vectors.h"

namespace {

using namespace calib_test;

// Samples keep their low 16 bits; SetOffset drops the batch but not the slots. (Batches
// restarting and the ring sliding are the estimator step's cases.)
TEST(EstimatorBuffer, KeepsTheLow16BitsAndSetOffsetDropsTheBatch) {
    KmxAxesMsCalib02Config config{1, 24576, nullptr, 0, 1, {}};
    KmxAxesMsCalib02Context ctx;
    KmxAxesMsCalib02_Init(&ctx, &config);
    const int32_t wide[5] = {65536 + 4464, 32768, -32769, INT32_MIN, INT32_MAX};
    const int16_t kept[5] = {4464, -32768, 32767, 0, -1};
    for (int i = 0; i < 5; ++i) {
        const KmxAxesData s{-i, 7, wide[i]};
        KmxAxesMsCalib02_AddToBuffer1(&ctx, &s);
        EXPECT_EQ(ctx.buffer[i][2], kept[i]) << i;
    }
    EXPECT_EQ(ctx.count, 5);
    const KmxAxesData set{1, 2, 3};
    KmxAxesMsCalib02_SetOffset(&ctx, &set);
    KmxAxesData got{};
    KmxAxesMsCalib02_GetOffset(&ctx, &got);
    EXPECT_EQ(ctx.count, 0);
    EXPECT_EQ(ctx.writeIndex, 0);
    EXPECT_EQ(kmxc_test::xyz(got), (std::array{1, 2, 3}));
    EXPECT_EQ(ctx.buffer[4][0], -4);
}

namespace ref = msfloat_reference;

// The statistics from their definition, summed term by term in sample order with the
// first MSFLOAT: the library's register sums and 32-bit shortcuts must give the very
// same bits. Random batches of every spread up to full-scale int16 (deviations beyond
// 46340 counts have squares beyond 32 bits, formed exactly), and two fixed ones; the
// centre is the per-axis mean truncated toward zero.
TEST(EstimatorStatistics, EqualTheTermByTermSumsOfTheFirstMsfloatBitForBit) {
    Rng rng{11};
    int wide = 0;
    for (int round = 0; round < 400; ++round) {
        int16_t in[16][3];
        const int32_t spread = round % 4 == 0 ? 32767 : round % 4 == 1 ? 3000 : 200;
        for (auto &s : in)
            for (auto &v : s) v = int16_t(rng.integer(-spread, spread));
        if (round % 4 == 0) {  // a crowd at one end, one sample at the other: deviations to 61439
            for (auto &s : in)
                for (auto &v : s) v = int16_t(rng.integer(-32768, -30000));
            for (auto &v : in[round % 16]) v = int16_t(rng.integer(30000, 32767));
        }
        if (round == 0)  // all samples equal: every deviation 0
            for (auto &p : in) p[0] = -300, p[1] = 25, p[2] = 7000;
        if (round == 1) {  // mean (-1.0625, 1.0625, 0): the centre truncates toward zero
            for (auto &p : in) p[0] = p[1] = p[2] = 0;
            in[0][0] = -17, in[0][1] = 17;
        }
        KmxAxesData c;
        MSFLOAT gm[6], gb[3], gs;
        ASSERT_EQ(KmxAxesMsCalib02_CalcStatistics(in, 16, &c, gm, gb, &gs), 0);
        int64_t d[16][3];
        bool beyond = false;
        for (int k = 0; k < 3; ++k) {
            int32_t sum = 0;
            for (auto &p : in) sum += p[k];
            ASSERT_EQ((&c.x)[k], std::trunc(sum / 16.0)) << "centre " << k << ", batch " << round;
            for (int i = 0; i < 16; ++i) {
                d[i][k] = in[i][k] - (&c.x)[k];
                beyond |= std::llabs(d[i][k]) > 46340;
            }
        }
        wide += beyond;
        // Deviations are below 2^16, so every term is a double exactly and ToMs keeps its
        // 16 leading bits.
        auto add = [](MSFLOAT &sum, int64_t term) {
            const MSFLOAT t = ToMs(double(term));
            ref::OpPlusEq(&sum, &t);
        };
        MSFLOAT r2 = MSFLOAT_0, m[6] = {}, b[3] = {}, s = MSFLOAT_0, count;
        for (auto &p : d)
            for (int64_t v : p) add(r2, v * v);
        ref::I2F(&count, 16);
        ref::OpDivEq(&r2, &count);
        const int pairs[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};
        for (auto &p : d) {
            for (int j = 0; j < 6; ++j) add(m[j], p[pairs[j][0]] * p[pairs[j][1]]);
            MSFLOAT q = MSFLOAT_0;
            for (int k = 0; k < 3; ++k) add(q, p[k] * p[k]);
            ref::OpMinusEq(&q, &r2);
            MSFLOAT qq = q;
            ref::OpMultiEq(&qq, &q);
            ref::OpPlusEq(&s, &qq);
            for (int k = 0; k < 3; ++k) {
                MSFLOAT t = ToMs(double(p[k]));
                ref::OpMultiEq(&t, &q);
                ref::OpShiftEq(&t, -1);
                ref::OpPlusEq(&b[k], &t);
            }
        }
        ref::OpShiftEq(&s, -2);
        for (int j = 0; j < 6; ++j) ASSERT_EQ(gm[j], m[j]) << "matrix " << j << ", batch " << round;
        for (int k = 0; k < 3; ++k) ASSERT_EQ(gb[k], b[k]) << "vector " << k << ", batch " << round;
        ASSERT_EQ(gs, s) << "scalar, batch " << round;
    }
    EXPECT_GT(wide, 50) << "batches with deviations beyond 46340 counts, of 400";
}

}  // namespace
