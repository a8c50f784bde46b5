// Calibration front end: status, classification and the return codes of whole
// synthetic streams.
#include <gtest/gtest.h>

#include <vector>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"

namespace {

using namespace calib_test;

struct FrontEnd : ::testing::Test {
    void SetUp() override { ASSERT_EQ(KmxAxesMsCalibInit(), 0); }
    // Feeds a batch; every sample before the last must return the status alone.
    static int8_t feed(const Batch &batch, KmxAxesMsCalibDetail *detail = nullptr) {
        for (size_t i = 0; i + 1 < batch.size(); ++i)
            EXPECT_EQ(KmxAxesMsCalibUpdateDetail(&batch[i], detail), KmxAxesMsCalibGetStatus());
        return KmxAxesMsCalibUpdateDetail(&batch.back(), detail);
    }
    static KmxAxesData offset() {
        KmxAxesData o;
        return KmxAxesMsCalibGetOffset(&o), o;
    }
};

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

TEST_F(FrontEnd, StatusAndClassifierEdges) {
    EXPECT_EQ(KmxAxesMsCalibSetStatus(8), -1);
    EXPECT_EQ(KmxAxesMsCalibGetStatus(), 0);
    EXPECT_EQ(KmxAxesMsCalibSetStatus(7), 0);
    EXPECT_EQ(KmxAxesMsCalibGetStatus(), 7);
    // The default thresholds 64 and 96: a ratio equal to its threshold falls to the next
    // class; planar with a smallest ratio of 0 sets weight[0] to 1.
    const struct {
        int32_t r[2];
        int16_t w0, w1;
        int8_t rc;
    } dist[] = {{{65, 0}, 0, 1, 0}, {{64, 97}, 0, 1024, 0}, {{0, 97}, 1, 1024, 0}, {{64, 96}, 1024, 1024, 2}};
    for (const auto &c : dist) {
        int16_t w[2] = {-7, -7};
        EXPECT_EQ(KmxAxesMsCalibCheckDistribution(c.r, w), c.rc) << c.r[0] << "," << c.r[1];
        EXPECT_EQ((std::vector<int16_t>{w[0], w[1]}), (std::vector<int16_t>{c.w0, c.w1})) << c.r[0] << "," << c.r[1];
    }
    const struct {
        int32_t n[3];
        int8_t bits;
    } normals[] = {
        {{-1, 1, 0}, 48}, {{1, -2, 0}, 40}, {{0, -3, 3}, 40}, {{1, 1, -2}, 24}, {{INT32_MIN, INT32_MAX, 0}, 48}};
    for (const auto &c : normals) EXPECT_EQ(KmxAxesMsCalibPlanarAxisBits(c.n), c.bits) << c.n[0] << "," << c.n[1];
}

// Spheres of 100..160 counts with +-1 count of noise around centres within 1000 counts.
TEST_F(FrontEnd, SphereBatchesCalibrateAllThreeAxes) {
    Rng rng{2026};
    for (int i = 0; i < 300; ++i) {
        KmxAxesMsCalibInit();
        const Point centre{rng.uniform(-1000, 1000), rng.uniform(-1000, 1000), rng.uniform(-1000, 1000)};
        ASSERT_EQ(feed(sphere_batch(centre, rng.uniform(100, 160), 1, rng)), 63) << i;
        EXPECT_LE(distance(offset(), centre), 3.0) << i;
    }
    EXPECT_EQ(KmxAxesMsCalibGetStatus(), 7);
    EXPECT_EQ(g_MsCalibPlanarValid, 0);
}

TEST_F(FrontEnd, PlanarBatchFitsThePlaneAndKeepsTheNormalComponent) {
    const Point centre{250, -180, 90}, axis[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    const int8_t bits[3] = {48, 40, 24};
    Rng rng{12};
    for (int n = 0; n < 3; ++n) {
        KmxAxesMsCalibInit();
        KmxAxesMsCalibSetStatus(5);
        const KmxAxesData old{290, -210, 110};  // centre + (40, -30, 20)
        KmxAxesMsCalibSetOffset(&old);
        const Batch batch = circle_batch(centre, axis[(n + 1) % 3], axis[(n + 2) % 3], 130, 1, rng);
        EXPECT_EQ(feed(batch), 5 | bits[n]) << n;
        const KmxAxesData now = offset();
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR((&now.x)[k], k == n ? (&old.x)[k] : (&centre.x)[k], k == n ? 1 : 3) << n << " axis " << k;
        EXPECT_EQ(KmxAxesMsCalibGetStatus(), 5);
        EXPECT_EQ(g_MsCalibPlanarValid, 1);
        EXPECT_EQ(g_MsCalibPlanarHistory[7][0], batch[14].x);
        // Same plane again, old offset straight off it (alignment above 230): it stays, and
        // the trial of two co-planar batches is not adopted.
        const KmxAxesData off_plane{n == 0 ? 310 : 250, n == 1 ? -120 : -180, n == 2 ? 150 : 90};
        KmxAxesMsCalibSetOffset(&off_plane);
        EXPECT_EQ(feed(circle_batch(centre, axis[(n + 1) % 3], axis[(n + 2) % 3], 130, 1, rng)), 5 | bits[n]) << n;
        EXPECT_TRUE(same(offset(), off_plane)) << n;
    }
}

// Two small circles of one sphere in perpendicular planes: each alone is a planar fit,
// together the trial estimator fits the whole sphere.
TEST_F(FrontEnd, PerpendicularPlanarBatchesCombineIntoFullCalibration) {
    const Point centre{-320, 150, 480};
    Rng rng{44};
    const Batch xy = circle_batch(centre + Point{0, 0, 40}, {1, 0, 0}, {0, 1, 0}, std::sqrt(140 * 140 - 1600), 1, rng);
    const Batch xz = circle_batch(centre + Point{0, -30, 0}, {1, 0, 0}, {0, 0, 1}, std::sqrt(140 * 140 - 900), 1, rng);
    for (bool history : {false, true}) {
        KmxAxesMsCalibInit();
        EXPECT_EQ(feed(xy), 24);
        EXPECT_EQ(g_MsCalibPlanarValid, 1);
        g_MsCalibPlanarValid = history;
        KmxAxesMsCalibDetail detail{};
        EXPECT_EQ(feed(xz, &detail), history ? 63 : 40);
        EXPECT_EQ(KmxAxesMsCalibGetStatus(), history ? 7 : 0);
        EXPECT_EQ(g_MsCalibPlanarValid, !history);
        if (!history) continue;
        EXPECT_LE(distance(offset(), centre), 3.0);
        EXPECT_GT(detail.ratioMin, 64);  // the trial's record, not the planar batch's
    }
}

// One three-dimensional and one planar fit pinned bit for bit (values of a reviewed run),
// so that a change of operation order or truncation anywhere in the chain shows.
TEST_F(FrontEnd, FitsArePinnedBitForBit) {
    Rng rng{77};
    KmxAxesMsCalibDetail d{};
    EXPECT_EQ(feed(sphere_batch({123, -45, 67}, 140, 2, rng), &d), 63);
    KmxAxesData o = offset();
    EXPECT_EQ(std::vector<int32_t>({o.x, o.y, o.z, d.ratioMin, d.ratioMid, d.residual}),
              std::vector<int32_t>({122, -45, 67, 924, 1003, 380824}));
    EXPECT_EQ(feed(circle_batch({-60, 30, 90}, {0.6, 0, 0.8}, {0, 1, 0}, 120, 0, rng), &d), 7 | 48);
    o = offset();
    EXPECT_EQ(std::vector<int32_t>({o.x, o.y, o.z, d.ratioMin, d.ratioMid, d.residual}),
              std::vector<int32_t>({67, 30, -5, 0, 1020, 32354}));
}

// Identical samples (a zero largest eigenvalue) and any batch under a residual threshold
// set to 0: the status comes back and nothing changes. Every other refusal of the
// estimator (its own cases) takes the same way back.
TEST_F(FrontEnd, RejectedBatchesReturnTheStatusAndChangeNothing) {
    Rng rng{9};
    const struct {
        const char *name;
        Batch batch;
        int32_t threshold;
    } cases[] = {{"identical", Batch{}, 0x200000},
                 {"residual threshold 0", sphere_batch({30, 40, 50}, 150, 1, rng), 0}};
    for (const auto &c : cases) {
        const KmxAxesMsCalibThreshold t{64, 96, c.threshold};
        KmxAxesMsCalibSetThreshold(&t);
        KmxAxesMsCalibSetStatus(3);
        const KmxAxesData old{7, -8, 9};
        KmxAxesMsCalibSetOffset(&old);
        KmxAxesMsCalibDetail detail{5, 5, 5};
        EXPECT_EQ(feed(c.batch, &detail), 3) << c.name;
        EXPECT_TRUE(same(offset(), old)) << c.name;
        EXPECT_EQ(g_MsCalibPlanarValid, 0) << c.name;
        EXPECT_EQ((std::vector<int32_t>{detail.ratioMin, detail.ratioMid, detail.residual}),
                  (std::vector<int32_t>{0, 0, INT32_MAX}))
            << c.name;
    }
}

}  // namespace
