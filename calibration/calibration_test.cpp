// Calibration front end: status, thresholds, classification and the return codes of
// whole synthetic streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

struct FrontEnd : ::testing::Test {
    void SetUp() override { EXPECT_EQ(KmxAxesMsCalibInit(), 0); }
    // Feeds a batch; every sample before the last must return the status alone.
    static int8_t feed(const Batch &batch, KmxAxesMsCalibDetail *detail = nullptr) {
        const int8_t status = KmxAxesMsCalibGetStatus();
        for (size_t i = 0; i + 1 < batch.size(); ++i) EXPECT_EQ(KmxAxesMsCalibUpdateDetail(&batch[i], detail), status);
        return KmxAxesMsCalibUpdateDetail(&batch.back(), detail);
    }
    static KmxAxesData offset() {
        KmxAxesData o;
        KmxAxesMsCalibGetOffset(&o);
        return o;
    }
};

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

TEST_F(FrontEnd, InitRestoresDefaultsAndStatusIsThreeBits) {
    const KmxAxesMsCalibThreshold odd{1, 2, 3};
    KmxAxesMsCalibSetThreshold(&odd);
    g_MsCalibPlanarValid = 1;
    g_MsCalibPlanarHistory[7][2] = 99;
    KmxAxesMsCalibSetStatus(7);
    KmxAxesMsCalibInit();
    EXPECT_TRUE(g_MsCalibThreshold.ratioMinThreshold == 64 && g_MsCalibThreshold.ratioMidThreshold == 96 &&
                g_MsCalibThreshold.residualThreshold == 0x200000);
    EXPECT_TRUE(g_MsCalibPlanarValid == 0 && g_MsCalibPlanarHistory[7][2] == 0 && KmxAxesMsCalibGetStatus() == 0);
    const KmxAxesMsCalib02Config &c = g_MsCalibEstimator.config;
    EXPECT_TRUE(c.skipPeriod == 1 && c.minEigen == 24576 && c.checkDistribution == KmxAxesMsCalibCheckDistribution &&
                c.ringMode == 0 && c.initialSkipCounter == 1);
    EXPECT_TRUE(c.residualThreshold.exponent == 150 && c.residualThreshold.mantissa == 0x8000);  // 2^21

    const struct {
        uint8_t value;
        int8_t result, after;
    } cases[] = {{7, 0, 7}, {8, -1, 7}, {255, -1, 7}, {0, 0, 0}, {3, 0, 3}};
    for (const auto &s : cases) {
        EXPECT_EQ(KmxAxesMsCalibSetStatus(s.value), s.result) << int(s.value);
        EXPECT_EQ(KmxAxesMsCalibGetStatus(), s.after) << int(s.value);
    }
    const KmxAxesMsCalibThreshold zero{64, 96, 0};
    KmxAxesMsCalibSetThreshold(&zero);
    EXPECT_TRUE(g_MsCalibConfig.residualThreshold.sign == 0 && g_MsCalibEstimator.config.residualThreshold.sign == 0);
}

TEST_F(FrontEnd, DistributionCheckClassifiesByRatio) {
    const struct {
        const char *name;
        int32_t ratios[2];
        int8_t result;
        int16_t w0, w1;
    } cases[] = {
        {"3-D", {65, 0}, 0, 0, 1},          {"planar", {64, 97}, 0, 0, 1024}, {"planar, flat", {0, 97}, 0, 1, 1024},
        {"planar, below", {-3, 97}, 0, 1, 1024}, {"line", {64, 96}, 2, 1024, 1024}, {"line, negative", {-1, -1}, 2, 1024, 1024},
    };
    for (const auto &c : cases) {
        int16_t w[2] = {-7, -7};
        EXPECT_EQ(KmxAxesMsCalibCheckDistribution(c.ratios, w), c.result) << c.name;
        EXPECT_TRUE(w[0] == c.w0 && w[1] == c.w1) << c.name;
    }
}

