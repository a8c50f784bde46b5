// The estimator's step: decimation, batching, result codes, residual and acceptance.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

int8_t free_fit(const int32_t *, int16_t *w) { return w[0] = 0, w[1] = 0, 0; }
int8_t bind_both(const int32_t *, int16_t *w) { return w[0] = 1024, w[1] = 1024, 0; }

struct EstimatorFit : ::testing::Test {
    void SetUp() override { KmxAxesMsCalibInit(); }  // thresholds of the default classifier
    static KmxAxesMsCalib02Context make(int32_t threshold = 0x200000,
                                        KmxAxesMsCalibCheckDistributionFunc check = KmxAxesMsCalibCheckDistribution,
                                        uint8_t skipPeriod = 1, int8_t ringMode = 0, int32_t minEigen = 24576) {
        KmxAxesMsCalib02Config config{skipPeriod, minEigen, check, ringMode, 1, {}};
        MSFLOAT_I2F(&config.residualThreshold, threshold);
        KmxAxesMsCalib02Context ctx;
        KmxAxesMsCalib02_Init(&ctx, &config);
        return ctx;
    }
    // Feeds a batch; every sample before the last must only be buffered.
    static int8_t feed(KmxAxesMsCalib02Context &ctx, const Batch &batch, KmxAxesMsCalib02Result *r = nullptr) {
        for (size_t i = 0; i + 1 < batch.size(); ++i) EXPECT_EQ(KmxAxesMsCalib02_Update(&ctx, &batch[i], r), 1);
        return KmxAxesMsCalib02_Update(&ctx, &batch.back(), r);
    }
};

TEST_F(EstimatorFit, ResultCodesAndCounters) {
    Rng rng(5);
    const Vec centre{200, -100, 50};
    Batch full_scale, far_line;
    for (auto &s : full_scale) s = {rng.integer(-30000, 30000), rng.integer(-30000, 30000), 0};
    for (int32_t k = 0; k < 16; ++k) far_line[size_t(k)] = {10 * k - 80, 10 * k - 80, 10 * k - 80};
    const struct {
        const char *name;
        Batch batch;
        int32_t threshold;
        KmxAxesMsCalibCheckDistributionFunc check;
        KmxAxesData old;
        int8_t code, count;
    } cases[] = {
        {"sphere accepted", sphere_batch(centre, 130, 1, rng), 0x200000, KmxAxesMsCalibCheckDistribution, {}, 0, 0},
        {"identical samples", Batch{}, 0x200000, KmxAxesMsCalibCheckDistribution, {}, 5, 16},
        {"line refused", line_batch(centre, unit({1, 2, 3}), 400, 0, rng), 0x200000, KmxAxesMsCalibCheckDistribution, {}, 2, 16},
        {"residual above 0", sphere_batch(centre, 130, 1, rng), 0, KmxAxesMsCalibCheckDistribution, {}, 4, 0},
        {"largest eigenvalue beyond int32", full_scale, 0x200000, KmxAxesMsCalibCheckDistribution, {}, 3, 16},
        {"free fit of a flat plane: singular", circle_batch(centre, {0, 0, 1}, 130, 0, rng), INT32_MAX, free_fit, {}, -2, 16},
        {"centre beyond int32 refused", far_line, INT32_MAX, bind_both, {INT32_MIN, INT32_MIN, INT32_MAX}, -2, 16},
    };
    for (const auto &c : cases) {
        KmxAxesMsCalib02Context ctx = make(c.threshold, c.check);
        KmxAxesMsCalib02_SetOffset(&ctx, &c.old);
        KmxAxesMsCalib02Result r;
        std::memset(&r, 0x5A, sizeof r);
        EXPECT_EQ(feed(ctx, c.batch, &r), c.code) << c.name;
        EXPECT_TRUE(ctx.count == c.count && ctx.writeIndex == c.count) << c.name;
        KmxAxesData offset;
        KmxAxesMsCalib02_GetOffset(&ctx, &offset);
        if (c.code == 0) {
            EXPECT_LE(distance(offset, centre), 3.0) << c.name;
            EXPECT_TRUE(r.weights[0] == 0 && r.weights[1] == 1 && r.ratioMin > 64 && r.residual <= 0x200000) << c.name;
            continue;
        }
        EXPECT_TRUE(offset.x == c.old.x && offset.y == c.old.y && offset.z == c.old.z) << c.name;
        EXPECT_TRUE(r.ratioMin == 0 && r.ratioMid == 0 && r.residual == INT32_MAX) << c.name;
        EXPECT_EQ(r.eigenVector[1][1], 0x5A5A5A5A) << c.name << ": slots 2..14 are left alone";
    }
}

