// The reference circle's refinement against the same Gauss-Newton steps in double, on
// each side of the bound where its sums change from 32-bit to 64-bit factors.
#include <gtest/gtest.h>

#include <cmath>

#include "service/kit_internal.h"
#include "service/kit_planar.h"

namespace {

using namespace kmxc_kit;

constexpr double kPi = 3.14159265358979323846;

// A flat arc of 240 degrees about a known centre (gravity along z) whose reference is half
// the field's strength: every sample's residual is then 3/4 of its squared radius. At 1000
// counts the refinement's factors stay below the bound (its sums in 32-bit factors); at
// 5000 counts the residual alone outgrows 32 bits, and the sums must take 64-bit ones.
TEST(PlanarSums, TheRefinementMatchesDoubleOnEachSideOfThe32BitBound) {
    for (const double radius : {1000.0, 5000.0}) {
        SCOPED_TRACE(::testing::Message() << "radius " << radius);
        const double strength = radius / std::sin(60 * kPi / 180), cx = 40, cy = -30, cz = 20 + strength / 2;
        FieldStore s;
        field_store_clear(&s);
        for (int i = 0; i < kStoreCapacity; ++i) {
            const double phi = 240 * kPi / 180 * i / (kStoreCapacity - 1);
            const Vec3 m{static_cast<int32_t>(std::lround(cx + radius * std::cos(phi))),
                         static_cast<int32_t>(std::lround(cy + radius * std::sin(phi))),
                         static_cast<int32_t>(std::lround(cz))};
            field_store_offer(&s, m, Vec3{0, 0, 4096}, nullptr, false, true);
        }
        ASSERT_EQ(s.count, kStoreCapacity);
        // The circle as drawn (the circle fit refuses one this far beyond the Earth's).
        const CircleFit fit{
            Vec3{0, 0, 16384},
            Vec3{int32_t(std::lround(16 * cx)), int32_t(std::lround(16 * cy)), int32_t(std::lround(16 * cz))},
            static_cast<int32_t>(std::lround(16 * radius)), 0};
        const PlanarReference half{static_cast<int32_t>(std::lround(strength / 2)), 6000};
        Vec3 o{0, 0, 0};
        int32_t arc = 0;
        ASSERT_TRUE(planar_offset_from_reference(s, fit, half, &o, &arc));
        // The same steps in double: d moves to where |m - c - d|^2 meets F^2 - h^2.
        const double f = half.strength, axial = f * std::cos(60 * kPi / 180);
        const double c[3] = {fit.centre_q4.x / 16.0, fit.centre_q4.y / 16.0, fit.centre_q4.z / 16.0};
        double dx = 0, dy = 0;
        for (int step = 0; step < kPlanarRefineSteps; ++step) {
            double saa = 0, sab = 0, sbb = 0, sar = 0, sbr = 0;
            for (int i = 0; i < s.count; ++i) {
                const double a = s.sample[i].m[0] - c[0] - dx, b = s.sample[i].m[1] - c[1] - dy;
                const double h = s.sample[i].m[2] - c[2] + axial, r = a * a + b * b - (f * f - h * h);
                saa += a * a, sab += a * b, sbb += b * b, sar += a * r / 2, sbr += b * r / 2;
            }
            const double det = saa * sbb - sab * sab;
            dx += (sbb * sar - sab * sbr) / det;
            dy += (saa * sbr - sab * sar) / det;
        }
        EXPECT_NEAR(o.x, c[0] + dx, 1);
        EXPECT_NEAR(o.y, c[1] + dy, 1);
        EXPECT_NEAR(o.z, c[2] - axial, 1);
    }
}

}  // namespace
