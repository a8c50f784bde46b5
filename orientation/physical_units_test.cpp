#include <gtest/gtest.h>

#include <cstdint>

#include "orientation/orientation.h"

namespace {

TEST(PhysicalUnits, ScaleTheLimitedDifferenceAndRefuseNull) {
    const struct {
        const char *name;
        int8_t (*convert)(const KmxAxesData *, double *);
        KmxAxesData offset, sample;
        double out[3];
    } cases[] = {
        // clang-format off
        {"one count: two rounded products", KmxAxesLibGetGravityEarth, {0, 0, 0}, {1, 0, 0}, {0.00239420166015625, 0, 0}},
        {"gravity limited first", KmxAxesLibGetGravityEarth, {0, 0, 0}, {20000, 0, 0}, {39.2266, 0, 0}},
        {"gravity offset removed", KmxAxesLibGetGravityEarth, {0, 0, 4096}, {0, 0, 4096}, {0, 0, 0}},
        {"field, limited", KmxAxesLibGetMagneticT, {0, 0, 0}, {100, -50, 20000}, {40.0, -20.0, 6553.6}},
        {"field offset removed", KmxAxesLibGetMagneticT, {100, 0, 0}, {100, 0, 0}, {0, 0, 0}},
        {"32-bit extremes", KmxAxesLibGetMagneticT, {INT32_MIN, INT32_MAX, 0}, {INT32_MAX, INT32_MIN, 0},
         {6553.6, -6553.6, 0}},
        // clang-format on
    };
    for (const auto &c : cases) {
        const bool gravity = c.convert == KmxAxesLibGetGravityEarth;
        KmxAxesLibSetMsOffset(gravity ? &KmxAxesData_Constructor : &c.offset);
        KmxAxesLibSetGsOffset(gravity ? &c.offset : &KmxAxesData_Constructor);
        double out[3] = {7, 7, 7};
        EXPECT_EQ(c.convert(&c.sample, out), 0) << c.name;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], c.out[i]) << c.name << " axis " << i;
        EXPECT_EQ(c.convert(nullptr, out), -1) << c.name;
        EXPECT_EQ(c.convert(&c.sample, nullptr), -1) << c.name;
        EXPECT_EQ(out[0], c.out[0]) << c.name << ": written on refusal";
    }
    KmxAxesLibInit();
}

}  // namespace
