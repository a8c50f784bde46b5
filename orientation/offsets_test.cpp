#include <gtest/gtest.h>

#include <cstdint>

#include "orientation/orientation.h"
#include "orientation/test_vectors.h"

namespace {

TEST(OffsetValidity, MagneticWithin16384AndRoughStepsUpTo31) {
    const struct {
        const char *name;
        KmxAxesData offset;
        int8_t valid;
    } ms_cases[] = {
        {"both bounds", {-16384, 16384, 0}, 1}, {"z one above", {0, 0, 16385}, 0}, {"x one below", {-16385, 0, 0}, 0}};
    for (const auto &c : ms_cases) EXPECT_EQ(KmxAxesLibIsValidMsOffset(&c.offset), c.valid) << c.name;
    const struct {
        uint8_t steps[3];
        int8_t valid;
    } rough_cases[] = {{{31, 0, 31}, 1}, {{32, 0, 0}, 0}, {{0, 32, 0}, 0}, {{0, 0, 255}, 0}};
    for (const auto &c : rough_cases)
        EXPECT_EQ(KmxAxesLibIsValidRoughOffset(c.steps), c.valid)
            << int(c.steps[0]) << "," << int(c.steps[1]) << "," << int(c.steps[2]);
    EXPECT_EQ(KmxAxesLibIsValidMsOffset(nullptr), 0);
    EXPECT_EQ(KmxAxesLibIsValidRoughOffset(nullptr), 0);
}

TEST(GravityOffset, IsTheDifferenceFromTheIdealRestingSample) {
    const struct {
        KmxAxesData resting, offset;
    } cases[] = {{{12, -7, -4100}, {12, -7, -4}}, {{0, 0, INT32_MAX}, {0, 0, INT32_MIN + 4095}}};  // the latter wraps
    for (const auto &c : cases) {
        KmxAxesData out{};
        EXPECT_EQ(KmxAxesGsCalibGetGsOffset(&c.resting, &out), 0);
        EXPECT_EQ(kmxc_test::xyz(out), kmxc_test::xyz(c.offset));
    }
}

}  // namespace