TEST(PlanarAxisBits, LargestNormalComponentWinsTiesGoLow) {
    const struct {
        int32_t n[3];
        int8_t bits;
    } cases[] = {{{1, 1, 0}, 48}, {{-1, 1, 0}, 48}, {{1, -2, 0}, 40}, {{2, 2, 2}, 48}, {{0, -3, 3}, 40},
                 {{1, 1, -2}, 24}, {{0, 0, 0}, 48}, {{INT32_MIN, INT32_MAX, 0}, 48}};
    for (const auto &c : cases) EXPECT_EQ(KmxAxesMsCalibPlanarAxisBits(c.n), c.bits) << c.n[0] << "," << c.n[1] << "," << c.n[2];
}

// Realistic spheres (radius 100..160 counts, +-1 count of noise) around centres of up to
// 1000 counts: every batch calibrates all three axes, within a few counts.
TEST_F(FrontEnd, SphereBatchesCalibrateAllThreeAxes) {
    Rng rng(2026);
    double worst = 0;
    for (int i = 0; i < 300; ++i) {
        KmxAxesMsCalibInit();
        const Vec centre{rng.uniform(-1000, 1000), rng.uniform(-1000, 1000), rng.uniform(-1000, 1000)};
        KmxAxesMsCalibDetail detail{1, 1, 1};
        ASSERT_EQ(feed(sphere_batch(centre, rng.uniform(100, 160), 1, rng), &detail), 63) << i;
        worst = std::max(worst, distance(offset(), centre));
        EXPECT_TRUE(detail.ratioMin > 64 && detail.residual >= 0 && detail.residual <= 0x200000) << i;
    }
    EXPECT_EQ(KmxAxesMsCalibGetStatus(), 7);
    EXPECT_LE(worst, 3.0);
    std::printf("sphere batches: worst offset error %.2f counts\n", worst);
}

TEST_F(FrontEnd, PlanarBatchFitsThePlaneAndKeepsTheNormalComponent) {
    const Vec centre{250, -180, 90};
    const struct {
        const char *name;
        Vec normal;
        int axis;
        int8_t bits;
    } cases[] = {{"x-y plane", {0, 0, 1}, 2, 24}, {"y-z plane", {1, 0, 0}, 0, 48}, {"x-z plane", {0, 1, 0}, 1, 40}};
    Rng rng(12);
    for (const auto &c : cases) {
        for (uint8_t status : {uint8_t{0}, uint8_t{5}}) {
            KmxAxesMsCalibInit();
            KmxAxesMsCalibSetStatus(status);
            const KmxAxesData old{290, -210, 110};  // centre + (40, -30, 20)
            KmxAxesMsCalibSetOffset(&old);
            const Batch batch = circle_batch(centre, c.normal, 130, 1, rng);
            EXPECT_EQ(feed(batch), status | c.bits) << c.name;
            const KmxAxesData now = offset();
            for (int k = 0; k < 3; ++k) {
                const double got = (&now.x)[k], want = k == c.axis ? (&old.x)[k] : (&centre.x)[k];
                EXPECT_NEAR(got, want, k == c.axis ? 1 : 3) << c.name << " axis " << k;
            }
            EXPECT_EQ(KmxAxesMsCalibGetStatus(), status);
            EXPECT_EQ(g_MsCalibPlanarValid, 1);
            for (size_t i = 0; i < 8; ++i) EXPECT_EQ(g_MsCalibPlanarHistory[i][0], int16_t(batch[2 * i].x)) << c.name;

            // Next batch in the same plane, old offset straight off it (shift alignment
            // above 230): the old offset stays, and the co-planar trial is not adopted.
            const KmxAxesData off_plane{250 + int32_t(60 * c.normal.x), -180 + int32_t(60 * c.normal.y),
                                        90 + int32_t(60 * c.normal.z)};
            KmxAxesMsCalibSetOffset(&off_plane);
            EXPECT_EQ(feed(circle_batch(centre, c.normal, 130, 1, rng)), status | c.bits) << c.name;
            EXPECT_TRUE(same(offset(), off_plane)) << c.name;
        }
    }
}