// Period N: the N-th call and every N-th after it are used; the period compares as a
// signed byte, so 0 and anything above 127 use every call.
TEST_F(EstimatorFit, DecimationUsesEveryNthSample) {
    const struct {
        uint8_t period;
        int used_every;
    } cases[] = {{1, 1}, {3, 3}, {0, 1}, {200, 1}};
    for (const auto &c : cases) {
        KmxAxesMsCalib02Context ctx = make(0x200000, KmxAxesMsCalibCheckDistribution, c.period);
        int call = 0, code = 6;
        for (; call < 16 * c.used_every; ++call) {
            const KmxAxesData s{100 * call, 0, 0};
            code = KmxAxesMsCalib02_Update(&ctx, &s, nullptr);
            const bool used = (call + 1) % c.used_every == 0;
            if (call + 1 < 16 * c.used_every) {
                ASSERT_EQ(code, used ? 1 : 6) << int(c.period) << " call " << call;
            }
        }
        EXPECT_EQ(code, 2) << int(c.period);  // the 16th used sample closes a (line) batch
        for (int j = 0; j < 16; ++j) EXPECT_EQ(ctx.buffer[j][0], 100 * ((j + 1) * c.used_every - 1)) << int(c.period);
    }
}

TEST_F(EstimatorFit, RingModeEvaluatesEveryFurtherSampleWithTheNewest16) {
    Rng rng(8);
    const Batch a = line_batch({0, 0, 0}, unit({1, 0, 1}), 500, 0, rng);
    for (int8_t ring : {int8_t{0}, int8_t{1}}) {
        KmxAxesMsCalib02Context ctx = make(0x200000, KmxAxesMsCalibCheckDistribution, 1, ring);
        EXPECT_EQ(feed(ctx, a), 2);
        for (int i = 0; i < 4; ++i) {
            const KmxAxesData s{a[size_t(i)].x + 1, a[size_t(i)].y, a[size_t(i)].z};
            EXPECT_EQ(KmxAxesMsCalib02_Update(&ctx, &s, nullptr), ring ? 2 : 1) << int(ring);
        }
        EXPECT_TRUE(ctx.count == (ring ? 16 : 4) && ctx.writeIndex == 4 && ctx.buffer[3][0] == a[3].x + 1);
        EXPECT_EQ(ctx.buffer[4][0], a[4].x) << "the oldest four slots were replaced";
    }
}

TEST_F(EstimatorFit, ThresholdsIncludeTheirBounds) {
    Rng rng(21);
    const Batch noisy = sphere_batch({-40, 60, 10}, 150, 2, rng);
    KmxAxesMsCalib02Context probe = make(INT32_MAX);
    KmxAxesMsCalib02Result r;
    ASSERT_EQ(feed(probe, noisy, &r), 0);
    ASSERT_GE(r.residual, 32768) << "an integral MSFLOAT residual is needed for an exact threshold";
    KmxAxesMsCalib02Context at = make(r.residual), below = make(r.residual - 1);
    EXPECT_EQ(feed(at, noisy), 0);
    EXPECT_EQ(feed(below, noisy), 4);

    // Scatter diag(40000, 25600, 14400) exactly: the floor equal to lambda0 passes.
    Batch axes{};
    const KmxAxesData arms[6] = {{100, 0, 0}, {-100, 0, 0}, {0, 80, 0}, {0, -80, 0}, {0, 0, 60}, {0, 0, -60}};
    for (size_t i = 0; i < 12; ++i) axes[i] = arms[i % 6];
    KmxAxesMsCalib02Context floor_at = make(INT32_MAX, KmxAxesMsCalibCheckDistribution, 1, 0, 40000);
    KmxAxesMsCalib02Context floor_above = make(INT32_MAX, KmxAxesMsCalibCheckDistribution, 1, 0, 40001);
    EXPECT_NE(feed(floor_at, axes), 5);
    EXPECT_EQ(feed(floor_above, axes), 5);
}

