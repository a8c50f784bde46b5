// The fits' refusals at their limits (too few samples, too little spread, a circle or
// a sphere flattened past what determines it), the ellipsoid's plausible axes, the
// circle's offsets from a reference, and the correction's rounding.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "service/circle_fit.h"
#include "service/ellipsoid_fit.h"
#include "service/kit_geometry.h"
#include "service/sphere_fit.h"

namespace {

using namespace kmxc_kit;

FieldStore store_with(const std::vector<Vec3> &fields) {
    FieldStore s;
    field_store_clear(&s);
    for (const Vec3 &m : fields) {
        s.sample[s.count] = StoredSample{
            {static_cast<int16_t>(m.x), static_cast<int16_t>(m.y), static_cast<int16_t>(m.z)}, {0, 0, 4096}};
        ++s.count;
    }
    return s;
}

// n samples on a circle of the given radius about c, in the plane z = c.z.
std::vector<Vec3> circle_points(int n, const Vec3 &c, double radius = 100) {
    std::vector<Vec3> v;
    for (int i = 0; i < n; ++i) {
        const double a = 2 * std::numbers::pi * i / n;
        v.push_back(Vec3{c.x + static_cast<int32_t>(std::lround(radius * std::cos(a))),
                         c.y + static_cast<int32_t>(std::lround(radius * std::sin(a))), c.z});
    }
    return v;
}

// Samples on a sphere of radius 100 about c, n of them spread by the golden angle.
std::vector<Vec3> sphere_points(int n, const Vec3 &c, double radius = 100, double flat = 1) {
    std::vector<Vec3> v;
    for (int i = 0; i < n; ++i) {
        const double z = 1 - 2 * (i + 0.5) / n, r = std::sqrt(1 - z * z), a = i * 2.399963;
        v.push_back(Vec3{c.x + static_cast<int32_t>(std::lround(radius * r * std::cos(a))),
                         c.y + static_cast<int32_t>(std::lround(radius * r * std::sin(a))),
                         c.z + static_cast<int32_t>(std::lround(radius * z * flat))});
    }
    return v;
}

struct Case {
    const char *name;
    std::vector<Vec3> samples;
    FitResult result;
};

TEST(Fits, RefuseWhatTheSamplesDoNotDetermineEachAtItsLimit) {
    static_assert(kSphereMinSpread == 4);
    const Vec3 c{300, -200, 100};
    const auto at = [&](int x, int y, int z) { return Vec3{c.x + x, c.y + y, c.z + z}; };
    // Spread (z variance over x variance): samples +-64 on x and y, +-z1 and +-z2 on z give
    // 1024 * 2 (z1^2 + z2^2) / (2 * 64^2 * 2).
    const auto axes = [&](int z1, int z2) {
        return std::vector<Vec3>{at(64, 0, 0), at(-64, 0, 0), at(0, 64, 0), at(0, -64, 0),
                                 at(0, 0, z1), at(0, 0, -z1), at(0, 0, z2), at(0, 0, -z2)};
    };
    std::vector<Vec3> far = sphere_points(8, c);
    far[7] = at(2600, 0, 0);
    const Case sphere_cases[] = {
        {"seven samples", sphere_points(7, c), FitResult::kTooFew},
        {"eight samples", sphere_points(8, c), FitResult::kOk},
        {"spread exactly 4/1024", axes(4, 0), FitResult::kOk},
        {"spread 3/1024", axes(3, 2), FitResult::kIllConditioned},
        {"a flat ring", circle_points(32, c), FitResult::kIllConditioned},
        {"a sample beyond the span", far, FitResult::kOverflowRisk},
    };
    for (const auto &k : sphere_cases) {
        SphereFit fit{};
        EXPECT_EQ(sphere_fit(store_with(k.samples), &fit), k.result) << k.name;
    }

    SphereFit sphere;
    ASSERT_EQ(sphere_fit(store_with(sphere_points(32, c)), &sphere), FitResult::kOk);
    std::vector<Vec3> beyond = sphere_points(32, c);
    beyond[0] = at(1025, 0, 0);
    std::vector<Vec3> flat = circle_points(32, c);
    const Case ellipsoid_cases[] = {
        {"seventeen samples", sphere_points(17, c), FitResult::kTooFew},
        {"eighteen samples", sphere_points(18, c), FitResult::kOk},
        {"a sample beyond the span", beyond, FitResult::kOverflowRisk},
        {"a flat ring", flat, FitResult::kIllConditioned},
        {"an ellipsoid flattened to 0.7", sphere_points(32, c, 100, 0.7), FitResult::kImplausible},
    };
    for (const auto &k : ellipsoid_cases) {
        EllipsoidFit fit{};
        EXPECT_EQ(ellipsoid_fit(store_with(k.samples), sphere, kEllipsoidRidgeBits, &fit), k.result) << k.name;
        if (k.result == FitResult::kImplausible) { EXPECT_GT(fit.axes_q14[0], kAxisMaxQ14) << "filled"; }
    }

    std::vector<Vec3> line, circle_far = circle_points(8, c);
    for (int i = 0; i < 8; ++i) line.push_back(at(10 * i, 20 * i, -30 * i));
    circle_far[0] = at(2600, 0, 0);
    const Case circle_cases[] = {
        {"five samples", circle_points(5, c), FitResult::kTooFew},
        {"six samples", circle_points(6, c), FitResult::kOk},
        {"a line", line, FitResult::kIllConditioned},
        {"a sample beyond the span", circle_far, FitResult::kOverflowRisk},
    };
    for (const auto &k : circle_cases) {
        CircleFit fit{};
        EXPECT_EQ(circle_fit(store_with(k.samples), Vec3{0, 0, 4096}, &fit), k.result) << k.name;
    }
    CircleFit fit{};
    ASSERT_EQ(circle_fit(store_with(circle_points(12, c)), Vec3{0, 0, -4096}, &fit), FitResult::kOk);
    EXPECT_EQ(fit.normal_q14.z, -16384) << "signed the way gravity pulls";
    Vec3 offset{};
    int32_t mismatch = 0;
    EXPECT_FALSE(circle_offset_from_reference(fit, 120, 0, &offset, &mismatch)) << "a field along the axis";
    ASSERT_TRUE(circle_offset_from_reference(fit, 100, 9000, &offset, &mismatch));
    EXPECT_TRUE(offset.x == c.x && offset.y == c.y && offset.z == c.z && std::abs(mismatch) <= 2);
}

TEST(EllipsoidFit, AxesArePlausibleFromExactly08To125) {
    static_assert(kAxisMinQ14 == 13107 && kAxisMaxQ14 == 20480);
    const struct {
        int32_t axes[3];
        bool plausible;
    } cases[] = {{{20480, 16384, 13107}, true},
                 {{20481, 16384, 13107}, false},
                 {{20480, 16384, 13106}, false},
                 {{16384, 13106, 13200}, false}};
    for (const auto &c : cases) EXPECT_EQ(axes_plausible(c.axes), c.plausible) << c.axes[0] << " " << c.axes[2];
}

// The kit corrects every sample with W: each component within half a count of W v.
TEST(EllipsoidFit, TheCorrectionAppliesAsItsMatrixRounded) {
    std::mt19937_64 rng(29);
    std::uniform_int_distribution<int32_t> comp(-65536, 65536), entry(-4000, 4000);
    for (int k = 0; k < 10000; ++k) {
        int16_t w[9];
        for (int i = 0; i < 9; ++i) w[i] = static_cast<int16_t>((i % 4 == 0 ? 16384 : 0) + entry(rng));
        const Vec3 v{comp(rng), comp(rng), comp(rng)}, got = apply_q14(w, v, 0), got4 = apply_q14(w, v, 4);
        const int32_t g[3] = {got.x, got.y, got.z}, g4[3] = {got4.x, got4.y, got4.z};
        for (int r = 0; r < 3; ++r) {
            const double want =
                (w[3 * r] * double(v.x) + w[3 * r + 1] * double(v.y) + w[3 * r + 2] * double(v.z)) / 16384;
            ASSERT_LE(std::fabs(g[r] - want), 0.5) << "row " << r;
            ASSERT_LE(std::fabs(g4[r] / 16.0 - want), 1 / 32.0) << "row " << r;
        }
    }
}

}  // namespace