// Two small circles of one sphere in perpendicular planes: each alone is a planar fit,
// together the trial estimator fits the whole sphere.
TEST_F(FrontEnd, PerpendicularPlanarBatchesCombineIntoFullCalibration) {
    const Vec centre{-320, 150, 480};
    const double radius = 140;
    Rng rng(44);
    const Batch xy = circle_batch(centre + Vec{0, 0, 40}, {0, 0, 1}, std::sqrt(radius * radius - 1600), 1, rng);
    const Batch xz = circle_batch(centre + Vec{0, -30, 0}, {0, 1, 0}, std::sqrt(radius * radius - 900), 1, rng);
    for (bool history : {true, false}) {
        KmxAxesMsCalibInit();
        EXPECT_EQ(feed(xy), 24);
        EXPECT_EQ(g_MsCalibPlanarValid, 1);
        g_MsCalibPlanarValid = history;
        KmxAxesMsCalibDetail detail{};
        const int8_t code = feed(xz, &detail);
        if (!history) {
            EXPECT_TRUE(code == 40 && KmxAxesMsCalibGetStatus() == 0 && g_MsCalibPlanarValid == 1);
            continue;
        }
        EXPECT_EQ(code, 63);
        EXPECT_LE(distance(offset(), centre), 3.0);
        EXPECT_TRUE(KmxAxesMsCalibGetStatus() == 7 && g_MsCalibPlanarValid == 0 && detail.ratioMin > 64);
        std::printf("two perpendicular circles: offset error %.2f counts\n", distance(offset(), centre));
    }
}

TEST_F(FrontEnd, RejectedBatchesReturnTheStatusAndChangeNothing) {
    Rng rng(9);
    const KmxAxesMsCalibThreshold none{64, 96, 0};
    const struct {
        const char *name;
        Batch batch;
        bool zero_threshold;
        int8_t count;
    } cases[] = {
        {"line", line_batch({100, 100, 100}, unit({1, -1, 2}), 300, 1, rng), false, 16},
        {"identical samples", Batch{}, false, 16},
        {"noisy sphere, residual threshold 0", sphere_batch({30, 40, 50}, 150, 1, rng), true, 0},
    };
    for (const auto &c : cases) {
        for (uint8_t status : {uint8_t{0}, uint8_t{3}}) {
            KmxAxesMsCalibInit();
            if (c.zero_threshold) KmxAxesMsCalibSetThreshold(&none);
            KmxAxesMsCalibSetStatus(status);
            const KmxAxesData old{7, -8, 9};
            KmxAxesMsCalibSetOffset(&old);
            g_MsCalibPlanarValid = 1;
            KmxAxesMsCalibDetail detail{5, 5, 5};
            EXPECT_EQ(feed(c.batch, &detail), status) << c.name;
            EXPECT_TRUE(same(offset(), old) && g_MsCalibPlanarValid == 1 && g_MsCalibEstimator.count == c.count) << c.name;
            EXPECT_TRUE(detail.ratioMin == 0 && detail.ratioMid == 0 && detail.residual == INT32_MAX) << c.name;
        }
    }
}

// Whatever int16 stream arrives, including full-scale and wrapped components, nothing
// is adopted from it and no arithmetic misbehaves (the sanitizer build runs this).
TEST_F(FrontEnd, FullScaleStreamsAreRejected) {
    Rng rng(99);
    const int32_t extremes[] = {-32768, 32767, 0, 65536 + 100, INT32_MIN, INT32_MAX};
    for (int i = 0; i < 40 * 16; ++i) {
        const KmxAxesData s = i % 3 ? KmxAxesData{rng.integer(-32768, 32767), rng.integer(-32768, 32767), rng.integer(-32768, 32767)}
                                    : KmxAxesData{extremes[rng.integer(0, 5)], extremes[rng.integer(0, 5)], extremes[rng.integer(0, 5)]};
        ASSERT_EQ(KmxAxesMsCalibUpdate(&s), 0) << i;
    }
    EXPECT_TRUE(same(offset(), KmxAxesData_Constructor));
}

TEST_F(FrontEnd, SolverFailureIsMinusOne) {
    g_MsCalibEstimator.config.checkDistribution = [](const int32_t *, int16_t *w) -> int8_t { return w[0] = 0, w[1] = 0, 0; };
    MSFLOAT_I2F(&g_MsCalibEstimator.config.residualThreshold, INT32_MAX);
    Rng rng(1);
    const Batch flat = circle_batch({10, 20, 30}, {0, 0, 1}, 120, 0, rng);  // exactly planar, left free
    EXPECT_EQ(feed(flat), -1);
    EXPECT_TRUE(same(offset(), KmxAxesData_Constructor) && KmxAxesMsCalibGetStatus() == 0);
}

}  // namespace