TEST(EstimatorResidual, LeavesOutEigenvaluesUpTo2PowMinus10) {
    auto f = [](int32_t v) { MSFLOAT m; MSFLOAT_I2F(&m, v); return m; };
    const MSFLOAT just_above = {1, 103, 0x8001};
    const struct {
        const char *name;
        MSFLOAT lambda2;
        double want, tolerance;
    } cases[] = {
        {"all eigenvalues used", f(16), 997, 0},
        {"2^-10 left out", MSFLOAT_1div1024, 998, 0},
        {"zero left out", MSFLOAT_0, 998, 0},
        {"just above 2^-10 used", just_above, 998 - 16 / std::ldexp(0x8001, -25), 2},
    };
    for (const auto &c : cases) {
        const MsEigenPair pairs[3] = {{f(400), {16384, 0, 0}}, {f(100), {0, 16384, 0}}, {c.lambda2, {0, 0, 16384}}};
        const MSFLOAT b[3] = {f(20), f(10), f(4)}, s = f(1000);
        MSFLOAT out;
        KmxAxesMsCalib02_CalcResidual(b, pairs, &s, &out);
        EXPECT_NEAR(out.sign * std::ldexp(out.mantissa, out.exponent - 128), c.want, c.tolerance) << c.name;
    }
}

// 256 cos^2 between the plane normal and the old offset's difference from the new
// offset moved into the samples' plane; exact in 64 bits well beyond 2900 counts.
TEST(EstimatorShiftAlignment, IsTheSquaredCosineToTheNormal) {
    const int32_t ez[3] = {0, 0, 16384};
    const KmxAxesData fresh{10, 20, 5}, centre{0, 0, 30};  // projected new offset (10, 20, 30)
    const struct {
        const char *name;
        KmxAxesData old;
        int16_t want;
    } cases[] = {
        {"old offset on the projection", {10, 20, 30}, 257}, {"along the normal", {10, 20, 80}, 256},
        {"in the plane", {60, 20, 30}, 0},                   {"45 degrees", {60, 20, 80}, 128},
        {"3-4-5", {13, 20, 34}, 163},                        {"3-4-5 at 5000 counts", {3010, 20, 4030}, 163},
        {"3-4-5 at 2^30 counts", {10 + 3 * (1 << 28), 20, 30 + 4 * (1 << 28)}, 163},
    };
    for (const auto &c : cases)
        EXPECT_EQ(KmxAxesMsCalib02_CalcShiftAlignment(&c.old, &fresh, &centre, ez), c.want) << c.name;

    Rng rng(17);
    for (int i = 0; i < 500; ++i) {
        const Vec n = rng.direction();
        const int32_t e[3] = {int32_t(std::lround(16384 * n.x)), int32_t(std::lround(16384 * n.y)),
                              int32_t(std::lround(16384 * n.z))};
        const int32_t span = i < 250 ? 3000 : 1 << 30;
        const KmxAxesData o{rng.integer(-span, span), rng.integer(-span, span), rng.integer(-span, span)};
        const KmxAxesData nw{rng.integer(-span, span), rng.integer(-span, span), rng.integer(-span, span)};
        const KmxAxesData c{rng.integer(-32768, 32767), rng.integer(-32768, 32767), rng.integer(-32768, 32767)};
        const Vec q{e[0] / 16384.0, e[1] / 16384.0, e[2] / 16384.0};
        const double t = (c.x - double(nw.x)) * q.x + (c.y - double(nw.y)) * q.y + (c.z - double(nw.z)) * q.z;
        const Vec u{o.x - nw.x - t * q.x, o.y - nw.y - t * q.y, o.z - nw.z - t * q.z};
        if (dot(u, u) < 1e4) continue;
        EXPECT_NEAR(KmxAxesMsCalib02_CalcShiftAlignment(&o, &nw, &c, e), 256 * dot(u, q) * dot(u, q) / dot(u, u), 3)
            << i;
    }
    const int32_t absurd[3] = {INT32_MAX, INT32_MIN, INT32_MAX};  // not a unit vector: must merely be harmless
    const KmxAxesData lo{INT32_MIN, INT32_MIN, INT32_MIN}, hi{INT32_MAX, INT32_MAX, INT32_MAX};
    KmxAxesMsCalib02_CalcShiftAlignment(&lo, &hi, &lo, absurd);
}

}  // namespace
