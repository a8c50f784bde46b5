// The estimator's step: decimation, batching, result codes, thresholds and acceptance.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "calibration/calibration_internal.h"
#include "calibration/test_streams.h"
#include "numerics/numerics_test_util.h"
#include "orientation/test_vectors.h"

namespace {

using namespace calib_test;
using Stream = std::vector<KmxAxesData>;

int8_t free_fit(const int32_t *, int16_t *w) { return w[0] = 0, w[1] = 0, 0; }
int8_t bind_both(const int32_t *, int16_t *w) { return w[0] = 1024, w[1] = 1024, 0; }

struct Case {
    const char *name;
    Stream stream;
    int8_t code, count;
    Point centre = {};  // of an accepted fit
    int32_t threshold = 0x200000, minEigen = 24576;
    KmxAxesMsCalibCheckDistributionFunc check = KmxAxesMsCalibCheckDistribution;
    uint8_t period = 1;
    int8_t ring = 0;
    KmxAxesData old = {};
};

int8_t run(const Case &c, KmxAxesMsCalib02Context &ctx, KmxAxesMsCalib02Result &r) {
    KmxAxesMsCalib02Config config{c.period, c.minEigen, c.check, c.ring, 1, {}};
    MSFLOAT_I2F(&config.residualThreshold, c.threshold);
    KmxAxesMsCalib02_Init(&ctx, &config);
    KmxAxesMsCalib02_SetOffset(&ctx, &c.old);
    int8_t code = 0;
    for (const KmxAxesData &s : c.stream) code = KmxAxesMsCalib02_Update(&ctx, &s, &r);
    return code;
}

TEST(EstimatorFit, ResultCodesCountersAndRecord) {
    KmxAxesMsCalibInit();  // thresholds of the default classifier
    Rng rng{5};
    const Point centre{200, -100, 50};
    const Batch sphere = sphere_batch(centre, 130, 1, rng), noisy = sphere_batch(centre, 150, 2, rng);
    const Batch flat = circle_batch(centre, {1, 0, 0}, {0, 1, 0}, 130, 0, rng);
    const Batch line = circle_batch(centre, {0.6, 0, 0.8}, {}, 400, 0, rng);
    Stream thinned, line20(line.begin(), line.end()), big, far_line, axes(16);
    for (const KmxAxesData &s : sphere) thinned.insert(thinned.end(), {{30000, -30000, 9}, {-30000, 0, 30000}, s});
    for (int32_t k = 0; k < 16; ++k)
        big.push_back({rng.integer(-30000, 30000), rng.integer(-30000, 30000), 0}),
            far_line.push_back({10 * k - 80, 10 * k - 80, 10 * k - 80});
    for (size_t i = 0; i < 12; ++i)
        axes[i] = {i % 6 / 2 == 0 ? 100 - int32_t(i % 2) * 200 : 0,  // scatter exactly
                   i % 6 / 2 == 1 ? 80 - int32_t(i % 2) * 160 : 0,   // diag(40000,
                   i % 6 / 2 == 2 ? 60 - int32_t(i % 2) * 120 : 0};  // 25600, 14400)
    line20.insert(line20.end(), line.begin(), line.begin() + 4);
    KmxAxesMsCalib02Context probe;
    KmxAxesMsCalib02Result p;
    ASSERT_EQ(run({"probe", Stream(noisy.begin(), noisy.end()), 0, 0, {}, INT32_MAX}, probe, p), 0);
    ASSERT_GE(p.residual, 32768) << "an integral MSFLOAT residual is needed for an exact threshold";
    const Case cases[] = {
        // clang-format off
        {"still filling", Stream(sphere.begin(), sphere.end() - 1), 1, 15},
        {"batch mode restarts", line20, 1, 4},
        {.name = "ring mode slides and evaluates", .stream = line20, .code = 2, .count = 16, .ring = 1},
        {"largest eigenvalue beyond int32", big, 3, 16},
        {"residual equal to threshold", Stream(noisy.begin(), noisy.end()), 0, 0, centre, p.residual},
        {"residual one above", Stream(noisy.begin(), noisy.end()), 4, 0, {}, p.residual - 1},
        {.name = "floor equal to lambda0 passes", .stream = axes, .code = 4, .count = 0, .threshold = 0,
         .minEigen = 40000},
        {.name = "floor above lambda0", .stream = axes, .code = 5, .count = 16, .threshold = 0, .minEigen = 40001},
        {.name = "period 3 uses every third", .stream = thinned, .code = 0, .count = 0, .centre = centre, .period = 3},
        {.name = "period 200 is a negative byte: all used", .stream = Stream(sphere.begin(), sphere.end()), .code = 0,
         .count = 0, .centre = centre, .period = 200},
        {.name = "free fit of a flat plane: singular", .stream = Stream(flat.begin(), flat.end()), .code = -2,
         .count = 16, .threshold = INT32_MAX, .check = free_fit},
        {.name = "centre beyond int32 refused", .stream = far_line, .code = -2, .count = 16, .threshold = INT32_MAX,
         .check = bind_both, .old = {INT32_MIN, INT32_MIN, INT32_MAX}},
        // clang-format on
    };
    for (const Case &c : cases) {
        KmxAxesMsCalib02Context ctx;
        KmxAxesMsCalib02Result r;
        std::memset(&r, 0x5A, sizeof r);
        EXPECT_EQ(run(c, ctx, r), c.code) << c.name;
        EXPECT_EQ(ctx.count, c.count) << c.name;
        EXPECT_EQ(ctx.writeIndex, (c.ring ? 4 : c.count)) << c.name;
        KmxAxesData got;
        KmxAxesMsCalib02_GetOffset(&ctx, &got);
        if (c.code == 0) {
            EXPECT_LE(distance(got, c.centre), 3.0) << c.name;
            EXPECT_EQ((std::array<int16_t, 2>{r.weights[0], r.weights[1]}), (std::array<int16_t, 2>{0, 1})) << c.name;
        } else {
            EXPECT_EQ(kmxc_test::xyz(got), kmxc_test::xyz(c.old)) << c.name;
            EXPECT_EQ((std::array{r.ratioMin, r.ratioMid, r.residual}), (std::array<int32_t, 3>{0, 0, INT32_MAX}))
                << c.name;
            EXPECT_EQ(r.eigenVector[1][1], 0x5A5A5A5A) << c.name << ": slots 2..14 are left alone";
        }
    }
}

TEST(EstimatorFit, ResidualLeavesOutEigenvaluesUpTo2PowMinus10) {
    const MSFLOAT b[3] = {I(20), I(10), I(4)}, s = I(1000), just_above = F(1, 103, 0x8001);
    const struct {
        MSFLOAT lambda2;
        double want;
    } cases[] = {{I(16), 997}, {MSFLOAT_1div1024, 998}, {MSFLOAT_0, 998}, {just_above, 998 - 16 / 0x8001p-25}};
    for (const auto &c : cases) {
        const MsEigenPair pairs[3] = {{I(400), {16384, 0, 0}}, {I(100), {0, 16384, 0}}, {c.lambda2, {0, 0, 16384}}};
        MSFLOAT out;  // s - sum (e.b)^2 / lambda over the pairs used
        KmxAxesMsCalib02_CalcResidual(b, pairs, &s, &out);
        EXPECT_NEAR(ToDouble(out), c.want, 1) << c.want;
    }
}

// 256 cos^2 between the plane normal and the old offset's difference from the new one
// moved into the samples' plane, exact far beyond the 2900 counts of 32-bit products.
TEST(EstimatorFit, ShiftAlignmentIsTheSquaredCosineToTheNormal) {
    const int32_t ez[3] = {0, 0, 16384}, absurd[3] = {INT32_MAX, INT32_MIN, INT32_MAX};
    const KmxAxesData fresh{10, 20, 5}, centre{0, 0, 30};  // new offset projected: (10, 20, 30)
    const struct {
        const char *name;
        KmxAxesData old;
        int16_t want;
    } cases[] = {{"on the projection", {10, 20, 30}, 257},
                 {"along the normal", {10, 20, 80}, 256},
                 {"in the plane", {60, 20, 30}, 0},
                 {"3-4-5", {13, 20, 34}, 163},
                 {"3-4-5 at 2^30 counts", {10 + 3 * (1 << 28), 20, 30 + (1 << 30)}, 163}};
    for (const auto &c : cases)
        EXPECT_EQ(KmxAxesMsCalib02_CalcShiftAlignment(&c.old, &fresh, &centre, ez), c.want) << c.name;
    const KmxAxesData lo{INT32_MIN, INT32_MIN, INT32_MIN}, hi{INT32_MAX, INT32_MAX, INT32_MAX};
    EXPECT_NEAR(KmxAxesMsCalib02_CalcShiftAlignment(&hi, &lo, &KmxAxesData_Constructor, ez), 256 / 9.0, 1);
    KmxAxesMsCalib02_CalcShiftAlignment(&lo, &hi, &lo, absurd);  // not a unit vector: merely harmless
}

// A planar fit takes its centre while the old offset's shift is at most 230 (of 256)
// aligned with the plane's normal, and keeps the old offset above. Old offsets are
// turned from the plane toward the normal in small steps; for each adopted centre the
// alignment is recomputed from the batch's own centre and normal: every one must be at
// most 230, and 230 itself must be among them.
TEST(EstimatorFit, PlanarFitAdoptsItsCentreUpToAlignment230) {
    KmxAxesMsCalibInit();  // the default classifier
    Rng rng{31};
    const Point centre{120, -60, 40};
    const Batch flat = circle_batch(centre, {1, 0, 0}, {0, 1, 0}, 140, 1, rng);
    const Stream stream(flat.begin(), flat.end());
    int adopted = 0, kept = 0, at_limit = 0;
    for (int step = 0; step <= 400; ++step) {
        const double angle = 0.2 + 1.2 * step / 400.0;  // radians from the plane
        const KmxAxesData old{int32_t(std::lround(centre.x + 300 * std::cos(angle))), int32_t(centre.y),
                              int32_t(std::lround(centre.z + 300 * std::sin(angle)))};
        KmxAxesMsCalib02Context ctx;
        KmxAxesMsCalib02Result r;
        ASSERT_EQ(run({.name = "plane", .stream = stream, .code = 0, .count = 0, .old = old}, ctx, r), 0) << step;
        ASSERT_EQ(r.weights[1], 1024) << step << ": a planar fit";
        KmxAxesData got;
        KmxAxesMsCalib02_GetOffset(&ctx, &got);
        if (kmxc_test::xyz(got) == kmxc_test::xyz(old)) {
            ++kept;
            continue;
        }
        ++adopted;
        KmxAxesData c;  // the batch's centre; a fit leaves the samples in the buffer
        MSFLOAT scatter[6], b[3], s;
        ASSERT_EQ(KmxAxesMsCalib02_CalcStatistics(ctx.buffer, 16, &c, scatter, b, &s), 0);
        const int16_t alignment = KmxAxesMsCalib02_CalcShiftAlignment(&old, &got, &c, r.eigenVector[2]);
        EXPECT_LE(alignment, 230) << step;
        at_limit += alignment == 230;
    }
    EXPECT_GT(adopted, 0);
    EXPECT_GT(kept, 0);
    EXPECT_GT(at_limit, 0) << "no old offset at alignment 230 was adopted";
}

}  // namespace
